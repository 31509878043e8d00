// The recursive lock of the process. At level 1 and above it keeps a ring of its last 128
// events and writes them to "mutex.txt" when something goes wrong (a lock not obtained in
// 15 s, an unlock without lock, a hold of more than 500 ms at level 2, a failed ownership
// assertion), which makes a dead-lock or a long hold readable after the fact. The level of
// the named locks comes from the setting `thread_level`.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "core/string.h"
#include "core/tick.h"

// Starts true: every Mutex operation is a no-op until run_server clears it just before it
// creates the first thread. Tests that use threads clear it themselves.
extern std::atomic<bool> single_threaded;

class Mutex {
 public:
  static constexpr int history_size = 128;

  struct Event {
    const char* place;
    int step;
    bool mark;
    int depth;
    Tick tick;        // marks only, at level 2 and above: when the mark was made
    Tick held_since;  // marks only: `locked_since` at that moment
  };

  // Constant-initialised, so that a global Mutex works before any constructor has run.
  constexpr explicit Mutex(const char* name = nullptr, int level = 0)
      : level_(level), name_(name) {}
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;
  ~Mutex();

  void lock(const char* place, int step);
  void unlock(const char* place, int step);
  void must_own(const char* place, int step);
  void must_not_own(const char* place, int step);

  void set_level(int level) { level_.store(level, std::memory_order_relaxed); }
  int level() const { return level_.load(std::memory_order_relaxed); }
  void set_name(const char* name) { name_ = name; }
  const char* name() const { return name_; }
  // True if the calling thread holds the lock (tracked at level 1 and above only).
  bool owned_by_caller() const;
  int history_count() const { return count_; }
  // Event i, 0 being the newest; only for the holder of the lock, or tests.
  const Event& history_event(int i) const;
  Tick locked_since() const { return Tick(locked_since_.load(std::memory_order_relaxed)); }

  // Appends a record to the dump file: used for every anomaly found, and open to callers.
  void dump(const char* message, const char* place, int step) const;

 private:
  void add_event(const char* place, int step, bool mark, int depth, Tick tick);
  int newest_depth() const;

  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  std::atomic<int> level_;
  const char* name_;
  std::atomic<pthread_t> owner_{0};
  std::atomic<int64_t> locked_since_{0};
  Event history_[history_size] = {};
  int count_ = 0;
  int index_ = 0;
};

// Scoped lock for code that needs no history step of its own.
class MutexGuard {
 public:
  MutexGuard(Mutex& m, const char* place, int step) : m_(m), place_(place), step_(step) {
    m_.lock(place_, step_);
  }
  ~MutexGuard() { m_.unlock(place_, step_); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex& m_;
  const char* place_;
  int step_;
};

// The run locks of the two halves of the process.
extern Mutex ctrl_run_mutex;
extern Mutex srv_run_mutex;

// The free-function forms: must_own(ctrl_run_mutex, "ctrl_write_setting", 1).
inline void must_own(Mutex& m, const char* place, int step) { m.must_own(place, step); }
inline void must_not_own(Mutex& m, const char* place, int step) { m.must_not_own(place, step); }

// Test hooks: the limit of the timed lock (default 15,000 ms) and the dump file (default
// "mutex.txt" in the working directory).
void mutex_set_lock_limit_ms(int ms);
void mutex_set_dump_path(const char* path);

// `thread_level`: blank-separated "name=value" pairs; "ctrl", "srv", "log", "str" and "ip"
// set the level of the lock registered under that name, "bw" is accepted and ignored, and a
// registered lock that the value does not name goes to level 0.
void apply_thread_level(const String& value);
// Registers a lock under one of those names; it gets the level last applied.
void thread_level_register(const char* key, Mutex* mutex);
// The level that the last applied value gives to a name; 0 for names outside the list.
int thread_level_of(const char* key);
