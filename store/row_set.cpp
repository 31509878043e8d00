#include "store/row_set.h"

#include <algorithm>
#include <bit>

RowSet::RowSet(const RowSet& o) : rep_(o.rep_) {
  if (Body* b = body()) b->refs++;
}

void RowSet::release() {
  if (Body* b = body()) {
    if (--b->refs == 0) delete b;
  }
  rep_ = 0;
}

RowSet& RowSet::operator=(const RowSet& o) {
  if (Body* b = o.body()) b->refs++;
  release();
  rep_ = o.rep_;
  return *this;
}

RowSet& RowSet::operator=(RowSet&& o) noexcept {
  if (this != &o) {
    release();
    rep_ = o.rep_;
    o.rep_ = 0;
  }
  return *this;
}

RowSet::~RowSet() { release(); }

// Only called on a set that has a body.
RowSet::Body* RowSet::writable() {
  Body* b = body();
  if (b->refs > 1) {
    Body* copy = new Body(*b);
    copy->refs = 1;
    b->refs--;
    rep_ = reinterpret_cast<uintptr_t>(copy);
    return copy;
  }
  return b;
}

namespace {
struct BlockLess {
  template <class P>
  bool operator()(const P& p, int block) const { return p.first < block; }
  template <class P>
  bool operator()(int block, const P& p) const { return block < p.first; }
};
}  // namespace

// The first block whose number is not below `block`.
std::vector<std::pair<int, RowSet::Bits>>::const_iterator RowSet::find_block(const Body* b, int block) {
  if (!b->blocks.empty()) {
    int top = b->blocks.back().first;
    if (top < block) return b->blocks.end();
    if (top == block) return b->blocks.end() - 1;
  }
  return std::lower_bound(b->blocks.begin(), b->blocks.end(), block, BlockLess());
}

RowSet::Bits& RowSet::block_for(Body* b, int block) {
  if (b->blocks.empty() || b->blocks.back().first < block) {
    b->blocks.push_back({block, Bits{}});
    return b->blocks.back().second;
  }
  if (b->blocks.back().first == block) return b->blocks.back().second;
  auto it = std::lower_bound(b->blocks.begin(), b->blocks.end(), block, BlockLess());
  if (it == b->blocks.end() || it->first != block) it = b->blocks.insert(it, {block, Bits{}});
  return it->second;
}

// A list costs 4 bytes per id, a bitmap block 36 bytes for up to 256 ids: a sparse set (the
// rows of one caller among a million records) stays a list. Checked when the list reaches
// a power of two from list_limit on, so the scan is paid once per doubling.
bool RowSet::list_too_big(const Body* b) {
  int n = b->count;
  if (n < list_limit) return false;
  if (n >= list_cap) return true;
  if ((n & (n - 1)) != 0) return false;
  int blocks = 0;
  int last = -1;
  for (int id : b->list) {
    if ((id >> 8) != last) {
      blocks++;
      last = id >> 8;
    }
  }
  return blocks * 36 < n * 4;
}

void RowSet::to_blocks(Body* b) {
  for (int id : b->list) {
    Bits& bits = block_for(b, id >> 8);
    bits[(id >> 6) & 3] |= uint64_t(1) << (id & 63);
  }
  b->list.clear();
  b->list.shrink_to_fit();
}

bool RowSet::add(int id) {
  if (id < 1 || contains(id)) return false;
  if (rep_ == 0) {
    rep_ = (static_cast<uintptr_t>(id) << 1) | 1;
    return true;
  }
  if (single()) {
    Body* b = new Body();
    int other = single_id();
    b->list = {std::min(id, other), std::max(id, other)};
    b->count = 2;
    rep_ = reinterpret_cast<uintptr_t>(b);
    return true;
  }
  Body* b = writable();
  if (b->blocks.empty() && !list_too_big(b)) {
    if (b->list.empty() || b->list.back() < id) {
      b->list.push_back(id);
    } else {
      b->list.insert(std::lower_bound(b->list.begin(), b->list.end(), id), id);
    }
  } else {
    if (!b->list.empty()) to_blocks(b);
    Bits& bits = block_for(b, id >> 8);
    bits[(id >> 6) & 3] |= uint64_t(1) << (id & 63);
  }
  b->count++;
  return true;
}

bool RowSet::remove(int id) {
  if (id < 1 || !contains(id)) return false;
  if (single()) {
    rep_ = 0;
    return true;
  }
  Body* b = writable();
  if (b->count == 1) {
    release();
    return true;
  }
  if (b->blocks.empty()) {
    b->list.erase(std::lower_bound(b->list.begin(), b->list.end(), id));
  } else {
    auto it = b->blocks.begin() + (find_block(b, id >> 8) - b->blocks.cbegin());
    Bits& bits = it->second;
    bits[(id >> 6) & 3] &= ~(uint64_t(1) << (id & 63));
    if ((bits[0] | bits[1] | bits[2] | bits[3]) == 0) b->blocks.erase(it);
  }
  b->count--;
  return true;
}

void RowSet::clear() { release(); }

bool RowSet::contains(int id) const {
  if (rep_ == 0 || id < 1) return false;
  if (single()) return single_id() == id;
  const Body* b = body();
  if (b->blocks.empty()) return std::binary_search(b->list.begin(), b->list.end(), id);
  auto it = find_block(b, id >> 8);
  if (it == b->blocks.end() || it->first != (id >> 8)) return false;
  return (it->second[(id >> 6) & 3] >> (id & 63)) & 1;
}

int RowSet::size() const {
  if (rep_ == 0) return 0;
  return single() ? 1 : body()->count;
}

int RowSet::last() const {
  if (rep_ == 0) return -1;
  if (single()) return single_id();
  const Body* b = body();
  if (b->blocks.empty()) return b->list.back();
  auto it = std::prev(b->blocks.end());
  for (int w = 3; w >= 0; w--) {
    if (it->second[w]) return (it->first << 8) + w * 64 + 63 - std::countl_zero(it->second[w]);
  }
  return -1;
}

int RowSet::next(int id) const {
  if (rep_ == 0 || id < 0) return -1;
  if (single()) return single_id() > id ? single_id() : -1;
  const Body* b = body();
  if (b->blocks.empty()) {
    auto it = std::upper_bound(b->list.begin(), b->list.end(), id);
    return it == b->list.end() ? -1 : *it;
  }
  int from = id + 1;
  if (from <= 0) return -1;  // past the largest id
  auto it = find_block(b, from >> 8);
  if (it == b->blocks.end()) return -1;
  int bit = it->first == (from >> 8) ? (from & 255) : 0;
  for (;;) {
    const Bits& bits = it->second;
    for (int w = bit >> 6; w < 4; w++) {
      uint64_t word = bits[w];
      if (w == (bit >> 6)) word &= ~uint64_t(0) << (bit & 63);
      if (word) return (it->first << 8) + w * 64 + std::countr_zero(word);
    }
    if (++it == b->blocks.end()) return -1;
    bit = 0;
  }
}

int RowSet::prev(int id) const {
  if (rep_ == 0 || id <= 1) return -1;
  if (single()) return single_id() < id ? single_id() : -1;
  const Body* b = body();
  if (b->blocks.empty()) {
    auto it = std::lower_bound(b->list.begin(), b->list.end(), id);
    return it == b->list.begin() ? -1 : *std::prev(it);
  }
  int from = id - 1;
  auto it = find_block(b, from >> 8);
  if (it == b->blocks.end() || it->first != (from >> 8)) {
    if (it == b->blocks.begin()) return -1;
    --it;
  }
  int bit = it->first == (from >> 8) ? (from & 255) : 255;
  for (;;) {
    const Bits& bits = it->second;
    for (int w = bit >> 6; w >= 0; w--) {
      uint64_t word = bits[w];
      if (w == (bit >> 6) && (bit & 63) != 63) word &= (uint64_t(1) << ((bit & 63) + 1)) - 1;
      if (word) return (it->first << 8) + w * 64 + 63 - std::countl_zero(word);
    }
    if (it == b->blocks.begin()) return -1;
    --it;
    bit = 255;
  }
}

RowSet RowSet::intersect(const RowSet& a, const RowSet& b) {
  const RowSet& small = a.size() <= b.size() ? a : b;
  const RowSet& large = a.size() <= b.size() ? b : a;
  RowSet out;
  for (int id = small.first(); id > 0; id = small.next(id)) {
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
  for (int id = first(); id > 0; id = next(id)) out.push_back(id);
  return out;
}

int64_t RowSet::memory() const {
  const Body* b = body();
  if (!b) return 0;
  return static_cast<int64_t>(sizeof(Body) + b->list.capacity() * sizeof(int) +
                              b->blocks.capacity() * sizeof(std::pair<int, Bits>));
}
