#include "core/random.h"

#include "core/internal/string_access.h"

#include <sys/random.h>

#include <cerrno>

bool random_bytes(void* out, size_t n) {
  auto* p = static_cast<unsigned char*>(out);
  while (n > 0) {
    ssize_t got = getrandom(p, n, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += got;
    n -= static_cast<size_t>(got);
  }
  return true;
}

String random_string(int n) {
  if (n <= 0) return String();
  String s;
  char* p = StringAccess::grow(s, n);
  if (!random_bytes(p, static_cast<size_t>(n))) return String();
  return s;
}

uint32_t random_below(uint32_t bound) {
  if (bound == 0) return 0;
  // Reject the top part of the range that would make small values more likely.
  uint32_t limit = static_cast<uint32_t>(-bound) % bound;
  for (;;) {
    uint32_t r;
    if (!random_bytes(&r, sizeof r)) return 0;
    if (r >= limit) return r % bound;
  }
}
