// MD5 (RFC 1321). Used for SIP branches and tags, digest authentication, file hashes and the
// TLS 1.0/1.1 PRF; not for anything that needs collision resistance.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"

class Md5 {
 public:
  static constexpr int digest_size = 16;
  static constexpr int block_size = 64;

  Md5() { init(); }
  void init();
  void update(const uint8_t* data, size_t n);
  void update(const String& data);
  // Writes digest_size bytes. The object then needs init() before it hashes again.
  void final(uint8_t* out);
  String final();

 private:
  uint32_t state_[4];
  uint64_t count_;  // bytes hashed so far
  uint8_t buffer_[block_size];
};

void md5(const uint8_t* data, size_t n, uint8_t* out);
String md5(const String& data);
