#include "security/internal/aes_ni.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "security/internal/bytes.h"

#define AES_NI_TARGET __attribute__((target("aes,sse4.1")))

namespace security_internal {

namespace {

AES_NI_TARGET inline __m128i load(const uint8_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
AES_NI_TARGET inline void store(uint8_t* p, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

// The round loops are unrolled for a fixed number of rounds and eight blocks side by
// side, so that the states stay in registers and the AES unit's latency is hidden.
template <int Rounds, bool Decrypt>
AES_NI_TARGET inline __m128i crypt1(const uint8_t (*keys)[16], __m128i x) {
  x = _mm_xor_si128(x, load(keys[0]));
#pragma GCC unroll 14
  for (int r = 1; r < Rounds; r++)
    x = Decrypt ? _mm_aesdec_si128(x, load(keys[r])) : _mm_aesenc_si128(x, load(keys[r]));
  return Decrypt ? _mm_aesdeclast_si128(x, load(keys[Rounds]))
                 : _mm_aesenclast_si128(x, load(keys[Rounds]));
}

template <int Rounds, bool Decrypt>
AES_NI_TARGET inline void crypt8(const uint8_t (*keys)[16], __m128i* x) {
  __m128i key = load(keys[0]);
#pragma GCC unroll 8
  for (int i = 0; i < 8; i++) x[i] = _mm_xor_si128(x[i], key);
#pragma GCC unroll 14
  for (int r = 1; r < Rounds; r++) {
    key = load(keys[r]);
#pragma GCC unroll 8
    for (int i = 0; i < 8; i++)
      x[i] = Decrypt ? _mm_aesdec_si128(x[i], key) : _mm_aesenc_si128(x[i], key);
  }
  key = load(keys[Rounds]);
#pragma GCC unroll 8
  for (int i = 0; i < 8; i++)
    x[i] = Decrypt ? _mm_aesdeclast_si128(x[i], key) : _mm_aesenclast_si128(x[i], key);
}

template <int Rounds, bool Decrypt>
AES_NI_TARGET void ecb(const AesNiKey& k, const uint8_t* in, uint8_t* out, size_t blocks) {
  const uint8_t(*keys)[16] = Decrypt ? k.dec : k.enc;
  for (; blocks >= 8; blocks -= 8, in += 128, out += 128) {
    __m128i x[8];
#pragma GCC unroll 8
    for (int i = 0; i < 8; i++) x[i] = load(in + 16 * i);
    crypt8<Rounds, Decrypt>(keys, x);
#pragma GCC unroll 8
    for (int i = 0; i < 8; i++) store(out + 16 * i, x[i]);
  }
  for (; blocks > 0; blocks--, in += 16, out += 16)
    store(out, crypt1<Rounds, Decrypt>(keys, load(in)));
}

// The counter is kept byte-reversed, as a little-endian 128-bit number, so that the next
// eight values are 64-bit additions; a chunk whose low half would wrap goes the slow way.
template <int Rounds>
AES_NI_TARGET void ctr(const AesNiKey& k, uint8_t counter[16], const uint8_t* in, uint8_t* out,
                       size_t blocks) {
  const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  __m128i ctr = _mm_shuffle_epi8(load(counter), reverse);
  while (blocks >= 8) {
    uint64_t low = static_cast<uint64_t>(_mm_cvtsi128_si64(ctr));
    if (low > ~uint64_t{0} - 8) break;
    __m128i x[8];
#pragma GCC unroll 8
    for (int i = 0; i < 8; i++)
      x[i] = _mm_shuffle_epi8(_mm_add_epi64(ctr, _mm_set_epi64x(0, i)), reverse);
    ctr = _mm_add_epi64(ctr, _mm_set_epi64x(0, 8));
    crypt8<Rounds, false>(k.enc, x);
#pragma GCC unroll 8
    for (int i = 0; i < 8; i++) store(out + 16 * i, _mm_xor_si128(x[i], load(in + 16 * i)));
    in += 128;
    out += 128;
    blocks -= 8;
  }
  store(counter, _mm_shuffle_epi8(ctr, reverse));
  for (; blocks > 0; blocks--, in += 16, out += 16) {
    store(out, _mm_xor_si128(crypt1<Rounds, false>(k.enc, load(counter)), load(in)));
    counter_increment(counter);
  }
}

template <int Rounds>
AES_NI_TARGET void cbc_encrypt(const AesNiKey& k, uint8_t iv[16], const uint8_t* in,
                               uint8_t* out, size_t blocks) {
  __m128i chain = load(iv);
  for (; blocks > 0; blocks--, in += 16, out += 16) {
    chain = crypt1<Rounds, false>(k.enc, _mm_xor_si128(chain, load(in)));
    store(out, chain);
  }
  store(iv, chain);
}

template <int Rounds>
AES_NI_TARGET void cbc_decrypt(const AesNiKey& k, uint8_t iv[16], const uint8_t* in,
                               uint8_t* out, size_t blocks) {
  __m128i chain = load(iv);
  for (; blocks >= 8; blocks -= 8, in += 128, out += 128) {
    __m128i c[8], x[8];
#pragma GCC unroll 8
    for (int i = 0; i < 8; i++) x[i] = c[i] = load(in + 16 * i);
    crypt8<Rounds, true>(k.dec, x);
    store(out, _mm_xor_si128(x[0], chain));
#pragma GCC unroll 8
    for (int i = 1; i < 8; i++) store(out + 16 * i, _mm_xor_si128(x[i], c[i - 1]));
    chain = c[7];
  }
  for (; blocks > 0; blocks--, in += 16, out += 16) {
    __m128i c = load(in);
    store(out, _mm_xor_si128(crypt1<Rounds, true>(k.dec, c), chain));
    chain = c;
  }
  store(iv, chain);
}

}  // namespace

bool aes_ni_available() {
  static const bool yes = __builtin_cpu_supports("aes") && __builtin_cpu_supports("sse4.1");
  return yes;
}

AES_NI_TARGET void aes_ni_set_key(AesNiKey& k, const uint8_t bytes[aes_max_rounds + 1][16],
                                  int rounds) {
  k.rounds = rounds;
  for (int r = 0; r <= rounds; r++) std::memcpy(k.enc[r], bytes[r], 16);
  std::memcpy(k.dec[0], bytes[rounds], 16);
  for (int r = 1; r < rounds; r++) store(k.dec[r], _mm_aesimc_si128(load(bytes[rounds - r])));
  std::memcpy(k.dec[rounds], bytes[0], 16);
}

void aes_ni_encrypt(const AesNiKey& k, const uint8_t* in, uint8_t* out, size_t blocks) {
  if (k.rounds == 10)
    ecb<10, false>(k, in, out, blocks);
  else
    ecb<14, false>(k, in, out, blocks);
}

void aes_ni_decrypt(const AesNiKey& k, const uint8_t* in, uint8_t* out, size_t blocks) {
  if (k.rounds == 10)
    ecb<10, true>(k, in, out, blocks);
  else
    ecb<14, true>(k, in, out, blocks);
}

void aes_ni_ctr(const AesNiKey& k, uint8_t counter[16], const uint8_t* in, uint8_t* out,
                size_t blocks) {
  if (k.rounds == 10)
    ctr<10>(k, counter, in, out, blocks);
  else
    ctr<14>(k, counter, in, out, blocks);
}

void aes_ni_cbc_encrypt(const AesNiKey& k, uint8_t iv[16], const uint8_t* in, uint8_t* out,
                        size_t blocks) {
  if (k.rounds == 10)
    cbc_encrypt<10>(k, iv, in, out, blocks);
  else
    cbc_encrypt<14>(k, iv, in, out, blocks);
}

void aes_ni_cbc_decrypt(const AesNiKey& k, uint8_t iv[16], const uint8_t* in, uint8_t* out,
                        size_t blocks) {
  if (k.rounds == 10)
    cbc_decrypt<10>(k, iv, in, out, blocks);
  else
    cbc_decrypt<14>(k, iv, in, out, blocks);
}

}  // namespace security_internal

#else  // no x86: the portable code is the only one

namespace security_internal {

bool aes_ni_available() { return false; }
void aes_ni_set_key(AesNiKey&, const uint8_t[aes_max_rounds + 1][16], int) {}
void aes_ni_encrypt(const AesNiKey&, const uint8_t*, uint8_t*, size_t) {}
void aes_ni_decrypt(const AesNiKey&, const uint8_t*, uint8_t*, size_t) {}
void aes_ni_ctr(const AesNiKey&, uint8_t[16], const uint8_t*, uint8_t*, size_t) {}
void aes_ni_cbc_encrypt(const AesNiKey&, uint8_t[16], const uint8_t*, uint8_t*, size_t) {}
void aes_ni_cbc_decrypt(const AesNiKey&, uint8_t[16], const uint8_t*, uint8_t*, size_t) {}

}  // namespace security_internal

#endif
