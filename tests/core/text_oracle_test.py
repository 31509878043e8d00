#!/usr/bin/python3
"""Compares the text escapes, UTF-8 validation, base64 and case mapping of the daemon
with independent implementations on random inputs: Python's json, xml.sax.saxutils,
urllib.parse, strict UTF-8 decoding, GNU base64 and Unicode's UnicodeData.txt."""
import base64
import json
import os
import random
import struct
import subprocess
import sys
import urllib.parse
from xml.sax.saxutils import escape

DRIVER = sys.argv[1]
UNICODE_DATA = "/usr/share/unicode/UnicodeData.txt"
rng = random.Random(20261122)
failures = 0


def run(op, inputs):
    data = b"".join(struct.pack("<I", len(x)) + x for x in inputs)
    out = subprocess.run([DRIVER, op], input=data, stdout=subprocess.PIPE, check=True).stdout
    results, i = [], 0
    while i < len(out):
        (n,) = struct.unpack_from("<I", out, i)
        results.append(out[i + 4:i + 4 + n])
        i += 4 + n
    assert len(results) == len(inputs), (op, len(results), len(inputs))
    return results


def check(op, inputs, expect):
    global failures
    for x, got in zip(inputs, run(op, inputs)):
        want = expect(x)
        if got != want:
            failures += 1
            if failures < 20:
                print(f"FAIL {op}: input {x!r}\n  got  {got!r}\n  want {want!r}")


def random_text(valid):
    """Mixed ASCII, controls and multi-byte characters; invalid bytes when not valid."""
    parts = []
    for _ in range(rng.randint(0, 40)):
        k = rng.random()
        if k < 0.4:
            parts.append(bytes([rng.randint(32, 127)]))
        elif k < 0.5:
            parts.append(bytes([rng.randint(0, 31)]))
        elif k < 0.9:
            while True:
                cp = rng.choice([rng.randint(0x80, 0x7FF), rng.randint(0x800, 0xFFFF),
                                 rng.randint(0x10000, 0x10FFFF)])
                if not 0xD800 <= cp <= 0xDFFF:
                    break
            parts.append(chr(cp).encode())
        elif not valid:
            parts.append(bytes([rng.randint(0x80, 0xFF)]))
    return b"".join(parts)


def json_units(x):
    """Values that break UTF-8: first byte of each 16-bit unit, escaped."""
    out = []
    for c in x[0::2]:
        if c == 0x22:
            out.append('\\"')
        elif c == 0x5C:
            out.append("\\\\")
        elif c in (8, 12, 10, 13, 9, 11):
            out.append({8: "\\b", 12: "\\f", 10: "\\n", 13: "\\r", 9: "\\t", 11: "\\v"}[c])
        elif 32 <= c <= 126:
            out.append(chr(c))
        else:
            out.append("\\u%04x" % c)
    return ('"' + "".join(out) + '"').encode()


def json_expect(x):
    try:
        s = x.decode("utf-8", "strict")
    except UnicodeDecodeError:
        return json_units(x)
    return json.dumps(s, ensure_ascii=False).encode()


def url_expect(x):
    q = urllib.parse.quote(x, safe="")
    q = q.replace("~", "%7E")
    out, i = [], 0
    while i < len(q):
        if q[i] == "%":
            out.append(q[i:i + 3].lower())
            i += 3
        else:
            out.append(q[i])
            i += 1
    return "".join(out).encode()


def base64_expect(x):
    gnu = subprocess.run(["base64", "-w", "72"], input=x, stdout=subprocess.PIPE, check=True).stdout
    want = gnu.replace(b"\n", b"\r\n")
    # GNU ends every output with a line break; ours only after a full line.
    if want.endswith(b"\r\n") and (len(want.rstrip(b"\r\n").split(b"\r\n")[-1]) != 72):
        want = want[:-2]
    return want


def case_tables():
    lower, upper = {}, {}
    for line in open(UNICODE_DATA, encoding="ascii"):
        f = line.split(";")
        cp = int(f[0], 16)
        if cp > 0xFFFF:
            continue
        if f[12] and int(f[12], 16) <= 0xFFFF:
            upper[cp] = int(f[12], 16)
        if f[13] and int(f[13], 16) <= 0xFFFF:
            lower[cp] = int(f[13], 16)
    return lower, upper


valid = [random_text(True) for _ in range(3000)]
mixed = [random_text(False) for _ in range(3000)]
check("json", valid + mixed, json_expect)
check("xml", valid + mixed, lambda x: escape(x.decode("latin-1"), {"'": "&apos;", '"': "&quot;"}).encode("latin-1"))
check("url", valid + mixed, url_expect)


def _decodes(x):
    try:
        x.decode("utf-8", "strict")
        return True
    except UnicodeDecodeError:
        return False


check("utf8", valid + mixed + [b"\xed\xa0\x80", b"\xc0\x80", b"\xf4\x90\x80\x80"],
      lambda x: b"1" if _decodes(x) else b"0")
blobs = [os.urandom(rng.randint(0, 400)) for _ in range(200)] + [b"a" * n for n in range(0, 120)]
check("base64", blobs, base64_expect)
encoded = {base64.encodebytes(b): b for b in blobs}
check("unbase64", list(encoded), lambda x: encoded[x])
if os.path.exists(UNICODE_DATA):
    lower, upper = case_tables()
    bmp = [cp for cp in range(0x10000) if not 0xD800 <= cp <= 0xDFFF]
    texts = ["".join(chr(rng.choice(bmp)) for _ in range(rng.randint(0, 30))) for _ in range(3000)]
    texts += ["".join(chr(cp) for cp in sorted(lower)[i:i + 50]) for i in range(0, len(lower), 50)]
    texts += ["".join(chr(cp) for cp in sorted(upper)[i:i + 50]) for i in range(0, len(upper), 50)]
    inputs = [t.encode() for t in texts]
    check("lower", inputs, lambda x: "".join(chr(lower.get(ord(c), ord(c))) for c in x.decode()).encode())
    check("upper", inputs, lambda x: "".join(chr(upper.get(ord(c), ord(c))) for c in x.decode()).encode())
else:
    print("SKIP case mapping: no", UNICODE_DATA)

print("text oracle: %d failures" % failures)
sys.exit(1 if failures else 0)
