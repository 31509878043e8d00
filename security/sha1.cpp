#include "security/sha1.h"

#include "security/internal/block_feed.h"
#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

namespace {

// Rounds are unrolled five at a time so that the working variables never move; the
// message schedule lives in a ring of 16 words.
#define SHA1_W(i) \
  (w[(i) & 15] = rotl32(w[((i) + 13) & 15] ^ w[((i) + 8) & 15] ^ w[((i) + 2) & 15] ^ w[(i) & 15], 1))
#define SHA1_R0(v, x, y, z, u, i) \
  u += ((x & (y ^ z)) ^ z) + w[i] + 0x5a827999 + rotl32(v, 5); x = rotl32(x, 30);
#define SHA1_R1(v, x, y, z, u, i) \
  u += ((x & (y ^ z)) ^ z) + SHA1_W(i) + 0x5a827999 + rotl32(v, 5); x = rotl32(x, 30);
#define SHA1_R2(v, x, y, z, u, i) \
  u += (x ^ y ^ z) + SHA1_W(i) + 0x6ed9eba1 + rotl32(v, 5); x = rotl32(x, 30);
#define SHA1_R3(v, x, y, z, u, i) \
  u += (((x | y) & z) | (x & y)) + SHA1_W(i) + 0x8f1bbcdc + rotl32(v, 5); x = rotl32(x, 30);
#define SHA1_R4(v, x, y, z, u, i) \
  u += (x ^ y ^ z) + SHA1_W(i) + 0xca62c1d6 + rotl32(v, 5); x = rotl32(x, 30);
#define SHA1_FIVE(R, i)         \
  R(a, b, c, d, e, (i) + 0)     \
  R(e, a, b, c, d, (i) + 1)     \
  R(d, e, a, b, c, (i) + 2)     \
  R(c, d, e, a, b, (i) + 3)     \
  R(b, c, d, e, a, (i) + 4)

void sha1_blocks(uint32_t* state, const uint8_t* p, size_t blocks) {
  uint32_t w[16];
  while (blocks--) {
    for (int i = 0; i < 16; i++) w[i] = load32_be(p + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    SHA1_FIVE(SHA1_R0, 0)
    SHA1_FIVE(SHA1_R0, 5)
    SHA1_FIVE(SHA1_R0, 10)
    SHA1_R0(a, b, c, d, e, 15)
    SHA1_R1(e, a, b, c, d, 16)
    SHA1_R1(d, e, a, b, c, 17)
    SHA1_R1(c, d, e, a, b, 18)
    SHA1_R1(b, c, d, e, a, 19)
    SHA1_FIVE(SHA1_R2, 20)
    SHA1_FIVE(SHA1_R2, 25)
    SHA1_FIVE(SHA1_R2, 30)
    SHA1_FIVE(SHA1_R2, 35)
    SHA1_FIVE(SHA1_R3, 40)
    SHA1_FIVE(SHA1_R3, 45)
    SHA1_FIVE(SHA1_R3, 50)
    SHA1_FIVE(SHA1_R3, 55)
    SHA1_FIVE(SHA1_R4, 60)
    SHA1_FIVE(SHA1_R4, 65)
    SHA1_FIVE(SHA1_R4, 70)
    SHA1_FIVE(SHA1_R4, 75)
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    p += 64;
  }
}

}  // namespace

void Sha1::init() {
  state_[0] = 0x67452301;
  state_[1] = 0xefcdab89;
  state_[2] = 0x98badcfe;
  state_[3] = 0x10325476;
  state_[4] = 0xc3d2e1f0;
  count_ = 0;
}

void Sha1::update(const uint8_t* data, size_t n) {
  feed_blocks(sha1_blocks, state_, buffer_, count_, data, n);
}

void Sha1::update(const String& data) { update(string_bytes(data), string_size(data)); }

void Sha1::final(uint8_t* out) {
  pad_blocks(sha1_blocks, state_, buffer_, count_, false);
  for (int i = 0; i < 5; i++) store32_be(out + 4 * i, state_[i]);
  wipe(state_, sizeof state_);
  wipe(buffer_, sizeof buffer_);
}

String Sha1::final() {
  uint8_t out[digest_size];
  final(out);
  return String(out, digest_size);
}

void sha1(const uint8_t* data, size_t n, uint8_t* out) {
  Sha1 h;
  h.update(data, n);
  h.final(out);
}

String sha1(const String& data) {
  Sha1 h;
  h.update(data);
  return h.final();
}
