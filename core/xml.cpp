#include "core/xml.h"

#include <cstring>

#include "core/format.h"
#include "core/log.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool is_name_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_' || c == '-' || c == '.' || c == ':' || static_cast<unsigned char>(c) >= 0x80;
}

// Index of the three bytes `a b c` in p[from, n), or -1. A plain loop: memmem would be
// checked over the whole rest of the text on every call in the sanitizer builds.
int find3(const char* p, int n, int from, char a, char b, char c) {
  for (int i = from; i + 2 < n; i++) {
    if (p[i] == a && p[i + 1] == b && p[i + 2] == c) return i;
  }
  return -1;
}

// p[at] is the "<" of "<!". Returns the index of the ">" that ends the comment, CDATA
// section or declaration, or -1 if the text ends first. A DOCTYPE's internal subset in
// brackets may hold ">" of its own.
int skip_markup_declaration(const char* p, int n, int at) {
  if (at + 3 < n && p[at + 2] == '-' && p[at + 3] == '-') {
    int end = find3(p, n, at + 4, '-', '-', '>');
    return end < 0 ? -1 : end + 2;
  }
  if (at + 8 < n && memcmp(p + at + 2, "[CDATA[", 7) == 0) {
    int end = find3(p, n, at + 9, ']', ']', '>');
    return end < 0 ? -1 : end + 2;
  }
  int brackets = 0;
  for (int i = at + 2; i < n; i++) {
    if (p[i] == '[') {
      brackets++;
    } else if (p[i] == ']') {
      if (brackets > 0) brackets--;
    } else if (p[i] == '>' && brackets == 0) {
      return i;
    }
  }
  return -1;
}

enum class Cut { complete, no_end, too_deep };

// Finds the end of the first element of p[0, n): the depth walk.
Cut cut_element(const char* p, int n, int* end) {
  int depth = 0;
  char prev = 0;
  for (int i = 0; i < n; i++) {
    char c = p[i];
    if (c == '<') {
      if (i + 1 < n && p[i + 1] == '!') {
        int close = skip_markup_declaration(p, n, i);
        if (close < 0) return Cut::no_end;
        if (depth == 0) {
          *end = close + 1;
          return Cut::complete;
        }
        i = close;
        prev = '>';
        continue;
      }
      if (i + 1 < n && p[i + 1] == '/') {
        depth--;
      } else if (++depth > XmlNode::max_depth) {
        return Cut::too_deep;
      }
    } else if (c == '>') {
      if (prev == '/' || prev == '?' || prev == '-') {
        if (--depth == 0) {
          *end = i + 1;
          return Cut::complete;
        }
      } else if (depth == 0) {
        *end = i + 1;
        return Cut::complete;
      }
    }
    prev = c;
  }
  return Cut::no_end;
}

void log_too_deep() {
  if (log_enabled(LOG_GENERAL, 5)) {
    log_add_message_global(LOG_GENERAL, 5, 0, "XML: Nesting deeper than 256 levels");
  }
}

struct Entity {
  const char* text;
  int length;
  char value;
};

constexpr Entity entities[] = {
    {"&apos;", 6, '\''}, {"&quot;", 6, '"'}, {"&amp;", 5, '&'},
    {"&lt;", 4, '<'},    {"&gt;", 4, '>'},   {"&aquot;", 7, '"'},
};

}  // namespace

String xml_decode_entities(const String& text) {
  const char* p = text.c_data();
  int n = text.length();
  const char* amp = static_cast<const char*>(memchr(p, '&', n));
  if (!amp) return text;
  String out;
  out.reserve(n);
  int copied = 0;
  for (int i = static_cast<int>(amp - p); i < n; i++) {
    if (p[i] != '&') continue;
    for (const Entity& e : entities) {
      if (i + e.length <= n && memcmp(p + i, e.text, e.length) == 0) {
        out.append(p + copied, i - copied);
        out.append(e.value);
        copied = i + e.length;
        i = copied - 1;
        break;
      }
    }
  }
  out.append(p + copied, n - copied);
  return out;
}

XmlNode::XmlNode(const String& text, bool document) {
  if (!document) {
    parse(text.trim());
    return;
  }
  String rest = text;
  while (!rest.empty() && name_.empty()) {
    String element = next_element(rest);
    *this = XmlNode();
    parse(element);
  }
}

XmlNode::XmlNode(const String& name, const String& text) : name_(name) {
  append_xml_escaped(body_, text);
}

void XmlNode::parse(const String& src) {
  const char* p = src.c_data();
  int n = src.length();
  int i = 0;
  while (i < n && is_blank(p[i])) i++;
  if (i >= n || p[i] != '<') return;
  i++;
  while (i < n && is_blank(p[i])) i++;
  if (i >= n || p[i] == '?' || p[i] == '!') return;
  int name_start = i;
  while (i < n && is_name_char(p[i])) i++;
  if (i == name_start) return;
  name_ = src.substr(name_start, i - name_start);

  // A single quote protects nothing here: only double quotes do.
  bool quoted = false;
  int start = i;
  for (; i < n; i++) {
    char c = p[i];
    if (c == '"') {
      quoted = !quoted;
    } else if (!quoted) {
      if (c == '/' || c == '>') break;
      if (is_blank(c)) {
        if (i > start) attributes_.push_back(src.substr(start, i - start));
        start = i + 1;
      }
    }
  }
  if (i > start) attributes_.push_back(src.substr(start, i - start));
  if (i < n && p[i] == '/') i++;
  if (i < n && p[i] == '>') i++;

  // The body runs to the last "<" of the text: the caller has cut exactly one element.
  const void* last = nullptr;
  for (int k = n - 1; k >= i; k--) {
    if (p[k] == '<') {
      last = p + k;
      break;
    }
  }
  if (last) body_ = src.substr(i, static_cast<int>(static_cast<const char*>(last) - p) - i);
}

String XmlNode::text() const { return xml_decode_entities(body_); }

String XmlNode::attribute(const String& name) const {
  for (const String& entry : attributes_) {
    int eq = entry.find('=');
    if (eq < 0) {
      if (entry == name) return String();
      continue;
    }
    if (eq != name.length() || !entry.starts_with(name)) continue;
    String value = entry.tail(eq + 1);
    int len = value.length();
    if (len >= 2) {
      char first = value[0];
      char last = value[len - 1];
      if ((first == '"' || first == '\'') && first == last) {
        return xml_decode_entities(value.substr(1, len - 2));
      }
    }
    return value;
  }
  return String();
}

void XmlNode::set_attribute(const String& name, const String& value) {
  String entry = name;
  entry.append("=\"");
  append_xml_escaped(entry, value);
  entry.append('"');
  attributes_.push_back(entry);
}

void XmlNode::add_child(const XmlNode& child) {
  String text = child.to_string(false);
  if (!pretty_) {
    body_.append(text);
  } else {
    const char* p = text.c_data();
    int n = text.length();
    int start = 0;
    while (start < n) {
      int end = start;
      while (end < n && p[end] != '\r' && p[end] != '\n') end++;
      body_.append("\r\n  ");
      body_.append(p + start, end - start);
      if (end < n && p[end] == '\r' && end + 1 < n && p[end + 1] == '\n') end++;
      start = end + 1;
    }
  }
  has_children_ = true;
}

String XmlNode::to_string(bool declaration) const {
  String out;
  if (name_.empty()) return out;
  if (declaration) out.append("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n");
  out.append('<');
  out.append(name_);
  for (const String& a : attributes_) {
    out.append(' ');
    out.append(a);
  }
  if (body_.empty()) {
    out.append("/>");
    return out;
  }
  out.append('>');
  out.append(body_);
  if (pretty_ && has_children_) out.append("\r\n");
  out.append("</");
  out.append(name_);
  out.append('>');
  return out;
}

String XmlNode::next_element(String& text) {
  int end = 0;
  Cut cut = cut_element(text.c_data(), text.length(), &end);
  String element;
  if (cut == Cut::complete) {
    element = text.head(end);
    text = text.tail(end);
  } else {
    if (cut == Cut::no_end) element = text;
    if (cut == Cut::too_deep) log_too_deep();
    text = String();
  }
  return element;
}

String XmlNode::next_element_strict(String& text) {
  int end = 0;
  Cut cut = cut_element(text.c_data(), text.length(), &end);
  if (cut != Cut::complete) {
    if (cut == Cut::too_deep) log_too_deep();
    return String();
  }
  String element = text.head(end);
  text = text.tail(end);
  return element;
}

void read_children_list(const XmlNode& node, bool raw, const String* const* names,
                        String* const* values, int count) {
  String rest = node.raw_body();
  while (!rest.empty()) {
    XmlNode child(XmlNode::next_element(rest), false);
    if (child.name().empty()) continue;
    for (int k = 0; k < count; k++) {
      if (child.name() == *names[k]) *values[k] = raw ? child.raw_body() : child.text();
    }
  }
}
