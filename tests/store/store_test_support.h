// Helpers of the store tests: random cell values that stress both row forms.
#pragma once

#include <random>
#include <string>

#include "core/string.h"

// A value that is hard on a row file: markup characters, entity look-alikes, CR and LF,
// NUL, bytes that are not UTF-8, surrounding blanks, and now and then 64 KiB.
inline String hostile_value(std::mt19937& rng) {
  static const char* const pieces[] = {"<", "&lt;", "&amp;lt;", "\r", "\n", "\r\n", " ", "]]>",
                                       "</row>", "\"", "'", ">", "abc", "\xC3\xA9", "\xFF\xFE",
                                       "\xC3", "&", "<!--", "x"};
  String out;
  int kind = static_cast<int>(rng() % 20);
  if (kind == 0) return String::repeat(static_cast<char>('a' + rng() % 26), 65536);
  if (kind == 1) return String();
  int n = 1 + static_cast<int>(rng() % 8);
  for (int i = 0; i < n; i++) {
    if (rng() % 6 == 0) {
      out.append(static_cast<char>(rng() % 256));
    } else if (rng() % 9 == 0) {
      out.append('\0');
    } else {
      out.append(pieces[rng() % (sizeof(pieces) / sizeof(pieces[0]))]);
    }
  }
  return out;
}

inline String S(const std::string& s) { return String(s.data(), static_cast<int>(s.size())); }
