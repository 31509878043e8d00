// SHA-256 (FIPS 180-4). Certificates and ECDSA, the TLS 1.2 PRF and Finished, DTLS fingerprints.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"

class Sha256 {
 public:
  static constexpr int digest_size = 32;
  static constexpr int block_size = 64;

  Sha256() { init(); }
  void init();
  void update(const uint8_t* data, size_t n);
  void update(const String& data);
  // Writes digest_size bytes. The object then needs init() before it hashes again.
  void final(uint8_t* out);
  String final();

 private:
  uint32_t state_[8];
  uint64_t count_;
  uint8_t buffer_[block_size];
};

void sha256(const uint8_t* data, size_t n, uint8_t* out);
String sha256(const String& data);
