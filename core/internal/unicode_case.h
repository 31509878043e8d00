#pragma once

#include <cstdint>

// Sorted pairs {code point, simple case mapping} for code points up to U+FFFF.
extern const uint16_t case_to_lower[][2];
extern const int case_to_lower_size;
extern const uint16_t case_to_upper[][2];
extern const int case_to_upper_size;
