#include "store/value_index.h"

uint64_t ValueIndex::hash_of(const String& value) {
  uint64_t h = value.hash();
  // FNV leaves the low bits weak for short texts that differ at the end; mix them.
  h ^= h >> 31;
  h *= 0x7fb5d329728ea185ULL;
  h ^= h >> 27;
  return h;
}

size_t ValueIndex::slot_of(const String& value) const {
  size_t mask = slots_.size() - 1;
  size_t i = hash_of(value) & mask;
  while (slots_[i] && slots_[i]->first != value) i = (i + 1) & mask;
  return i;
}

const RowSet* ValueIndex::find(const String& value) const {
  if (slots_.empty()) return nullptr;
  Entry* e = slots_[slot_of(value)];
  return e ? &e->second : nullptr;
}

RowSet* ValueIndex::find(const String& value) {
  if (slots_.empty()) return nullptr;
  Entry* e = slots_[slot_of(value)];
  return e ? &e->second : nullptr;
}

void ValueIndex::grow() {
  size_t size = slots_.empty() ? 8 : slots_.size() * 2;
  slots_.assign(size, nullptr);
  size_t mask = size - 1;
  for (auto& e : map_) {
    size_t i = hash_of(e.first) & mask;
    while (slots_[i]) i = (i + 1) & mask;
    slots_[i] = &e;
  }
}

ValueIndex::Entry& ValueIndex::entry(const String& value) {
  if (!slots_.empty()) {
    Entry* e = slots_[slot_of(value)];
    if (e) return *e;
  }
  if ((map_.size() + 1) * 2 > slots_.size()) grow();
  Entry& e = *map_.try_emplace(value).first;
  slots_[slot_of(value)] = &e;
  return e;
}

void ValueIndex::erase(const String& value) {
  if (slots_.empty()) return;
  size_t mask = slots_.size() - 1;
  size_t i = slot_of(value);
  Entry* gone = slots_[i];
  if (!gone) return;
  // Backward-shift deletion: pull later members of the probe run into the hole.
  for (size_t j = (i + 1) & mask; slots_[j]; j = (j + 1) & mask) {
    size_t home = hash_of(slots_[j]->first) & mask;
    bool stays = i <= j ? (home > i && home <= j) : (home > i || home <= j);
    if (stays) continue;
    slots_[i] = slots_[j];
    i = j;
  }
  slots_[i] = nullptr;
  map_.erase(map_.find(gone->first));
}
