// GHASH, the polynomial hash of GCM (SP 800-38D), over GF(2^128) modulo
// x^128 + x^7 + x^2 + x + 1. Values are held with bit i of a 128-bit number (hi, lo) as the
// coefficient of x^i; GCM's own byte order (first byte's top bit is x^0) is converted at
// the edges. Two multipliers: carry-less multiplication from the processor (PCLMULQDQ),
// and a portable one built on integer multiplications with the product bits kept apart
// by masks, so that no step depends on the secret hash key through tables or branches.
#pragma once

#include <cstddef>
#include <cstdint>

namespace security_internal {

struct GhashKey {
  uint64_t hi, lo;         // H
  uint64_t powers[4][2];   // H^1..H^4 as (hi, lo), for four blocks per reduction
  bool pclmul;
};

bool pclmul_available();

void ghash_set_key(GhashKey& k, const uint8_t h_block[16], bool allow_pclmul);
// y = (y + X_i) * H for each 16-byte block X_i of data; y is (hi, lo) as above.
void ghash_blocks(const GhashKey& k, uint64_t y[2], const uint8_t* data, size_t blocks);
// GCM byte order to and from the (hi, lo) form.
void ghash_load(const uint8_t block[16], uint64_t v[2]);
void ghash_store(const uint64_t v[2], uint8_t block[16]);

}  // namespace security_internal
