#include "core/format.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

// Every directive against every slot tag: a tag the directive has no form for gives
// nothing, but still takes its slot.
TEST(FormatTest, DirectivesByTag) {
  String text("a<\"b");
  String list("1,2");
  struct Case {
    String got;
    const char* want;
  } cases[] = {
      {format("%d|%s|%x|%X|%m|%j|%r", -1, -1, -1, -1, -1, -1, -1), "-1|-1|ffffffff|FFFFFFFF|-1|-1|-1"},
      {format("%d|%s|%x|%m|%j|%r", 255u, 255u, 255u, 255u, 255u, 255u), "255|255|ff|255|255|255"},
      {format("%d|%s|%x|%m|%j|%r|.", 'A', 'A', 'A', 'A', 'A', 'A'), "65|A|41||||."},
      {format("%d|%s|%x|%m|%j|%r", text, text, text, text, text, text),
       "a<\"b|a<\"b|613c2262|a&lt;&quot;b|\"a<\\\"b\"|a%3c%22b"},
      {format("%d|%s|%x|%m|%j|%r|.", "c", "c", "c", "c", "c", "c"), "|c|||||."},
      {format("%d|%s|%x|%m|%j|%r|.", true, false, true, true, false, true), "|false||true|false|true|."},
      {format("%d|%s|%x|%m|%j|%r|.", 5L, 5L, 5L, 5L, 5L, 5L), "5||||||."},
      {format("%d|%s|%x|%j|.", 7UL, 7UL, 7UL, 7UL), "7||||."},
      {format("%d|%s|%j|%m|.", FormatSlot::address(String("1.2.3.4:5")),
              FormatSlot::address(String("1.2.3.4:5")), FormatSlot::address(String("x")),
              FormatSlot::address(String("x"))),
       "|1.2.3.4:5|||."},
      {format("%j|%s|%d|.", FormatSlot::json_list(list), FormatSlot::json_list(list),
              FormatSlot::json_list(list)),
       "[1,2]|||."},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, String(c.want)) << c.want;
}

TEST(FormatTest, WidthAndPadding) {
  struct Case {
    String got;
    const char* want;
  } cases[] = {
      {format("%05d", -12), "00-12"},
      {format("%3d", String("a")), "  a"},
      {format("%03d", String("a")), "00a"},
      {format("%4x", 10), "  0a"},
      {format("%08X", 0x1234), "00001234"},
      {format("%x", 0), "00"},
      {format("%x", 256), "0100"},
      {format("%5s", String("a")), "a"},  // width is for numbers and hexadecimal only
      {format("%2d", 12345), "12345"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, String(c.want)) << c.want;
  // A huge width is capped rather than allocating gigabytes.
  String wide = format("%99999999d", 1);
  EXPECT_LE(wide.length(), 4096);
  EXPECT_TRUE(wide.ends_with(String(" 1")));
}

TEST(FormatTest, MalformedTemplates) {
  struct Case {
    String got;
    const char* want;
  } cases[] = {
      {format("[%s]"), "[]"},               // no slot: empty replacement
      {format("100%"), "100%"},             // a trailing % stays
      {format("a%qb", 1), "ab"},            // unknown directive dropped, slot not taken
      {format("%q%d", 7), "7"},
      {format("%%d", 7), "%d"},
      {format("%d %d %d", 1), "1  "},
      {format("%05"), ""},
      {format("x%0", 3), "x"},
      {format(""), ""},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, String(c.want)) << c.want;
  String out("old content");
  format(out, "new %d", 1);
  EXPECT_EQ(out, String("new 1"));
  format_slots(out, String("vec %s %s"), nullptr, 0);
  EXPECT_EQ(out, String("vec  "));
}

TEST(FormatTest, JsonEscapes) {
  struct Case {
    String in;
    const char* want;
  } cases[] = {
      {String("plain"), "\"plain\""},
      {String("q\"b\\"), "\"q\\\"b\\\\\""},
      {String("\b\f\n\r\t"), "\"\\b\\f\\n\\r\\t\""},
      {String("\x01\x1f\x7f", 3), "\"\\u0001\\u001f\x7f\""},
      {String("a\0b", 3), "\"a\\u0000b\""},
      {String("grüße €😀"), "\"grüße €😀\""},
      // A byte that breaks UTF-8: the value is written again as 16-bit units, first byte
      // of each, with \v and \u00xx for everything outside 32..126.
      {String("ab\xff" "cd"), "\"a\\u00ffd\""},
      {String("\x0b" "x\x7f" "y\xff", 5), "\"\\v\\u007f\\u00ff\""},
      {String("\xff"), "\"\\u00ff\""},           // odd length: the last unit is half a unit
      {String("\xc3\xa4\xc3"), "\"\\u00c3\\u00c3\""},
      {String("\"x\\y\xff", 5), "\"\\\"\\\\\\u00ff\""},
  };
  for (const auto& c : cases) EXPECT_EQ(format("%j", c.in), String(c.want)) << c.want;
}

TEST(FormatTest, XmlAndUrlEscapes) {
  EXPECT_EQ(format("%m", String("<a href='x'>&\"")), String("&lt;a href=&apos;x&apos;&gt;&amp;&quot;"));
  EXPECT_EQ(format("%r", String("a b/ü~_-.")), String("a%20b%2f%c3%bc%7e_-."));
  String out("x=");
  append_url_encoded(out, String("?"));
  EXPECT_EQ(out, String("x=%3f"));
}
