#include "sip/sip_params.h"

#include <cstring>

#include "core/codings.h"
#include "sip/internal/char_class.h"
#include "sip/internal/slice.h"

const SipParam* find_param(const ParamList& list, const String& name) {
  for (const SipParam& p : list)
    if (p.name.equals_nocase(name)) return &p;
  return nullptr;
}

SipParam* find_param(ParamList& list, const String& name) {
  for (SipParam& p : list)
    if (p.name.equals_nocase(name)) return &p;
  return nullptr;
}

void set_param(ParamList& list, const String& name, const String& value) {
  if (SipParam* p = find_param(list, name)) {
    p->value = value;
    return;
  }
  list.push_back(SipParam{name, value});
}

String unescape_quoted(const String& value) {
  if (!value.contains('\\')) return value;
  String out;
  const char* p = value.c_data();
  int n = value.length();
  for (int i = 0; i < n; i++) {
    if (p[i] == '\\' && i + 1 < n) i++;
    out.append(p[i]);
  }
  return out;
}

namespace {

// End of the item that starts at `pos`: the next separator outside double quotes.
int item_end(const char* p, int n, int pos, char separator) {
  bool quoted = false;
  for (int i = pos; i < n; i++) {
    char c = p[i];
    if (quoted) {
      if (c == '\\') i++;
      else if (c == '"') quoted = false;
    } else if (c == '"') {
      quoted = true;
    } else if (c == separator) {
      return i;
    }
  }
  return n;
}

}  // namespace

String param_value(const String& text, const String& name, char separator) {
  const char* p = text.c_data();
  int n = text.length();
  for (int pos = 0; pos <= n;) {
    int end = item_end(p, n, pos, separator);
    int eq = pos;
    while (eq < end && p[eq] != '=') eq++;
    int kb = pos;
    int ke = eq;
    trim_span(p, kb, ke);
    if (span_equals_nocase(p + kb, ke - kb, name)) {
      if (eq >= end) return String();
      int vb = eq + 1;
      int ve = end;
      trim_span(p, vb, ve);
      if (vb < ve && p[vb] == '"') {
        vb++;
        if (ve > vb && p[ve - 1] == '"') ve--;
        String v = text.substr(vb, ve - vb);
        return unescape_quoted(v);
      }
      return text.substr(vb, ve - vb);
    }
    pos = end + 1;
  }
  return String();
}

String split_quoted(const String& text, int n, char separator) {
  const char* p = text.c_data();
  int len = text.length();
  int pos = 0;
  for (int k = 0; pos <= len; k++) {
    int end = item_end(p, len, pos, separator);
    if (k == n) return text.substr(pos, end - pos).trim();
    pos = end + 1;
  }
  return String();
}

int placeholder_end(const char* p, int n, int pos) {
  static const char open[] = "{x-pre-";
  constexpr int open_len = sizeof(open) - 1;
  if (n - pos < open_len || memcmp(p + pos, open, open_len) != 0) return -1;
  for (int i = pos + open_len; i < n; i++)
    if (p[i] == '}') return i;
  return -1;
}

void append_uri_encoded(String& out, const String& value, uint8_t char_class) {
  static const char digits[] = "0123456789ABCDEF";
  const char* p = value.c_data();
  int n = value.length();
  int run = 0;  // start of the bytes not yet copied
  for (int i = 0; i < n; i++) {
    char c = p[i];
    if (sip_char_in(c, char_class)) continue;
    if (c == '{') {
      int close = placeholder_end(p, n, i);
      if (close >= 0) {
        i = close;
        continue;
      }
    }
    out.append(p + run, i - run);
    uint8_t b = static_cast<uint8_t>(c);
    char esc[3] = {'%', digits[b >> 4], digits[b & 15]};
    out.append(esc, 3);
    run = i + 1;
  }
  out.append(p + run, n - run);
}

String uri_decoded(const String& value) {
  return value.contains('%') ? percent_decode(value) : value;
}
