// AES with the processor's AES instructions (x86 AES-NI), chosen at run time by aes.cpp.
// The functions are compiled for that instruction set one by one (target attributes), so
// the library builds and runs without -maes; call them only when aes_ni_available().
#pragma once

#include <cstddef>
#include <cstdint>

#include "security/internal/aes_portable.h"

namespace security_internal {

struct AesNiKey {
  int rounds;
  alignas(16) uint8_t enc[aes_max_rounds + 1][16];
  alignas(16) uint8_t dec[aes_max_rounds + 1][16];  // for the equivalent inverse cipher
};

bool aes_ni_available();

void aes_ni_set_key(AesNiKey& k, const uint8_t bytes[aes_max_rounds + 1][16], int rounds);
void aes_ni_encrypt(const AesNiKey& k, const uint8_t* in, uint8_t* out, size_t blocks);
void aes_ni_decrypt(const AesNiKey& k, const uint8_t* in, uint8_t* out, size_t blocks);
void aes_ni_ctr(const AesNiKey& k, uint8_t counter[16], const uint8_t* in, uint8_t* out,
                size_t blocks);
void aes_ni_cbc_encrypt(const AesNiKey& k, uint8_t iv[16], const uint8_t* in, uint8_t* out,
                        size_t blocks);
void aes_ni_cbc_decrypt(const AesNiKey& k, uint8_t iv[16], const uint8_t* in, uint8_t* out,
                        size_t blocks);

}  // namespace security_internal
