#include "core/resource_usage.h"

#include <gtest/gtest.h>

#include "core/json.h"
#include "tests/support/test_support.h"

constexpr uint64_t t0 = 1700000000000ULL;
constexpr uint64_t bucket_ms = 360000;

TEST(ResourceUsageTest, KindsOfSeries) {
  ResourceUsage u;
  u.sample("calls_global", 3, t0);
  u.sample("calls_global", 7, t0 + 1000);
  u.sample("calls_global", 5, t0 + 2000);  // the highest of the bucket stays
  u.sample("memory_all", 100, t0);
  u.sample("memory_all", 90, t0 + 1000);  // the last value stays
  u.add("reg_add_global", 2, t0);
  u.add("reg_add_global", 3, t0 + 1000);
  u.add("sip_udp", 10, t0);
  u.tick(t0 + 5000, 5000);
  u.add("sip_udp", 4, t0 + 6000);
  u.tick(t0 + 10000, 5000);
  EXPECT_EQ(u.find("calls_global")->values().back(), 7);
  EXPECT_EQ(u.find("memory_all")->values().back(), 90);
  EXPECT_EQ(u.find("reg_add_global")->values().back(), 5);
  EXPECT_EQ(u.find("sip_udp")->values().back(), 10);  // the higher rate of the two ticks
  EXPECT_EQ(u.find("nothing"), nullptr);
}

TEST(ResourceUsageTest, SkippedBucketsAreInvalidAndLongJumpsStartAfresh) {
  UsageSeries s(SeriesKind::counter);
  s.add(0, 4);
  s.add(3, 6);
  auto v = s.values();
  EXPECT_EQ(v[239], 6);
  EXPECT_EQ(v[238], 0);
  EXPECT_EQ(v[236], 4);
  s.add(1000, 1);  // more than a day later: everything before is gone, folded into the total
  v = s.values();
  EXPECT_EQ(v[239], 1);
  for (int i = 0; i < 239; i++) EXPECT_EQ(v[static_cast<size_t>(i)], 0);
  EXPECT_EQ(s.total(), 10);
}

TEST(ResourceUsageTest, StatsFileRoundTrip) {
  ResourceUsage u;
  u.sample("calls_global", 9, t0);
  u.sample("calls_global", 4, t0 + bucket_ms);
  u.add("sip_all", 50, t0 + bucket_ms);
  u.tick(t0 + bucket_ms + 5000, 5000);
  String text = u.stats_json(t0 + bucket_ms + 5000, 12, 10, 3600);
  Json doc(text);
  EXPECT_EQ(doc.get_string(String("time")), String("1700000365.000"));
  EXPECT_EQ(doc.get_array(String("calls")).size(), 240);
  EXPECT_EQ(doc.get_int(String("catt")), 12);

  // An hour later the series come back, shifted by the age of the file.
  ResourceUsage later;
  int64_t catt = 1, ccom = 0, duration = 0;
  later.restore(doc, t0 + bucket_ms + 5000 + 10 * bucket_ms, catt, ccom, duration);
  EXPECT_EQ(catt, 13);
  EXPECT_EQ(duration, 3600);
  later.sample("calls_global", 1, t0 + bucket_ms + 5000 + 10 * bucket_ms);
  auto v = later.find("calls_global")->values();
  EXPECT_EQ(v[239], 1);
  EXPECT_EQ(v[229], 4);
  EXPECT_EQ(v[228], 9);
  EXPECT_EQ(v[235], 0);

  // A file older than a day gives its totals but not its series.
  ResourceUsage stale;
  stale.restore(doc, t0 + 90000000ULL, catt, ccom, duration);
  EXPECT_EQ(stale.find("calls_global"), nullptr);
  EXPECT_EQ(catt, 25);
}
