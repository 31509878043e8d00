#include "core/timeout.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "core/mutex.h"
#include "core/wakeup.h"
#include "tests/support/test_support.h"

namespace {

// A clock the test moves by hand.
std::atomic<int64_t> fake_now{1000000000};
int64_t fake_tick() { return fake_now.load(); }

class TimeoutTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_now = 1000000000;
    tick_set_source(fake_tick);
    fired.clear();
  }
  void TearDown() override { tick_set_source(nullptr); }

 public:
  static std::vector<String> fired;
};
std::vector<String> TimeoutTest::fired;

void note_int(int n) { TimeoutTest::fired.push_back(String(n)); }
void note_none() { TimeoutTest::fired.push_back("none"); }
void note_s(const String& a) { TimeoutTest::fired.push_back(a); }
void note_ss(const String& a, const String& b) { TimeoutTest::fired.push_back(a + "+" + b); }
void note_si(const String& a, int n) { TimeoutTest::fired.push_back(a + "#" + String(n)); }
void note_sss(const String& a, const String& b, const String& c) {
  TimeoutTest::fired.push_back(a + "+" + b + "+" + c);
}
void note_object(const CallbackObject& o) {
  TimeoutTest::fired.push_back(*std::static_pointer_cast<String>(o));
}

std::vector<String> strings(std::initializer_list<const char*> list) {
  std::vector<String> out;
  for (const char* s : list) out.push_back(s);
  return out;
}

}  // namespace

TEST_F(TimeoutTest, EveryKindRunsWithItsValues) {
  Scheduler q;
  Timeout t[7];
  t[0].callback(q, 1, callback_argument(note_none));
  t[1].callback(q, 2, callback_argument(note_s, "a"));
  t[2].callback(q, 3, callback_argument(note_int, 42));
  t[3].callback(q, 4, callback_argument(note_ss, "a", "b"));
  t[4].callback(q, 5, callback_argument(note_si, "a", 7));
  t[5].callback(q, 6, callback_argument(note_sss, "a", "b", "c"));
  t[6].callback(q, 7, callback_argument(note_object, std::make_shared<String>("obj")));
  while (q.next()) {
  }
  EXPECT_EQ(fired, strings({"none", "a", "42", "a+b", "a#7", "a+b+c", "obj"}));
  for (Timeout& x : t) EXPECT_FALSE(x.armed());
}

TEST_F(TimeoutTest, KindsOutsideOneToSevenRunNothing) {
  Scheduler q;
  Timeout t[4];
  int kinds[] = {0, 8, -1, 1000};
  for (int i = 0; i < 4; i++) t[i].callback(q, i, callback_argument::with_kind(kinds[i], note_none));
  for (int i = 0; i < 4; i++) EXPECT_TRUE(q.next());
  EXPECT_FALSE(q.next());
  EXPECT_TRUE(fired.empty());
  callback_argument none;
  none.run();  // kind 0 without a function
  EXPECT_EQ(none.kind(), 0);
}

TEST_F(TimeoutTest, SameTickRunsInArmingOrderAndPastRunsAfterEarlierDue) {
  Scheduler q;
  Timeout a, b, c, d;
  Tick at = Tick::now().plus_ms(100);
  a.callback_at(q, at, callback_argument(note_s, "a"));
  b.callback_at(q, at, callback_argument(note_s, "b"));
  c.callback_at(q, Tick::now().plus_ms(-50), callback_argument(note_s, "past"));
  d.callback_at(q, Tick::now().plus_ms(-100), callback_argument(note_s, "older"));
  Timeout e;
  e.callback(q, -5, callback_argument(note_s, "now"));  // delay below 0: now
  fake_now += 200000000;
  while (q.next()) {
  }
  EXPECT_EQ(fired, strings({"older", "past", "now", "a", "b"}));
}

namespace {
Scheduler* rearm_queue;
Timeout* rearm_timer;
int rearm_count;
void rearm_self(const String& name) {
  TimeoutTest::fired.push_back(name);
  if (++rearm_count < 3) rearm_timer->callback(*rearm_queue, 0, callback_argument(rearm_self, name));
}
}  // namespace

TEST_F(TimeoutTest, SelfReArmWithZeroDelayLetsEarlierSequenceRunFirst) {
  Scheduler q;
  Timeout self, other1, other2;
  rearm_queue = &q;
  rearm_timer = &self;
  rearm_count = 0;
  self.callback(q, 0, callback_argument(rearm_self, "self"));
  other1.callback(q, 0, callback_argument(note_s, "o1"));
  other2.callback(q, 0, callback_argument(note_s, "o2"));
  while (q.next()) {
  }
  EXPECT_EQ(fired, strings({"self", "o1", "o2", "self", "self"}));
}

TEST_F(TimeoutTest, ReArmMovesClearStopsAndDestroyedTimerLeavesTheQueue) {
  Scheduler q;
  Timeout a;
  a.callback(q, 100, callback_argument(note_s, "a1"));
  a.callback(q, 300, callback_argument(note_s, "a2"));  // moves, does not add
  EXPECT_EQ(q.size(), 1u);
  {
    Timeout doomed;
    doomed.callback(q, 50, callback_argument(note_s, "doomed"));
    EXPECT_EQ(q.size(), 2u);
  }
  EXPECT_EQ(q.size(), 1u);
  Timeout b;
  b.callback(q, 10, callback_argument(note_s, "b"));
  b.clear();
  EXPECT_FALSE(b.armed());
  EXPECT_EQ(b.kind(), 0);
  while (q.next()) {
  }
  EXPECT_EQ(fired, strings({"a2"}));
}

TEST_F(TimeoutTest, CopyOfArmedTimerIsArmedForTheSameTime) {
  Scheduler q;
  Timeout a;
  a.callback(q, 100, callback_argument(note_s, "a"));
  Timeout b(a);
  EXPECT_TRUE(b.armed());
  EXPECT_EQ(b.due(), a.due());
  EXPECT_EQ(q.size(), 2u);
  Timeout c;
  c = a;
  EXPECT_EQ(q.size(), 3u);
  a.clear();
  while (q.next()) {
  }
  EXPECT_EQ(fired, strings({"a", "a"}));
}

TEST_F(TimeoutTest, TimeLeftAndDueText) {
  Scheduler q;
  Timeout t;
  EXPECT_EQ(t.seconds_left(Tick::now()), 0);
  EXPECT_EQ(t.ms_left(), 0);
  EXPECT_TRUE(t.due_text().empty());
  t.callback(q, 2499, callback_argument(note_none));
  EXPECT_EQ(t.ms_left(), 2499);
  EXPECT_EQ(t.seconds_left(Tick::now()), 2);
  t.callback(q, 2500, callback_argument(note_none));
  EXPECT_EQ(t.seconds_left(Tick::now()), 3);
  EXPECT_EQ(t.due_text(), tick_hex(t.due()));
  EXPECT_EQ(t.due_text().length(), 16);
}

TEST_F(TimeoutTest, DelayAndWaitIdFollowTheHead) {
  Scheduler q;
  Tick now;
  uint64_t id = 99;
  EXPECT_EQ(q.delay(now, id, true), -1);
  EXPECT_EQ(id, 0u);
  EXPECT_EQ(q.wait_id(), 0u);
  Timeout a, b;
  a.callback(q, 250, callback_argument(note_none));
  EXPECT_EQ(q.delay(now, id, true), 250);
  EXPECT_EQ(now, Tick::now());
  uint64_t first = id;
  EXPECT_EQ(q.wait_id(), first);
  b.callback(q, 100, callback_argument(note_none));
  EXPECT_EQ(q.delay(now, id, true), 100);
  EXPECT_GT(id, first);
  fake_now += 1000000000;
  EXPECT_EQ(q.delay(now, id, true), 0);  // overdue: not below 0
}

TEST_F(TimeoutTest, ArmingANewHeadSignalsTheRegisteredWakeup) {
  Scheduler q;
  Wakeup w;
  q.register_wakeup(w);
  Timeout a, b;
  a.callback(q, 100, callback_argument(note_none));  // new head
  EXPECT_EQ(w.wait(0), Wakeup::signalled);
  b.callback(q, 200, callback_argument(note_none));  // behind the head: no signal
  EXPECT_EQ(w.wait(0), Wakeup::timed_out);
  q.unregister_wakeup();
  b.callback(q, 50, callback_argument(note_none));
  EXPECT_EQ(w.wait(0), Wakeup::timed_out);
  q.register_wakeup(w);
  q.trigger_wakeup();
  EXPECT_EQ(w.wait(0), Wakeup::signalled);
}

TEST_F(TimeoutTest, CountersFollowLiveObjects) {
  int64_t timeouts = timeout_objects();
  auto count_of = [](void* fn) {
    for (const CallbackCount& c : callback_objects())
      if (c.function == fn) return c.count;
    return int64_t{0};
  };
  void* fn = reinterpret_cast<void*>(note_sss);
  int64_t before = count_of(fn);
  {
    Scheduler q;
    Timeout t1, t2;
    EXPECT_EQ(timeout_objects(), timeouts + 2);
    callback_argument arg(note_sss, "a", "b", "c");
    EXPECT_EQ(count_of(fn), before + 1);
    t1.callback(q, 10, arg);
    t2 = t1;
    EXPECT_EQ(count_of(fn), before + 3);
    t1.clear();
    EXPECT_EQ(count_of(fn), before + 2);
    q.next();
    EXPECT_EQ(count_of(fn), before + 1);
  }
  EXPECT_EQ(timeout_objects(), timeouts);
  EXPECT_EQ(count_of(fn), before);

  callback_name_register(note_sss, "keep_alive_timer");
  callback_name_register(note_ss, "not_in_the_list");
  EXPECT_STREQ(callback_name(fn), "keep_alive_timer");
  EXPECT_STREQ(callback_name(reinterpret_cast<void*>(note_ss)), "unknown");
  callback_argument held(note_sss, "x", "y", "z");
  String text = callback_objects_text();
  EXPECT_TRUE(text.starts_with("\"none\":")) << to_std(text);
  EXPECT_GE(text.find("\"keep_alive_timer\":1"), 0) << to_std(text);
}

// A million random arm, re-arm, clear and fire operations against a reference model that
// orders by tick, then by arming sequence.
namespace {
int property_fired = -1;
void property_note(int n) { property_fired = n; }
}  // namespace

TEST_F(TimeoutTest, PropertyMillionRandomOperationsMatchReferenceModel) {
  constexpr int slots = 512;
  Scheduler q;
  std::vector<std::unique_ptr<Timeout>> timers;
  for (int i = 0; i < slots; i++) timers.push_back(std::make_unique<Timeout>());
  // Reference: (tick, sequence, slot) and the value each slot's callback carries.
  std::set<std::tuple<int64_t, uint64_t, int>> model;
  std::vector<std::tuple<int64_t, uint64_t, int>> key(slots);
  std::vector<bool> armed(slots, false);
  std::vector<int> value(slots, -1);
  uint64_t seq = 0;
  std::mt19937_64 rng(20240611);

  auto model_arm = [&](int s, int64_t tick, int v) {
    if (armed[s]) model.erase(key[s]);
    key[s] = {tick, ++seq, s};
    model.insert(key[s]);
    armed[s] = true;
    value[s] = v;
  };
  int fires = 0;
  for (int op = 0; op < 1000000; op++) {
    int r = static_cast<int>(rng() % 100);
    int s = static_cast<int>(rng() % slots);
    if (r < 40) {
      int64_t delay = static_cast<int64_t>(rng() % 2000) - 100;
      int v = static_cast<int>(rng() % 100000);
      timers[s]->callback(q, delay, callback_argument(property_note, v));
      model_arm(s, delay > 0 ? fake_now.load() + delay * 1000000 : fake_now.load(), v);
    } else if (r < 45) {
      // Absolute times, often equal, to exercise the sequence order.
      int64_t tick = fake_now.load() + static_cast<int64_t>(rng() % 4) * 1000000;
      int v = static_cast<int>(rng() % 100000);
      timers[s]->callback_at(q, Tick(tick), callback_argument(property_note, v));
      model_arm(s, tick, v);
    } else if (r < 50) {
      // Copy of another slot: armed for the same time, new sequence, same value.
      int from = static_cast<int>(rng() % slots);
      if (from == s) continue;
      *timers[s] = *timers[from];
      if (armed[from]) {
        model_arm(s, std::get<0>(key[from]), value[from]);
      } else if (armed[s]) {
        model.erase(key[s]);
        armed[s] = false;
      }
    } else if (r < 60) {
      timers[s]->clear();
      if (armed[s]) model.erase(key[s]);
      armed[s] = false;
    } else if (r < 95) {
      property_fired = -1;
      bool ran = q.next();
      ASSERT_EQ(ran, !model.empty()) << "op " << op;
      if (!ran) continue;
      auto head = *model.begin();
      int hs = std::get<2>(head);
      model.erase(model.begin());
      armed[hs] = false;
      ASSERT_EQ(property_fired, value[hs]) << "op " << op;
      ASSERT_FALSE(timers[hs]->armed());
      fires++;
    } else if (r < 98) {
      fake_now += static_cast<int64_t>(rng() % 50) * 1000000;
    } else {
      Tick now;
      uint64_t id;
      int64_t d = q.delay(now, id, true);
      if (model.empty()) {
        ASSERT_EQ(d, -1);
      } else {
        int64_t expect = ms(Tick(std::get<0>(*model.begin())), Tick(fake_now.load()));
        ASSERT_EQ(d, expect < 0 ? 0 : expect);
      }
      ASSERT_EQ(q.size(), model.size());
    }
  }
  EXPECT_GT(fires, 100000);
}

// The serving pass on a thread of its own: arming an earlier timer from another thread ends
// the wait for a later one at once.
TEST(TimeoutThreadsTest, ArmingEarlierTimerWakesServingThread) {
  single_threaded = false;
  Scheduler q;
  Mutex run_lock("test_run_mutex", 2);
  std::atomic<bool> stop{false};
  std::atomic<int> ran{0};
  static std::atomic<int>* counter;
  counter = &ran;
  std::thread server([&] {
    Wakeup w;
    run_lock.lock("server", 1);
    while (!stop.load()) scheduler_serve(q, run_lock, w, nullptr);
    run_lock.unlock("server", 2);
  });
  Timeout late, early;
  late.callback(q, 60000, callback_argument([] { counter->fetch_add(100); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  auto start = std::chrono::steady_clock::now();
  early.callback(q, 0, callback_argument([] { counter->fetch_add(1); }));
  while (ran.load() == 0 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  EXPECT_EQ(ran.load(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  stop = true;
  q.trigger_wakeup();
  Timeout poke;
  poke.callback(q, 0, callback_argument([] {}));
  server.join();
  late.clear();
  single_threaded = true;
}

// Many threads arm, move and clear timers on one queue while a server runs it.
TEST(TimeoutThreadsTest, ConcurrentArmingWhileServing) {
  single_threaded = false;
  Scheduler q;
  Mutex run_lock("test_run_mutex", 1);
  std::atomic<bool> stop{false};
  static std::atomic<int> runs{0};
  runs = 0;
  std::thread server([&] {
    Wakeup w;
    run_lock.lock("server", 1);
    while (!stop.load()) scheduler_serve(q, run_lock, w, nullptr);
    run_lock.unlock("server", 2);
  });
  std::vector<std::thread> armers;
  for (int t = 0; t < 4; t++) {
    armers.emplace_back([&q, t] {
      Timeout mine[8];
      std::mt19937 rng(t);
      for (int i = 0; i < 5000; i++) {
        Timeout& x = mine[rng() % 8];
        if (rng() % 4 == 0)
          x.clear();
        else
          x.callback(q, static_cast<int>(rng() % 3), callback_argument([](const String&) { runs++; }, "x"));
      }
    });
  }
  for (auto& a : armers) a.join();
  // The queue still works after the storm: a last timer runs.
  static std::atomic<bool> last_ran{false};
  last_ran = false;
  Timeout last;
  last.callback(q, 0, callback_argument([] { last_ran = true; }));
  auto start = std::chrono::steady_clock::now();
  while (!last_ran.load() && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(last_ran.load());
  stop = true;
  Timeout poke;
  poke.callback(q, 0, callback_argument([] {}));
  server.join();
  single_threaded = true;
}
