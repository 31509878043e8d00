// RC4, for the TLS suites RSA_WITH_RC4_128_MD5 and RSA_WITH_RC4_128_SHA, which are offered
// only when the setting tls_rc4 allows them. RC4 is broken as a cipher and, by its design,
// indexes its state with secret bytes; it is here for old peers, not for new uses.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"

class Rc4 {
 public:
  Rc4() = default;
  ~Rc4();
  // Keys of 1 to 256 bytes; false (and no key) otherwise.
  [[nodiscard]] bool init(const uint8_t* key, size_t length);
  [[nodiscard]] bool init(const String& key);
  bool ready() const { return ready_; }
  // Encryption and decryption are the same; without a key the output is zeros.
  void update(const uint8_t* in, uint8_t* out, size_t n);
  String update(const String& data);

 private:
  uint8_t s_[256] = {};
  uint8_t i_ = 0, j_ = 0;
  bool ready_ = false;
};

// Empty for a bad key length.
String rc4(const String& key, const String& data);
