#include "core/tagged_text.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

TEST(TaggedTextTest, RecordsRoundTripWithNesting) {
  TaggedText inner;
  ASSERT_TRUE(inner.add(85, "ip_sip_udp_port"));
  ASSERT_TRUE(inner.add(159, 5060));
  TaggedText outer;
  ASSERT_TRUE(outer.add(60, inner));
  ASSERT_TRUE(outer.add(1, true));
  ASSERT_TRUE(outer.add(2, String()));
  EXPECT_EQ(outer.text().head(4), String::bytes(60, 0, 0, static_cast<char>(inner.length())));

  int tag;
  String value;
  ASSERT_TRUE(outer.next(tag, value));
  EXPECT_EQ(tag, 60);
  TaggedText got(value);
  EXPECT_EQ(got.find(159), String("5060"));
  EXPECT_TRUE(got.has(85));
  EXPECT_FALSE(got.has(86));
  ASSERT_TRUE(outer.next(tag, value));
  EXPECT_EQ(value, String("true"));
  ASSERT_TRUE(outer.next(tag, value));
  EXPECT_EQ(tag, 2);
  EXPECT_TRUE(value.empty());
  EXPECT_FALSE(outer.next(tag, value));
}

TEST(TaggedTextTest, SizeLimitAndHostileLengths) {
  TaggedText t;
  EXPECT_TRUE(t.add(1, String::repeat('x', tagged_max_value)));
  EXPECT_FALSE(t.add(1, String::repeat('x', tagged_max_value + 1)));
  EXPECT_EQ(t.length(), tagged_max_value + 4);

  // A record whose length runs past the buffer is refused without reading beyond it.
  const String hostile[] = {String("\x05\x00\x00\x09" "abc", 7), String("\x05\x00", 2),
                            String("\x05\xff\xff\xff", 4)};
  for (const String& h : hostile) {
    TaggedText r(h);
    int tag;
    String value;
    EXPECT_FALSE(r.next(tag, value));
    EXPECT_TRUE(r.empty());
    EXPECT_TRUE(TaggedText(h).find(5).empty());
  }
}
