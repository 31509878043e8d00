// RowSet: the set of row ids that every query of the store returns. A handle on a shared,
// reference-counted body, copied only when a shared body is about to change, so query
// results cost a count increment to pass around.
//
// A set of one id lives in the handle itself; small sets keep a sorted list of ids; larger
// ones switch to bitmaps of 256 ids keyed by block number (id / 256). Iteration asks for
// the next id above the current one, so an iterator survives changes of the set under it.
#pragma once

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

class RowSet {
 public:
  class Iterator;

  RowSet() = default;
  RowSet(const RowSet& o);
  RowSet(RowSet&& o) noexcept : rep_(o.rep_) { o.rep_ = 0; }
  RowSet& operator=(const RowSet& o);
  RowSet& operator=(RowSet&& o) noexcept;
  ~RowSet();

  // Both return whether the set changed. Ids below 1 are refused.
  bool add(int id);
  bool remove(int id);
  void clear();
  bool contains(int id) const;
  int size() const;
  bool empty() const { return size() == 0; }
  int first() const { return next(0); }
  int last() const;
  // The smallest id above `id`, or -1.
  int next(int id) const;
  // The largest id below `id`, or -1.
  int prev(int id) const;

  Iterator begin() const;
  Iterator end() const;

  // The ids of both sets; walks the smaller one.
  static RowSet intersect(const RowSet& a, const RowSet& b);
  bool operator==(const RowSet& o) const;
  std::vector<int> to_vector() const;
  // Whether two handles share one body (for tests of the sharing).
  bool shares_body_with(const RowSet& o) const { return body() && rep_ == o.rep_; }
  // Heap bytes held by the body, for statistics.
  int64_t memory() const;

 private:
  using Bits = std::array<uint64_t, 4>;
  struct Body {
    int refs = 1;
    int count = 0;
    std::vector<int> list;         // sorted, while the set is small
    // Afterwards, sorted by block number. A vector rather than a tree: ids mostly arrive
    // in ascending order, so new blocks go to the end, and lookups stay in one array.
    std::vector<std::pair<int, Bits>> blocks;
  };
  static constexpr int list_limit = 64;
  static constexpr int list_cap = 65536;
  static bool list_too_big(const Body* b);

  Body* writable();
  void to_blocks(Body* b);
  void release();
  static std::vector<std::pair<int, Bits>>::const_iterator find_block(const Body* b, int block);
  static Bits& block_for(Body* b, int block);
  bool single() const { return rep_ & 1; }
  int single_id() const { return static_cast<int>(rep_ >> 1); }
  Body* body() const { return (rep_ & 1) ? nullptr : reinterpret_cast<Body*>(rep_); }

  // 0 for the empty set; (id << 1) | 1 for a set of one id, which is what most index
  // values hold (a call id names one record), so that it costs no body; else a Body*.
  uintptr_t rep_ = 0;
};

class RowSet::Iterator {
 public:
  Iterator(const RowSet& set, int current) : set_(set), current_(current) {}
  int operator*() const { return current_; }
  Iterator& operator++() {
    current_ = set_.next(current_);
    return *this;
  }
  bool operator!=(const Iterator& o) const { return current_ != o.current_; }
  bool operator==(const Iterator& o) const { return current_ == o.current_; }

 private:
  // Holds the set itself, so the ids walked stay those of the set as it was taken
  // unless the walker changes this very handle.
  RowSet set_;
  int current_;
};

inline RowSet::Iterator RowSet::begin() const { return Iterator(*this, first()); }
inline RowSet::Iterator RowSet::end() const { return Iterator(*this, -1); }
