// The buffering and the final padding shared by MD5, SHA-1 and SHA-256: 64-byte blocks,
// 32-bit state words, a 64-bit bit count at the end of the last block.
#pragma once

#include <cstddef>
#include <cstdint>

using Compress32 = void (*)(uint32_t* state, const uint8_t* blocks, size_t count);

// Feeds n bytes through the 64-byte `buffer`; `count` is the number of bytes so far.
void feed_blocks(Compress32 compress, uint32_t* state, uint8_t* buffer, uint64_t& count,
                 const uint8_t* data, size_t n);
// Pads with 0x80, zeros and the bit count (little-endian for MD5) and compresses.
void pad_blocks(Compress32 compress, uint32_t* state, uint8_t* buffer, uint64_t count,
                bool little_endian);
