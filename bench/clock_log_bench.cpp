// The hot paths of timers and the log: a log check that fails, a log call that passes, arming
// and firing a timer among 100,000 armed ones, and the latency of waking a serving thread by
// arming an earlier timer from another thread.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/tick.h"
#include "core/timeout.h"
#include "core/wakeup.h"

static void BM_LogEnabledDisabled(benchmark::State& state) {
  log_on = true;
  log_set_level(LOG_SIP, 3);
  int level = 7;
  benchmark::DoNotOptimize(level);
  for (auto _ : state) benchmark::DoNotOptimize(log_enabled(LOG_SIP, level));
  log_on = false;
}
BENCHMARK(BM_LogEnabledDisabled);

// A typical line, formatted and added to the ring (and, with argument 1, queued for the
// writer thread, which writes it to a file).
static void BM_LogEnabledCall(benchmark::State& state) {
  log_reset();
  log_on = true;
  single_threaded = false;
  bool with_writer = state.range(0) == 1;
  char dir[] = "/tmp/exch-bench-XXXXXX";
  String file;
  if (with_writer && mkdtemp(dir)) {
    file = format("%s/bench.log", static_cast<const char*>(dir));
    set_log_file(file);
    log_writer_start();
  }
  int i = 0;
  for (auto _ : state) {
    if (log_enabled(LOG_SIP, 5))
      log_add_message_global(LOG_SIP, 5, 0, format("Port %d: Received %s for call %d", i, "INVITE", 1000 + i));
    i++;
  }
  if (with_writer) {
    log_writer_stop();
    String path = file;
    path += '\0';
    unlink(path.c_data());
    rmdir(dir);
  }
  log_on = false;
  log_reset();
  single_threaded = true;
}
BENCHMARK(BM_LogEnabledCall)->Arg(0)->Arg(1);

namespace {
int64_t fired_count = 0;
void count_fire(int) { fired_count++; }
}  // namespace

// 100,000 timers armed in the next hour; each iteration arms one more for now and fires the
// head (that one), so the queue stays at 100,000.
static void BM_ArmFireWith100kArmed(benchmark::State& state) {
  Scheduler q;
  std::vector<std::unique_ptr<Timeout>> armed;
  std::mt19937 rng(1);
  for (int i = 0; i < 100000; i++) {
    armed.push_back(std::make_unique<Timeout>());
    armed.back()->callback(q, 1000 + rng() % 3600000, callback_argument(count_fire, i));
  }
  Timeout t;
  callback_argument arg(count_fire, 7);
  for (auto _ : state) {
    t.callback(q, 0, arg);
    q.next();
  }
  benchmark::DoNotOptimize(fired_count);
}
BENCHMARK(BM_ArmFireWith100kArmed);

// The same with timers at random places: each iteration moves a random timer to a random
// time and fires the head, which is then armed again for later.
static void BM_MoveAndFireRandomWith100kArmed(benchmark::State& state) {
  Scheduler q;
  std::vector<std::unique_ptr<Timeout>> armed;
  std::mt19937 rng(2);
  for (int i = 0; i < 100000; i++) {
    armed.push_back(std::make_unique<Timeout>());
    armed.back()->callback(q, rng() % 3600000, callback_argument(count_fire, i));
  }
  callback_argument arg(count_fire, 7);
  for (auto _ : state) {
    Timeout& m = *armed[rng() % armed.size()];
    m.callback(q, -1, arg);  // now: becomes the head
    q.next();
    m.callback(q, rng() % 3600000, arg);
  }
}
BENCHMARK(BM_MoveAndFireRandomWith100kArmed);

namespace {
std::atomic<int64_t> ran_at{0};
void note_run() { ran_at.store(Tick::now().ns); }
}  // namespace

// Latency from arming an earlier timer on one thread to its callback on the serving thread,
// which sleeps on a timer an hour away.
static void BM_WakeupLatencyArmEarlierTimer(benchmark::State& state) {
  single_threaded = false;
  Scheduler q;
  Mutex run_lock("bench_run_mutex");
  std::atomic<bool> stop{false};
  std::thread server([&] {
    Wakeup w;
    run_lock.lock("server", 1);
    while (!stop.load()) scheduler_serve(q, run_lock, w, nullptr);
    run_lock.unlock("server", 2);
  });
  Timeout far, near;
  far.callback(q, 3600000, callback_argument(note_run));
  for (auto _ : state) {
    std::this_thread::sleep_for(std::chrono::microseconds(300));  // let the server sleep
    ran_at = 0;
    Tick armed = Tick::now();
    near.callback(q, 0, callback_argument(note_run));
    while (ran_at.load() == 0) {
    }
    state.SetIterationTime(static_cast<double>(ran_at.load() - armed.ns) / 1e9);
  }
  stop = true;
  near.callback(q, 0, callback_argument(note_run));
  server.join();
  far.clear();
  single_threaded = true;
}
BENCHMARK(BM_WakeupLatencyArmEarlierTimer)->UseManualTime()->Iterations(2000);

// A lock and unlock of a Mutex at level 0 and at level 2 (history with time stamps).
static void BM_MutexLockUnlock(benchmark::State& state) {
  single_threaded = false;
  Mutex m("bench", static_cast<int>(state.range(0)));
  for (auto _ : state) {
    m.lock("bench", 1);
    m.unlock("bench", 2);
  }
  single_threaded = true;
}
BENCHMARK(BM_MutexLockUnlock)->Arg(0)->Arg(2);

BENCHMARK_MAIN();
