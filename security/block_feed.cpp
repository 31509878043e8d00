#include "security/internal/block_feed.h"

#include <cstring>

#include "security/internal/bytes.h"

namespace {
constexpr size_t block = 64;
using namespace security_internal;
}

void feed_blocks(Compress32 compress, uint32_t* state, uint8_t* buffer, uint64_t& count,
                 const uint8_t* data, size_t n) {
  if (n == 0) return;
  size_t used = count % block;
  count += n;
  if (used) {
    size_t take = block - used < n ? block - used : n;
    std::memcpy(buffer + used, data, take);
    data += take;
    n -= take;
    if (used + take < block) return;
    compress(state, buffer, 1);
  }
  if (n >= block) {
    compress(state, data, n / block);
    data += n / block * block;
    n %= block;
  }
  if (n) std::memcpy(buffer, data, n);
}

void pad_blocks(Compress32 compress, uint32_t* state, uint8_t* buffer, uint64_t count,
                bool little_endian) {
  uint64_t bits = count * 8;
  size_t used = count % block;
  buffer[used++] = 0x80;
  if (used > block - 8) {
    std::memset(buffer + used, 0, block - used);
    compress(state, buffer, 1);
    used = 0;
  }
  std::memset(buffer + used, 0, block - 8 - used);
  if (little_endian) store64_le(buffer + block - 8, bits);
  else store64_be(buffer + block - 8, bits);
  compress(state, buffer, 1);
}
