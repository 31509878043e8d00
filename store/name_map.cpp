#include "store/name_map.h"

void NameMap::grow() {
  std::vector<Slot> old = std::move(slots_);
  slots_.assign(old.empty() ? 16 : old.size() * 2, Slot());
  size_t mask = slots_.size() - 1;
  for (Slot& s : old) {
    if (s.value < 0) continue;
    size_t i = slot_hash(s.name) & mask;
    while (slots_[i].value >= 0) i = (i + 1) & mask;
    slots_[i] = std::move(s);
  }
}

bool NameMap::add(const String& name, int value) {
  if (find(name) >= 0) return false;
  if ((count_ + 1) * 2 > static_cast<int>(slots_.size())) grow();
  size_t mask = slots_.size() - 1;
  size_t i = slot_hash(name) & mask;
  while (slots_[i].value >= 0) i = (i + 1) & mask;
  slots_[i].name = name;
  slots_[i].value = value;
  count_++;
  return true;
}
