#include "store/row_set.h"

#include <algorithm>
#include <bit>

RowSet::RowSet(const RowSet& o) : body_(o.body_) {
  if (body_) body_->refs++;
}

RowSet& RowSet::operator=(const RowSet& o) {
  if (o.body_) o.body_->refs++;
  Body* old = body_;
  body_ = o.body_;
  if (old && --old->refs == 0) delete old;
  return *this;
}

RowSet& RowSet::operator=(RowSet&& o) noexcept {
  if (this != &o) {
    if (body_ && --body_->refs == 0) delete body_;
    body_ = o.body_;
    o.body_ = nullptr;
  }
  return *this;
}

RowSet::~RowSet() {
  if (body_ && --body_->refs == 0) delete body_;
}

RowSet::Body* RowSet::writable() {
  if (!body_) {
    body_ = new Body();
  } else if (body_->refs > 1) {
    Body* copy = new Body(*body_);
    copy->refs = 1;
    body_->refs--;
    body_ = copy;
  }
  return body_;
}

void RowSet::to_blocks(Body* b) {
  for (int id : b->list) {
    Bits& bits = b->blocks[id >> 8];
    bits[(id >> 6) & 3] |= uint64_t(1) << (id & 63);
  }
  b->list.clear();
  b->list.shrink_to_fit();
}

bool RowSet::add(int id) {
  if (id < 1 || contains(id)) return false;
  Body* b = writable();
  if (b->blocks.empty() && b->count < list_limit) {
    b->list.insert(std::lower_bound(b->list.begin(), b->list.end(), id), id);
  } else {
    if (!b->list.empty()) to_blocks(b);
    Bits& bits = b->blocks[id >> 8];
    bits[(id >> 6) & 3] |= uint64_t(1) << (id & 63);
  }
  b->count++;
  return true;
}

bool RowSet::remove(int id) {
  if (id < 1 || !contains(id)) return false;
  Body* b = writable();
  if (b->blocks.empty()) {
    b->list.erase(std::lower_bound(b->list.begin(), b->list.end(), id));
  } else {
    auto it = b->blocks.find(id >> 8);
    Bits& bits = it->second;
    bits[(id >> 6) & 3] &= ~(uint64_t(1) << (id & 63));
    if ((bits[0] | bits[1] | bits[2] | bits[3]) == 0) b->blocks.erase(it);
  }
  b->count--;
  return true;
}

void RowSet::clear() {
  if (body_ && --body_->refs == 0) delete body_;
  body_ = nullptr;
}

bool RowSet::contains(int id) const {
  if (!body_ || id < 1) return false;
  if (body_->blocks.empty()) return std::binary_search(body_->list.begin(), body_->list.end(), id);
  auto it = body_->blocks.find(id >> 8);
  if (it == body_->blocks.end()) return false;
  return (it->second[(id >> 6) & 3] >> (id & 63)) & 1;
}

int RowSet::size() const { return body_ ? body_->count : 0; }

int RowSet::last() const {
  if (!body_ || body_->count == 0) return -1;
  if (body_->blocks.empty()) return body_->list.back();
  auto it = std::prev(body_->blocks.end());
  for (int w = 3; w >= 0; w--) {
    if (it->second[w]) return (it->first << 8) + w * 64 + 63 - std::countl_zero(it->second[w]);
  }
  return -1;
}

int RowSet::next(int id) const {
  if (!body_ || body_->count == 0 || id < 0) return -1;
  if (body_->blocks.empty()) {
    auto it = std::upper_bound(body_->list.begin(), body_->list.end(), id);
    return it == body_->list.end() ? -1 : *it;
  }
  int from = id + 1;
  if (from <= 0) return -1;  // past the largest id
  auto it = body_->blocks.lower_bound(from >> 8);
  if (it == body_->blocks.end()) return -1;
  int bit = it->first == (from >> 8) ? (from & 255) : 0;
  for (;;) {
    const Bits& bits = it->second;
    for (int w = bit >> 6; w < 4; w++) {
      uint64_t word = bits[w];
      if (w == (bit >> 6)) word &= ~uint64_t(0) << (bit & 63);
      if (word) return (it->first << 8) + w * 64 + std::countr_zero(word);
    }
    if (++it == body_->blocks.end()) return -1;
    bit = 0;
  }
}

int RowSet::prev(int id) const {
  if (!body_ || body_->count == 0 || id <= 1) return -1;
  if (body_->blocks.empty()) {
    auto it = std::lower_bound(body_->list.begin(), body_->list.end(), id);
    return it == body_->list.begin() ? -1 : *std::prev(it);
  }
  int from = id - 1;
  auto it = body_->blocks.upper_bound(from >> 8);
  if (it == body_->blocks.begin()) return -1;
  --it;
  int bit = it->first == (from >> 8) ? (from & 255) : 255;
  for (;;) {
    const Bits& bits = it->second;
    for (int w = bit >> 6; w >= 0; w--) {
      uint64_t word = bits[w];
      if (w == (bit >> 6) && (bit & 63) != 63) word &= (uint64_t(1) << ((bit & 63) + 1)) - 1;
      if (word) return (it->first << 8) + w * 64 + 63 - std::countl_zero(word);
    }
    if (it == body_->blocks.begin()) return -1;
    --it;
    bit = 255;
  }
}

RowSet RowSet::intersect(const RowSet& a, const RowSet& b) {
  const RowSet& small = a.size() <= b.size() ? a : b;
  const RowSet& large = a.size() <= b.size() ? b : a;
  RowSet out;
  for (int id : small) {
    if (large.contains(id)) out.add(id);
  }
  return out;
}

bool RowSet::operator==(const RowSet& o) const {
  if (size() != o.size()) return false;
  for (int a = first(), b = o.first(); a > 0; a = next(a), b = o.next(b)) {
    if (a != b) return false;
  }
  return true;
}

std::vector<int> RowSet::to_vector() const {
  std::vector<int> out;
  out.reserve(size());
  for (int id : *this) out.push_back(id);
  return out;
}

int64_t RowSet::memory() const {
  if (!body_) return 0;
  return static_cast<int64_t>(sizeof(Body) + body_->list.capacity() * sizeof(int) +
                              body_->blocks.size() * (sizeof(Bits) + 48));
}
