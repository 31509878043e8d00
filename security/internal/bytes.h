// Byte order, rotation and wiping helpers shared by the primitives of security/.
// Loads and stores go through memcpy so that unaligned buffers are fine on every target
// (the device build is MIPS, where an unaligned word access traps).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace security_internal {

inline uint32_t rotl32(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }
inline uint32_t rotr32(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }
inline uint64_t rotr64(uint64_t x, int n) { return (x >> n) | (x << (64 - n)); }

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
constexpr bool little_endian = false;
#else
constexpr bool little_endian = true;
#endif

inline uint32_t load32_le(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return little_endian ? v : __builtin_bswap32(v);
}
inline uint32_t load32_be(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return little_endian ? __builtin_bswap32(v) : v;
}
inline uint64_t load64_le(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return little_endian ? v : __builtin_bswap64(v);
}
inline uint64_t load64_be(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return little_endian ? __builtin_bswap64(v) : v;
}
inline void store32_le(uint8_t* p, uint32_t v) {
  if (!little_endian) v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}
inline void store32_be(uint8_t* p, uint32_t v) {
  if (little_endian) v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}
inline void store64_le(uint8_t* p, uint64_t v) {
  if (!little_endian) v = __builtin_bswap64(v);
  std::memcpy(p, &v, 8);
}
inline void store64_be(uint8_t* p, uint64_t v) {
  if (little_endian) v = __builtin_bswap64(v);
  std::memcpy(p, &v, 8);
}

// Clears key material in a way the optimiser may not drop as a dead store.
inline void wipe(void* p, size_t n) {
  std::memset(p, 0, n);
  __asm__ __volatile__("" : : "r"(p) : "memory");
}

inline void xor_bytes(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t n) {
  for (size_t i = 0; i < n; i++) out[i] = static_cast<uint8_t>(a[i] ^ b[i]);
}

}  // namespace security_internal
