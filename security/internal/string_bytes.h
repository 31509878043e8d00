// Raw views of a String for the byte-oriented code of security/.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"

namespace security_internal {

inline const uint8_t* string_bytes(const String& s) {
  return s.empty() ? nullptr : reinterpret_cast<const uint8_t*>(s.c_data());
}
inline size_t string_size(const String& s) { return static_cast<size_t>(s.length()); }

// A fresh String of n bytes and a pointer to fill them; n = 0 gives an empty String.
inline uint8_t* new_string(String& out, size_t n) {
  out = String();
  if (n == 0) return nullptr;
  return reinterpret_cast<uint8_t*>(out.writable(static_cast<int>(n)));
}

}  // namespace security_internal
