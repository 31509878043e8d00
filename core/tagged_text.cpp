#include "core/tagged_text.h"

#include "core/internal/string_access.h"

bool TaggedText::add(int tag, const String& value) {
  int n = value.length();
  if (n > tagged_max_value || tag < 0 || tag > 255) return false;
  char head[4] = {static_cast<char>(tag), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                  static_cast<char>(n)};
  text_.append(head, 4);
  text_.append(value);
  return true;
}

static bool record_at(const String& text, int pos, int& tag, int& start, int& length) {
  if (pos + 4 > text.length()) return false;
  const unsigned char* d = reinterpret_cast<const unsigned char*>(StringAccess::data(text)) + pos;
  tag = d[0];
  length = (d[1] << 16) | (d[2] << 8) | d[3];
  start = pos + 4;
  return length <= text.length() - start;
}

bool TaggedText::next(int& tag, String& value) {
  int start, length;
  if (!record_at(text_, 0, tag, start, length)) {
    text_ = String();
    value = String();
    return false;
  }
  value = text_.substr(start, length);
  text_ = text_.tail(start + length);
  return true;
}

String TaggedText::find(int tag) const {
  int pos = 0, t, start, length;
  while (record_at(text_, pos, t, start, length)) {
    if (t == tag) return text_.substr(start, length);
    pos = start + length;
  }
  return String();
}

bool TaggedText::has(int tag) const {
  int pos = 0, t, start, length;
  while (record_at(text_, pos, t, start, length)) {
    if (t == tag) return true;
    pos = start + length;
  }
  return false;
}
