// SHA-1 (FIPS 180-4). WebSocket accept keys, SRTP and TLS record MACs (through HMAC), the
// TLS 1.0/1.1 PRF and certificate issuer hashes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"

class Sha1 {
 public:
  static constexpr int digest_size = 20;
  static constexpr int block_size = 64;

  Sha1() { init(); }
  void init();
  void update(const uint8_t* data, size_t n);
  void update(const String& data);
  // Writes digest_size bytes. The object then needs init() before it hashes again.
  void final(uint8_t* out);
  String final();

 private:
  uint32_t state_[5];
  uint64_t count_;
  uint8_t buffer_[block_size];
};

void sha1(const uint8_t* data, size_t n, uint8_t* out);
String sha1(const String& data);
