#include "security/constant_time.h"

#include <gtest/gtest.h>

TEST(ConstantTimeTest, EqualityOverAllPositions) {
  uint8_t a[64], b[64];
  for (int i = 0; i < 64; i++) a[i] = b[i] = static_cast<uint8_t>(i * 37);
  EXPECT_TRUE(constant_time_equal(a, b, 64));
  EXPECT_TRUE(constant_time_equal(a, b, 0));
  for (int i = 0; i < 64; i++) {
    for (int bit = 0; bit < 8; bit++) {
      b[i] ^= static_cast<uint8_t>(1 << bit);
      EXPECT_FALSE(constant_time_equal(a, b, 64)) << i << " " << bit;
      b[i] ^= static_cast<uint8_t>(1 << bit);
    }
  }
}

TEST(ConstantTimeTest, StringsOfDifferentLengthDiffer) {
  EXPECT_TRUE(constant_time_equal(String(), String()));
  EXPECT_TRUE(constant_time_equal(String("tag"), String("tag")));
  EXPECT_FALSE(constant_time_equal(String("tag"), String("ta")));
  EXPECT_FALSE(constant_time_equal(String("tag"), String("tab")));
  EXPECT_FALSE(constant_time_equal(String(), String("x")));
}
