// A growing byte buffer for composing a message. String::append checks the sharing of
// its buffer on every call; composing a message is hundreds of tiny appends, so the
// serialiser writes here and makes one String at the end.
#pragma once

#include <cstring>
#include <memory>

#include "core/string.h"

class TextOut {
 public:
  TextOut() = default;
  TextOut(const TextOut&) = delete;
  TextOut& operator=(const TextOut&) = delete;

  void append(const char* p, int n) {
    if (n <= 0) return;
    if (n > cap_ - size_) grow(n);
    memcpy(data_ + size_, p, static_cast<size_t>(n));
    size_ += n;
  }
  void append(char c) {
    if (size_ == cap_) grow(1);
    data_[size_++] = c;
  }
  void append(const char* s) { append(s, static_cast<int>(strlen(s))); }
  void append(const String& s) { append(s.c_data(), s.length()); }

  int length() const { return size_; }
  char* data() { return data_; }
  void truncate(int n) { size_ = n; }
  String text() const { return String(data_, size_); }

 private:
  void grow(int extra) {
    int cap = cap_ * 2;
    while (cap - size_ < extra) cap *= 2;
    std::unique_ptr<char[]> fresh(new char[static_cast<size_t>(cap)]);
    memcpy(fresh.get(), data_, static_cast<size_t>(size_));
    heap_ = std::move(fresh);
    data_ = heap_.get();
    cap_ = cap;
  }

  char inline_[2048];
  char* data_ = inline_;
  int size_ = 0;
  int cap_ = sizeof inline_;
  std::unique_ptr<char[]> heap_;
};

inline void put(TextOut& out, const String& s) { out.append(s); }
inline void put(TextOut& out, char c) { out.append(c); }

inline void put_number(TextOut& out, long long v) {
  char buf[24];
  int i = sizeof buf;
  bool neg = v < 0;
  unsigned long long u = neg ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
  do {
    buf[--i] = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u);
  if (neg) buf[--i] = '-';
  out.append(buf + i, static_cast<int>(sizeof buf) - i);
}
