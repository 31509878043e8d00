#include "core/pool.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "core/spin_lock.h"

namespace {

struct PoolClass {
  size_t size;
  int refill;
  StringBuffer* free_head;
  StringBuffer* all_head;
  uint64_t total;
  uint64_t free_count;
  SpinLock lock;
};

constexpr int refill_counts[] = {4096, 2730, 2048, 1365, 1024, 682, 512, 341, 256, 170, 128, 85,
                                 64,   42,   32,   21,   16,   10,  8,   5,   4,   2,   2};

constexpr size_t class_size(int c) {
  if (c >= 36) return size_t{8388608} << (c - 36);
  size_t power = size_t{32} << (c / 2);
  return (c & 1) ? power + power / 2 : power;
}

// Constant-initialised, so that allocations made by static initialisers of any
// translation unit find the table ready.
struct PoolTable {
  PoolClass rows[pool_classes];
  constexpr PoolTable() : rows{} {
    for (int c = 0; c < pool_classes; c++) {
      rows[c].size = class_size(c);
      rows[c].refill = c < 23 ? refill_counts[c] : 1;
    }
  }
};
constinit PoolTable table;

std::atomic<uint64_t> bytes_taken{0};
std::atomic<uint64_t> bytes_given_back{0};
std::atomic<uint64_t> pooled_capacity{0};
std::atomic<uint64_t> outside_blocks{0};

thread_local int64_t thread_bytes = 0;

StringBuffer* take_outside(size_t n) {
  size_t rounded = (n + 32767) & ~size_t{32767};
  auto* b = static_cast<StringBuffer*>(malloc(sizeof(StringBuffer) + rounded));
  if (!b) abort();
  bytes_taken += sizeof(StringBuffer) + rounded;
  outside_blocks++;
  b->all_next = nullptr;
  b->free_next = nullptr;
  b->capacity = rounded;
  b->pool_class = pool_outside;
  return b;
}

#ifndef EXCH_SANITIZER_BUILD
void refill(PoolClass& row) {
  size_t stride = sizeof(StringBuffer) + row.size;
  auto* mem = static_cast<char*>(malloc(stride * static_cast<size_t>(row.refill)));
  if (!mem) abort();
  bytes_taken += stride * static_cast<size_t>(row.refill);
  pooled_capacity += row.size * static_cast<size_t>(row.refill);
  int c = static_cast<int>(&row - table.rows);
  for (int i = 0; i < row.refill; i++) {
    auto* b = new (mem + stride * static_cast<size_t>(i)) StringBuffer;
    b->capacity = row.size;
    b->pool_class = static_cast<uint32_t>(c);
    b->all_next = row.all_head;
    row.all_head = b;
    b->free_next = row.free_head;
    row.free_head = b;
  }
  row.total += static_cast<uint64_t>(row.refill);
  row.free_count += static_cast<uint64_t>(row.refill);
}
#endif

}  // namespace

int pool_class_for(size_t n) {
  if (n <= 32) return 0;
  if (n > pool_largest) return pool_outside;
  // 2^k < n <= 2^(k+1)
  int k = 63 - __builtin_clzll(static_cast<unsigned long long>(n - 1));
  if (k >= 22) {
    if (k == 22 && n <= (size_t{3} << 21)) return 35;
    return 36 + (k + 1 - 23);
  }
  if (n <= (size_t{3} << (k - 1))) return 2 * (k - 5) + 1;
  return 2 * (k + 1 - 5);
}

size_t pool_class_size(int c) { return c >= 0 && c < pool_classes ? table.rows[c].size : 0; }
int pool_refill_count(int c) { return c >= 0 && c < pool_classes ? table.rows[c].refill : 0; }

StringBuffer* pool_take(size_t n, const void* owner) {
  int c = pool_class_for(n);
  StringBuffer* b;
  if (c == pool_outside) {
    b = take_outside(n);
  } else {
    PoolClass& row = table.rows[c];
#ifdef EXCH_SANITIZER_BUILD
    // One malloc per block, so the sanitizers see every overrun and every stale use.
    b = static_cast<StringBuffer*>(malloc(sizeof(StringBuffer) + row.size));
    if (!b) abort();
    new (b) StringBuffer;
    b->capacity = row.size;
    b->pool_class = static_cast<uint32_t>(c);
    b->all_next = nullptr;
    bytes_taken += sizeof(StringBuffer) + row.size;
    pooled_capacity += row.size;
    row.lock.lock();
    row.total++;
    row.lock.unlock();
#else
    row.lock.lock();
    if (!row.free_head) refill(row);
    b = row.free_head;
    row.free_head = b->free_next;
    row.free_count--;
    row.lock.unlock();
#endif
  }
  thread_bytes += static_cast<int64_t>(b->capacity);
  b->free_next = nullptr;
  b->owner = owner;
  b->flags.store(0, std::memory_order_relaxed);
  return b;
}

void pool_give(StringBuffer* b) {
  if (!b) return;
  thread_bytes -= static_cast<int64_t>(b->capacity);
  if (b->pool_class == pool_outside) {
    bytes_given_back += sizeof(StringBuffer) + b->capacity;
    outside_blocks--;
    free(b);
    return;
  }
  PoolClass& row = table.rows[b->pool_class];
#ifdef EXCH_SANITIZER_BUILD
  bytes_given_back += sizeof(StringBuffer) + row.size;
  pooled_capacity -= row.size;
  row.lock.lock();
  row.total--;
  row.lock.unlock();
  b->~StringBuffer();
  free(b);
#else
  b->owner = nullptr;
  row.lock.lock();
  b->free_next = row.free_head;
  row.free_head = b;
  row.free_count++;
  row.lock.unlock();
#endif
}

void* pool_malloc(size_t n) {
  if (n == 0) return nullptr;
  StringBuffer* b = pool_take(n, nullptr);
  b->flags.store(buffer_raw, std::memory_order_relaxed);
  return b->data();
}

static StringBuffer* header_of(void* p) { return static_cast<StringBuffer*>(p) - 1; }

void pool_free(void* p) {
  if (p) pool_give(header_of(p));
}

size_t pool_size(void* p) { return p ? header_of(p)->capacity : 0; }

void* pool_realloc(void* p, size_t n) {
  if (!p) return pool_malloc(n);
  if (n == 0) {
    pool_free(p);
    return nullptr;
  }
  StringBuffer* b = header_of(p);
  int c = pool_class_for(n);
  if (c < pool_outside && static_cast<uint32_t>(c) == b->pool_class) return p;
  void* q = pool_malloc(n);
  memcpy(q, p, n < b->capacity ? n : b->capacity);
  pool_free(p);
  return q;
}

PoolCounters pool_counters() {
  return {bytes_taken.load(), bytes_given_back.load(), pooled_capacity.load(),
          outside_blocks.load()};
}

int64_t pool_thread_bytes() { return thread_bytes; }

void pool_class_counts(int c, uint64_t& total, uint64_t& free_now) {
  total = free_now = 0;
  if (c < 0 || c >= pool_classes) return;
  PoolClass& row = table.rows[c];
  row.lock.lock();
  total = row.total;
  free_now = row.free_count;
  row.lock.unlock();
}

#ifndef EXCH_SANITIZER_BUILD
// Every allocation of the process goes through the pools, so that it is counted.
void* operator new(size_t n) { return pool_malloc(n ? n : 1); }
void* operator new[](size_t n) { return pool_malloc(n ? n : 1); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return pool_malloc(n ? n : 1); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return pool_malloc(n ? n : 1); }
void operator delete(void* p) noexcept { pool_free(p); }
void operator delete[](void* p) noexcept { pool_free(p); }
void operator delete(void* p, size_t) noexcept { pool_free(p); }
void operator delete[](void* p, size_t) noexcept { pool_free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { pool_free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { pool_free(p); }
#endif
