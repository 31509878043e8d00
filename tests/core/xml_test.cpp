// XmlNode (decisions D4 and D12). Expectations come from the algorithms
// and their edge cases; the hostile documents from D4.
#include "core/xml.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace {

String repeat(const char* piece, int count) {
  String out;
  for (int i = 0; i < count; i++) out.append(piece);
  return out;
}

}  // namespace

TEST(XmlTest, ParsesOneElement) {
  struct Case {
    const char* text;
    bool document;
    const char* name;
    const char* body;
    std::vector<const char*> attributes;
  } cases[] = {
      {"<a/>", false, "a", "", {}},
      {"<a></a>", false, "a", "", {}},
      {"  \r\n<a>text</a>\n ", false, "a", "text", {}},
      {"< a >x</a>", false, "a", "x", {}},
      {"<a b=\"x>y\">z</a>", false, "a", "z", {"b=\"x>y\""}},
      // A single quote protects neither a space nor a ">".
      {"<a b='x y'>z</a>", false, "a", "z", {"b='x", "y'"}},
      {"<a\tb=\"1\"\n  c=\"2\" />", false, "a", "", {"b=\"1\"", "c=\"2\""}},
      {"<a b=\"1\"><c/><d>e</d></a>", false, "a", "<c/><d>e</d>", {"b=\"1\""}},
      {"<ns:tag-name.x>v</ns:tag-name.x>", false, "ns:tag-name.x", "v", {}},
      // The body runs to the last "<" of the text; with none behind the tag it is empty.
      {"<a>text", false, "a", "", {}},
      {"<a>x</a>junk</b>", false, "a", "x</a>junk", {}},
      {"<?xml version=\"1.0\"?>", false, "", "", {}},
      {"<!-- c -->", false, "", "", {}},
      {"text", false, "", "", {}},
      {"", false, "", "", {}},
      {"<>", false, "", "", {}},
      {"<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<!-- a comment -->\r\n<root x=\"1\"><b/></root>",
       true, "root", "<b/>", {"x=\"1\""}},
      {"<!DOCTYPE x><a/>", true, "a", "", {}},
      {"<!DOCTYPE x [<!ENTITY e \"v\">]>\n<a>1</a>", true, "a", "1", {}},
      {"<!-- <b> --><a>1</a>", true, "a", "1", {}},
      {"<?xml version=\"1.0\"?>", true, "", "", {}},
      {"<!-- never ends <a/>", true, "", "", {}},
      {"", true, "", "", {}},
  };
  for (const auto& c : cases) {
    XmlNode node(String(c.text), c.document);
    EXPECT_EQ(node.name(), String(c.name)) << c.text;
    EXPECT_EQ(node.raw_body(), String(c.body)) << c.text;
    ASSERT_EQ(node.attributes().size(), c.attributes.size()) << c.text;
    for (size_t i = 0; i < c.attributes.size(); i++) {
      EXPECT_EQ(node.attributes()[i], String(c.attributes[i])) << c.text;
    }
  }
}

TEST(XmlTest, BodyAndCutsShareTheSourceBuffer) {
  String source("<row><id>5</id><name>x</name></row><next/>");
  String rest = source;
  String element = XmlNode::next_element(rest);
  EXPECT_TRUE(element.shares_buffer_with(source));
  EXPECT_TRUE(rest.shares_buffer_with(source));
  XmlNode node(element, false);
  EXPECT_TRUE(node.raw_body().shares_buffer_with(source));
  EXPECT_TRUE(node.text().shares_buffer_with(source));  // no "&": returned as it stands
}

TEST(XmlTest, TextReplacesTheFiveEntitiesAndAquotInOnePass) {
  struct Case {
    const char* body;
    const char* text;
  } cases[] = {
      {"plain", "plain"},
      {"&apos;&quot;&amp;&lt;&gt;", "'\"&<>"},
      {"&aquot;", "\""},
      {"&#65;", "&#65;"},  // numeric references stay
      {"&#x41;&nbsp;&unknown;", "&#x41;&nbsp;&unknown;"},
      {"&amp;lt;", "&lt;"},  // D12: one pass
      {"&amp;amp;amp;", "&amp;amp;"},
      {"a &amp b", "a &amp b"},
      {"tail &am", "tail &am"},  // tested only if the whole entity fits
      {"tail &lt", "tail &lt"},
      {"&", "&"},
      {"&&lt;&", "&<&"},
  };
  for (const auto& c : cases) {
    XmlNode node(String(std::string("<a>") .append(c.body).append("</a>").c_str()), false);
    EXPECT_EQ(node.raw_body(), String(c.body));
    EXPECT_EQ(node.text(), String(c.text)) << c.body;
    EXPECT_EQ(xml_decode_entities(String(c.body)), String(c.text)) << c.body;
  }
}

TEST(XmlTest, AttributeValues) {
  XmlNode node(String("<a b=\"1\" c='2' d=3 e=\"&lt;x&gt; &amp;lt;\" f=\"\" g h=x' b=\"9\"/>"),
               false);
  struct Case {
    const char* name;
    const char* value;
  } cases[] = {
      {"b", "1"},  // the first of two counts
      {"c", "2"},
      {"d", "3"},
      {"e", "<x> &lt;"},
      {"f", ""},
      {"g", ""},
      {"h", "x'"},  // a quote at one end only is not stripped
      {"missing", ""},
      {"B", ""},  // names compare exactly
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(node.attribute(String(c.name)), String(c.value)) << c.name;
}

TEST(XmlTest, UnquotedAttributeValueStandsAsItIs) {
  XmlNode node(String("<a v=&amp;x>"), false);
  EXPECT_EQ(node.attribute("v"), String("&amp;x"));
}

TEST(XmlTest, NextElementCutsTheFirstElement) {
  struct Case {
    const char* text;
    const char* element;
    const char* rest;
    const char* strict_element;
    const char* strict_rest;
  } cases[] = {
      {"<a><b/></a><c/>", "<a><b/></a>", "<c/>", "<a><b/></a>", "<c/>"},
      {"<a/><b/>", "<a/>", "<b/>", "<a/>", "<b/>"},
      {"\r\n  <a x=\"1\">t</a>\r\n", "\r\n  <a x=\"1\">t</a>", "\r\n", "\r\n  <a x=\"1\">t</a>", "\r\n"},
      {"<?xml version=\"1.0\"?><a/>", "<?xml version=\"1.0\"?>", "<a/>", "<?xml version=\"1.0\"?>",
       "<a/>"},
      {"<!-- <b> --><a/>", "<!-- <b> -->", "<a/>", "<!-- <b> -->", "<a/>"},
      {"<!DOCTYPE x><a/>", "<!DOCTYPE x>", "<a/>", "<!DOCTYPE x>", "<a/>"},
      {"<a><!-- < --></a>x", "<a><!-- < --></a>", "x", "<a><!-- < --></a>", "x"},
      {"<a><![CDATA[</a>]]></a><b/>", "<a><![CDATA[</a>]]></a>", "<b/>", "<a><![CDATA[</a>]]></a>",
       "<b/>"},
      {"<a><b></b><c/></a>", "<a><b></b><c/></a>", "", "<a><b></b><c/></a>", ""},
      // No end: all of the text, or the empty String in the strict form.
      {"<a><b/>", "<a><b/>", "", "", "<a><b/>"},
      {"<a", "<a", "", "", "<a"},
      {"text", "text", "", "", "text"},
      {"<!-- open", "<!-- open", "", "", "<!-- open"},
      {"", "", "", "", ""},
  };
  for (const auto& c : cases) {
    String rest(c.text);
    EXPECT_EQ(XmlNode::next_element(rest), String(c.element)) << c.text;
    EXPECT_EQ(rest, String(c.rest)) << c.text;
    String strict(c.text);
    EXPECT_EQ(XmlNode::next_element_strict(strict), String(c.strict_element)) << c.text;
    EXPECT_EQ(strict, String(c.strict_rest)) << c.text;
  }
}

TEST(XmlTest, NextElementFollows256LevelsAndNoMore) {
  String ok = repeat("<a>", 256) + repeat("</a>", 256);
  String rest = ok + "<b/>";
  EXPECT_EQ(XmlNode::next_element(rest), ok);
  EXPECT_EQ(rest, String("<b/>"));

  LogCapture log;
  String deep = repeat("<a>", 257) + repeat("</a>", 257);
  rest = deep;
  EXPECT_EQ(XmlNode::next_element(rest), String());
  EXPECT_EQ(rest, String());
  rest = deep;
  EXPECT_EQ(XmlNode::next_element_strict(rest), String());
  EXPECT_EQ(rest, deep);
  EXPECT_TRUE(log.contains("XML: Nesting deeper than 256 levels"));
}

TEST(XmlTest, ReadChildrenInOnePassLastOneCounts) {
  XmlNode row(String("<row><id>5</id><name>a&amp;b</name><skip x=\"1\"/>"
                     "<name>c&lt;d</name><empty/><note>n</note></row>"),
              false);
  String id, name, empty("preset"), missing("kept"), note;
  read_children(row, "id", id, "name", name, "empty", empty, "missing", missing, "note", note);
  EXPECT_EQ(id, String("5"));
  EXPECT_EQ(name, String("c<d"));
  EXPECT_EQ(empty, String(""));
  EXPECT_EQ(missing, String("kept"));
  EXPECT_EQ(note, String("n"));

  String raw;
  read_children_raw(row, "name", raw);
  EXPECT_EQ(raw, String("c&lt;d"));
  String a, b, c, d;
  read_children_raw(row, "id", a, "note", b);
  EXPECT_EQ(a, String("5"));
  EXPECT_EQ(b, String("n"));
  read_children(row, "id", a, "name", b, "note", c);
  EXPECT_EQ(c, String("n"));
  read_children(row, "id", a, "name", b, "note", c, "skip", d);
  EXPECT_EQ(d, String(""));
}

TEST(XmlTest, Serialises) {
  struct Case {
    String got;
    const char* want;
  } cases[] = {
      {XmlNode(String("<a></a>"), false).to_string(), "<a/>"},
      {XmlNode(String("<a  b=\"1\"\tc=\"2\">x</a>"), false).to_string(), "<a b=\"1\" c=\"2\">x</a>"},
      {XmlNode(String("x"), false).to_string(), ""},
      {XmlNode(String("a"), String("x<y & 'z'")).to_string(),
       "<a>x&lt;y &amp; &apos;z&apos;</a>"},
      {XmlNode(String("a"), "").to_string(), "<a/>"},
      {to_string(XmlNode(String("a"), "v"), true),
       "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<a>v</a>"},
      {to_string(XmlNode(String("<a/>"), false), false), "<a/>"},
      {to_string(XmlNode(), true), ""},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, String(c.want)) << c.want;
}

TEST(XmlTest, SetAttributeEscapesAndAppends) {
  XmlNode node(String("a"), "");
  node.set_attribute("b", "1");
  node.set_attribute("c", "x\"<&>'");
  node.set_attribute("b", "2");
  EXPECT_EQ(node.to_string(), String("<a b=\"1\" c=\"x&quot;&lt;&amp;&gt;&apos;\" b=\"2\"/>"));
  XmlNode back(node.to_string(), false);
  EXPECT_EQ(back.attribute("c"), String("x\"<&>'"));
  EXPECT_EQ(back.attribute("b"), String("1"));
}

TEST(XmlTest, AddChildPlainAndPretty) {
  XmlNode plain(String("p"), "");
  plain.add_child(XmlNode(String("c"), "1"));
  plain.add_child(XmlNode(String("d"), ""));
  EXPECT_TRUE(plain.has_children());
  EXPECT_EQ(plain.to_string(), String("<p><c>1</c><d/></p>"));

  XmlNode inner(String("inner"), "");
  inner.set_pretty(true);
  inner.add_child(XmlNode(String("leaf"), "x"));
  XmlNode outer(String("outer"), "");
  outer.set_pretty(true);
  outer.add_child(inner);
  outer.add_child(XmlNode(String("tail"), ""));
  EXPECT_EQ(outer.to_string(true),
            String("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
                   "<outer>\r\n"
                   "  <inner>\r\n"
                   "    <leaf>x</leaf>\r\n"
                   "  </inner>\r\n"
                   "  <tail/>\r\n"
                   "</outer>"));

  // Pretty with no children keeps the body on the line.
  XmlNode lone(String("lone"), "v");
  lone.set_pretty(true);
  EXPECT_EQ(lone.to_string(), String("<lone>v</lone>"));
}

TEST(XmlTest, RoundTripThroughRowLikeDocument) {
  XmlNode row(String("row"), "");
  row.set_pretty(true);
  row.set_attribute("id", "7");
  row.add_child(XmlNode(String("name"), "A & B <c>"));
  row.add_child(XmlNode(String("cell"), "&amp;lt;"));
  String text = row.to_string(true);
  XmlNode back(text, true);
  EXPECT_EQ(back.name(), String("row"));
  EXPECT_EQ(back.attribute("id"), String("7"));
  String name, cell;
  read_children(back, "name", name, "cell", cell);
  EXPECT_EQ(name, String("A & B <c>"));
  EXPECT_EQ(cell, String("&amp;lt;"));
}

TEST(XmlTest, HostileDocumentsAreBounded) {
  LogCapture log;
  struct Case {
    const char* what;
    String text;
  } cases[] = {
      {"nesting 100,000 deep", repeat("<a>", 100000) + repeat("</a>", 100000)},
      {"unterminated tags", repeat("<a", 1000000)},
      {"unterminated opening tags", repeat("<a>", 1000000)},
      {"closing tags only", repeat("</a>", 1000000)},
      {"entity chain", String("<a>") + repeat("&amp;", 1000000) + "</a>"},
      {"entity prefixes", String("<a>") + repeat("&amp;amp;lt", 300000) + "</a>"},
      {"10 MB attribute", String("<a b=\"") + String::repeat('x', 10 << 20) + "\">v</a>"},
      {"10 MB unterminated attribute", String("<a b=\"") + String::repeat('x', 10 << 20)},
      {"many attributes", String("<a ") + repeat("b=1 ", 200000) + "/>"},
      {"unterminated comments", repeat("<!--", 1000000)},
      {"unterminated doctype", String("<!DOCTYPE x [") + repeat("[", 1000000)},
      {"many comments", repeat("<!-- x -->", 100000) + "<a/>"},
      {"many declarations", repeat("<?x?>", 100000) + "<a>1</a>"},
  };
  for (auto& c : cases) {
    // A cost that grew with the square of the size would hang here, and the test runner's
    // time limit would catch it.
    [&] {
      XmlNode doc(c.text, true);
      XmlNode node(c.text, false);
      (void)node.text();
      (void)node.attribute("b");
      String rest = c.text;
      int pieces = 0;
      while (!rest.empty() && pieces < 2000000) {
        String e = XmlNode::next_element(rest);
        pieces++;
      }
      String strict = c.text;
      while (!XmlNode::next_element_strict(strict).empty()) {
      }
      String v;
      read_children(node, "a", v);
    }();
  }
}

TEST(XmlTest, HostileDocumentsGiveTheExpectedValues) {
  EXPECT_EQ(XmlNode(String("<!DOCTYPE x><a/>"), true).name(), String("a"));
  EXPECT_EQ(XmlNode(String("<a>&amp;lt;</a>"), false).text(), String("&lt;"));

  String deep = repeat("<a>", 100000) + repeat("</a>", 100000);
  EXPECT_EQ(XmlNode(deep, true).name(), String());

  String big = String::repeat('x', 10 << 20);
  XmlNode node(String("<a b=\"") + big + "\">v</a>", false);
  EXPECT_EQ(node.attribute("b"), big);
  EXPECT_EQ(node.text(), String("v"));

  XmlNode chain(String("<a>") + repeat("&amp;", 1000) + "</a>", false);
  EXPECT_EQ(chain.text(), String::repeat('&', 1000));

  XmlNode many(repeat("<!-- x -->", 1000) + "<a>1</a>", true);
  EXPECT_EQ(many.name(), String("a"));
  EXPECT_EQ(many.text(), String("1"));
}
