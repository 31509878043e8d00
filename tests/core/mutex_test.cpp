#include "core/mutex.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/support/test_support.h"

namespace {

std::atomic<int64_t> fake_now{5000000000};
int64_t fake_tick() { return fake_now.load(); }

class MutexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    single_threaded = false;
    path_ = dir_.file("mutex.txt");
    mutex_set_dump_path(path_.c_str());
  }
  void TearDown() override {
    mutex_set_dump_path(nullptr);
    mutex_set_lock_limit_ms(15000);
    tick_set_source(nullptr);
    single_threaded = true;
  }
  std::string dump_text() {
    std::ifstream in(path_, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  // The dump with the variable lines (time, pid) replaced by fixed marks.
  std::string normalised() {
    std::string t = dump_text();
    t = std::regex_replace(t, std::regex("Time: [0-9]+\r\n"), "Time: T\r\n");
    t = std::regex_replace(t, std::regex("PID: " + std::to_string(getpid()) + "\r\n"), "PID: P\r\n");
    return t;
  }
  TempDir dir_;
  std::string path_;
};

}  // namespace

TEST_F(MutexTest, LockTwiceUnlockTwiceGivesDepthsAndClearsOwnerAtTheEnd) {
  Mutex m("depths", 1);
  m.lock("f", 1);
  EXPECT_TRUE(m.owned_by_caller());
  m.lock("f", 2);
  m.unlock("f", 3);
  EXPECT_TRUE(m.owned_by_caller());
  m.unlock("f", 4);
  EXPECT_FALSE(m.owned_by_caller());
  ASSERT_EQ(m.history_count(), 4);
  int depths[] = {0, 1, 2, 1};  // newest first
  for (int i = 0; i < 4; i++) EXPECT_EQ(m.history_event(i).depth, depths[i]);
  EXPECT_EQ(m.history_event(0).step, 4);
  EXPECT_EQ(dump_text(), "");  // nothing went wrong
}

TEST_F(MutexTest, UnlockWithoutLockWritesTheDumps) {
  Mutex fresh("fresh", 1);
  fresh.unlock("release_it", 7);
  EXPECT_EQ(normalised(),
            "Unlocking without previous locking: release_it 7\r\nName: fresh\r\nTime: T\r\nPID: P\r\n"
            "Unlocking the mutex failed: release_it 7\r\nName: fresh\r\nTime: T\r\nPID: P\r\n");
}

TEST_F(MutexTest, UnlockAfterFullReleaseWritesHistoryNewestFirst) {
  Mutex m("used", 1);
  m.lock("outer", 1);
  m.lock("inner", 2);
  m.must_own("check", 3);
  m.unlock("inner", 4);
  m.unlock("outer", 5);
  m.unlock("stray", 6);  // not held any more
  EXPECT_EQ(normalised(),
            "Unlocking the mutex failed: stray 6\r\nName: used\r\nTime: T\r\nPID: P\r\n"
            "  [0] outer:5\r\n"
            "  [1] inner:4\r\n"
            "  [T] check:3\r\n"
            "  [2] inner:2\r\n"
            "  [1] outer:1\r\n");
}

TEST_F(MutexTest, MarksAtLevelTwoCarryMillisecondsSinceLocking) {
  tick_set_source(fake_tick);
  Mutex m(nullptr, 2);
  m.lock("f", 1);
  fake_now += 250000000;
  m.must_own("g", 2);
  m.must_not_own("h", 3);
  m.unlock("f", 4);
  EXPECT_EQ(normalised(),
            "Must not own: h 3\r\nTime: T\r\nPID: P\r\n"
            "  [T] 250 g:2\r\n"
            "  [1] f:1\r\n");
}

TEST_F(MutexTest, HoldOfExactly500MsIsFine501IsNot) {
  tick_set_source(fake_tick);
  Mutex m("held", 2);
  m.lock("a", 1);
  fake_now += 500000000;
  m.unlock("a", 2);
  EXPECT_EQ(dump_text(), "");
  m.lock("b", 3);
  fake_now += 501000000;
  m.unlock("b", 4);
  EXPECT_EQ(normalised(),
            "Mutex was locked for more than 500 ms: b 4\r\nName: held\r\nTime: T\r\nPID: P\r\n"
            "  [1] b:3\r\n"
            "  [0] a:2\r\n"
            "  [1] a:1\r\n");
}

TEST_F(MutexTest, MustOwnAtLevelZeroAndWhileSingleThreadedDoesNothing) {
  Mutex m("zero", 0);
  m.must_own("nobody", 1);
  m.must_not_own("nobody", 2);
  Mutex one("one", 1);
  single_threaded = true;
  one.must_own("nobody", 3);
  one.unlock("nobody", 4);
  single_threaded = false;
  EXPECT_EQ(dump_text(), "");
  one.must_own("nobody", 5);
  EXPECT_EQ(normalised(), "Must own: nobody 5\r\nName: one\r\nTime: T\r\nPID: P\r\n");
}

TEST_F(MutexTest, HistoryRingKeeps128AndOverwritesTheOldest) {
  Mutex m("ring", 1);
  m.lock("first", 0);
  for (int i = 1; i <= 128; i++) m.must_own("mark", i);  // 129 events in all
  EXPECT_EQ(m.history_count(), 128);
  EXPECT_EQ(m.history_event(127).step, 1);  // "first" is gone
  EXPECT_EQ(m.history_event(0).step, 128);
  m.unlock("last", 0);
  EXPECT_EQ(m.history_count(), 128);
}

TEST_F(MutexTest, DestroyedWhileLockedWritesAnAlert) {
  {
    auto* m = new Mutex("doomed", 1);
    m->lock("keep", 1);
    delete m;
  }
  EXPECT_EQ(normalised(),
            "Alert: Destructor called when mutex still locked 0\r\nName: doomed\r\nTime: T\r\nPID: P\r\n"
            "  [1] keep:1\r\n");
}

TEST_F(MutexTest, UnwritableDumpFileIsSkipped) {
  std::string blocker = dir_.file("file");
  std::ofstream(blocker) << "x";
  std::string bad = blocker + "/mutex.txt";  // parent is a file: ENOTDIR
  mutex_set_dump_path(bad.c_str());
  Mutex m("quiet", 1);
  m.unlock("x", 1);  // no crash, nothing written
  mutex_set_dump_path(path_.c_str());
  EXPECT_EQ(dump_text(), "");
}

TEST_F(MutexTest, ThreadLevelSetsNamedLocks) {
  Mutex str_lock("str");
  thread_level_register("str", &str_lock);
  apply_thread_level("ctrl=2 srv=1\tstr=3 bw=9 unknown=4 log=x");
  EXPECT_EQ(ctrl_run_mutex.level(), 2);
  EXPECT_EQ(srv_run_mutex.level(), 1);
  EXPECT_EQ(str_lock.level(), 3);
  EXPECT_EQ(thread_level_of("log"), 0);
  EXPECT_EQ(thread_level_of("bw"), 0);
  apply_thread_level("srv=2");
  EXPECT_EQ(ctrl_run_mutex.level(), 0);  // not named: level 0
  EXPECT_EQ(srv_run_mutex.level(), 2);
  EXPECT_EQ(str_lock.level(), 0);
  Mutex late("ip");
  apply_thread_level("ip=2");
  thread_level_register("ip", &late);
  EXPECT_EQ(late.level(), 2);
  apply_thread_level("");
  EXPECT_EQ(srv_run_mutex.level(), 0);
  EXPECT_EQ(late.level(), 0);
}

// The timed lock with a short limit: the waiter writes the dump and then waits on. The dump
// reads the history without a lock by design, so this test stays out of the thread sanitizer.
TEST_F(MutexTest, LockHeldTooLongWritesTimeoutDumpAndWaitsOn) {
  mutex_set_lock_limit_ms(100);
  Mutex m("slow", 1);
  std::atomic<bool> held{false};
  std::atomic<bool> release{false};
  std::thread holder([&] {
    m.lock("holder", 1);
    held = true;
    while (!release.load()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    m.unlock("holder", 2);
  });
  while (!held.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::atomic<bool> got{false};
  std::thread waiter([&] {
    m.lock("waiter", 3);
    got = true;
    m.unlock("waiter", 4);
  });
  auto start = std::chrono::steady_clock::now();
  while (dump_text().empty() && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_FALSE(got.load());
  release = true;
  holder.join();
  waiter.join();
  EXPECT_TRUE(got.load());
  std::string text = normalised();
  EXPECT_EQ(text.rfind("Locking the mutex timed out: waiter 3\r\nName: slow\r\nTime: T\r\nPID: P\r\n", 0), 0u)
      << text;
}
