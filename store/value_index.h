// The index of one column: an ordered map from cell value to the rows that hold it, plus
// an open-addressing hash over the map's entries, so that an equality search among a
// million values is one hash and a probe or two rather than twenty string compares down a
// tree. Map entries never move, so the hash holds pointers to them.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "core/string.h"
#include "store/row_set.h"

class ValueIndex {
 public:
  using Map = std::map<String, RowSet>;
  using Entry = Map::value_type;

  const RowSet* find(const String& value) const;
  RowSet* find(const String& value);
  // The entry of `value`, added with an empty set if missing. Its key stays where it is
  // until the entry is erased.
  Entry& entry(const String& value);
  // Removes the entry of `value` (which may be a reference to that entry's own key).
  void erase(const String& value);
  size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  Map::const_iterator begin() const { return map_.begin(); }
  Map::const_iterator end() const { return map_.end(); }

 private:
  static uint64_t hash_of(const String& value);
  size_t slot_of(const String& value) const;  // the slot holding it, or an empty one
  void grow();

  Map map_;
  std::vector<Entry*> slots_;  // linear probing, size a power of two, at most half full
};
