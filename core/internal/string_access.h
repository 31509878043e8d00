// Raw access for the text code of core itself. Unlike c_data() and writable(), these
// do not pin the buffer, so the pointer must not outlive the next change of the String.
#pragma once

#include "core/string.h"

struct StringAccess {
  static const char* data(const String& s) { return s.data(); }
  // Grows s by `extra` bytes (unsharing it) and returns its first byte.
  static char* grow(String& s, int extra) { return s.grow(extra, false); }
};
