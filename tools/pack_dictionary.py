#!/usr/bin/env python3
"""Builds the dictionary file (exchsrv.dat) from a folder.

Every file below the folder becomes one record named by its path relative to the folder
("admin/index.htm"). The records are: 1 byte name length, the name, 3 bytes big-endian
content length, the content. With --compress the records are one zlib stream ("QWD2"),
otherwise they stand as they are ("QWDT"). The body behind the 4-byte magic is XORed with
the daemon's 100-byte table, by file offset.

usage: pack_dictionary.py [--compress] FOLDER OUTPUT
"""
import os
import sys
import zlib

SCRAMBLE = bytes([
    0x32, 0x60, 0x6e, 0x20, 0xcc, 0x30, 0x32, 0x97, 0x15, 0x46, 0xfa, 0xf8, 0xf6, 0x62, 0x0e,
    0xf1, 0xe8, 0x0a, 0xf7, 0x7d, 0xf9, 0x87, 0x70, 0x05, 0x21, 0x7e, 0xad, 0x57, 0x58, 0x91,
    0x0a, 0xa3, 0x52, 0xf2, 0xa8, 0x01, 0xb2, 0x6e, 0x38, 0x01, 0xd9, 0x9d, 0x46, 0xa3, 0x4d,
    0x97, 0x74, 0xc8, 0x9e, 0x3d, 0xe9, 0x58, 0xb9, 0xb9, 0x6f, 0x9e, 0x94, 0xfa, 0x31, 0xae,
    0x12, 0xb1, 0x34, 0x38, 0x01, 0x0d, 0x67, 0xbc, 0x9b, 0x85, 0xff, 0x6d, 0x2f, 0xa5, 0xd0,
    0x8a, 0x78, 0xba, 0xca, 0xca, 0x98, 0xba, 0x49, 0x3e, 0x56, 0x2f, 0xd6, 0xc8, 0x19, 0xdf,
    0x31, 0xa4, 0x68, 0xb1, 0xff, 0x9a, 0xe5, 0x3a, 0xbb, 0x48])


def records(folder):
    out = bytearray()
    for root, dirs, files in os.walk(folder):
        dirs.sort()
        for name in sorted(files):
            path = os.path.join(root, name)
            rel = os.path.relpath(path, folder).replace(os.sep, "/").encode()
            if len(rel) > 255:
                raise SystemExit("name too long: %s" % rel.decode())
            with open(path, "rb") as f:
                content = f.read()
            if len(content) > 0xFFFFFF:
                raise SystemExit("file too large: %s" % rel.decode())
            out += bytes([len(rel)]) + rel + len(content).to_bytes(3, "big") + content
    return bytes(out)


def pack(folder, compress):
    body = records(folder)
    magic = b"QWDT"
    if compress:
        body = zlib.compress(body, 9)
        magic = b"QWD2"
    scrambled = bytes(b ^ SCRAMBLE[(i + 4) % 100] for i, b in enumerate(body))
    return magic + scrambled


def main(argv):
    compress = "--compress" in argv
    args = [a for a in argv if a != "--compress"]
    if len(args) != 2:
        sys.stderr.write(__doc__)
        return 2
    data = pack(args[0], compress)
    tmp = args[1] + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, args[1])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
