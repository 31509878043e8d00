#include "store/value_index.h"

uint64_t ValueIndex::hash_of(const String& value) {
  uint64_t h = value.hash();
  // FNV leaves the low bits weak for short texts that differ at the end; mix them.
  h ^= h >> 31;
  h *= 0x7fb5d329728ea185ULL;
  h ^= h >> 27;
  return h;
}

size_t ValueIndex::slot_of(const String& value, uint64_t hash) const {
  size_t mask = slots_.size() - 1;
  uintptr_t tag = static_cast<uintptr_t>(hash >> 48) << 48;
  uintptr_t tag_mask = ~((uintptr_t(1) << 48) - 1);
  for (size_t i = hash & mask;; i = (i + 1) & mask) {
    uintptr_t s = slots_[i];
    if (s == 0) return i;
    if ((s & tag_mask) == tag && entry_of(s)->first == value) return i;
  }
}

const RowSet* ValueIndex::find(const String& value) const {
  if (slots_.empty()) return nullptr;
  uintptr_t s = slots_[slot_of(value)];
  return s ? &entry_of(s)->second : nullptr;
}

RowSet* ValueIndex::find(const String& value) {
  if (slots_.empty()) return nullptr;
  uintptr_t s = slots_[slot_of(value)];
  return s ? &entry_of(s)->second : nullptr;
}

void ValueIndex::grow() {
  size_t size = slots_.empty() ? 8 : slots_.size() * 2;
  slots_.assign(size, 0);
  size_t mask = size - 1;
  for (auto& chunk : chunks_) {
    for (size_t k = 0; k < chunk_size; k++) {
      Entry* e = &chunk[k];
      if (!e->live) continue;
      uint64_t h = hash_of(e->first);
      size_t i = h & mask;
      while (slots_[i]) i = (i + 1) & mask;
      slots_[i] = pack(e, h);
    }
  }
}

ValueIndex::Entry* ValueIndex::new_entry() {
  if (!free_.empty()) {
    Entry* e = free_.back();
    free_.pop_back();
    return e;
  }
  if (used_in_last_ == chunk_size) {
    chunks_.emplace_back(new Entry[chunk_size]);
    used_in_last_ = 0;
  }
  return &chunks_.back()[used_in_last_++];
}

ValueIndex::Entry& ValueIndex::entry(const String& value) {
  uint64_t h = hash_of(value);
  if (!slots_.empty()) {
    uintptr_t s = slots_[slot_of(value, h)];
    if (s) return *entry_of(s);
  }
  if ((count_ + 1) * 2 > slots_.size()) grow();
  Entry* e = new_entry();
  e->first = value;
  e->second.clear();
  e->live = true;
  slots_[slot_of(value, h)] = pack(e, h);
  count_++;
  return *e;
}

void ValueIndex::erase(const String& value) {
  if (slots_.empty()) return;
  size_t mask = slots_.size() - 1;
  size_t i = slot_of(value);
  if (!slots_[i]) return;
  Entry* gone = entry_of(slots_[i]);
  // Backward-shift deletion: pull later members of the probe run into the hole.
  for (size_t j = (i + 1) & mask; slots_[j]; j = (j + 1) & mask) {
    size_t home = hash_of(entry_of(slots_[j])->first) & mask;
    bool stays = i <= j ? (home > i && home <= j) : (home > i || home <= j);
    if (stays) continue;
    slots_[i] = slots_[j];
    i = j;
  }
  slots_[i] = 0;
  gone->live = false;
  gone->first = String();
  gone->second.clear();
  free_.push_back(gone);
  count_--;
}
