#include "store/value_index.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

// Random adds and erases against std::map; erasing from the middle of probe runs must keep
// every other value findable.
TEST(ValueIndexTest, AgreesWithAMapUnderRandomChanges) {
  std::mt19937 rng(4);
  ValueIndex index;
  std::map<String, int> ref;
  for (int step = 0; step < 40000; step++) {
    String value(static_cast<int>(rng() % 3000));
    if (rng() % 3 == 0) {
      index.erase(value);
      ref.erase(value);
    } else {
      index.entry(value).second.add(1 + static_cast<int>(rng() % 100));
      ref[value] = 1;
    }
    if (step % 1000 == 0) {
      ASSERT_EQ(index.size(), ref.size());
      for (int v = 0; v < 3000; v++) {
        String key(v);
        ASSERT_EQ(index.find(key) != nullptr, ref.count(key) == 1) << v;
      }
      std::map<String, int> seen;
      index.for_each([&](const String& v, const RowSet& rows) {
        seen[v] = 1;
        EXPECT_FALSE(rows.empty());
      });
      ASSERT_EQ(seen, ref);
    }
  }
  index.erase(String("not there"));
  EXPECT_EQ(ValueIndex().find(String()), nullptr);
}

// Erasing through a reference to the entry's own key is allowed.
TEST(ValueIndexTest, EraseByOwnKey) {
  ValueIndex index;
  const String& key = index.entry(String("a")).first;
  index.entry(String("a")).second.add(1);
  index.entry(String("b")).second.add(2);
  index.erase(key);
  EXPECT_EQ(index.size(), 1u);
  EXPECT_EQ(index.find(String("a")), nullptr);
  EXPECT_NE(index.find(String("b")), nullptr);
  // The freed entry is used again.
  index.entry(String("c")).second.add(3);
  EXPECT_EQ(index.size(), 2u);
  EXPECT_EQ(index.find(String("c"))->first(), 3);
}
