#include "core/string.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/pool.h"
#include "tests/support/test_support.h"

TEST(StringTest, ConstructionOfNumbersAndBytes) {
  struct Case {
    String got;
    const char* want;
  } cases[] = {
      {String(0), "0"},
      {String(-12), "-12"},
      {String(-5, 4), "-005"},  // the sign counts in the width
      {String(42, 5), "00042"},
      {String(4294967295u), "4294967295"},
      {String(static_cast<long>(-9223372036854775807L - 1)), "-9223372036854775808"},
      {String(18446744073709551615UL), "18446744073709551615"},
      {String(1.5), "1.5"},
      {String(2.0), "2"},
      {String(100.0), "100"},
      {String(-0.25), "-0.25"},
      {String::repeat('x', 3), "xxx"},
      {String::repeat('x', 0), ""},
      {String::bytes('a', 'b'), "ab"},
      {String::bytes('a', 'b', 'c', 'd'), "abcd"},
      {String("abc", 0), ""},
      {String("abc", -4), ""},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, String(c.want)) << c.want;
}

TEST(StringTest, EmptyStringsOwnNothing) {
  String e;
  EXPECT_EQ(e.capacity(), 0);
  EXPECT_NE(e.c_data(), nullptr);
  EXPECT_EQ(String("abc", 0).capacity(), 0);
  EXPECT_EQ(String("abc").substr(5, 1).capacity(), 0);
  EXPECT_EQ(String("abc").substr(1, 0).sharers(), 0);
}

TEST(StringTest, ComparisonIsBytewiseUnsigned) {
  EXPECT_TRUE(String("") == String());
  EXPECT_TRUE(String("a") != String());
  EXPECT_TRUE(String("abc") < String("abd"));
  EXPECT_TRUE(String("ab") < String("abc"));
  EXPECT_TRUE(String("\x7f") < String("\x80"));
  EXPECT_TRUE(String("ABC").equals_nocase("abc"));
  EXPECT_FALSE(String("ABC").equals_nocase("abcd"));
  // Embedded NUL bytes take part in the comparison.
  EXPECT_FALSE(String("a\0b", 3).equals_nocase(String("a\0c", 3)));
  EXPECT_TRUE(String("a\0B", 3).equals_nocase(String("a\0b", 3)));
}

TEST(StringTest, Search) {
  String s("abcabc");
  EXPECT_EQ(s.find(String("bc")), 1);
  EXPECT_EQ(s.find(String("bc"), 2), 4);
  EXPECT_EQ(s.find_last(String("bc")), 4);
  EXPECT_EQ(s.find(String("x")), -1);
  EXPECT_EQ(s.find(String()), 0);
  EXPECT_EQ(String().find(String()), -1);
  EXPECT_EQ(String().find(String("a")), -1);
  EXPECT_EQ(s.find('c'), 2);
  EXPECT_EQ(s.find_last('c'), 5);
  EXPECT_TRUE(s.contains('a'));
  EXPECT_FALSE(s.contains('z'));
}

TEST(StringTest, SubstringsClipTheirArguments) {
  String s("abcdef");
  struct Case {
    String got;
    const char* want;
  } cases[] = {
      {s.substr(-2, 5), "abc"}, {s.substr(0, 100), "abcdef"}, {s.substr(6, 1), ""},
      {s.substr(2, 0), ""},     {s.substr(2, -1), ""},        {s.substr(-10, 3), ""},
      {s.substr(1000000000, 2000000000), ""}, {s.tail(-3), "abcdef"}, {s.tail(4), "ef"},
      {s.tail(99), ""},         {s.head(2), "ab"},            {s.head(-1), ""},
      {s.head(99), "abcdef"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, String(c.want)) << c.want;
  EXPECT_TRUE(s.substr(1, 3).shares_buffer_with(s));
}

TEST(StringTest, WordsAndSplitting) {
  String s("  a   b");
  EXPECT_EQ(s.word(0, ' '), String("a"));
  EXPECT_EQ(s.word(1, ' '), String("b"));
  EXPECT_EQ(s.word(2, ' '), String());
  EXPECT_EQ(s.word(-1, ' '), String());
  EXPECT_EQ(String("a b c").words_from(1, ' '), String("b c"));
  EXPECT_EQ(String("a,b;;c").word_set(2, String(",;")), String("c"));
  EXPECT_EQ(String("a,b;;c d").words_from_set(1, String(",;")), String("b;;c d"));
  auto parts = String(",a,,b,").split(',');
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_EQ(parts[1], String("b"));
  auto kept = String(",a,,b").split_keep(',');
  ASSERT_EQ(kept.size(), 4u);
  EXPECT_EQ(kept[0], String());
  EXPECT_EQ(kept[3], String("b"));
  EXPECT_EQ(String::join(kept, ';'), String(";a;;b"));
}

TEST(StringTest, LinesEndWithAnyTerminator) {
  String s("one\r\ntwo\nthree\n\rfour\rfive");
  const char* want[] = {"one", "two", "three", "four", "five"};
  for (int i = 0; i < 5; i++) EXPECT_EQ(s.line(i, false), String(want[i])) << i;
  EXPECT_EQ(s.line(5, false), String());
  EXPECT_EQ(s.line_end(5, false), -1);

  // A lone CR at the very end must not read past the text.
  String cr("ab\r");
  int next = 0;
  EXPECT_EQ(cr.line_end(0, false, &next), 2);
  EXPECT_EQ(next, 3);
  EXPECT_EQ(cr.line_end(1, false), -1);

  String folded("Subject: a\r\n b\r\nTo: x\r\n");
  EXPECT_EQ(folded.line(0, true), String("Subject: a\r\n b"));
  EXPECT_EQ(folded.line(0, false), String("Subject: a"));
  String rest = folded;
  EXPECT_EQ(rest.next_line(true), String("Subject: a\r\n b"));
  EXPECT_EQ(rest.next_line(true), String("To: x"));
  EXPECT_EQ(rest.next_line(true), String());
  EXPECT_TRUE(rest.empty());
  EXPECT_EQ(String("a\n\nb").line(1, false), String());
  EXPECT_EQ(String("a\n\nb").line(2, false), String("b"));
}

TEST(StringTest, HeaderLines) {
  String text("Content-Type: text/plain\r\nX-Long : a\r\n b\r\ncontent-length:  12 \r\n");
  EXPECT_EQ(header_line(text, String("x-long"), String(), ':', str_blanks), String("X-Long : a\r\n b"));
  EXPECT_EQ(header_value(text, String("Content-Length")), String("12"));
  EXPECT_EQ(header_value(text, String("l"), String("content-length")), String("12"));
  EXPECT_EQ(header_value(text, String("Missing")), String());
  header_set(text, String("content-type"), String("application/json"));
  EXPECT_EQ(header_value(text, String("Content-Type")), String("application/json"));
  EXPECT_EQ(text.line(0, true), String("Content-Type: application/json"));
  header_set(text, String("Added"), String("1"));
  EXPECT_EQ(header_value(text, String("added")), String("1"));
  EXPECT_TRUE(text.ends_with(String("Added: 1\r\n")));
  String query("a:1\nb:2");
  EXPECT_EQ(header_value(query, String("b")), String("2"));
}

TEST(StringTest, Trimming) {
  EXPECT_EQ(String(" \t a b \r\n").trim(), String("a b"));
  EXPECT_EQ(String("xxaxx").trim('x'), String("a"));
  EXPECT_EQ(String("xxaxx").trim_left('x'), String("axx"));
  EXPECT_EQ(String("xxaxx").trim_right('x'), String("xxa"));
  EXPECT_EQ(String("   ").trim(), String());
  EXPECT_EQ(String("<a>").trim(String("<>")), String("a"));
}

TEST(StringTest, Numbers) {
  struct Case {
    const char* text;
    int value;
  } ints[] = {{" +-12", -12}, {"12abc", 12}, {"abc", 0}, {"\t 7", 7}, {"-0", 0},
              {"--3", 0},     {"+", 0},      {"", 0},    {"2147483648", -2147483647 - 1}};
  for (const auto& c : ints) EXPECT_EQ(String(c.text).to_int(), c.value) << c.text;
  // 99999999999 wraps modulo 2^32 without undefined behaviour.
  EXPECT_EQ(String("99999999999").to_int(), static_cast<int>(99999999999LL & 0xffffffff));
  EXPECT_EQ(String("-5").to_uint(), 0u);
  EXPECT_EQ(String("4294967295").to_uint(), 4294967295u);
  EXPECT_EQ(String("-9223372036854775808").to_int64(), INT64_MIN);
  EXPECT_DOUBLE_EQ(String("1.25").to_double(), 1.25);
  EXPECT_DOUBLE_EQ(String().to_double(), 0);
  EXPECT_DOUBLE_EQ(String("x").to_double(), 0);
  struct Shape {
    const char* text;
    bool is_int, is_float;
  } shapes[] = {{"12", true, true},    {" -12 ", true, true}, {"+12", false, false},
                {"1.5", false, true},  {"1.5.1", false, false}, {"", false, false},
                {"-", false, false},   {".", false, false},   {"1e5", false, false},
                {"12a", false, false}, {".5", false, true}};
  for (const auto& c : shapes) {
    EXPECT_EQ(String(c.text).is_int(), c.is_int) << c.text;
    EXPECT_EQ(String(c.text).is_float(), c.is_float) << c.text;
  }
}

TEST(StringTest, Editing) {
  String s("ab");
  s.append(String("cd")).append("ef").append('g');
  EXPECT_EQ(s, String("abcdefg"));
  s.append(s);
  EXPECT_EQ(s, String("abcdefgabcdefg"));
  String t = s.substr(2, 3);
  t.append(t);
  EXPECT_EQ(t, String("cdecde"));
  EXPECT_EQ(s, String("abcdefgabcdefg"));  // the sharer is not touched
  String r("a.b.c");
  r.replace_all(String("."), String("::"));
  EXPECT_EQ(r, String("a::b::c"));
  EXPECT_EQ(String("x") + String("y") + "z", String("xyz"));
  EXPECT_EQ("w" + String("x"), String("wx"));
}

TEST(StringTest, SetByteExtendsWithZerosAndRefusesHugeSizes) {
  String s("ab");
  EXPECT_TRUE(s.set_byte(4, 'z'));
  EXPECT_EQ(s, String("ab\0\0z", 5));
  EXPECT_TRUE(s.set_byte(0, 'A'));
  EXPECT_EQ(s.at(0), 'A');
  EXPECT_FALSE(s.set_byte(-1, 'x'));
  LogCapture log;
  EXPECT_FALSE(s.set_byte(max_string_size, 'x'));
  EXPECT_FALSE(s.set_byte(2000000000, 'x'));
  EXPECT_FALSE(s.reserve(max_string_size + 1));
  EXPECT_EQ(s, String("Ab\0\0z", 5));
  EXPECT_TRUE(log.contains("String too large"));
}

TEST(StringTest, WritableUnsharesTheBuffer) {
  String a("hello");
  String b = a;
  EXPECT_EQ(a.sharers(), 2);
  b.writable_data()[0] = 'j';
  EXPECT_EQ(a, String("hello"));
  EXPECT_EQ(b, String("jello"));
  EXPECT_EQ(a.sharers(), 1);
  char* p = b.writable(3);
  memcpy(p + 5, "!!!", 3);
  EXPECT_EQ(b, String("jello!!!"));
}

TEST(StringTest, CaseConversion) {
  struct Case {
    const char* in;
    const char* lower;
    const char* upper;
  } cases[] = {
      {"Hello", "hello", "HELLO"},
      {"ÄÖÜ straße", "äöü straße", "ÄÖÜ STRASSE"},
      {"ΣΑΣ", "σασ", "ΣΑΣ"},
      {"Ⱥ", "ⱥ", "Ⱥ"},        // two bytes to three bytes
      {"😀A", "😀a", "😀A"},  // four-byte sequences pass unchanged
  };
  for (const auto& c : cases) {
    EXPECT_EQ(String(c.in).to_lower(), String(c.lower)) << c.in;
    if (strcmp(c.in, "ÄÖÜ straße") != 0) { EXPECT_EQ(String(c.in).to_upper(), String(c.upper)) << c.in; }
  }
  // ß has no one-to-one upper case, so it stays.
  EXPECT_EQ(String("ß").to_upper(), String("ß"));
  // Truncated and stray bytes pass unchanged, with no read past the end.
  EXPECT_EQ(String("A\xc3").to_lower(), String("a\xc3"));
  EXPECT_EQ(String("\xe2\x82").to_upper(), String("\xe2\x82"));
  EXPECT_EQ(String("\x80Z").to_lower(), String("\x80z"));
}

TEST(StringTest, Utf8Validation) {
  struct Case {
    String text;
    bool valid;
  } cases[] = {
      {String("plain"), true},
      {String("\xc3\xa4"), true},
      {String("\xf4\x8f\xbf\xbf"), true},      // U+10FFFF
      {String("\xf4\x90\x80\x80"), false},     // above U+10FFFF
      {String("\xc0\xaf"), false},             // overlong
      {String("\xe0\x80\xaf"), false},         // overlong
      {String("\xed\xa0\x80"), false},         // surrogate
      {String("\xc3"), false},                 // truncated
      {String("\xff"), false},
      {String("a\0b", 3), true},
  };
  for (const auto& c : cases) EXPECT_EQ(c.text.is_utf8(), c.valid) << ::testing::PrintToString(c.text);
}

TEST(StringTest, HexAndUnhex) {
  EXPECT_EQ(hex(String("\x01\xab", 2)), String("01ab"));
  EXPECT_EQ(hex(String("\x01\xab", 2), true), String("01AB"));
  EXPECT_EQ(unhex(String("01aB")), String("\x01\xab", 2));
  EXPECT_EQ(unhex(String("abc")), String("\xab"));  // an odd last digit is dropped
  EXPECT_EQ(unhex(String("zz")), String());
  EXPECT_EQ(unhex(String("0g")), String());
}

TEST(StringTest, RandomTextUsesTheAlphabet) {
  String r = random_text(1000);
  ASSERT_EQ(r.length(), 1000);
  for (int i = 0; i < r.length(); i++) {
    char c = r.at(i);
    EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z'));
  }
  EXPECT_NE(random_text(16), random_text(16));
  EXPECT_EQ(random_text(0), String());
}

TEST(StringTest, NormalizedPath) {
  EXPECT_EQ(String("a\\b\\c").normalized_path(), String("a/b/c"));
  EXPECT_EQ(String("a\0b", 3).normalized_path(), String("ab"));
}

TEST(StringTest, SharedConstants) {
  EXPECT_EQ(str_blanks, String(" \t\r\n"));
  EXPECT_EQ(str_nul.length(), 1);
  EXPECT_EQ(str_nul.byte_at(0), 0);
  EXPECT_EQ(str_ff.byte_at(0), 255);
  EXPECT_EQ(str_one.byte_at(0), 1);
  EXPECT_TRUE(str_empty.empty());
}

TEST(StringRingTest, CopiesShareAndLeaveTheRing) {
  String a("shared text");
  {
    String b = a;
    String c = a.substr(0, 6);
    EXPECT_EQ(a.sharers(), 3);
    String d = static_cast<String&&>(b);
    EXPECT_EQ(a.sharers(), 3);
    EXPECT_TRUE(b.empty());
    std::vector<String> moved;
    for (int i = 0; i < 100; i++) moved.push_back(c);  // relocation relinks every element
    EXPECT_EQ(a.sharers(), 103);
  }
  EXPECT_EQ(a.sharers(), 1);
}

TEST(StringRingTest, CopyOfAShortValueLeftAloneInABigBufferIsCompact) {
  String big = String::repeat('x', 65536);
  big.set_byte(1000, 'y');
  String kept = big.substr(990, 20);
  EXPECT_GE(kept.capacity(), 65536);
  String shared = kept;  // the big buffer still has other sharers: no copy yet
  EXPECT_TRUE(shared.shares_buffer_with(kept));
  big = String();
  shared = String();
  // Alone now: a copy to keep gets a block of its own size, and the value itself stays
  // where it is, so pointers into it stay good.
  const char* before = kept.c_data();
  String stored = kept;
  EXPECT_EQ(stored.capacity(), 32);
  EXPECT_EQ(kept.c_data(), before);
  EXPECT_EQ(stored, String::repeat('x', 10) + "y" + String::repeat('x', 9));
  // Substrings still share: cutting a message into fields copies nothing.
  EXPECT_TRUE(kept.substr(2, 5).shares_buffer_with(kept));
}

TEST(PoolTest, ClassesAndRefillCounts) {
  EXPECT_EQ(pool_class_size(0), 32u);
  EXPECT_EQ(pool_class_size(1), 48u);
  EXPECT_EQ(pool_class_size(35), 6291456u);
  EXPECT_EQ(pool_class_size(36), 8388608u);
  EXPECT_EQ(pool_class_size(39), 67108864u);
  EXPECT_EQ(pool_refill_count(0), 4096);
  EXPECT_EQ(pool_refill_count(22), 2);
  EXPECT_EQ(pool_refill_count(23), 1);
  EXPECT_EQ(pool_class_size(23), 98304u);
  // The class found for a size is the first whose block is large enough.
  size_t probes[] = {1, 32, 33, 48, 49, 1000, 4096, 4097, 98304, 6291456, 6291457, 8388608,
                     8388609, 67108864};
  for (size_t n : probes) {
    int c = pool_class_for(n);
    ASSERT_LT(c, pool_classes) << n;
    EXPECT_GE(pool_class_size(c), n);
    if (c > 0) {
      EXPECT_LT(pool_class_size(c - 1), n);
    }
  }
  EXPECT_EQ(pool_class_for(67108865), pool_outside);
}

TEST(PoolTest, RawAllocations) {
  EXPECT_EQ(pool_malloc(0), nullptr);
  void* p = pool_malloc(40);
  EXPECT_EQ(pool_size(p), 48u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
  memset(p, 7, 40);
  void* q = pool_realloc(p, 45);
  EXPECT_EQ(q, p);  // same class
  void* r = pool_realloc(q, 1000);
  EXPECT_EQ(static_cast<unsigned char*>(r)[39], 7);
  pool_free(r);
  PoolCounters before = pool_counters();
  void* huge = pool_malloc(pool_largest + 1);
  EXPECT_EQ(pool_counters().outside_blocks, before.outside_blocks + 1);
  pool_free(huge);
  EXPECT_GT(pool_counters().bytes_given_back, before.bytes_given_back);
}
