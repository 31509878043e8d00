#!/usr/bin/env python3
"""Generates aes_sbox_circuit.h: the AES S-box and its inverse as straight-line AND/XOR/NOT
circuits over bit planes, for the bitsliced (table-free, constant-time) AES of aes_portable.cpp.

Method: the inverse in GF(2^8) is computed in the tower field GF(((2^2)^2)^2) with polynomial
bases at every level and Karatsuba multiplication, so that it costs 36 ANDs; every linear
layer (change of basis, squarings, constant multiplications, Karatsuba sums, the affine map)
is a set of GF(2)-linear forms, which a greedy common-subexpression search (Paar's
algorithm) turns into XORs. All choices of the tower constants and of the isomorphism are
tried and the smallest circuit kept. The result is checked on all 256 inputs before it is
written. Run: python3 gen_sbox_circuit.py > aes_sbox_circuit.h
"""
import random
import sys

# ---- numeric arithmetic --------------------------------------------------------------------

def aes_mul(a, b):
    r = 0
    while b:
        if b & 1:
            r ^= a
        a <<= 1
        if a & 0x100:
            a ^= 0x11B
        b >>= 1
    return r

def aes_inv(a):
    if a == 0:
        return 0
    r = 1
    for _ in range(254):
        r = aes_mul(r, a)
    return r

def affine(x):
    r = 0
    for i in range(8):
        bit = ((x >> i) ^ (x >> ((i + 4) % 8)) ^ (x >> ((i + 5) % 8)) ^ (x >> ((i + 6) % 8))
               ^ (x >> ((i + 7) % 8))) & 1
        r |= bit << i
    return r

SBOX = [affine(aes_inv(x)) ^ 0x63 for x in range(256)]
INV_SBOX = [0] * 256
for x in range(256):
    INV_SBOX[SBOX[x]] = x


def gf4_mul(a, b):  # GF(4) = GF(2)[v]/(v^2+v+1), element = hi*v + lo
    a1, a0, b1, b0 = a >> 1, a & 1, b >> 1, b & 1
    p, q = a1 & b1, a0 & b0
    r = (a1 ^ a0) & (b1 ^ b0)
    return ((r ^ q) << 1) | (p ^ q)


class Tower:
    def __init__(self, mu, lam):
        self.mu, self.lam = mu, lam

    def mul16(self, a, b):  # GF(16) = GF(4)[z]/(z^2+z+mu)
        a1, a0, b1, b0 = a >> 2, a & 3, b >> 2, b & 3
        p, q = gf4_mul(a1, b1), gf4_mul(a0, b0)
        r = gf4_mul(a1 ^ a0, b1 ^ b0)
        return ((r ^ q) << 2) | (gf4_mul(self.mu, p) ^ q)

    def mul256(self, a, b):  # GF(256) = GF(16)[y]/(y^2+y+lam)
        a1, a0, b1, b0 = a >> 4, a & 15, b >> 4, b & 15
        p, q = self.mul16(a1, b1), self.mul16(a0, b0)
        r = self.mul16(a1 ^ a0, b1 ^ b0)
        return ((r ^ q) << 4) | (self.mul16(self.lam, p) ^ q)

    def inv256(self, a):
        r = 1
        for _ in range(254):
            r = self.mul256(r, a)
        return r if a else 0


def irreducible_quadratics():
    """(mu, lam, tower) for every irreducible choice of the tower constants."""
    out = []
    for mu in range(1, 4):
        if any(gf4_mul(z, z) ^ z ^ mu == 0 for z in range(4)):
            continue
        for lam in range(1, 16):
            t = Tower(mu, lam)
            if any(t.mul16(y, y) ^ y ^ lam == 0 for y in range(16)):
                continue
            out.append(t)
    return out


def isomorphisms(t):
    """Matrices (as lists of 8 column values) mapping the AES field into tower t."""
    out = []
    for beta in range(2, 256):
        # beta must be a root of x^8 + x^4 + x^3 + x + 1
        powers = [1]
        for _ in range(8):
            powers.append(t.mul256(powers[-1], beta))
        if powers[8] ^ powers[4] ^ powers[3] ^ powers[1] ^ powers[0] == 0:
            out.append(powers[:8])
    return out


def apply_cols(cols, x):
    r = 0
    for i in range(8):
        if (x >> i) & 1:
            r ^= cols[i]
    return r


def invert_cols(cols):
    inv = [0] * 8
    table = {apply_cols(cols, x): x for x in range(256)}
    for i in range(8):
        inv[i] = table[1 << i]
    return inv

# ---- circuits ------------------------------------------------------------------------------

class Circuit:
    """Signals 0..7 are the input planes. Linear forms are ints: bit k set = signal k."""

    def __init__(self, rng):
        self.ops = []  # (kind, a, b) for signals 8..
        self.n = 8
        self.rng = rng

    def new(self, kind, a, b=None):
        self.ops.append((kind, a, b))
        self.n += 1
        return self.n - 1

    def realize(self, forms):
        """Signals for the forms, sharing XORs greedily (Paar's algorithm)."""
        targets = [f for f in forms]
        assert all(f != 0 for f in targets), "constant zero form"
        while True:
            counts = {}
            for f in set(targets):
                bits = [k for k in range(f.bit_length()) if (f >> k) & 1]
                if len(bits) < 2:
                    continue
                for i in range(len(bits)):
                    for j in range(i + 1, len(bits)):
                        key = (bits[i], bits[j])
                        counts[key] = counts.get(key, 0) + 1
            if not counts:
                break
            best = max(counts.values())
            pairs = [k for k, v in counts.items() if v == best]
            a, b = self.rng.choice(sorted(pairs))
            s = self.new("xor", a, b)
            mask = (1 << a) | (1 << b)
            targets = [(f & ~mask) | (1 << s) if (f & mask) == mask else f for f in targets]
        return [f.bit_length() - 1 for f in targets]

    def AND(self, a, b):
        return self.new("and", a, b)

    def xors(self):
        return sum(1 for k, _, _ in self.ops if k == "xor")

    def ands(self):
        return sum(1 for k, _, _ in self.ops if k == "and")


# Symbolic values: a GF(4) value is (hi_form, lo_form); a GF(16) value is (GF4 hi, GF4 lo).
def linear16(fn, v):
    """Applies the GF(2)-linear map fn on GF(16) to a symbolic GF(16) value."""
    bits = [v[0][0], v[0][1], v[1][0], v[1][1]]  # value bits 3,2,1,0
    out = [0, 0, 0, 0]
    for k in range(4):
        img = fn(1 << (3 - k))
        for j in range(4):
            if (img >> (3 - j)) & 1:
                out[j] ^= bits[k]
    return ((out[0], out[1]), (out[2], out[3]))


def linear4(fn, v):
    bits = [v[0], v[1]]
    out = [0, 0]
    for k in range(2):
        img = fn(1 << (1 - k))
        for j in range(2):
            if (img >> (1 - j)) & 1:
                out[j] ^= bits[k]
    return (out[0], out[1])


def x4(a, b):
    return (a[0] ^ b[0], a[1] ^ b[1])


def x16(a, b):
    return (x4(a[0], b[0]), x4(a[1], b[1]))


def expand4(v):
    return [v[0], v[1], v[0] ^ v[1]]


def expand16(v):
    return expand4(v[0]) + expand4(v[1]) + expand4(x4(v[0], v[1]))


def mul4_signals(c, xs, ys):
    """xs, ys: realized signals [hi, lo, hi^lo]. Result as forms."""
    p = c.AND(xs[0], ys[0])
    q = c.AND(xs[1], ys[1])
    r = c.AND(xs[2], ys[2])
    return ((1 << r) ^ (1 << q), (1 << p) ^ (1 << q))


def mul16_signals(c, t, xs, ys):
    P = mul4_signals(c, xs[0:3], ys[0:3])
    Q = mul4_signals(c, xs[3:6], ys[3:6])
    R = mul4_signals(c, xs[6:9], ys[6:9])
    return (x4(R, Q), x4(linear4(lambda a: gf4_mul(t.mu, a), P), Q))


def build(t, m_in_cols, m_out_cols, rng):
    """Circuit for m_out(inverse(m_in(x))) with x in planes 0..7 (bit i = plane i)."""
    c = Circuit(rng)
    # Tower bits of the input as forms over the input planes.
    tb = [0] * 8
    for i in range(8):
        for j in range(8):
            if (m_in_cols[i] >> j) & 1:
                tb[j] ^= 1 << i
    a1 = ((tb[7], tb[6]), (tb[5], tb[4]))
    a0 = ((tb[3], tb[2]), (tb[1], tb[0]))
    sq = lambda v: t.mul16(v, v)
    L = x16(linear16(lambda v: t.mul16(t.lam, sq(v)), a1), linear16(sq, a0))
    s1 = expand16(a1) + expand16(a0) + expand16(x16(a0, a1)) + [L[0][0], L[0][1], L[1][0], L[1][1]]
    r1 = c.realize(s1)
    e_a1, e_a0, e_a01, Ls = r1[0:9], r1[9:18], r1[18:27], r1[27:31]
    P = mul16_signals(c, t, e_a1, e_a0)
    Lf = ((1 << Ls[0], 1 << Ls[1]), (1 << Ls[2], 1 << Ls[3]))
    N = x16(P, Lf)
    N1, N0 = N
    r2 = c.realize(expand4(N1) + expand4(N0) + expand4(x4(N0, N1)))
    e_n1, e_n0, e_n01 = r2[0:3], r2[3:6], r2[6:9]
    n1 = (1 << e_n1[0], 1 << e_n1[1])
    n0 = (1 << e_n0[0], 1 << e_n0[1])
    prod = mul4_signals(c, e_n1, e_n0)
    sq4 = lambda v: gf4_mul(v, v)
    norm = x4(x4(linear4(lambda v: gf4_mul(t.mu, sq4(v)), n1), prod), linear4(sq4, n0))
    ninv = linear4(sq4, norm)
    r3 = c.realize(expand4(ninv))
    hi = mul4_signals(c, e_n1, r3)
    lo = mul4_signals(c, e_n01, r3)
    r4 = c.realize(expand16((hi, lo)))
    o1 = mul16_signals(c, t, e_a1, r4)
    o0 = mul16_signals(c, t, e_a01, r4)
    ob = [o0[1][1], o0[1][0], o0[0][1], o0[0][0], o1[1][1], o1[1][0], o1[0][1], o1[0][0]]
    outs = [0] * 8
    for i in range(8):
        for j in range(8):
            if (m_out_cols[i] >> j) & 1:
                outs[j] ^= ob[i]
    return c, c.realize(outs)


def evaluate(c, outs, x, not_in, not_out):
    v = [((x ^ not_in) >> i) & 1 for i in range(8)]
    for kind, a, b in c.ops:
        v.append(v[a] & v[b] if kind == "and" else v[a] ^ v[b])
    r = 0
    for i, s in enumerate(outs):
        r |= v[s] << i
    return r ^ not_out


def search(direction, tries):
    best = None
    aff = [affine(1 << i) for i in range(8)]
    aff_inv = invert_cols(aff)
    for t in irreducible_quadratics():
        for iso in isomorphisms(t):
            iso_inv = invert_cols(iso)
            if direction == "forward":
                m_in = iso
                m_out = [apply_cols(aff, iso_inv[i]) for i in range(8)]
                ni, no, ref = 0, 0x63, SBOX
            else:
                m_in = [apply_cols(iso, aff_inv[i]) for i in range(8)]
                m_out = iso_inv
                ni, no, ref = 0x63, 0, INV_SBOX
            for seed in range(tries):
                c, outs = build(t, m_in, m_out, random.Random(seed))
                cost = c.xors() + c.ands()
                if best is None or cost < best[0]:
                    if all(evaluate(c, outs, x, ni, no) == ref[x] for x in range(256)):
                        best = (cost, c, outs, ni, no, t.mu, t.lam)
    return best


def emit(name, best):
    cost, c, outs, ni, no, mu, lam = best
    lines = []
    lines.append(f"// {c.ands()} AND, {c.xors()} XOR, {bin(ni).count('1') + bin(no).count('1')} NOT"
                 f" (tower constants mu={mu}, lambda={lam}).")
    lines.append("template <class W>")
    lines.append(f"inline void {name}(W* q) {{")
    ni_bits = [(ni >> i) & 1 for i in range(8)]
    for i in range(8):
        lines.append(f"  const W s{i} = {'~' if ni_bits[i] else ''}q[{i}];")
    used = set(outs)
    for kind, a, b in c.ops:
        used.add(a)
        used.add(b)
    for idx, (kind, a, b) in enumerate(c.ops):
        s = idx + 8
        op = "&" if kind == "and" else "^"
        lines.append(f"  const W s{s} = s{a} {op} s{b};")
    for i, s in enumerate(outs):
        neg = "~" if (no >> i) & 1 else ""
        lines.append(f"  q[{i}] = {neg}s{s};")
    lines.append("}")
    return "\n".join(lines)


def main():
    tries = int(sys.argv[1]) if len(sys.argv) > 1 else 20
    fwd = search("forward", tries)
    inv = search("inverse", tries)
    print("// Generated by security/internal/gen_sbox_circuit.py; do not edit. The AES S-box and")
    print("// its inverse as AND/XOR/NOT circuits over bit planes: q[i] holds bit i of every byte.")
    print("// Checked against the tables of FIPS 197 on all 256 inputs by the generator.")
    print("#pragma once")
    print()
    print("namespace security_internal {")
    print()
    print(emit("sbox_planes", fwd))
    print()
    print(emit("inv_sbox_planes", inv))
    print()
    print("}  // namespace security_internal")
    print(f"forward {fwd[0]} inverse {inv[0]}", file=sys.stderr)


if __name__ == "__main__":
    main()
