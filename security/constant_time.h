// Comparisons whose running time does not depend on where secret bytes differ: every MAC
// check and digest comparison goes through these.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"

// True when the n bytes at a and b are equal; looks at all n bytes whatever they hold.
[[nodiscard]] bool constant_time_equal(const uint8_t* a, const uint8_t* b, size_t n);
// Lengths are not secret: different lengths give false at once; equal lengths are
// compared as above.
[[nodiscard]] bool constant_time_equal(const String& a, const String& b);
