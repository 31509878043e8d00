// Bitsliced AES. Layout: a lane is one 64-bit word per bit plane k (eight words) holding
// bit k of every byte of four blocks; the byte of block b at row r, column c of the AES
// state sits at bit 16r + 4c + b. With that order a row of the state is a 16-bit field, so
// ShiftRows is a rotation of 4-bit groups inside each field and MixColumns reaches the
// next row by rotating the word by 16. The S-box is the circuit of aes_sbox_circuit.h
// (GF(2^8) inversion in a tower field, 146 logic operations per plane set), evaluated on
// all bytes of all blocks at once. There are no tables and no data-dependent branches or
// addresses anywhere, key schedule included.
//
// Two lanes are processed together as a GCC vector of two 64-bit words: one SSE2 register
// on x86-64 (part of the base instruction set), and plain pairs of words elsewhere.
#include "security/internal/aes_portable.h"

#include "security/internal/aes_sbox_circuit.h"
#include "security/internal/bytes.h"

namespace security_internal {
namespace {

typedef uint64_t Lane2 __attribute__((vector_size(16)));

template <class W>
inline W rotr(W x, int n) {
  return (x >> n) | (x << (64 - n));
}

inline uint64_t spread_bytes(uint32_t x) {
  uint64_t v = x;
  v = (v | (v << 16)) & 0x0000FFFF0000FFFFull;
  v = (v | (v << 8)) & 0x00FF00FF00FF00FFull;
  return v;
}

inline uint32_t gather_bytes(uint64_t v) {
  v &= 0x00FF00FF00FF00FFull;
  v = (v | (v >> 8)) & 0x0000FFFF0000FFFFull;
  v = v | (v >> 16);
  return static_cast<uint32_t>(v);
}

// Word j takes byte 2r + h from block j & 3, row r, column 2h + (j >> 2); the 8x8 bit
// transposition below then puts bit k of that byte at bit 8(2r + h) + j of plane k,
// which is 16r + 4c + b.
inline void load_lane(const uint8_t* blocks, uint64_t w[8]) {
  for (int j = 0; j < 8; j++) {
    const uint8_t* blk = blocks + 16 * (j & 3);
    int c = j >> 2;
    w[j] = spread_bytes(load32_le(blk + 4 * c)) | (spread_bytes(load32_le(blk + 4 * c + 8)) << 8);
  }
}

inline void store_lane(const uint64_t w[8], uint8_t* blocks) {
  for (int j = 0; j < 8; j++) {
    uint8_t* blk = blocks + 16 * (j & 3);
    int c = j >> 2;
    store32_le(blk + 4 * c, gather_bytes(w[j]));
    store32_le(blk + 4 * c + 8, gather_bytes(w[j] >> 8));
  }
}

template <class W>
inline void swapmove(W& a, W& b, uint64_t mask, int n) {
  W t = ((a >> n) ^ b) & mask;
  b ^= t;
  a ^= t << n;
}

// Transposes the 8x8 bit matrices formed by byte m of the eight words; its own inverse.
template <class W>
inline void transpose(W* q) {
  constexpr uint64_t m1 = 0x5555555555555555ull, m2 = 0x3333333333333333ull,
                     m4 = 0x0F0F0F0F0F0F0F0Full;
  swapmove(q[0], q[1], m1, 1);
  swapmove(q[2], q[3], m1, 1);
  swapmove(q[4], q[5], m1, 1);
  swapmove(q[6], q[7], m1, 1);
  swapmove(q[0], q[2], m2, 2);
  swapmove(q[1], q[3], m2, 2);
  swapmove(q[4], q[6], m2, 2);
  swapmove(q[5], q[7], m2, 2);
  swapmove(q[0], q[4], m4, 4);
  swapmove(q[1], q[5], m4, 4);
  swapmove(q[2], q[6], m4, 4);
  swapmove(q[3], q[7], m4, 4);
}

template <class W>
struct Lanes;

template <>
struct Lanes<uint64_t> {
  static void in(const uint8_t* p, uint64_t* q) {
    load_lane(p, q);
    transpose(q);
  }
  static void out(uint64_t* q, uint8_t* p) {
    transpose(q);
    store_lane(q, p);
  }
};

template <>
struct Lanes<Lane2> {
  static void in(const uint8_t* p, Lane2* q) {
    uint64_t a[8], b[8];
    load_lane(p, a);
    load_lane(p + 64, b);
    for (int k = 0; k < 8; k++) q[k] = Lane2{a[k], b[k]};
    transpose(q);
  }
  static void out(Lane2* q, uint8_t* p) {
    transpose(q);
    uint64_t a[8], b[8];
    for (int k = 0; k < 8; k++) {
      a[k] = q[k][0];
      b[k] = q[k][1];
    }
    store_lane(a, p);
    store_lane(b, p + 64);
  }
};

template <class W>
inline void add_round_key(W* q, const uint64_t* rk) {
  for (int k = 0; k < 8; k++) q[k] ^= rk[k];
}

// Row r keeps its 16-bit field; inside it, column c takes the value of column c + r.
template <class W>
inline W shift_rows(W x) {
  return (x & 0x000000000000FFFFull) | ((x >> 4) & 0x000000000FFF0000ull) |
         ((x << 12) & 0x00000000F0000000ull) | ((x >> 8) & 0x000000FF00000000ull) |
         ((x << 8) & 0x0000FF0000000000ull) | ((x << 4) & 0xFFF0000000000000ull) |
         ((x >> 12) & 0x000F000000000000ull);
}

template <class W>
inline W inv_shift_rows(W x) {
  return (x & 0x000000000000FFFFull) | ((x << 4) & 0x00000000FFF00000ull) |
         ((x >> 12) & 0x00000000000F0000ull) | ((x >> 8) & 0x000000FF00000000ull) |
         ((x << 8) & 0x0000FF0000000000ull) | ((x >> 4) & 0x0FFF000000000000ull) |
         ((x << 12) & 0xF000000000000000ull);
}

// Multiplication by x in GF(2^8) on planes: x^8 = x^4 + x^3 + x + 1.
template <class W>
inline void xtime(const W* t, W* out) {
  W hi = t[7];
  out[7] = t[6];
  out[6] = t[5];
  out[5] = t[4];
  out[4] = t[3] ^ hi;
  out[3] = t[2] ^ hi;
  out[2] = t[1];
  out[1] = t[0] ^ hi;
  out[0] = hi;
}

// Row r becomes 2 s[r] + 3 s[r+1] + s[r+2] + s[r+3] = 2 (s[r] + s[r+1]) + s[r+1] + (s[r+2] + s[r+3]).
template <class W>
inline void mix_columns(W* q) {
  W next[8], sum[8], twice[8];
  for (int k = 0; k < 8; k++) {
    next[k] = rotr(q[k], 16);
    sum[k] = q[k] ^ next[k];
  }
  xtime(sum, twice);
  for (int k = 0; k < 8; k++) q[k] = twice[k] ^ next[k] ^ rotr(sum[k], 32);
}

// InvMixColumns is MixColumns after adding 4 (s[r] + s[r+2]) to every row.
template <class W>
inline void inv_mix_columns(W* q) {
  W u[8], u2[8], u4[8];
  for (int k = 0; k < 8; k++) u[k] = q[k] ^ rotr(q[k], 32);
  xtime(u, u2);
  xtime(u2, u4);
  for (int k = 0; k < 8; k++) q[k] ^= u4[k];
  mix_columns(q);
}

template <class W>
void encrypt_planes(const AesPortableKey& key, W* q) {
  add_round_key(q, key.planes[0]);
  for (int r = 1; r < key.rounds; r++) {
    sbox_planes(q);
    for (int k = 0; k < 8; k++) q[k] = shift_rows(q[k]);
    mix_columns(q);
    add_round_key(q, key.planes[r]);
  }
  sbox_planes(q);
  for (int k = 0; k < 8; k++) q[k] = shift_rows(q[k]);
  add_round_key(q, key.planes[key.rounds]);
}

template <class W>
void decrypt_planes(const AesPortableKey& key, W* q) {
  add_round_key(q, key.planes[key.rounds]);
  for (int r = key.rounds - 1; r > 0; r--) {
    for (int k = 0; k < 8; k++) q[k] = inv_shift_rows(q[k]);
    inv_sbox_planes(q);
    add_round_key(q, key.planes[r]);
    inv_mix_columns(q);
  }
  for (int k = 0; k < 8; k++) q[k] = inv_shift_rows(q[k]);
  inv_sbox_planes(q);
  add_round_key(q, key.planes[0]);
}

// Runs up to Lanes<W>::blocks blocks through the cipher in place.
template <class W, bool decrypt>
void crypt_chunk(const AesPortableKey& key, uint8_t* blocks) {
  W q[8];
  Lanes<W>::in(blocks, q);
  if (decrypt)
    decrypt_planes(key, q);
  else
    encrypt_planes(key, q);
  Lanes<W>::out(q, blocks);
}

template <bool decrypt>
void crypt_blocks(const AesPortableKey& key, const uint8_t* in, uint8_t* out, size_t blocks) {
  uint8_t buf[128];
  while (blocks > 0) {
    size_t n = blocks < 8 ? blocks : 8;
    std::memcpy(buf, in, 16 * n);
    if (n <= 4)
      crypt_chunk<uint64_t, decrypt>(key, buf);
    else
      crypt_chunk<Lane2, decrypt>(key, buf);
    std::memcpy(out, buf, 16 * n);
    in += 16 * n;
    out += 16 * n;
    blocks -= n;
  }
  wipe(buf, sizeof buf);
}

uint32_t sub_word(uint32_t w) {
  uint32_t q[8];
  for (int k = 0; k < 8; k++) {
    q[k] = 0;
    for (int i = 0; i < 4; i++) q[k] |= ((w >> (8 * i + k)) & 1) << i;
  }
  sbox_planes(q);
  uint32_t r = 0;
  for (int k = 0; k < 8; k++)
    for (int i = 0; i < 4; i++) r |= ((q[k] >> i) & 1) << (8 * i + k);
  return r;
}

}  // namespace

int aes_expand_key(const uint8_t* key, size_t length, uint8_t bytes[aes_max_rounds + 1][16]) {
  if (length != 16 && length != 32) return 0;
  const int nk = static_cast<int>(length / 4);
  const int rounds = nk + 6;
  uint8_t* w = &bytes[0][0];
  std::memcpy(w, key, length);
  uint8_t rcon = 1;
  for (int i = nk; i < 4 * (rounds + 1); i++) {
    uint32_t t = load32_le(w + 4 * (i - 1));
    if (i % nk == 0) {
      t = sub_word(rotr32(t, 8)) ^ rcon;
      rcon = static_cast<uint8_t>((rcon << 1) ^ ((rcon >> 7) * 0x1b));
    } else if (nk > 6 && i % nk == 4) {
      t = sub_word(t);
    }
    store32_le(w + 4 * i, load32_le(w + 4 * (i - nk)) ^ t);
  }
  return rounds;
}

void aes_portable_set_key(AesPortableKey& k, const uint8_t bytes[aes_max_rounds + 1][16],
                          int rounds) {
  k.rounds = rounds;
  uint8_t four[64];
  for (int r = 0; r <= rounds; r++) {
    for (int b = 0; b < 4; b++) std::memcpy(four + 16 * b, bytes[r], 16);
    Lanes<uint64_t>::in(four, k.planes[r]);
  }
  wipe(four, sizeof four);
}

void aes_portable_encrypt(const AesPortableKey& k, const uint8_t* in, uint8_t* out,
                          size_t blocks) {
  crypt_blocks<false>(k, in, out, blocks);
}

void aes_portable_decrypt(const AesPortableKey& k, const uint8_t* in, uint8_t* out,
                          size_t blocks) {
  crypt_blocks<true>(k, in, out, blocks);
}

void aes_portable_ctr(const AesPortableKey& k, uint8_t counter[16], const uint8_t* in,
                      uint8_t* out, size_t blocks) {
  uint8_t buf[128];
  while (blocks > 0) {
    size_t n = blocks < 8 ? blocks : 8;
    for (size_t i = 0; i < n; i++) {
      std::memcpy(buf + 16 * i, counter, 16);
      counter_increment(counter);
    }
    if (n <= 4)
      crypt_chunk<uint64_t, false>(k, buf);
    else
      crypt_chunk<Lane2, false>(k, buf);
    xor_bytes(out, in, buf, 16 * n);
    in += 16 * n;
    out += 16 * n;
    blocks -= n;
  }
  wipe(buf, sizeof buf);
}

void aes_portable_cbc_encrypt(const AesPortableKey& k, uint8_t iv[16], const uint8_t* in,
                              uint8_t* out, size_t blocks) {
  uint8_t buf[64] = {};
  for (size_t i = 0; i < blocks; i++) {
    xor_bytes(buf, in + 16 * i, iv, 16);
    crypt_chunk<uint64_t, false>(k, buf);
    std::memcpy(iv, buf, 16);
    std::memcpy(out + 16 * i, buf, 16);
  }
  wipe(buf, sizeof buf);
}

void aes_portable_cbc_decrypt(const AesPortableKey& k, uint8_t iv[16], const uint8_t* in,
                              uint8_t* out, size_t blocks) {
  uint8_t buf[128], cipher[128];
  while (blocks > 0) {
    size_t n = blocks < 8 ? blocks : 8;
    std::memcpy(cipher, in, 16 * n);  // in and out may be the same buffer
    std::memcpy(buf, cipher, 16 * n);
    if (n <= 4)
      crypt_chunk<uint64_t, true>(k, buf);
    else
      crypt_chunk<Lane2, true>(k, buf);
    xor_bytes(out, buf, iv, 16);
    xor_bytes(out + 16, buf + 16, cipher, 16 * (n - 1));
    std::memcpy(iv, cipher + 16 * (n - 1), 16);
    in += 16 * n;
    out += 16 * n;
    blocks -= n;
  }
  wipe(buf, sizeof buf);
}

}  // namespace security_internal
