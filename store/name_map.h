// Column name to column index: a small open-addressing table, since a look-up by name sits
// in front of nearly every cell access and search that callers make by name.
#pragma once

#include <vector>

#include "core/string.h"

class NameMap {
 public:
  // False if the name is already there.
  bool add(const String& name, int value);
  // The value, or -1.
  int find(const String& name) const {
    if (slots_.empty()) return -1;
    size_t mask = slots_.size() - 1;
    for (size_t i = slot_hash(name) & mask;; i = (i + 1) & mask) {
      const Slot& s = slots_[i];
      if (s.value < 0) return -1;
      if (s.name == name) return s.value;
    }
  }
  bool contains(const String& name) const { return find(name) >= 0; }

 private:
  struct Slot {
    String name;
    int value = -1;
  };
  static size_t slot_hash(const String& name) {
    // FNV-1a over the bytes, folded; names are short.
    uint64_t h = 1469598103934665603ULL;
    for (int i = 0, n = name.length(); i < n; i++) h = (h ^ name.byte_at(i)) * 1099511628211ULL;
    return static_cast<size_t>(h ^ (h >> 29));
  }
  void grow();

  std::vector<Slot> slots_;
  int count_ = 0;
};
