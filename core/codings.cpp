#include "core/codings.h"

#include "core/internal/string_access.h"
#include "core/internal/text_buffer.h"

const String uri_safe_user("-_.!~*'()&=+$,;?/");
const String uri_safe_host(".-");
const String uri_safe_parameters("-_.!~*'()[]/:&+$");
const String uri_safe_headers("-_.!~*'()[]/?:+$");

namespace {

const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int hex_value(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

inline const unsigned char* bytes_of(const String& s) {
  return reinterpret_cast<const unsigned char*>(StringAccess::data(s));
}

}  // namespace

String base64_encode(const String& value, int groups) {
  const unsigned char* d = bytes_of(value);
  int n = value.length();
  if (groups < 1) groups = 1;
  TextBuffer t;
  int in_line = 0;
  for (int i = 0; i < n; i += 3) {
    uint32_t v = static_cast<uint32_t>(d[i]) << 16;
    if (i + 1 < n) v |= static_cast<uint32_t>(d[i + 1]) << 8;
    if (i + 2 < n) v |= d[i + 2];
    char g[4] = {alphabet[v >> 18], alphabet[(v >> 12) & 63],
                 i + 1 < n ? alphabet[(v >> 6) & 63] : '=', i + 2 < n ? alphabet[v & 63] : '='};
    t.put(g, 4);
    if (++in_line == groups) {
      t.put("\r\n", 2);
      in_line = 0;
    }
  }
  return t.take();
}

String base64_decode(const String& text) {
  static signed char value[256];
  static bool ready = [] {
    for (int i = 0; i < 256; i++) value[i] = -1;
    for (int i = 0; i < 64; i++) value[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
    return true;
  }();
  (void)ready;
  const unsigned char* d = bytes_of(text);
  int n = text.length();
  TextBuffer t;
  uint32_t acc = 0;
  int bits = 0;
  for (int i = 0; i < n; i++) {
    if (d[i] == '=') break;
    int v = value[d[i]];
    if (v < 0) continue;
    acc = (acc << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      t.put(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  return t.take();
}

String hex_encode(const String& value) { return hex(value, false); }
String hex_encode_upper(const String& value) { return hex(value, true); }
String hex_decode(const String& text) { return unhex(text); }

String percent_decode(const String& text) {
  const unsigned char* d = bytes_of(text);
  int n = text.length();
  TextBuffer t;
  for (int i = 0; i < n; i++) {
    if (d[i] != '%') {
      t.put(static_cast<char>(d[i]));
      continue;
    }
    int hi = i + 1 < n ? hex_value(d[i + 1]) : -1;
    int lo = i + 2 < n ? hex_value(d[i + 2]) : -1;
    if (hi >= 0 && lo >= 0) t.put(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return t.take();
}

String url_decode(const String& text, bool keep_plus) {
  const unsigned char* d = bytes_of(text);
  int n = text.length();
  TextBuffer t;
  for (int i = 0; i < n; i++) {
    unsigned char c = d[i];
    if (c == '=') {
      t.put(':');
    } else if (c == '&') {
      t.put('\n');
    } else if (c == '+' && !keep_plus) {
      t.put(' ');
    } else if (c == '%' && i + 2 < n) {
      int hi = hex_value(d[i + 1]);
      int lo = hex_value(d[i + 2]);
      // Browsers of old sent broken escapes; they decode to something harmless.
      t.put(static_cast<char>((hi < 0 ? 0 : hi) * 16 + (lo < 0 ? 32 : lo)));
      i += 2;
    } else {
      t.put(static_cast<char>(c));
    }
  }
  return t.take();
}

String percent_encode(const String& text, const String& safe) {
  static const char digits[] = "0123456789ABCDEF";
  const unsigned char* d = bytes_of(text);
  int n = text.length();
  TextBuffer t;
  for (int i = 0; i < n; i++) {
    unsigned char c = d[i];
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
        safe.contains(static_cast<char>(c))) {
      t.put(static_cast<char>(c));
    } else {
      char e[3] = {'%', digits[c >> 4], digits[c & 15]};
      t.put(e, 3);
    }
  }
  return t.take();
}

String quoted(const String& text) {
  const unsigned char* d = bytes_of(text);
  TextBuffer t;
  t.put('"');
  for (int i = 0; i < text.length(); i++) {
    if (d[i] == '"' || d[i] == '\\') t.put('\\');
    t.put(static_cast<char>(d[i]));
  }
  t.put('"');
  return t.take();
}

String js_single_quoted(const String& text) {
  const unsigned char* d = bytes_of(text);
  TextBuffer t;
  for (int i = 0; i < text.length(); i++) {
    if (d[i] == '\'') t.put('\\');
    t.put(static_cast<char>(d[i]));
  }
  return t.take();
}

String js_json_parse(const String& text) {
  const unsigned char* d = bytes_of(text);
  TextBuffer t;
  t.put("JSON.parse('", 12);
  for (int i = 0; i < text.length(); i++) {
    unsigned char c = d[i];
    if (c == '\r') continue;
    if (c == '\'' || c == '\n') t.put('\\');
    t.put(static_cast<char>(c));
  }
  t.put("')", 2);
  return t.take();
}
