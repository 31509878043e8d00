// The kernel's random source. Every secret of the process (keys, nonces, session ids,
// generated passwords, random texts) comes from here, never from the C library.
#pragma once

#include <cstddef>

#include "core/string.h"

// Fills `out` with n random bytes; false only if the kernel refuses.
[[nodiscard]] bool random_bytes(void* out, size_t n);
// n random bytes as a String; empty on failure.
String random_string(int n);
// A random integer in [0, bound) without modulo bias; 0 if bound is 0.
uint32_t random_below(uint32_t bound);
