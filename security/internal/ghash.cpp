#include "security/internal/ghash.h"

#include "security/internal/bytes.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define GHASH_HAVE_PCLMUL 1
#endif

namespace security_internal {

namespace {

// Reverses the bits of each byte: GCM counts bits from the top of each byte.
inline uint64_t reverse_byte_bits(uint64_t x) {
  x = ((x >> 1) & 0x5555555555555555ull) | ((x & 0x5555555555555555ull) << 1);
  x = ((x >> 2) & 0x3333333333333333ull) | ((x & 0x3333333333333333ull) << 2);
  x = ((x >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((x & 0x0F0F0F0F0F0F0F0Full) << 4);
  return x;
}

// Carry-less 32x32 product with ordinary multiplications: each operand is split into four
// parts holding every fourth bit, so that the sums forming one product bit (at most eight
// terms) never carry into the next bit of the same part.
inline uint64_t clmul32(uint32_t a, uint32_t b) {
  const uint64_t a0 = a & 0x11111111u, a1 = a & 0x22222222u, a2 = a & 0x44444444u,
                 a3 = a & 0x88888888u;
  const uint64_t b0 = b & 0x11111111u, b1 = b & 0x22222222u, b2 = b & 0x44444444u,
                 b3 = b & 0x88888888u;
  uint64_t z0 = (a0 * b0) ^ (a1 * b3) ^ (a2 * b2) ^ (a3 * b1);
  uint64_t z1 = (a0 * b1) ^ (a1 * b0) ^ (a2 * b3) ^ (a3 * b2);
  uint64_t z2 = (a0 * b2) ^ (a1 * b1) ^ (a2 * b0) ^ (a3 * b3);
  uint64_t z3 = (a0 * b3) ^ (a1 * b2) ^ (a2 * b1) ^ (a3 * b0);
  return (z0 & 0x1111111111111111ull) | (z1 & 0x2222222222222222ull) |
         (z2 & 0x4444444444444444ull) | (z3 & 0x8888888888888888ull);
}

// 64x64 -> 128 by Karatsuba over 32-bit halves.
inline void clmul64(uint64_t a, uint64_t b, uint64_t& hi, uint64_t& lo) {
  uint32_t a0 = static_cast<uint32_t>(a), a1 = static_cast<uint32_t>(a >> 32);
  uint32_t b0 = static_cast<uint32_t>(b), b1 = static_cast<uint32_t>(b >> 32);
  uint64_t l = clmul32(a0, b0), h = clmul32(a1, b1);
  uint64_t m = clmul32(a0 ^ a1, b0 ^ b1) ^ l ^ h;
  lo = l ^ (m << 32);
  hi = h ^ (m >> 32);
}

// Folds c3..c0 (c3 highest) modulo x^128 + x^7 + x^2 + x + 1 into (hi, lo).
inline void reduce(uint64_t c3, uint64_t c2, uint64_t c1, uint64_t c0, uint64_t& hi,
                   uint64_t& lo) {
  // x^128 = x^7 + x^2 + x + 1: add (c3, c2) shifted by 0, 1, 2 and 7.
  uint64_t over = (c3 >> 63) ^ (c3 >> 62) ^ (c3 >> 57);
  uint64_t t1 = c3 ^ (c3 << 1 | c2 >> 63) ^ (c3 << 2 | c2 >> 62) ^ (c3 << 7 | c2 >> 57);
  uint64_t t0 = c2 ^ (c2 << 1) ^ (c2 << 2) ^ (c2 << 7);
  // The few bits pushed past x^127 fold once more and stay low.
  t0 ^= over ^ (over << 1) ^ (over << 2) ^ (over << 7);
  hi = c1 ^ t1;
  lo = c0 ^ t0;
}

// (ah, al) * (bh, bl) in the field, by Karatsuba over 64-bit halves.
inline void field_multiply(uint64_t ah, uint64_t al, uint64_t bh, uint64_t bl, uint64_t& hi,
                           uint64_t& lo) {
  uint64_t l1, l0, h1, h0, m1, m0;
  clmul64(al, bl, l1, l0);
  clmul64(ah, bh, h1, h0);
  clmul64(al ^ ah, bl ^ bh, m1, m0);
  m1 ^= l1 ^ h1;
  m0 ^= l0 ^ h0;
  reduce(h1, h0 ^ m1, l1 ^ m0, l0, hi, lo);
}

void ghash_portable(const GhashKey& k, uint64_t y[2], const uint8_t* data, size_t blocks) {
  uint64_t yh = y[0], yl = y[1];
  const uint64_t hh = k.hi, hl = k.lo;
  for (; blocks > 0; blocks--, data += 16) {
    uint64_t x[2];
    ghash_load(data, x);
    field_multiply(yh ^ x[0], yl ^ x[1], hh, hl, yh, yl);
  }
  y[0] = yh;
  y[1] = yl;
}

#ifdef GHASH_HAVE_PCLMUL
#define PCLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

PCLMUL_TARGET inline __m128i reverse_bits_in_bytes(__m128i x) {
  const __m128i nibble = _mm_set1_epi8(0x0F);
  // rev4(n) << 4 and rev4(n) for each nibble value n
  const __m128i high = _mm_setr_epi8(0x00, -128, 0x40, -64, 0x20, -96, 0x60, -32, 0x10, -112,
                                     0x50, -48, 0x30, -80, 0x70, -16);
  const __m128i low = _mm_setr_epi8(0x0, 0x8, 0x4, 0xC, 0x2, 0xA, 0x6, 0xE, 0x1, 0x9, 0x5, 0xD,
                                    0x3, 0xB, 0x7, 0xF);
  __m128i lo_n = _mm_and_si128(x, nibble);
  __m128i hi_n = _mm_and_si128(_mm_srli_epi16(x, 4), nibble);
  return _mm_or_si128(_mm_shuffle_epi8(high, lo_n), _mm_shuffle_epi8(low, hi_n));
}

PCLMUL_TARGET inline __m128i pair(const uint64_t v[2]) {
  return _mm_set_epi64x(static_cast<long long>(v[0]), static_cast<long long>(v[1]));
}

// 256-bit product (hi, lo) modulo x^128 + x^7 + x^2 + x + 1.
PCLMUL_TARGET inline __m128i reduce_pclmul(__m128i lo, __m128i hi) {
  const __m128i poly = _mm_set_epi64x(0, 0x87);
  __m128i f0 = _mm_clmulepi64_si128(hi, poly, 0x00);  // low word of hi * (x^7 + x^2 + x + 1)
  __m128i f1 = _mm_clmulepi64_si128(hi, poly, 0x01);  // high word, one word up
  lo = _mm_xor_si128(lo, f0);
  lo = _mm_xor_si128(lo, _mm_slli_si128(f1, 8));
  // The few bits pushed past x^127 fold once more and stay low.
  return _mm_xor_si128(lo, _mm_clmulepi64_si128(_mm_srli_si128(f1, 8), poly, 0x00));
}

// Four blocks share one reduction: y' = (y + X1) H^4 + X2 H^3 + X3 H^2 + X4 H. Karatsuba
// makes each product three carry-less multiplications.
PCLMUL_TARGET void ghash_pclmul(const GhashKey& k, uint64_t y[2], const uint8_t* data,
                                size_t blocks) {
  __m128i acc = pair(y);
  __m128i h[4], hx[4];
  for (int i = 0; i < 4; i++) {
    h[i] = pair(k.powers[i]);
    hx[i] = _mm_xor_si128(h[i], _mm_shuffle_epi32(h[i], 0x4E));
  }
  for (; blocks >= 4; blocks -= 4, data += 64) {
    __m128i lo = _mm_setzero_si128(), hi = _mm_setzero_si128(), mid = _mm_setzero_si128();
    for (int i = 0; i < 4; i++) {
      __m128i x = reverse_bits_in_bytes(
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * i)));
      if (i == 0) x = _mm_xor_si128(x, acc);
      __m128i xx = _mm_xor_si128(x, _mm_shuffle_epi32(x, 0x4E));
      lo = _mm_xor_si128(lo, _mm_clmulepi64_si128(x, h[3 - i], 0x00));
      hi = _mm_xor_si128(hi, _mm_clmulepi64_si128(x, h[3 - i], 0x11));
      mid = _mm_xor_si128(mid, _mm_clmulepi64_si128(xx, hx[3 - i], 0x00));
    }
    mid = _mm_xor_si128(mid, _mm_xor_si128(lo, hi));
    lo = _mm_xor_si128(lo, _mm_slli_si128(mid, 8));
    hi = _mm_xor_si128(hi, _mm_srli_si128(mid, 8));
    acc = reduce_pclmul(lo, hi);
  }
  for (; blocks > 0; blocks--, data += 16) {
    __m128i x = reverse_bits_in_bytes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data)));
    x = _mm_xor_si128(x, acc);
    __m128i xx = _mm_xor_si128(x, _mm_shuffle_epi32(x, 0x4E));
    __m128i lo = _mm_clmulepi64_si128(x, h[0], 0x00);
    __m128i hi = _mm_clmulepi64_si128(x, h[0], 0x11);
    __m128i mid = _mm_xor_si128(_mm_clmulepi64_si128(xx, hx[0], 0x00), _mm_xor_si128(lo, hi));
    lo = _mm_xor_si128(lo, _mm_slli_si128(mid, 8));
    hi = _mm_xor_si128(hi, _mm_srli_si128(mid, 8));
    acc = reduce_pclmul(lo, hi);
  }
  y[0] = static_cast<uint64_t>(_mm_extract_epi64(acc, 1));
  y[1] = static_cast<uint64_t>(_mm_cvtsi128_si64(acc));
}
#endif

}  // namespace

bool pclmul_available() {
#ifdef GHASH_HAVE_PCLMUL
  static const bool yes = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return yes;
#else
  return false;
#endif
}

void ghash_load(const uint8_t block[16], uint64_t v[2]) {
  v[1] = reverse_byte_bits(load64_le(block));
  v[0] = reverse_byte_bits(load64_le(block + 8));
}

void ghash_store(const uint64_t v[2], uint8_t block[16]) {
  store64_le(block, reverse_byte_bits(v[1]));
  store64_le(block + 8, reverse_byte_bits(v[0]));
}

void ghash_set_key(GhashKey& k, const uint8_t h_block[16], bool allow_pclmul) {
  uint64_t v[2];
  ghash_load(h_block, v);
  k.hi = v[0];
  k.lo = v[1];
  k.powers[0][0] = k.hi;
  k.powers[0][1] = k.lo;
  for (int i = 1; i < 4; i++)
    field_multiply(k.powers[i - 1][0], k.powers[i - 1][1], k.hi, k.lo, k.powers[i][0],
                   k.powers[i][1]);
  k.pclmul = allow_pclmul && pclmul_available();
}

void ghash_blocks(const GhashKey& k, uint64_t y[2], const uint8_t* data, size_t blocks) {
#ifdef GHASH_HAVE_PCLMUL
  if (k.pclmul) return ghash_pclmul(k, y, data, blocks);
#endif
  ghash_portable(k, y, data, blocks);
}

}  // namespace security_internal
