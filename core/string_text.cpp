// Text helpers of String: words, lines, header-form text, trimming and numbers.
#include <cstdio>
#include <cstring>

#include "core/internal/string_access.h"
#include "core/string.h"

namespace {

inline const char* bytes_of(const String& s) { return StringAccess::data(s); }

inline bool in_set(const String& set, char c) {
  return memchr(bytes_of(set), c, static_cast<size_t>(set.length())) != nullptr;
}

// Start of word n (from 0), where words are separated by runs of bytes for which
// is_sep is true; -1 if there are fewer words.
template <class Sep>
int word_start(const char* d, int len, int n, Sep is_sep) {
  int i = 0;
  while (i < len && is_sep(d[i])) i++;
  for (int w = 0; w < n; w++) {
    while (i < len && !is_sep(d[i])) i++;
    while (i < len && is_sep(d[i])) i++;
  }
  return i < len ? i : -1;
}

template <class Sep>
String word_of(const String& s, int n, bool to_end, Sep is_sep) {
  const char* d = bytes_of(s);
  int len = s.length();
  if (n < 0) return String();
  int start = word_start(d, len, n, is_sep);
  if (start < 0) return String();
  if (to_end) return s.tail(start);
  int end = start;
  while (end < len && !is_sep(d[end])) end++;
  return s.substr(start, end - start);
}

// Bounds of line `count`: its first byte, the end of its text and the start of the next.
bool line_bounds(const char* d, int len, int count, bool unfold, int& start, int& end, int& next) {
  int pos = 0;
  for (int line = 0;; line++) {
    if (pos >= len || count < 0) return false;
    int i = pos;
    int text_end, after;
    for (;;) {
      while (i < len && d[i] != '\r' && d[i] != '\n') i++;
      if (i >= len) {
        text_end = after = len;
        break;
      }
      int t = i + 1;
      if (t < len && ((d[i] == '\r' && d[t] == '\n') || (d[i] == '\n' && d[t] == '\r'))) t++;
      if (unfold && t < len && (d[t] == ' ' || d[t] == '\t')) {
        i = t;
        continue;
      }
      text_end = i;
      after = t;
      break;
    }
    if (line == count) {
      start = pos;
      end = text_end;
      next = after;
      return true;
    }
    pos = after;
  }
}

}  // namespace

String String::word(int n, char sep) const {
  return word_of(*this, n, false, [sep](char c) { return c == sep; });
}
String String::word_set(int n, const String& seps) const {
  return word_of(*this, n, false, [&seps](char c) { return in_set(seps, c); });
}
String String::words_from(int n, char sep) const {
  return word_of(*this, n, true, [sep](char c) { return c == sep; });
}
String String::words_from_set(int n, const String& seps) const {
  return word_of(*this, n, true, [&seps](char c) { return in_set(seps, c); });
}

std::vector<String> String::split(char sep) const {
  std::vector<String> out;
  const char* d = bytes_of(*this);
  int len = length(), i = 0;
  while (i < len) {
    while (i < len && d[i] == sep) i++;
    int start = i;
    while (i < len && d[i] != sep) i++;
    if (i > start) out.push_back(substr(start, i - start));
  }
  return out;
}

std::vector<String> String::split_keep(char sep) const {
  std::vector<String> out;
  const char* d = bytes_of(*this);
  int len = length(), start = 0;
  for (int i = 0; i <= len; i++) {
    if (i == len || d[i] == sep) {
      out.push_back(substr(start, i - start));
      start = i + 1;
    }
  }
  return out;
}

String String::join(const std::vector<String>& list, char sep) {
  String out;
  for (size_t i = 0; i < list.size(); i++) {
    if (i) out.append(sep);
    out.append(list[i]);
  }
  return out;
}

int String::line_end(int count, bool unfold, int* next) const {
  int start, end, after;
  if (!line_bounds(bytes_of(*this), length(), count, unfold, start, end, after)) return -1;
  if (next) *next = after;
  return end;
}

String String::line(int n, bool unfold) const {
  int start, end, after;
  if (!line_bounds(bytes_of(*this), length(), n, unfold, start, end, after)) return String();
  return substr(start, end - start);
}

String String::next_line(bool unfold) {
  int start, end, after;
  if (!line_bounds(bytes_of(*this), length(), 0, unfold, start, end, after)) return String();
  String line = substr(start, end - start);
  *this = tail(after);
  return line;
}

// --- header-form text ------------------------------------------------------------------

static bool find_header(const String& text, const String& name, const String& alias, char sep,
                        const String& trim_set, int& start, int& end) {
  const char* d = bytes_of(text);
  int len = text.length();
  int pos = 0;
  while (pos < len) {
    int s, e, next;
    if (!line_bounds(d + pos, len - pos, 0, true, s, e, next)) break;
    String line = text.substr(pos + s, e - s);
    int at = line.find(sep);
    String key = (at >= 0 ? line.head(at) : line).trim(trim_set);
    if (!key.empty() && (key.equals_nocase(name) || (!alias.empty() && key.equals_nocase(alias)))) {
      start = pos + s;
      end = pos + e;
      return true;
    }
    pos += next;
  }
  return false;
}

String header_line(const String& text, const String& name, const String& alias, char sep,
                   const String& trim_set) {
  int start, end;
  if (!find_header(text, name, alias, sep, trim_set, start, end)) return String();
  return text.substr(start, end - start);
}

String header_value(const String& text, const String& name, const String& alias, char sep) {
  String line = header_line(text, name, alias, sep, str_blanks);
  int at = line.find(sep);
  if (at < 0) return String();
  return line.tail(at + 1).trim();
}

void header_set(String& text, const String& name, const String& value, char sep) {
  int start, end;
  if (!find_header(text, name, String(), sep, str_blanks, start, end)) {
    String eol = text.contains('\r') || text.empty() ? str_crlf : str_lf;
    if (!text.empty() && !text.ends_with(str_lf) && !text.ends_with(String("\r"))) text.append(eol);
    text.append(name);
    text.append(sep);
    text.append(' ');
    text.append(value);
    text.append(eol);
    return;
  }
  String line = text.substr(start, end - start);
  int at = line.find(sep);
  String prefix = at >= 0 ? line.head(at + 1) : line + String(&sep, 1);
  if (at >= 0 && at + 1 < line.length() && line.at(at + 1) == ' ') prefix.append(' ');
  String out = text.head(start);
  out.append(prefix);
  out.append(value);
  out.append(text.tail(end));
  text = out;
}

// --- trimming --------------------------------------------------------------------------

String String::trim_left(const String& set) const {
  const char* d = bytes_of(*this);
  int i = 0, n = length();
  while (i < n && in_set(set, d[i])) i++;
  return tail(i);
}

String String::trim_right(const String& set) const {
  const char* d = bytes_of(*this);
  int n = length();
  while (n > 0 && in_set(set, d[n - 1])) n--;
  return head(n);
}

String String::trim(const String& set) const { return trim_left(set).trim_right(set); }
String String::trim_left(char c) const { return trim_left(String(&c, 1)); }
String String::trim_right(char c) const { return trim_right(String(&c, 1)); }
String String::trim(char c) const { return trim(String(&c, 1)); }
String String::trim() const { return trim(str_blanks); }

// --- numbers ---------------------------------------------------------------------------

namespace {

// Leading blanks and tabs, one "+", then (if allowed) one "-", then digits. Overflow
// wraps in unsigned arithmetic, which is defined.
uint64_t leading_number(const char* d, int n, bool allow_minus, bool& negative) {
  int i = 0;
  while (i < n && (d[i] == ' ' || d[i] == '\t')) i++;
  if (i < n && d[i] == '+') i++;
  negative = false;
  if (allow_minus && i < n && d[i] == '-') {
    negative = true;
    i++;
  }
  uint64_t v = 0;
  while (i < n && d[i] >= '0' && d[i] <= '9') v = v * 10 + static_cast<uint64_t>(d[i++] - '0');
  return v;
}

bool number_shape(const char* d, int n, bool allow_dot) {
  int i = 0;
  while (i < n && (d[i] == ' ' || d[i] == '\t')) i++;
  if (i < n && d[i] == '-') i++;
  int digits = 0, dots = 0;
  while (i < n && ((d[i] >= '0' && d[i] <= '9') || (allow_dot && d[i] == '.'))) {
    if (d[i] == '.') {
      if (++dots > 1) return false;
    } else {
      digits++;
    }
    i++;
  }
  while (i < n && (d[i] == ' ' || d[i] == '\t')) i++;
  return digits > 0 && i == n;
}

}  // namespace

int String::to_int() const {
  bool neg;
  uint32_t v = static_cast<uint32_t>(leading_number(bytes_of(*this), length(), true, neg));
  return static_cast<int>(neg ? 0u - v : v);
}

unsigned String::to_uint() const {
  bool neg;
  return static_cast<unsigned>(leading_number(bytes_of(*this), length(), false, neg));
}

int64_t String::to_int64() const {
  bool neg;
  uint64_t v = leading_number(bytes_of(*this), length(), true, neg);
  return static_cast<int64_t>(neg ? 0 - v : v);
}

uint64_t String::to_uint64() const {
  bool neg;
  return leading_number(bytes_of(*this), length(), false, neg);
}

double String::to_double() const {
  int n = length();
  if (n == 0) return 0;
  char text[128];
  if (n > static_cast<int>(sizeof text) - 1) n = sizeof text - 1;
  memcpy(text, bytes_of(*this), static_cast<size_t>(n));
  text[n] = 0;
  double v = 0;
  if (sscanf(text, "%lf", &v) != 1) return 0;
  return v;
}

bool String::is_int() const { return number_shape(bytes_of(*this), length(), false); }
bool String::is_float() const { return number_shape(bytes_of(*this), length(), true); }

String String::normalized_path() const {
  const char* d = bytes_of(*this);
  int n = length();
  if (!memchr(d, '\\', static_cast<size_t>(n)) && !memchr(d, 0, static_cast<size_t>(n))) return *this;
  String out;
  for (int i = 0; i < n; i++) {
    if (d[i] == 0) continue;
    out.append(d[i] == '\\' ? '/' : d[i]);
  }
  return out;
}
