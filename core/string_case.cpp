// UTF-8 aware case conversion and validation.
#include <cstring>

#include "core/internal/string_access.h"
#include "core/internal/unicode_case.h"
#include "core/string.h"

namespace {

uint32_t map_code_point(uint32_t cp, const uint16_t (*pairs)[2], int size) {
  int lo = 0, hi = size - 1;
  while (lo <= hi) {
    int mid = (lo + hi) / 2;
    if (pairs[mid][0] == cp) return pairs[mid][1];
    if (pairs[mid][0] < cp) lo = mid + 1;
    else hi = mid - 1;
  }
  return cp;
}

inline bool continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

void put_utf8(String& out, uint32_t cp) {
  char b[3];
  if (cp < 0x80) {
    out.append(static_cast<char>(cp));
  } else if (cp < 0x800) {
    b[0] = static_cast<char>(0xC0 | (cp >> 6));
    b[1] = static_cast<char>(0x80 | (cp & 0x3F));
    out.append(b, 2);
  } else {
    b[0] = static_cast<char>(0xE0 | (cp >> 12));
    b[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    b[2] = static_cast<char>(0x80 | (cp & 0x3F));
    out.append(b, 3);
  }
}

// Maps one-, two- and three-byte sequences through the table; longer sequences, stray
// continuation bytes and truncated sequences pass unchanged.
String convert_case(const String& s, const uint16_t (*pairs)[2], int size, bool lower) {
  const unsigned char* d = reinterpret_cast<const unsigned char*>(StringAccess::data(s));
  int n = s.length();
  int i = 0;
  // Nothing to do for the common case of text that is already in the wanted case.
  for (; i < n; i++) {
    unsigned char c = d[i];
    if (c >= 0x80) break;
    if (lower ? (c >= 'A' && c <= 'Z') : (c >= 'a' && c <= 'z')) break;
  }
  if (i == n) return s;
  String out = s.head(i);
  out.reserve(n);
  while (i < n) {
    unsigned char c = d[i];
    uint32_t cp;
    int len;
    if (c < 0x80) {
      cp = c;
      len = 1;
    } else if (c >= 0xC0 && c < 0xE0 && i + 1 < n && continuation(d[i + 1])) {
      cp = ((c & 0x1Fu) << 6) | (d[i + 1] & 0x3Fu);
      len = 2;
    } else if (c >= 0xE0 && c < 0xF0 && i + 2 < n && continuation(d[i + 1]) && continuation(d[i + 2])) {
      cp = ((c & 0x0Fu) << 12) | ((d[i + 1] & 0x3Fu) << 6) | (d[i + 2] & 0x3Fu);
      len = 3;
    } else {
      out.append(static_cast<char>(c));
      i++;
      continue;
    }
    uint32_t mapped = map_code_point(cp, pairs, size);
    if (mapped == cp) out.append(reinterpret_cast<const char*>(d + i), len);
    else put_utf8(out, mapped);
    i += len;
  }
  return out;
}

}  // namespace

String String::to_lower() const { return convert_case(*this, case_to_lower, case_to_lower_size, true); }
String String::to_upper() const { return convert_case(*this, case_to_upper, case_to_upper_size, false); }

bool String::is_utf8() const {
  const unsigned char* d = reinterpret_cast<const unsigned char*>(data());
  int n = length(), i = 0;
  while (i < n) {
    unsigned char c = d[i];
    if (c < 0x80) {
      i++;
      continue;
    }
    int len;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
      cp = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      cp = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      cp = c & 0x07u;
    } else {
      return false;
    }
    if (i + len > n) return false;
    for (int k = 1; k < len; k++) {
      if (!continuation(d[i + k])) return false;
      cp = (cp << 6) | (d[i + k] & 0x3Fu);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
        (cp >= 0xD800 && cp <= 0xDFFF))
      return false;
    i += len;
  }
  return true;
}
