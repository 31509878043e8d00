#include "store/row_set.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

// Random adds and removes against std::set, across the switch from the small list to the
// bitmaps and at block edges (multiples of 256) and the top of the id range.
TEST(RowSetTest, AgreesWithOrderedSetUnderRandomChanges) {
  struct Case {
    int range;
    int steps;
    int offset;
  };
  const Case cases[] = {{40, 400, 0}, {600, 5000, 0}, {100000, 20000, 0}, {3000, 8000, 2147480000}};
  for (const Case& c : cases) {
    std::mt19937 rng(c.range);
    RowSet set;
    std::set<int> ref;
    for (int i = 0; i < c.steps; i++) {
      int id = c.offset + 1 + static_cast<int>(rng() % c.range);
      if (rng() % 3 == 0) {
        EXPECT_EQ(set.remove(id), ref.erase(id) == 1);
      } else {
        EXPECT_EQ(set.add(id), ref.insert(id).second);
      }
      if (i % 97 == 0) {
        ASSERT_EQ(set.size(), static_cast<int>(ref.size()));
        ASSERT_EQ(set.to_vector(), std::vector<int>(ref.begin(), ref.end()));
        int probe = c.offset + static_cast<int>(rng() % (c.range + 2));
        auto up = ref.upper_bound(probe);
        EXPECT_EQ(set.next(probe), up == ref.end() ? -1 : *up) << probe;
        auto down = ref.lower_bound(probe);
        EXPECT_EQ(set.prev(probe), down == ref.begin() ? -1 : *std::prev(down)) << probe;
        EXPECT_EQ(set.last(), ref.empty() ? -1 : *ref.rbegin());
        EXPECT_EQ(set.contains(probe), ref.count(probe) == 1);
      }
    }
  }
}

TEST(RowSetTest, RefusesIdsBelowOne) {
  RowSet set;
  EXPECT_FALSE(set.add(0));
  EXPECT_FALSE(set.add(-5));
  EXPECT_TRUE(set.empty());
  EXPECT_EQ(set.first(), -1);
  EXPECT_EQ(set.next(-1), -1);
}

TEST(RowSetTest, CopiesShareUntilChanged) {
  RowSet a;
  for (int i = 1; i <= 100; i++) a.add(i * 3);
  RowSet b = a;
  EXPECT_TRUE(a.shares_body_with(b));
  b.add(1);
  EXPECT_FALSE(a.shares_body_with(b));
  EXPECT_FALSE(a.contains(1));
  EXPECT_TRUE(b.contains(1));
  EXPECT_EQ(a.size(), 100);
  EXPECT_EQ(b.size(), 101);
}

// A walk keeps its own handle: removing the current or later ids from the set being
// walked neither breaks the walk nor skips ids that were there when it started.
TEST(RowSetTest, IterationSurvivesChangesOfTheSet) {
  RowSet set;
  for (int i = 1; i <= 1000; i++) set.add(i);
  std::vector<int> seen;
  for (int id : set) {
    seen.push_back(id);
    set.remove(id);
    set.remove(id + 1);
  }
  EXPECT_EQ(seen.size(), 1000u);
  EXPECT_TRUE(set.empty());
}

TEST(RowSetTest, IntersectWalksTheSmallerSet) {
  RowSet a, b;
  for (int i = 1; i <= 5000; i++) a.add(i);
  for (int i = 10; i <= 20000; i += 10) b.add(i);
  RowSet c = RowSet::intersect(a, b);
  EXPECT_EQ(c.size(), 500);
  EXPECT_EQ(c.first(), 10);
  EXPECT_EQ(c.last(), 5000);
  EXPECT_TRUE(RowSet::intersect(a, RowSet()).empty());
}
