// SHA-512 and SHA-384 (FIPS 180-4): the same compression with other initial values and a
// shorter output. Certificate signatures and HMAC.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"

class Sha512 {
 public:
  static constexpr int digest_size = 64;
  static constexpr int block_size = 128;

  Sha512() { init(); }
  void init();
  void update(const uint8_t* data, size_t n);
  void update(const String& data);
  // Writes digest_size bytes. The object then needs init() before it hashes again.
  void final(uint8_t* out);
  String final();

 protected:
  void start(const uint64_t* iv);
  void finish(uint8_t* out, int length);

 private:
  uint64_t state_[8];
  uint64_t count_;  // bytes; messages above 2^61 bytes are not a concern here
  uint8_t buffer_[block_size];
};

class Sha384 : private Sha512 {
 public:
  static constexpr int digest_size = 48;
  static constexpr int block_size = 128;

  Sha384() { init(); }
  void init();
  using Sha512::update;
  void final(uint8_t* out);
  String final();
};

void sha512(const uint8_t* data, size_t n, uint8_t* out);
String sha512(const String& data);
void sha384(const uint8_t* data, size_t n, uint8_t* out);
String sha384(const String& data);
