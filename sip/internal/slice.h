// Building slices of a received text in place. Every String that shares a buffer costs a
// trip through the buffer's ring lock when it is made and when it is moved, so the
// parser makes each field exactly once, where it lives, instead of moving temporaries.
#pragma once

#include <new>

#include "core/string.h"

// Sets `dest` to `length` bytes of `src` from `pos`.
inline void set_slice(String& dest, const String& src, int pos, int length) {
  dest.~String();
  // The prvalue from substr initialises `dest` directly: no move, one ring insert.
  new (&dest) String(src.substr(pos, length));
}

inline bool sip_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Narrows [b, e) of p to its text without the blanks " \t\r\n" around it.
inline void trim_span(const char* p, int& b, int& e) {
  while (b < e && sip_blank(p[b])) b++;
  while (e > b && sip_blank(p[e - 1])) e--;
}

// Case-insensitive comparison of bytes with a String (ASCII letters only).
inline bool span_equals_nocase(const char* p, int n, const String& s) {
  if (n != s.length()) return false;
  const char* q = s.c_data();
  for (int i = 0; i < n; i++) {
    char a = p[i], b = q[i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a + 32);
    if (b >= 'A' && b <= 'Z') b = static_cast<char>(b + 32);
    if (a != b) return false;
  }
  return true;
}

// Appends the bytes of `s`. String::append(const String&) first takes a copy of its
// argument in case it shares the target's buffer; a value from another text never does,
// and the copy costs two trips through a ring lock.
inline void put(String& out, const String& s) {
  if (!s.empty()) out.append(s.c_data(), s.length());
}

inline void put(String& out, char c) { out.append(c); }

inline void put_number(String& out, long long v) {
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
