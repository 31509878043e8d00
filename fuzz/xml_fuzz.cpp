// libFuzzer target for XmlNode: any bytes parse as a document and as one element
// without a crash, an over-read or a hang; cutting elements always makes progress; and a
// node built from what was read serialises and reads back with the same name and text.
#include <cstdint>
#include <cstdlib>

#include "core/xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1 << 20)) return 0;
  String text(reinterpret_cast<const char*>(data), static_cast<int>(size));

  XmlNode document(text, true);
  XmlNode node(text, false);
  String body_text = node.text();
  for (const String& a : node.attributes()) {
    int eq = a.find('=');
    (void)node.attribute(eq < 0 ? a : a.head(eq));
  }
  String v1, v2, v3;
  read_children(document, "a", v1, "b", v2, "c", v3);
  read_children_raw(node, "a", v1, "b", v2);

  String rest = text;
  while (!rest.empty()) {
    int before = rest.length();
    String element = XmlNode::next_element(rest);
    if (rest.length() >= before) abort();  // no progress would be a hang
    XmlNode child(element, false);
    (void)child.to_string(true);
  }
  String strict = text;
  while (true) {
    int before = strict.length();
    String element = XmlNode::next_element_strict(strict);
    if (element.empty()) break;
    if (strict.length() >= before) abort();
  }

  // What a caller writes reads back: escaping and entity replacement are inverses. (A name
  // ending in "-" is left out: the cut takes "->" for the end of a comment, by design.)
  if (!node.name().empty() && !node.name().ends_with("-")) {
    XmlNode built(node.name(), body_text);
    built.set_attribute("x", body_text);
    XmlNode parent(String("p"), "");
    parent.set_pretty(true);
    parent.add_child(built);
    XmlNode back(built.to_string(true), true);
    if (back.name() != node.name() || back.text() != body_text) abort();
    if (back.attribute("x") != body_text) abort();
    String value;
    read_children(XmlNode(parent.to_string(true), true), node.name(), value);
    (void)value;
  }
  return 0;
}
