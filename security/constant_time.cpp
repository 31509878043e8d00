#include "security/constant_time.h"

#include "security/internal/string_bytes.h"

bool constant_time_equal(const uint8_t* a, const uint8_t* b, size_t n) {
  uint32_t diff = 0;
  for (size_t i = 0; i < n; i++) diff |= static_cast<uint32_t>(a[i] ^ b[i]);
  // Keep the compiler from turning the loop into an early-exit compare.
  __asm__("" : "+r"(diff));
  return diff == 0;
}

bool constant_time_equal(const String& a, const String& b) {
  if (a.length() != b.length()) return false;
  return constant_time_equal(security_internal::string_bytes(a),
                             security_internal::string_bytes(b),
                             security_internal::string_size(a));
}
