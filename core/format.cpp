#include "core/format.h"

#include <cstring>

#include "core/internal/string_access.h"
#include "core/internal/text_buffer.h"

namespace {

constexpr int max_width = 1024;
const char hex_lower[] = "0123456789abcdef";
const char hex_upper[] = "0123456789ABCDEF";

inline const char* bytes_of(const String& s) { return StringAccess::data(s); }

void put_decimal(TextBuffer& t, bool negative, uint64_t magnitude) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude);
  if (negative) t.put('-');
  while (n) t.put(digits[--n]);
}

void put_signed(TextBuffer& t, int64_t v) {
  put_decimal(t, v < 0, v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v));
}

// Two digits per byte, from the highest non-zero byte down, at least one byte.
void put_hex_number(TextBuffer& t, uint32_t v, const char* digits) {
  int top = 3;
  while (top > 0 && ((v >> (8 * top)) & 0xFF) == 0) top--;
  for (int b = top; b >= 0; b--) {
    unsigned byte = (v >> (8 * b)) & 0xFF;
    t.put(digits[byte >> 4]);
    t.put(digits[byte & 15]);
  }
}

void put_hex_bytes(TextBuffer& t, const char* d, int n, const char* digits) {
  for (int i = 0; i < n; i++) {
    unsigned char c = static_cast<unsigned char>(d[i]);
    t.put(digits[c >> 4]);
    t.put(digits[c & 15]);
  }
}

void put_bool(TextBuffer& t, bool b) { b ? t.put("true", 4) : t.put("false", 5); }

// Length of the well-formed UTF-8 sequence at d[i] with a lead byte >= 0x80, or 0.
int utf8_sequence(const unsigned char* d, int i, int n) {
  unsigned char c = d[i];
  int len;
  uint32_t cp;
  if (c >= 0xC2 && c <= 0xDF) len = 2, cp = c & 0x1Fu;
  else if (c >= 0xE0 && c <= 0xEF) len = 3, cp = c & 0x0Fu;
  else if (c >= 0xF0 && c <= 0xF4) len = 4, cp = c & 0x07u;
  else return 0;
  if (i + len > n) return 0;
  for (int k = 1; k < len; k++) {
    if ((d[i + k] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (d[i + k] & 0x3Fu);
  }
  if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
      (cp >= 0xD800 && cp <= 0xDFFF))
    return 0;
  return len;
}

void put_unicode_escape(TextBuffer& t, unsigned char c) {
  char e[6] = {'\\', 'u', '0', '0', hex_lower[c >> 4], hex_lower[c & 15]};
  t.put(e, 6);
}

// Escape of one byte below 32 or a quote or backslash; false if the byte needs none.
bool put_json_control(TextBuffer& t, unsigned char c) {
  switch (c) {
    case '"': t.put("\\\"", 2); return true;
    case '\\': t.put("\\\\", 2); return true;
    case 8: t.put("\\b", 2); return true;
    case 12: t.put("\\f", 2); return true;
    case 10: t.put("\\n", 2); return true;
    case 13: t.put("\\r", 2); return true;
    case 9: t.put("\\t", 2); return true;
    default:
      if (c < 32) {
        put_unicode_escape(t, c);
        return true;
      }
      return false;
  }
}

// A value that breaks UTF-8 is taken as 16-bit units in memory order, of which the first
// byte of each is kept. This is how such values were always written, and readers of
// our JSON depend on it.
void put_json_units(TextBuffer& t, const unsigned char* d, int n) {
  for (int i = 0; i < n; i += 2) {
    unsigned char c = d[i];
    if (c == 11) t.put("\\v", 2);
    else if (put_json_control(t, c)) continue;
    else if (c >= 32 && c <= 126) t.put(static_cast<char>(c));
    else put_unicode_escape(t, c);
  }
}

void put_json_quoted(TextBuffer& t, const String& v) {
  const unsigned char* d = reinterpret_cast<const unsigned char*>(bytes_of(v));
  int n = v.length();
  size_t mark = t.size();
  t.put('"');
  int i = 0;
  while (i < n) {
    int run = i;
    while (run < n && d[run] >= 32 && d[run] < 128 && d[run] != '"' && d[run] != '\\') run++;
    if (run > i) {
      t.put(reinterpret_cast<const char*>(d + i), static_cast<size_t>(run - i));
      i = run;
      continue;
    }
    unsigned char c = d[i];
    if (c < 128) {
      put_json_control(t, c);
      i++;
      continue;
    }
    int len = utf8_sequence(d, i, n);
    if (len == 0) {
      t.truncate(mark + 1);
      put_json_units(t, d, n);
      break;
    }
    t.put(reinterpret_cast<const char*>(d + i), static_cast<size_t>(len));
    i += len;
  }
  t.put('"');
}

void put_xml_escaped(TextBuffer& t, const String& v) {
  const char* d = bytes_of(v);
  int n = v.length();
  for (int i = 0; i < n; i++) {
    switch (d[i]) {
      case '\'': t.put("&apos;", 6); break;
      case '"': t.put("&quot;", 6); break;
      case '&': t.put("&amp;", 5); break;
      case '<': t.put("&lt;", 4); break;
      case '>': t.put("&gt;", 4); break;
      default: t.put(d[i]);
    }
  }
}

void put_url_encoded(TextBuffer& t, const String& v) {
  const unsigned char* d = reinterpret_cast<const unsigned char*>(bytes_of(v));
  int n = v.length();
  for (int i = 0; i < n; i++) {
    unsigned char c = d[i];
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
        c == '-' || c == '.') {
      t.put(static_cast<char>(c));
    } else {
      char e[3] = {'%', hex_lower[c >> 4], hex_lower[c & 15]};
      t.put(e, 3);
    }
  }
}

// The directives that take width and zero padding write into a side buffer first.
void render_padded(TextBuffer& t, const FormatSlot& s, char directive, int width, bool zero) {
  TextBuffer r;
  bool hex = directive == 'x' || directive == 'X';
  const char* digits = directive == 'X' ? hex_upper : hex_lower;
  switch (s.tag) {
    case FormatSlot::Int:
      if (hex) put_hex_number(r, static_cast<uint32_t>(s.i), digits);
      else put_signed(r, s.i);
      break;
    case FormatSlot::Unsigned:
      if (hex) put_hex_number(r, s.u, digits);
      else put_decimal(r, false, s.u);
      break;
    case FormatSlot::Char:
      if (hex) put_hex_bytes(r, &s.c, 1, digits);
      else put_decimal(r, false, static_cast<unsigned char>(s.c));
      break;
    case FormatSlot::Text:
      if (hex) put_hex_bytes(r, bytes_of(*s.s), s.s->length(), digits);
      else r.put(bytes_of(*s.s), static_cast<size_t>(s.s->length()));
      break;
    case FormatSlot::Int64:
      if (!hex) put_signed(r, s.i64);
      break;
    case FormatSlot::Uint64:
      if (!hex) put_decimal(r, false, s.u64);
      break;
    default:
      break;
  }
  for (int pad = width - static_cast<int>(r.size()); pad > 0; pad--) t.put(zero ? '0' : ' ');
  t.put(r.data(), r.size());
}

void render(TextBuffer& t, const FormatSlot& s, char directive) {
  switch (s.tag) {
    case FormatSlot::Int:
      put_signed(t, s.i);
      return;
    case FormatSlot::Unsigned:
      put_decimal(t, false, s.u);
      return;
    case FormatSlot::Char:
      if (directive == 's') t.put(s.c);
      return;
    case FormatSlot::Text:
      if (directive == 's') t.put(bytes_of(*s.s), static_cast<size_t>(s.s->length()));
      else if (directive == 'm') put_xml_escaped(t, *s.s);
      else if (directive == 'j') put_json_quoted(t, *s.s);
      else put_url_encoded(t, *s.s);
      return;
    case FormatSlot::CText:
      if (directive == 's' && s.cs) t.put(s.cs, strlen(s.cs));
      return;
    case FormatSlot::Bool:
      put_bool(t, s.b);
      return;
    case FormatSlot::Address:
      if (directive == 's') t.put(bytes_of(*s.s), static_cast<size_t>(s.s->length()));
      return;
    case FormatSlot::JsonList:
      if (directive == 'j') {
        t.put('[');
        t.put(bytes_of(*s.s), static_cast<size_t>(s.s->length()));
        t.put(']');
      }
      return;
    default:
      return;
  }
}

void format_into(TextBuffer& t, const char* tmpl, int n, const FormatSlot* slots, int count) {
  int next_slot = 0;
  for (int i = 0; i < n; i++) {
    char c = tmpl[i];
    if (c != '%' || i == n - 1) {
      int run = i + 1;
      while (run < n && tmpl[run] != '%') run++;
      t.put(tmpl + i, static_cast<size_t>(run - i));
      i = run - 1;
      continue;
    }
    i++;
    bool zero = false;
    int width = 0;
    if (tmpl[i] == '0') {
      zero = true;
      i++;
    }
    while (i < n && tmpl[i] >= '0' && tmpl[i] <= '9') {
      width = width * 10 + (tmpl[i] - '0');
      if (width > max_width) width = max_width;
      i++;
    }
    if (i >= n) break;
    char d = tmpl[i];
    if (d == '%') {
      t.put('%');
      continue;
    }
    if (d != 'd' && d != 's' && d != 'x' && d != 'X' && d != 'm' && d != 'j' && d != 'r') continue;
    if (next_slot >= count) continue;
    const FormatSlot& s = slots[next_slot++];
    if (d == 'd' || d == 'x' || d == 'X') {
      // Booleans, C strings, addresses and lists have no numeric form.
      if (s.tag == FormatSlot::Bool || s.tag == FormatSlot::CText || s.tag == FormatSlot::Address ||
          s.tag == FormatSlot::JsonList)
        continue;
      if (d != 'd' && (s.tag == FormatSlot::Int64 || s.tag == FormatSlot::Uint64)) continue;
      render_padded(t, s, d, width, zero);
    } else {
      if ((s.tag == FormatSlot::Int64 || s.tag == FormatSlot::Uint64)) continue;
      if (s.tag == FormatSlot::Bool && d == 's') {
        put_bool(t, s.b);
        continue;
      }
      render(t, s, d);
    }
  }
}

}  // namespace

void format_slots(String& out, const char* tmpl, const FormatSlot* slots, int count) {
  TextBuffer t;
  if (tmpl) format_into(t, tmpl, static_cast<int>(strlen(tmpl)), slots, count);
  out = t.take();
}

void format_slots(String& out, const String& tmpl, const FormatSlot* slots, int count) {
  TextBuffer t;
  format_into(t, bytes_of(tmpl), tmpl.length(), slots, count);
  out = t.take();
}

void append_json_quoted(String& out, const String& value) {
  TextBuffer t;
  put_json_quoted(t, value);
  out.append(t.data(), static_cast<int>(t.size()));
}

void append_xml_escaped(String& out, const String& value) {
  TextBuffer t;
  put_xml_escaped(t, value);
  out.append(t.data(), static_cast<int>(t.size()));
}

void append_url_encoded(String& out, const String& value) {
  TextBuffer t;
  put_url_encoded(t, value);
  out.append(t.data(), static_cast<int>(t.size()));
}
