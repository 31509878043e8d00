// Formatted text: one small language of directives (%d %s %x %X %m %j %r %%, width and
// the zero flag) over typed slots. Each C++ argument type maps to one slot tag, and a
// tag that a directive has no rendering for gives nothing (but is consumed): %j of a
// C string is empty, so pass a String where JSON, XML or URL escaping is wanted, and
// use %d, never %s, for 64-bit numbers.
#pragma once

#include "core/string.h"

struct FormatSlot {
  enum Tag : uint8_t { Int = 0, Unsigned = 1, Char = 2, Text = 3, CText = 4, Bool = 5,
                       Int64 = 6, Uint64 = 7, Address = 8, JsonList = 9 };
  Tag tag;
  union {
    int32_t i;
    uint32_t u;
    char c;
    const String* s;
    const char* cs;
    bool b;
    int64_t i64;
    uint64_t u64;
  };
  FormatSlot(int v) : tag(Int), i(v) {}
  FormatSlot(unsigned v) : tag(Unsigned), u(v) {}
  FormatSlot(char v) : tag(Char), c(v) {}
  FormatSlot(signed char v) : tag(Char), c(static_cast<char>(v)) {}
  FormatSlot(unsigned char v) : tag(Char), c(static_cast<char>(v)) {}
  FormatSlot(const String& v) : tag(Text), s(&v) {}
  FormatSlot(const char* v) : tag(CText), cs(v) {}
  FormatSlot(bool v) : tag(Bool), b(v) {}
  FormatSlot(long v) : tag(Int64), i64(v) {}
  FormatSlot(long long v) : tag(Int64), i64(v) {}
  FormatSlot(unsigned long v) : tag(Uint64), u64(v) {}
  FormatSlot(unsigned long long v) : tag(Uint64), u64(v) {}
  FormatSlot(short v) : tag(Int), i(v) {}
  FormatSlot(unsigned short v) : tag(Unsigned), u(v) {}
  // A network address, given as its text: %s writes it, every other directive nothing.
  static FormatSlot address(const String& text) { FormatSlot f(text); f.tag = Address; return f; }
  // The items of a JSON list: %j writes "[" + items + "]", every other directive nothing.
  static FormatSlot json_list(const String& items) { FormatSlot f(items); f.tag = JsonList; return f; }
};

// Starts `out` empty and writes the template with the slots filled in.
void format_slots(String& out, const char* tmpl, const FormatSlot* slots, int count);
void format_slots(String& out, const String& tmpl, const FormatSlot* slots, int count);

template <class... A>
void format(String& out, const char* tmpl, const A&... args) {
  const FormatSlot slots[sizeof...(A) + 1] = {FormatSlot(args)..., FormatSlot(0)};
  format_slots(out, tmpl, slots, static_cast<int>(sizeof...(A)));
}

// A template that comes from a file or a setting rather than the code.
template <class... A>
void format(String& out, const String& tmpl, const A&... args) {
  const FormatSlot slots[sizeof...(A) + 1] = {FormatSlot(args)..., FormatSlot(0)};
  format_slots(out, tmpl, slots, static_cast<int>(sizeof...(A)));
}

template <class... A>
String format(const char* tmpl, const A&... args) {
  String out;
  const FormatSlot slots[sizeof...(A) + 1] = {FormatSlot(args)..., FormatSlot(0)};
  format_slots(out, tmpl, slots, static_cast<int>(sizeof...(A)));
  return out;
}

// The escapes of %j (with the quotes), %m and %r, appended to `out`.
void append_json_quoted(String& out, const String& value);
void append_xml_escaped(String& out, const String& value);
void append_url_encoded(String& out, const String& value);
