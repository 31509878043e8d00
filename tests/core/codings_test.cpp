#include "core/codings.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

TEST(CodingsTest, Base64RoundTripAndLines) {
  // RFC 4648 section 10 test vectors.
  const char* vectors[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                              {"foo", "Zm9v"},  {"foob", "Zm9vYg=="},  {"fooba", "Zm9vYmE="},
                              {"foobar", "Zm9vYmFy"}};
  for (auto& v : vectors) {
    EXPECT_EQ(base64_encode(String(v[0])), String(v[1])) << v[0];
    EXPECT_EQ(base64_decode(String(v[1])), String(v[0])) << v[1];
  }
  String data = String::repeat('\xa5', 100);
  String lines = base64_encode(data, 18);
  EXPECT_EQ(lines.line(0, false).length(), 72);
  EXPECT_EQ(lines.find(str_crlf), 72);
  EXPECT_EQ(base64_decode(lines), data);
  EXPECT_EQ(base64_decode(base64_encode(data)), data);
  // Exactly 18 groups: the line break follows the last group as well.
  EXPECT_TRUE(base64_encode(String::repeat('a', 54), 18).ends_with(str_crlf));
}

TEST(CodingsTest, Base64DecodeIgnoresForeignCharacters) {
  EXPECT_EQ(base64_decode(String("Zm9v\r\nYmFy")), String("foobar"));
  EXPECT_EQ(base64_decode(String("Z m 9 v")), String("foo"));
  EXPECT_EQ(base64_decode(String("Zg==Zm9v")), String("f"));  // the first "=" ends it
  EXPECT_EQ(base64_decode(String("Z")), String());            // truncated: no whole byte
  EXPECT_EQ(base64_decode(String("\xff\x00!!", 4)), String());
}

TEST(CodingsTest, Hexadecimal) {
  EXPECT_EQ(hex_encode(String("\x00\xff", 2)), String("00ff"));
  EXPECT_EQ(hex_encode_upper(String("\x00\xff", 2)), String("00FF"));
  EXPECT_EQ(hex_decode(String("00Ff")), String("\x00\xff", 2));
  EXPECT_EQ(hex_decode(String("abc")), String("\xab"));
  EXPECT_EQ(hex_decode(String("zz")), String());
}

TEST(CodingsTest, PercentAndQueryDecoding) {
  struct Case {
    String got;
    String want;
  } cases[] = {
      {percent_decode(String("a%20b+c")), String("a b+c")},
      {percent_decode(String("%zzx")), String("x")},
      {percent_decode(String("%4")), String()},
      {percent_decode(String("%")), String()},
      {percent_decode(String("%00")), String("\0", 1)},
      {url_decode(String("a=1&b=x+y")), String("a:1\nb:x y")},
      {url_decode(String("a=x+y"), true), String("a:x+y")},
      {url_decode(String("%41%4a")), String("AJ")},
      {url_decode(String("%")), String("%")},
      {url_decode(String("%4")), String("%4")},
      {url_decode(String("%zz")), String(" ")},  // non-digits: 0 high, 32 low
      {url_decode(String("%z1")), String("\x01")},
      {url_decode(String("%4z")), String("\x60")},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
  String q = url_decode(String("user=alice&pass=s%3Dcret"));
  EXPECT_EQ(header_value(q, String("pass")), String("s=cret"));
}

TEST(CodingsTest, PercentEncodingBySafeSet) {
  EXPECT_EQ(percent_encode(String("a b@c/d"), uri_safe_user), String("a%20b%40c/d"));
  EXPECT_EQ(percent_encode(String("ex.am-ple:1"), uri_safe_host), String("ex.am-ple%3A1"));
  EXPECT_EQ(percent_encode(String("a=b;c"), uri_safe_parameters), String("a%3Db%3Bc"));
  EXPECT_EQ(percent_encode(String("\xff"), uri_safe_headers), String("%FF"));
}

TEST(CodingsTest, Quoting) {
  EXPECT_EQ(quoted(String("a\"b\\c")), String("\"a\\\"b\\\\c\""));
  EXPECT_EQ(js_single_quoted(String("it's")), String("it\\'s"));
  EXPECT_EQ(js_json_parse(String("{\"a\":'x'}\r\n")), String("JSON.parse('{\"a\":\\'x\\'}\\\n')"));
}
