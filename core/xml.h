// XmlNode: a lazy, text-based view of one XML element. There is no tree: the
// body stays raw and shares the source's buffer, and a child is what a caller cuts from
// the body with next_element and parses in its turn. Parsing never fails: bad input gives
// a node with an empty name or an empty body.
//
// Beyond the text (DECISIONS D4, D12): next_element gives up beyond 256 levels of nesting,
// "<!DOCTYPE ...>", "<!-- ... -->" and "<![CDATA[ ... ]]>" are passed over without opening
// a level, and entities are replaced in a single pass ("&amp;lt;" reads as "&lt;").
#pragma once

#include <vector>

#include "core/string.h"

class XmlNode {
 public:
  // Deepest nesting that next_element follows (D4).
  static constexpr int max_depth = 256;

  XmlNode() = default;
  // Parses one element. With `document` the text is cut into elements in turn, passing over
  // the declaration, comments and DOCTYPE, until one with a name is found.
  XmlNode(const String& text, bool document);
  // A new element named `name` with `text`, escaped, as its body.
  XmlNode(const String& name, const String& text);
  // Without this, XmlNode("a", "text") would take the (text, document) form.
  XmlNode(const String& name, const char* text) : XmlNode(name, String(text)) {}

  const String& name() const { return name_; }
  const String& raw_body() const { return body_; }
  // The body with the entities replaced.
  String text() const;
  const std::vector<String>& attributes() const { return attributes_; }
  // The value of the first attribute called `name`, entities replaced; empty if none.
  String attribute(const String& name) const;
  // Appends name="escaped value" without looking for an earlier one.
  void set_attribute(const String& name, const String& value);
  // Appends the child's text to the body, on lines of its own when this node is pretty.
  void add_child(const XmlNode& child);

  bool pretty() const { return pretty_; }
  void set_pretty(bool pretty) { pretty_ = pretty; }
  bool has_children() const { return has_children_; }

  // Cuts the first complete element from the front of `text` and returns it. An element
  // with no end gives all of `text`; nesting deeper than max_depth gives the empty String.
  // Either way `text` is left empty.
  static String next_element(String& text);
  // The same, but an element with no end (or too deep) gives the empty String and leaves
  // `text` as it was.
  static String next_element_strict(String& text);

  // The serialised element, with the XML declaration and a CRLF in front if asked.
  String to_string(bool declaration = false) const;

 private:
  void parse(const String& text);

  String name_;
  std::vector<String> attributes_;
  String body_;
  bool pretty_ = false;
  bool has_children_ = false;
};

inline String to_string(const XmlNode& node, bool declaration = false) {
  return node.to_string(declaration);
}

// Replaces "&apos;", "&quot;", "&amp;", "&lt;", "&gt;" and "&aquot;" in one pass; numeric
// references and all other entities stay. A text with no "&" is returned as it stands.
String xml_decode_entities(const String& text);

// One pass over the children of `node`: each value receives text() (read_children) or
// raw_body() (read_children_raw) of the child element with that name; where a name occurs
// twice the last one counts, and a value whose name does not occur is left as it was.
void read_children_list(const XmlNode& node, bool raw, const String* const* names,
                        String* const* values, int count);

inline void read_children(const XmlNode& node, const String& n1, String& v1) {
  const String* n[] = {&n1};
  String* v[] = {&v1};
  read_children_list(node, false, n, v, 1);
}
inline void read_children(const XmlNode& node, const String& n1, String& v1, const String& n2,
                          String& v2) {
  const String* n[] = {&n1, &n2};
  String* v[] = {&v1, &v2};
  read_children_list(node, false, n, v, 2);
}
inline void read_children(const XmlNode& node, const String& n1, String& v1, const String& n2,
                          String& v2, const String& n3, String& v3) {
  const String* n[] = {&n1, &n2, &n3};
  String* v[] = {&v1, &v2, &v3};
  read_children_list(node, false, n, v, 3);
}
inline void read_children(const XmlNode& node, const String& n1, String& v1, const String& n2,
                          String& v2, const String& n3, String& v3, const String& n4,
                          String& v4) {
  const String* n[] = {&n1, &n2, &n3, &n4};
  String* v[] = {&v1, &v2, &v3, &v4};
  read_children_list(node, false, n, v, 4);
}
inline void read_children(const XmlNode& node, const String& n1, String& v1, const String& n2,
                          String& v2, const String& n3, String& v3, const String& n4,
                          String& v4, const String& n5, String& v5) {
  const String* n[] = {&n1, &n2, &n3, &n4, &n5};
  String* v[] = {&v1, &v2, &v3, &v4, &v5};
  read_children_list(node, false, n, v, 5);
}

inline void read_children_raw(const XmlNode& node, const String& n1, String& v1) {
  const String* n[] = {&n1};
  String* v[] = {&v1};
  read_children_list(node, true, n, v, 1);
}
inline void read_children_raw(const XmlNode& node, const String& n1, String& v1,
                              const String& n2, String& v2) {
  const String* n[] = {&n1, &n2};
  String* v[] = {&v1, &v2};
  read_children_list(node, true, n, v, 2);
}
inline void read_children_raw(const XmlNode& node, const String& n1, String& v1,
                              const String& n2, String& v2, const String& n3, String& v3) {
  const String* n[] = {&n1, &n2, &n3};
  String* v[] = {&v1, &v2, &v3};
  read_children_list(node, true, n, v, 3);
}
inline void read_children_raw(const XmlNode& node, const String& n1, String& v1,
                              const String& n2, String& v2, const String& n3, String& v3,
                              const String& n4, String& v4) {
  const String* n[] = {&n1, &n2, &n3, &n4};
  String* v[] = {&v1, &v2, &v3, &v4};
  read_children_list(node, true, n, v, 4);
}
inline void read_children_raw(const XmlNode& node, const String& n1, String& v1,
                              const String& n2, String& v2, const String& n3, String& v3,
                              const String& n4, String& v4, const String& n5, String& v5) {
  const String* n[] = {&n1, &n2, &n3, &n4, &n5};
  String* v[] = {&v1, &v2, &v3, &v4, &v5};
  read_children_list(node, true, n, v, 5);
}
