#include "security/md5.h"

#include "security/internal/block_feed.h"
#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

namespace {

#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_G(x, y, z) ((y) ^ ((z) & ((x) ^ (y))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define MD5_STEP(f, a, b, c, d, m, k, s) \
  a += f(b, c, d) + (m) + (k);           \
  a = rotl32(a, s) + b;

void md5_blocks(uint32_t* state, const uint8_t* p, size_t blocks) {
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  while (blocks--) {
    uint32_t m[16];
    for (int i = 0; i < 16; i++) m[i] = load32_le(p + 4 * i);
    const uint32_t a0 = a, b0 = b, c0 = c, d0 = d;

    MD5_STEP(MD5_F, a, b, c, d, m[0], 0xd76aa478, 7)
    MD5_STEP(MD5_F, d, a, b, c, m[1], 0xe8c7b756, 12)
    MD5_STEP(MD5_F, c, d, a, b, m[2], 0x242070db, 17)
    MD5_STEP(MD5_F, b, c, d, a, m[3], 0xc1bdceee, 22)
    MD5_STEP(MD5_F, a, b, c, d, m[4], 0xf57c0faf, 7)
    MD5_STEP(MD5_F, d, a, b, c, m[5], 0x4787c62a, 12)
    MD5_STEP(MD5_F, c, d, a, b, m[6], 0xa8304613, 17)
    MD5_STEP(MD5_F, b, c, d, a, m[7], 0xfd469501, 22)
    MD5_STEP(MD5_F, a, b, c, d, m[8], 0x698098d8, 7)
    MD5_STEP(MD5_F, d, a, b, c, m[9], 0x8b44f7af, 12)
    MD5_STEP(MD5_F, c, d, a, b, m[10], 0xffff5bb1, 17)
    MD5_STEP(MD5_F, b, c, d, a, m[11], 0x895cd7be, 22)
    MD5_STEP(MD5_F, a, b, c, d, m[12], 0x6b901122, 7)
    MD5_STEP(MD5_F, d, a, b, c, m[13], 0xfd987193, 12)
    MD5_STEP(MD5_F, c, d, a, b, m[14], 0xa679438e, 17)
    MD5_STEP(MD5_F, b, c, d, a, m[15], 0x49b40821, 22)

    MD5_STEP(MD5_G, a, b, c, d, m[1], 0xf61e2562, 5)
    MD5_STEP(MD5_G, d, a, b, c, m[6], 0xc040b340, 9)
    MD5_STEP(MD5_G, c, d, a, b, m[11], 0x265e5a51, 14)
    MD5_STEP(MD5_G, b, c, d, a, m[0], 0xe9b6c7aa, 20)
    MD5_STEP(MD5_G, a, b, c, d, m[5], 0xd62f105d, 5)
    MD5_STEP(MD5_G, d, a, b, c, m[10], 0x02441453, 9)
    MD5_STEP(MD5_G, c, d, a, b, m[15], 0xd8a1e681, 14)
    MD5_STEP(MD5_G, b, c, d, a, m[4], 0xe7d3fbc8, 20)
    MD5_STEP(MD5_G, a, b, c, d, m[9], 0x21e1cde6, 5)
    MD5_STEP(MD5_G, d, a, b, c, m[14], 0xc33707d6, 9)
    MD5_STEP(MD5_G, c, d, a, b, m[3], 0xf4d50d87, 14)
    MD5_STEP(MD5_G, b, c, d, a, m[8], 0x455a14ed, 20)
    MD5_STEP(MD5_G, a, b, c, d, m[13], 0xa9e3e905, 5)
    MD5_STEP(MD5_G, d, a, b, c, m[2], 0xfcefa3f8, 9)
    MD5_STEP(MD5_G, c, d, a, b, m[7], 0x676f02d9, 14)
    MD5_STEP(MD5_G, b, c, d, a, m[12], 0x8d2a4c8a, 20)

    MD5_STEP(MD5_H, a, b, c, d, m[5], 0xfffa3942, 4)
    MD5_STEP(MD5_H, d, a, b, c, m[8], 0x8771f681, 11)
    MD5_STEP(MD5_H, c, d, a, b, m[11], 0x6d9d6122, 16)
    MD5_STEP(MD5_H, b, c, d, a, m[14], 0xfde5380c, 23)
    MD5_STEP(MD5_H, a, b, c, d, m[1], 0xa4beea44, 4)
    MD5_STEP(MD5_H, d, a, b, c, m[4], 0x4bdecfa9, 11)
    MD5_STEP(MD5_H, c, d, a, b, m[7], 0xf6bb4b60, 16)
    MD5_STEP(MD5_H, b, c, d, a, m[10], 0xbebfbc70, 23)
    MD5_STEP(MD5_H, a, b, c, d, m[13], 0x289b7ec6, 4)
    MD5_STEP(MD5_H, d, a, b, c, m[0], 0xeaa127fa, 11)
    MD5_STEP(MD5_H, c, d, a, b, m[3], 0xd4ef3085, 16)
    MD5_STEP(MD5_H, b, c, d, a, m[6], 0x04881d05, 23)
    MD5_STEP(MD5_H, a, b, c, d, m[9], 0xd9d4d039, 4)
    MD5_STEP(MD5_H, d, a, b, c, m[12], 0xe6db99e5, 11)
    MD5_STEP(MD5_H, c, d, a, b, m[15], 0x1fa27cf8, 16)
    MD5_STEP(MD5_H, b, c, d, a, m[2], 0xc4ac5665, 23)

    MD5_STEP(MD5_I, a, b, c, d, m[0], 0xf4292244, 6)
    MD5_STEP(MD5_I, d, a, b, c, m[7], 0x432aff97, 10)
    MD5_STEP(MD5_I, c, d, a, b, m[14], 0xab9423a7, 15)
    MD5_STEP(MD5_I, b, c, d, a, m[5], 0xfc93a039, 21)
    MD5_STEP(MD5_I, a, b, c, d, m[12], 0x655b59c3, 6)
    MD5_STEP(MD5_I, d, a, b, c, m[3], 0x8f0ccc92, 10)
    MD5_STEP(MD5_I, c, d, a, b, m[10], 0xffeff47d, 15)
    MD5_STEP(MD5_I, b, c, d, a, m[1], 0x85845dd1, 21)
    MD5_STEP(MD5_I, a, b, c, d, m[8], 0x6fa87e4f, 6)
    MD5_STEP(MD5_I, d, a, b, c, m[15], 0xfe2ce6e0, 10)
    MD5_STEP(MD5_I, c, d, a, b, m[6], 0xa3014314, 15)
    MD5_STEP(MD5_I, b, c, d, a, m[13], 0x4e0811a1, 21)
    MD5_STEP(MD5_I, a, b, c, d, m[4], 0xf7537e82, 6)
    MD5_STEP(MD5_I, d, a, b, c, m[11], 0xbd3af235, 10)
    MD5_STEP(MD5_I, c, d, a, b, m[2], 0x2ad7d2bb, 15)
    MD5_STEP(MD5_I, b, c, d, a, m[9], 0xeb86d391, 21)

    a += a0;
    b += b0;
    c += c0;
    d += d0;
    p += 64;
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
}

}  // namespace

void Md5::init() {
  state_[0] = 0x67452301;
  state_[1] = 0xefcdab89;
  state_[2] = 0x98badcfe;
  state_[3] = 0x10325476;
  count_ = 0;
}

void Md5::update(const uint8_t* data, size_t n) {
  feed_blocks(md5_blocks, state_, buffer_, count_, data, n);
}

void Md5::update(const String& data) { update(string_bytes(data), string_size(data)); }

void Md5::final(uint8_t* out) {
  pad_blocks(md5_blocks, state_, buffer_, count_, true);
  for (int i = 0; i < 4; i++) store32_le(out + 4 * i, state_[i]);
  wipe(state_, sizeof state_);
  wipe(buffer_, sizeof buffer_);
}

String Md5::final() {
  uint8_t out[digest_size];
  final(out);
  return String(out, digest_size);
}

void md5(const uint8_t* data, size_t n, uint8_t* out) {
  Md5 h;
  h.update(data, n);
  h.final(out);
}

String md5(const String& data) {
  Md5 h;
  h.update(data);
  return h.final();
}
