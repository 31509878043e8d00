#include "security/sha256.h"

#include "security/internal/block_feed.h"
#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

namespace {

constexpr uint32_t k256[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline uint32_t big_sigma0(uint32_t x) { return rotr32(x, 2) ^ rotr32(x, 13) ^ rotr32(x, 22); }
inline uint32_t big_sigma1(uint32_t x) { return rotr32(x, 6) ^ rotr32(x, 11) ^ rotr32(x, 25); }
inline uint32_t small_sigma0(uint32_t x) { return rotr32(x, 7) ^ rotr32(x, 18) ^ (x >> 3); }
inline uint32_t small_sigma1(uint32_t x) { return rotr32(x, 17) ^ rotr32(x, 19) ^ (x >> 10); }

// One round with the roles of the eight variables passed in, so that eight calls in a
// row cover a full rotation and no variable is ever copied.
#define SHA256_ROUND(a, b, c, d, e, f, g, h, i, wi)                       \
  {                                                                       \
    uint32_t t1 = h + big_sigma1(e) + (g ^ (e & (f ^ g))) + k256[i] + (wi); \
    uint32_t t2 = big_sigma0(a) + ((a & b) | (c & (a | b)));              \
    d += t1;                                                              \
    h = t1 + t2;                                                          \
  }
#define SHA256_W(i)                                                                   \
  (w[(i) & 15] += small_sigma1(w[((i) + 14) & 15]) + w[((i) + 9) & 15] + \
                  small_sigma0(w[((i) + 1) & 15]))
#define SHA256_EIGHT(i, W)                                \
  SHA256_ROUND(a, b, c, d, e, f, g, h, (i) + 0, W((i) + 0)) \
  SHA256_ROUND(h, a, b, c, d, e, f, g, (i) + 1, W((i) + 1)) \
  SHA256_ROUND(g, h, a, b, c, d, e, f, (i) + 2, W((i) + 2)) \
  SHA256_ROUND(f, g, h, a, b, c, d, e, (i) + 3, W((i) + 3)) \
  SHA256_ROUND(e, f, g, h, a, b, c, d, (i) + 4, W((i) + 4)) \
  SHA256_ROUND(d, e, f, g, h, a, b, c, (i) + 5, W((i) + 5)) \
  SHA256_ROUND(c, d, e, f, g, h, a, b, (i) + 6, W((i) + 6)) \
  SHA256_ROUND(b, c, d, e, f, g, h, a, (i) + 7, W((i) + 7))
#define SHA256_PLAIN(i) w[i]

void sha256_blocks(uint32_t* state, const uint8_t* p, size_t blocks) {
  uint32_t w[16];
  while (blocks--) {
    for (int i = 0; i < 16; i++) w[i] = load32_be(p + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    SHA256_EIGHT(0, SHA256_PLAIN)
    SHA256_EIGHT(8, SHA256_PLAIN)
    SHA256_EIGHT(16, SHA256_W)
    SHA256_EIGHT(24, SHA256_W)
    SHA256_EIGHT(32, SHA256_W)
    SHA256_EIGHT(40, SHA256_W)
    SHA256_EIGHT(48, SHA256_W)
    SHA256_EIGHT(56, SHA256_W)
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
    p += 64;
  }
}

}  // namespace

void Sha256::init() {
  static constexpr uint32_t iv[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                     0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::memcpy(state_, iv, sizeof state_);
  count_ = 0;
}

void Sha256::update(const uint8_t* data, size_t n) {
  feed_blocks(sha256_blocks, state_, buffer_, count_, data, n);
}

void Sha256::update(const String& data) { update(string_bytes(data), string_size(data)); }

void Sha256::final(uint8_t* out) {
  pad_blocks(sha256_blocks, state_, buffer_, count_, false);
  for (int i = 0; i < 8; i++) store32_be(out + 4 * i, state_[i]);
  wipe(state_, sizeof state_);
  wipe(buffer_, sizeof buffer_);
}

String Sha256::final() {
  uint8_t out[digest_size];
  final(out);
  return String(out, digest_size);
}

void sha256(const uint8_t* data, size_t n, uint8_t* out) {
  Sha256 h;
  h.update(data, n);
  h.final(out);
}

String sha256(const String& data) {
  Sha256 h;
  h.update(data);
  return h.final();
}
