// The pool allocator behind every String buffer and, outside sanitizer builds, behind
// operator new: 40 size classes with free lists, so that every allocation is counted and
// a small block is a few instructions away once its class is known.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// Header of every pooled block. Padded to 48 bytes so that the data area keeps the
// 16-byte alignment that operator new must give.
struct alignas(16) StringBuffer {
  StringBuffer* all_next;
  StringBuffer* free_next;
  const void* owner;
  size_t capacity;
  std::atomic<uint32_t> flags;
  uint32_t pool_class;
  char* data() { return reinterpret_cast<char*>(this + 1); }
};
static_assert(sizeof(StringBuffer) == 48);

constexpr uint32_t buffer_pinned = 1;   // an outside pointer into the data may exist
constexpr uint32_t buffer_raw = 5;      // flags of a pool_malloc block
constexpr int pool_classes = 40;
constexpr int pool_outside = 40;        // class number of a block outside the pools
constexpr size_t pool_largest = 67108864;

int pool_class_for(size_t n);
size_t pool_class_size(int pool_class);
int pool_refill_count(int pool_class);

// A block whose capacity is at least n; n above the largest class goes straight to malloc.
StringBuffer* pool_take(size_t n, const void* owner);
void pool_give(StringBuffer* block);

void* pool_malloc(size_t n);
void* pool_realloc(void* p, size_t n);
void pool_free(void* p);
size_t pool_size(void* p);

struct PoolCounters {
  uint64_t bytes_taken;        // from the C library
  uint64_t bytes_given_back;   // returned to the C library
  uint64_t pooled_capacity;    // block capacity handed to the pools
  uint64_t outside_blocks;     // live blocks outside the pools
};
PoolCounters pool_counters();
// Bytes of block capacity taken less given back by the calling thread: what a piece of
// work added to the memory of the process.
int64_t pool_thread_bytes();
// Blocks ever carved for a class, and how many of them are free now.
void pool_class_counts(int pool_class, uint64_t& total, uint64_t& free_now);
