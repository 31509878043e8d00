// A byte buffer on the stack that spills to the pool, for composing a text whose length
// is not known in advance and turning it into one String at the end.
#pragma once

#include <cstring>

#include "core/pool.h"
#include "core/string.h"

class TextBuffer {
 public:
  TextBuffer() = default;
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;
  ~TextBuffer() {
    if (p_ != local_) pool_free(p_);
  }
  void put(char c) {
    if (len_ == cap_) grow(1);
    p_[len_++] = c;
  }
  void put(const char* d, size_t n) {
    if (len_ + n > cap_) grow(n);
    memcpy(p_ + len_, d, n);
    len_ += n;
  }
  size_t size() const { return len_; }
  const char* data() const { return p_; }
  void truncate(size_t n) {
    if (n < len_) len_ = n;
  }
  String take() const { return String(p_, static_cast<int>(len_)); }

 private:
  void grow(size_t extra) {
    size_t cap = cap_ * 2;
    while (cap < len_ + extra) cap *= 2;
    char* q = static_cast<char*>(pool_malloc(cap));
    memcpy(q, p_, len_);
    if (p_ != local_) pool_free(p_);
    p_ = q;
    cap_ = cap;
  }
  char local_[480];
  char* p_ = local_;
  size_t len_ = 0;
  size_t cap_ = sizeof local_;
};
