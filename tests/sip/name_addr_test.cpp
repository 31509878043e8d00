#include "sip/name_addr.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

String params_text(const ParamList& list) {
  String out;
  for (const SipParam& p : list) {
    out.append(p.name);
    out.append('=');
    out.append(p.value);
    out.append('|');
  }
  return out;
}

}  // namespace

TEST(NameAddrTest, ParsesForms) {
  struct Case {
    const char* text;
    const char* display;
    const char* uri;
    const char* tag;
    const char* params;
    bool angle;
    bool quoted;
  } cases[] = {
      {"\"Alice A.\" <sip:alice@h>;tag=abc", "Alice A.", "sip:alice@h", "abc", "", true, true},
      {"Bob <sip:bob@h;lr>;expires=60", "Bob", "sip:bob@h;lr", "", "expires=60|", true, false},
      {"<sip:c@h>", "", "sip:c@h", "", "", true, false},
      {"sip:c@h;tag=1;x", "", "sip:c@h", "1", "x=|", false, false},
      {"sip:c@h", "", "sip:c@h", "", "", false, false},
      {"  \"a\\\"b\\\\c\"<sip:q@h>", "a\"b\\c", "sip:q@h", "", "", true, true},
      {"\"no close <sip:x@h>", "no close <sip:x@h>", "", "", "", true, true},
      {"<sip:x@h", "", "sip:x@h", "", "", true, false},
      // A parameter without "=" has an empty value and the next one stands by itself.
      {"<sip:x@h>;a;b=2;TAG=t", "", "sip:x@h", "t", "a=|b=2|", true, false},
      {"<sip:x@h>;a = 1 ;b", "", "sip:x@h", "", "a=1|b=|", true, false},
      {"<sip:x@h>;+sip.instance=\"<urn:uuid:1;2>\";reg-id=1", "", "sip:x@h", "",
       "+sip.instance=<urn:uuid:1;2>|reg-id=1|", true, false},
      {"<sip:x@h>;q=\"a\\\"b\";c", "", "sip:x@h", "", "q=a\"b|c=|", true, false},
      {"<sip:x@h>;q=\"unterminated", "", "sip:x@h", "", "q=unterminated|", true, false},
      {"<sip:x@h>;q=", "", "sip:x@h", "", "q=|", true, false},
      {"<sip:x@h>;;;a", "", "sip:x@h", "", "a=|", true, false},
      {"", "", "", "", "", false, true},
      {"   ", "", "", "", "", false, true},
      {"*", "", "*", "", "", false, false},
  };
  for (const auto& c : cases) {
    NameAddr a(c.text);
    EXPECT_EQ(a.display(), String(c.display)) << c.text;
    EXPECT_EQ(a.uri().text(), String(c.uri)) << c.text;
    EXPECT_EQ(a.tag(), String(c.tag)) << c.text;
    EXPECT_EQ(params_text(a.params()), String(c.params)) << c.text;
    EXPECT_EQ(a.angle_form(), c.angle) << c.text;
    EXPECT_EQ(a.display_quoted(), c.quoted) << c.text;
    EXPECT_EQ(a.text(), String(c.text)) << "unchanged text stays";
  }
}

TEST(NameAddrTest, FullFormIsNormal) {
  struct Case {
    const char* text;
    const char* full;
  } cases[] = {
      {"sip:c@h;tag=1", "<sip:c@h>;tag=1"},
      {"Bob<sip:bob@h>;expires=60", "Bob <sip:bob@h>;expires=60"},
      {"\"Bob\" <sip:bob@h>", "\"Bob\" <sip:bob@h>"},
      {"a\"b <sip:x@h>", "\"a\\\"b\" <sip:x@h>"},
      {"<sip:x@h>;lr", "<sip:x@h>;lr="},
      {"<sip:x@h>;q=\"a b\"", "<sip:x@h>;q=\"a b\""},
      {"<sip:x@h>;q=\"a\\\\b\"", "<sip:x@h>;q=\"a\\\\b\""},
      {"<sip:x@h>;+sip.instance=\"<urn:x>\"", "<sip:x@h>;+sip.instance=\"<urn:x>\""},
      {"<sip:x@h>;x=\"\x01\x7f\"", "<sip:x@h>;x=\"\\\x01\\\x7f\""},
      {"\"\" <sip:x@h>;tag=9", "<sip:x@h>;tag=9"},
  };
  for (const auto& c : cases) EXPECT_EQ(NameAddr(c.text).full(), String(c.full)) << c.text;
}

TEST(NameAddrTest, CachedTextAfterChange) {
  struct Case {
    const char* text;
    void (*change)(NameAddr&);
    const char* want;
  } cases[] = {
      {"sip:a@h", [](NameAddr& a) { a.set_tag("x1"); }, "sip:a@h;tag=x1"},
      {"sip:a@h;p=1", [](NameAddr& a) { nameaddr_set_param(a, "Tag", "t"); }, "sip:a@h;tag=t;p=1"},
      {"sip:a@h", [](NameAddr& a) { nameaddr_set_param(a, "q", "a b"); }, "sip:a@h;q=a b"},
      {"<sip:a@h>", [](NameAddr& a) { a.set_tag("x"); }, "<sip:a@h>;tag=x"},
      {"sip:a@h", [](NameAddr& a) { a.set_display("Al"); }, "Al <sip:a@h>"},
      {"sip:a@h", [](NameAddr& a) { uri_set_param(a.uri_mutable(), "lr", ""); },
       "<sip:a@h;lr>"},
      {"\"A\" <sip:a@h>", [](NameAddr& a) { a.uri_mutable().set_user("b"); }, "\"A\" <sip:b@h>"},
  };
  for (const auto& c : cases) {
    NameAddr a(c.text);
    c.change(a);
    EXPECT_TRUE(a.dirty());
    EXPECT_EQ(a.text(), String(c.want)) << c.text;
    EXPECT_EQ(a.raw(), String(c.want));
  }
}

TEST(NameAddrTest, TagParamIsKeptApart) {
  NameAddr a("<sip:a@h>;tag=1;x=2");
  EXPECT_EQ(nameaddr_param(a, "tag"), String());
  EXPECT_EQ(nameaddr_param(a, "X"), String("2"));
  nameaddr_set_param(a, "TAG", "9");
  EXPECT_EQ(a.tag(), String("9"));
  EXPECT_EQ(a.params().size(), 1);
}

TEST(NameAddrTest, AssignResetsFlags) {
  NameAddr a("Al <sip:a@h>");
  EXPECT_TRUE(a.angle_form());
  a.set_tag("x");
  a = String("sip:b@h");
  EXPECT_FALSE(a.dirty());
  EXPECT_TRUE(a.unparsed());
  EXPECT_EQ(a.tag(), String());
  EXPECT_FALSE(a.angle_form());
}

TEST(NameAddrTest, HostileText) {
  std::string cases[] = {
      std::string(100000, '"'), std::string(100000, '<'), std::string(100000, '\\'),
      "<sip:a@h>" + std::string(100000, ';'), "<sip:a@h>;" + std::string(100000, '='),
      "\"" + std::string(100000, '\\'), std::string("\"a\0b\" <sip:\0@h>;x=\0", 20),
      "<sip:a@h>;x=\"" + std::string(100000, 'q'),
  };
  for (const auto& t : cases) {
    NameAddr a(String(t.data(), static_cast<int>(t.size())));
    (void)a.uri().host();
    a.set_tag("t");
    EXPECT_LE(a.full().length(), static_cast<int>(t.size()) * 4 + 32);
  }
}
