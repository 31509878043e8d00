#!/usr/bin/env python3
"""Runs crypto_bench and `openssl speed` one after the other and prints the ratios that
issue 3 asks for. OpenSSL's portable figures come from OPENSSL_ia32cap=0, which turns off
its use of AES-NI, SHA-NI, SSSE3, AVX and the rest.

Usage: bench/crypto_speed_compare.py [path/to/crypto_bench] [seconds per measurement]
"""
import json
import os
import subprocess
import sys

bench = sys.argv[1] if len(sys.argv) > 1 else "build/bench/crypto_bench"
seconds = sys.argv[2] if len(sys.argv) > 2 else "2"


def ours():
    out = subprocess.run([bench, "--benchmark_format=json", f"--benchmark_min_time={seconds}"],
                         check=True, capture_output=True, text=True).stdout
    result = {}
    for b in json.loads(out)["benchmarks"]:
        result[b["name"]] = (b.get("bytes_per_second", 0.0), b.get("items_per_second", 0.0))
    return result


def openssl(args, size, portable):
    env = dict(os.environ)
    if portable:
        env["OPENSSL_ia32cap"] = "0"
    out = subprocess.run(["openssl", "speed", "-mr", "-seconds", seconds, "-bytes", str(size)] + args,
                         check=True, capture_output=True, text=True, env=env).stdout
    for line in out.splitlines():
        if line.startswith("+F:"):
            return float(line.split(":")[3])
    raise RuntimeError("no result from openssl speed " + " ".join(args))


mine = ours()
rows = [
    # (what, our benchmark, openssl arguments, size, openssl portable?, goal)
    ("MD5 8 KiB vs portable", "BM_Md5_8KiB", ["md5"], 8192, True, 0.6),
    ("SHA-256 8 KiB vs portable", "BM_Sha256_8KiB", ["sha256"], 8192, True, 0.6),
    ("SHA-1 8 KiB vs portable", "BM_Sha1_8KiB", ["sha1"], 8192, True, None),
    ("SHA-512 8 KiB vs portable", "BM_Sha512_8KiB", ["sha512"], 8192, True, None),
    ("AES-128-CTR portable vs portable", "BM_Aes128Ctr_Portable_8KiB", ["-evp", "aes-128-ctr"], 8192, True, 0.8),
    ("AES-128-CTR AES-NI vs AES-NI", "BM_Aes128Ctr_Hardware_8KiB", ["-evp", "aes-128-ctr"], 8192, False, 0.5),
    ("AES-128-GCM portable vs portable", "BM_Aes128Gcm_Portable_8KiB", ["-evp", "aes-128-gcm"], 8192, True, None),
    ("AES-128-GCM AES-NI vs AES-NI", "BM_Aes128Gcm_Hardware_8KiB", ["-evp", "aes-128-gcm"], 8192, False, None),
    ("AES-256-CBC enc portable vs portable", "BM_Aes256CbcEncrypt_Portable_8KiB", ["-evp", "aes-256-cbc"], 8192, True, None),
    ("HMAC-SHA1 172 B vs native", "BM_HmacSha1_172B_KeyedOnce", ["-hmac", "sha1"], 172, False, None),
]
print(f"{'measurement':40} {'ours MB/s':>11} {'openssl MB/s':>13} {'ratio':>7}  goal")
for what, name, args, size, portable, goal in rows:
    if name not in mine or mine[name][0] == 0:
        print(f"{what:40} {'skipped':>11}")
        continue
    ours_bps = mine[name][0]
    theirs = openssl(args, size, portable)
    ratio = ours_bps / theirs
    mark = "" if goal is None else (f">= {goal}  " + ("ok" if ratio >= goal else "MISSED"))
    print(f"{what:40} {ours_bps / 1e6:11.1f} {theirs / 1e6:13.1f} {ratio:7.2f}  {mark}")
hm = mine.get("BM_HmacSha1_172B_KeyedOnce")
if hm:
    print(f"HMAC-SHA1 over 172-byte packets: {hm[1] / 1e6:.2f} million per second (goal >= 1)")
