#!/usr/bin/env python3
"""An independent reader of the dictionary file, for the end-to-end test.

usage: dictionary_reader.py FILE SOURCE_FOLDER

Prints each record as "offset: name (size)" in file order, the way the daemon's
--show-dict does, and exits 1 if a record differs from the file of the same name in the
source folder or if a file of the folder has no record.
"""
import os
import sys
import zlib

# The byte table of the file format, written out here on purpose rather than imported, so
# that a change on either side shows.
TABLE = [50, 96, 110, 32, 204, 48, 50, 151, 21, 70, 250, 248, 246, 98, 14, 241, 232, 10, 247,
         125, 249, 135, 112, 5, 33, 126, 173, 87, 88, 145, 10, 163, 82, 242, 168, 1, 178, 110, 56,
         1, 217, 157, 70, 163, 77, 151, 116, 200, 158, 61, 233, 88, 185, 185, 111, 158, 148, 250,
         49, 174, 18, 177, 52, 56, 1, 13, 103, 188, 155, 133, 255, 109, 47, 165, 208, 138, 120,
         186, 202, 202, 152, 186, 73, 62, 86, 47, 214, 200, 25, 223, 49, 164, 104, 177, 255, 154,
         229, 58, 187, 72]


def main(path, folder):
    data = open(path, "rb").read()
    magic = data[:4]
    body = bytes(b ^ TABLE[(i + 4) % 100] for i, b in enumerate(data[4:]))
    if magic == b"QWD2":
        body = zlib.decompress(body)
    elif magic != b"QWDT":
        print("bad magic", magic)
        return 1
    pos, seen, ok = 0, set(), True
    while pos < len(body):
        start = pos
        n = body[pos]
        name = body[pos + 1:pos + 1 + n].decode()
        pos += 1 + n
        size = int.from_bytes(body[pos:pos + 3], "big")
        pos += 3
        content = body[pos:pos + size]
        pos += size
        sys.stdout.write("%d: %s (%d)\n" % (start, name, size))
        seen.add(name)
        if open(os.path.join(folder, name), "rb").read() != content:
            ok = False
    for root, _, files in os.walk(folder):
        for f in files:
            if os.path.relpath(os.path.join(root, f), folder).replace(os.sep, "/") not in seen:
                ok = False
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
