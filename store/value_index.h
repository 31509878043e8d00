// The index of one column: cell value to the rows that hold it. Entries live in chunks
// that never move, found through an open-addressing hash over pointers to them, so an
// equality search among a million values is one hash and a probe or two, and a value
// costs its entry (key and set, 40 bytes) and two slot pointers rather than a tree node
// with its allocation. The order of values is nobody's business: whoever needs them
// sorted (a compaction) sorts what it takes out.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/string.h"
#include "store/row_set.h"

class ValueIndex {
 public:
  struct Entry {
    String first;    // the value
    RowSet second;   // its rows; empty only while free or just made
    bool live = false;
  };

  ValueIndex() = default;
  ValueIndex(const ValueIndex&) = delete;
  ValueIndex& operator=(const ValueIndex&) = delete;

  const RowSet* find(const String& value) const;
  RowSet* find(const String& value);
  // The entry of `value`, added with an empty set if missing. Its key stays where it is
  // until the entry is erased.
  Entry& entry(const String& value);
  // Removes the entry of `value` (which may be a reference to that entry's own key).
  void erase(const String& value);
  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }

  template <class F>
  void for_each(F f) const {
    for (const auto& chunk : chunks_) {
      for (size_t i = 0; i < chunk_size; i++) {
        if (chunk[i].live) f(chunk[i].first, chunk[i].second);
      }
    }
  }

 private:
  static constexpr size_t chunk_size = 1024;
  static uint64_t hash_of(const String& value);
  // The slot holding it, or an empty one.
  size_t slot_of(const String& value, uint64_t hash) const;
  size_t slot_of(const String& value) const { return slot_of(value, hash_of(value)); }
  // A slot holds the entry's address with the top 16 bits of its hash above it (user
  // addresses fit in 48 bits), so a probe passes over other values without touching them.
  static uintptr_t pack(Entry* e, uint64_t hash) {
    return reinterpret_cast<uintptr_t>(e) | (static_cast<uintptr_t>(hash >> 48) << 48);
  }
  static Entry* entry_of(uintptr_t slot) {
    return reinterpret_cast<Entry*>(slot & ((uintptr_t(1) << 48) - 1));
  }
  void grow();
  Entry* new_entry();

  std::vector<std::unique_ptr<Entry[]>> chunks_;
  std::vector<Entry*> free_;
  size_t used_in_last_ = chunk_size;
  size_t count_ = 0;
  std::vector<uintptr_t> slots_;  // linear probing, size a power of two, at most half full
};
