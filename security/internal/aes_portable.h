// The portable AES: bitsliced, so that no memory access depends on a key or data byte
// (no S-box tables, nothing for a cache-timing attack to observe). Eight blocks go through
// the rounds together in two 64-bit lanes; see aes_portable.cpp for the layout.
#pragma once

#include <cstddef>
#include <cstdint>

namespace security_internal {

constexpr int aes_max_rounds = 14;

// The key schedule of FIPS 197 in bytes: round key i is bytes[i]. Returns the number of
// rounds (10 or 14), or 0 for a key length other than 16 or 32. Constant-time.
int aes_expand_key(const uint8_t* key, size_t length, uint8_t bytes[aes_max_rounds + 1][16]);

struct AesPortableKey {
  int rounds;
  // Round key i as eight bit planes, repeated for the four blocks of a lane.
  uint64_t planes[aes_max_rounds + 1][8];
};

void aes_portable_set_key(AesPortableKey& k, const uint8_t bytes[aes_max_rounds + 1][16],
                          int rounds);
void aes_portable_encrypt(const AesPortableKey& k, const uint8_t* in, uint8_t* out,
                          size_t blocks);
void aes_portable_decrypt(const AesPortableKey& k, const uint8_t* in, uint8_t* out,
                          size_t blocks);
// Counter mode over whole blocks: the counter is a 128-bit big-endian number, used and
// then incremented once per block.
void aes_portable_ctr(const AesPortableKey& k, uint8_t counter[16], const uint8_t* in,
                      uint8_t* out, size_t blocks);
void aes_portable_cbc_encrypt(const AesPortableKey& k, uint8_t iv[16], const uint8_t* in,
                              uint8_t* out, size_t blocks);
void aes_portable_cbc_decrypt(const AesPortableKey& k, uint8_t iv[16], const uint8_t* in,
                              uint8_t* out, size_t blocks);

// Adds one to a 128-bit big-endian counter.
inline void counter_increment(uint8_t counter[16]) {
  for (int i = 15; i >= 0; i--)
    if (++counter[i] != 0) break;
}

}  // namespace security_internal
