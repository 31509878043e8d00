#include "core/tick.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/wakeup.h"
#include "tests/support/test_support.h"

TEST(TickTest, DifferencesRoundToNearest) {
  struct Case {
    int64_t a_ns, b_ns, ms, sec, us;
  } cases[] = {
      {1499999, 0, 1, 0, 1500},
      {1500000, 0, 2, 0, 1500},
      {499999999, 0, 500, 0, 500000},
      {500000000, 0, 500, 1, 500000},
      {0, 1499999, 0, 0, -1499},  // the rounding formula truncates toward 0
      {2000000000, 1000000000, 1000, 1, 1000000},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ms(Tick(c.a_ns), Tick(c.b_ns)), c.ms) << c.a_ns << " " << c.b_ns;
    EXPECT_EQ(sec(Tick(c.a_ns), Tick(c.b_ns)), c.sec) << c.a_ns << " " << c.b_ns;
    EXPECT_EQ(us(Tick(c.a_ns), Tick(c.b_ns)), c.us) << c.a_ns << " " << c.b_ns;
  }
  EXPECT_EQ(Tick::from_seconds(3).ns, 3000000000);
  EXPECT_EQ(Tick::from_ms(7).ns, 7000000);
  EXPECT_FALSE(Tick().is_set());
}

TEST(TickTest, NowIsMonotonicAndHexHasSixteenDigits) {
  Tick a = Tick::now();
  Tick b = Tick::now();
  EXPECT_LE(a, b);
  EXPECT_EQ(tick_hex(Tick(0x1234abcd)), String("000000001234abcd"));
  measure_clock_precision();
  EXPECT_GE(scheduler_precision(), 1);
}

TEST(TickTest, InjectedSourcesReplaceTheClocks) {
  tick_set_source([] { return int64_t{42}; });
  wall_set_source([] { return uint64_t{1700000000123}; });
  EXPECT_EQ(Tick::now().ns, 42);
  EXPECT_EQ(WallTime::now().ms, 1700000000123u);
  tick_set_source(nullptr);
  wall_set_source(nullptr);
  EXPECT_GT(Tick::now().ns, 42);
  EXPECT_GT(WallTime::now().ms, 1700000000123u);
}

TEST(WallTimeTest, TextParseAndDifference) {
  EXPECT_EQ(WallTime(1700000000007).text(), String("1700000000.007"));
  EXPECT_EQ(WallTime(0).text(), String("0.000"));
  EXPECT_EQ(WallTime::parse("1700000000.007").ms, 1700000000007u);
  EXPECT_EQ(WallTime::parse("12.5").ms, 12500u);
  EXPECT_EQ(WallTime::parse("12").ms, 12000u);
  EXPECT_EQ(wall_seconds(WallTime(5999), WallTime(1000)), 4);
  EXPECT_EQ(wall_seconds(WallTime(6000), WallTime(1000)), 5);
}

TEST(WakeupTest, SignalBeforeWaitIsNotLost) {
  Wakeup w;
  EXPECT_EQ(w.id() > 0, true);
  w.signal();
  w.signal();
  EXPECT_EQ(w.wait(0), Wakeup::signalled);
  EXPECT_EQ(w.wait(), Wakeup::signalled);
  EXPECT_EQ(w.wait(10), Wakeup::timed_out);
}

TEST(WakeupTest, IdsAreDistinctAndMadeOnFirstUse) {
  Wakeup a, b;
  int ia = a.id();
  int ib = b.id();
  EXPECT_NE(ia, ib);
  EXPECT_GE(ia, 1);
  a.release();
  EXPECT_NE(a.id(), ia);  // a new entry after release
}

TEST(WakeupTest, TimeoutIsMeasuredOnTheMonotonicClock) {
  Wakeup w;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(w.wait(50), Wakeup::timed_out);
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(49));
  EXPECT_LT(took, std::chrono::seconds(5));
}

TEST(WakeupThreadsTest, AnotherThreadEndsAWait) {
  Wakeup w;
  w.id();
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = w.wait(60000); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  auto start = std::chrono::steady_clock::now();
  w.signal();
  waiter.join();
  EXPECT_EQ(result.load(), Wakeup::signalled);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}
