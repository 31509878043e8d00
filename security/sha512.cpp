#include "security/sha512.h"

#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

namespace {

constexpr uint64_t k512[80] = {
    0x428a2f98d728ae22, 0x7137449123ef65cd, 0xb5c0fbcfec4d3b2f, 0xe9b5dba58189dbbc,
    0x3956c25bf348b538, 0x59f111f1b605d019, 0x923f82a4af194f9b, 0xab1c5ed5da6d8118,
    0xd807aa98a3030242, 0x12835b0145706fbe, 0x243185be4ee4b28c, 0x550c7dc3d5ffb4e2,
    0x72be5d74f27b896f, 0x80deb1fe3b1696b1, 0x9bdc06a725c71235, 0xc19bf174cf692694,
    0xe49b69c19ef14ad2, 0xefbe4786384f25e3, 0x0fc19dc68b8cd5b5, 0x240ca1cc77ac9c65,
    0x2de92c6f592b0275, 0x4a7484aa6ea6e483, 0x5cb0a9dcbd41fbd4, 0x76f988da831153b5,
    0x983e5152ee66dfab, 0xa831c66d2db43210, 0xb00327c898fb213f, 0xbf597fc7beef0ee4,
    0xc6e00bf33da88fc2, 0xd5a79147930aa725, 0x06ca6351e003826f, 0x142929670a0e6e70,
    0x27b70a8546d22ffc, 0x2e1b21385c26c926, 0x4d2c6dfc5ac42aed, 0x53380d139d95b3df,
    0x650a73548baf63de, 0x766a0abb3c77b2a8, 0x81c2c92e47edaee6, 0x92722c851482353b,
    0xa2bfe8a14cf10364, 0xa81a664bbc423001, 0xc24b8b70d0f89791, 0xc76c51a30654be30,
    0xd192e819d6ef5218, 0xd69906245565a910, 0xf40e35855771202a, 0x106aa07032bbd1b8,
    0x19a4c116b8d2d0c8, 0x1e376c085141ab53, 0x2748774cdf8eeb99, 0x34b0bcb5e19b48a8,
    0x391c0cb3c5c95a63, 0x4ed8aa4ae3418acb, 0x5b9cca4f7763e373, 0x682e6ff3d6b2b8a3,
    0x748f82ee5defb2fc, 0x78a5636f43172f60, 0x84c87814a1f0ab72, 0x8cc702081a6439ec,
    0x90befffa23631e28, 0xa4506cebde82bde9, 0xbef9a3f7b2c67915, 0xc67178f2e372532b,
    0xca273eceea26619c, 0xd186b8c721c0c207, 0xeada7dd6cde0eb1e, 0xf57d4f7fee6ed178,
    0x06f067aa72176fba, 0x0a637dc5a2c898a6, 0x113f9804bef90dae, 0x1b710b35131c471b,
    0x28db77f523047d84, 0x32caab7b40c72493, 0x3c9ebe0a15c9bebc, 0x431d67c49c100d4c,
    0x4cc5d4becb3e42b6, 0x597f299cfc657e2a, 0x5fcb6fab3ad6faec, 0x6c44198c4a475817};

inline uint64_t big_sigma0(uint64_t x) { return rotr64(x, 28) ^ rotr64(x, 34) ^ rotr64(x, 39); }
inline uint64_t big_sigma1(uint64_t x) { return rotr64(x, 14) ^ rotr64(x, 18) ^ rotr64(x, 41); }
inline uint64_t small_sigma0(uint64_t x) { return rotr64(x, 1) ^ rotr64(x, 8) ^ (x >> 7); }
inline uint64_t small_sigma1(uint64_t x) { return rotr64(x, 19) ^ rotr64(x, 61) ^ (x >> 6); }

#define SHA512_ROUND(a, b, c, d, e, f, g, h, i, wi)                       \
  {                                                                       \
    uint64_t t1 = h + big_sigma1(e) + (g ^ (e & (f ^ g))) + k512[i] + (wi); \
    uint64_t t2 = big_sigma0(a) + ((a & b) | (c & (a | b)));              \
    d += t1;                                                              \
    h = t1 + t2;                                                          \
  }
#define SHA512_W(i)                                                                   \
  (w[(i) & 15] += small_sigma1(w[((i) + 14) & 15]) + w[((i) + 9) & 15] + \
                  small_sigma0(w[((i) + 1) & 15]))
#define SHA512_EIGHT(i, W)                                \
  SHA512_ROUND(a, b, c, d, e, f, g, h, (i) + 0, W((i) + 0)) \
  SHA512_ROUND(h, a, b, c, d, e, f, g, (i) + 1, W((i) + 1)) \
  SHA512_ROUND(g, h, a, b, c, d, e, f, (i) + 2, W((i) + 2)) \
  SHA512_ROUND(f, g, h, a, b, c, d, e, (i) + 3, W((i) + 3)) \
  SHA512_ROUND(e, f, g, h, a, b, c, d, (i) + 4, W((i) + 4)) \
  SHA512_ROUND(d, e, f, g, h, a, b, c, (i) + 5, W((i) + 5)) \
  SHA512_ROUND(c, d, e, f, g, h, a, b, (i) + 6, W((i) + 6)) \
  SHA512_ROUND(b, c, d, e, f, g, h, a, (i) + 7, W((i) + 7))
#define SHA512_PLAIN(i) w[i]

void sha512_blocks(uint64_t* state, const uint8_t* p, size_t blocks) {
  uint64_t w[16];
  while (blocks--) {
    for (int i = 0; i < 16; i++) w[i] = load64_be(p + 8 * i);
    uint64_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint64_t e = state[4], f = state[5], g = state[6], h = state[7];
    SHA512_EIGHT(0, SHA512_PLAIN)
    SHA512_EIGHT(8, SHA512_PLAIN)
    for (int i = 16; i < 80; i += 16) {
      SHA512_EIGHT(i, SHA512_W)
      SHA512_EIGHT(i + 8, SHA512_W)
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
    p += 128;
  }
}

constexpr uint64_t iv512[8] = {0x6a09e667f3bcc908, 0xbb67ae8584caa73b, 0x3c6ef372fe94f82b,
                               0xa54ff53a5f1d36f1, 0x510e527fade682d1, 0x9b05688c2b3e6c1f,
                               0x1f83d9abfb41bd6b, 0x5be0cd19137e2179};
constexpr uint64_t iv384[8] = {0xcbbb9d5dc1059ed8, 0x629a292a367cd507, 0x9159015a3070dd17,
                               0x152fecd8f70e5939, 0x67332667ffc00b31, 0x8eb44a8768581511,
                               0xdb0c2e0d64f98fa7, 0x47b5481dbefa4fa4};

}  // namespace

void Sha512::start(const uint64_t* iv) {
  std::memcpy(state_, iv, sizeof state_);
  count_ = 0;
}

void Sha512::init() { start(iv512); }

void Sha512::update(const uint8_t* data, size_t n) {
  if (n == 0) return;
  size_t used = count_ % block_size;
  count_ += n;
  if (used) {
    size_t take = block_size - used < n ? block_size - used : n;
    std::memcpy(buffer_ + used, data, take);
    data += take;
    n -= take;
    if (used + take < block_size) return;
    sha512_blocks(state_, buffer_, 1);
  }
  if (n >= block_size) {
    sha512_blocks(state_, data, n / block_size);
    data += n / block_size * block_size;
    n %= block_size;
  }
  if (n) std::memcpy(buffer_, data, n);
}

void Sha512::update(const String& data) { update(string_bytes(data), string_size(data)); }

void Sha512::finish(uint8_t* out, int length) {
  size_t used = count_ % block_size;
  buffer_[used++] = 0x80;
  if (used > block_size - 16) {
    std::memset(buffer_ + used, 0, block_size - used);
    sha512_blocks(state_, buffer_, 1);
    used = 0;
  }
  std::memset(buffer_ + used, 0, block_size - 16 - used);
  store64_be(buffer_ + block_size - 16, count_ >> 61);
  store64_be(buffer_ + block_size - 8, count_ << 3);
  sha512_blocks(state_, buffer_, 1);
  for (int i = 0; i < length / 8; i++) store64_be(out + 8 * i, state_[i]);
  wipe(state_, sizeof state_);
  wipe(buffer_, sizeof buffer_);
}

void Sha512::final(uint8_t* out) { finish(out, digest_size); }

String Sha512::final() {
  uint8_t out[digest_size];
  final(out);
  return String(out, digest_size);
}

void Sha384::init() { start(iv384); }

void Sha384::final(uint8_t* out) { finish(out, digest_size); }

String Sha384::final() {
  uint8_t out[digest_size];
  final(out);
  return String(out, digest_size);
}

void sha512(const uint8_t* data, size_t n, uint8_t* out) {
  Sha512 h;
  h.update(data, n);
  h.final(out);
}

String sha512(const String& data) {
  Sha512 h;
  h.update(data);
  return h.final();
}

void sha384(const uint8_t* data, size_t n, uint8_t* out) {
  Sha384 h;
  h.update(data, n);
  h.final(out);
}

String sha384(const String& data) {
  Sha384 h;
  h.update(data);
  return h.final();
}
