// A handle on a condition, so that a thread can sleep until another wakes it. A signal that
// comes before the wait is counted and not lost. Waits are measured on the monotonic clock
// (D9), so a step of the wall clock neither stretches nor cuts them.
#pragma once

#include <atomic>
#include <cstdint>

class Wakeup {
 public:
  Wakeup() = default;
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;
  ~Wakeup() { release(); }

  // Result of a wait.
  static constexpr int error = 0;
  static constexpr int timed_out = 1;
  static constexpr int signalled = 2;

  // Waits for a signal: returns 2, or 0 on any error.
  int wait();
  // Waits for a signal at most `ms` milliseconds: 2, 1 on time-out, 0 on error. The value is
  // unsigned: the -1 of an empty timer queue is a wait of about 49 days.
  int wait(uint32_t ms);
  void signal();
  // Drops the entry of the process-wide map; the next use makes a new one.
  void release();

  // The id, made on first use; ids come from a counter that starts at 1.
  int id();

 private:
  std::atomic<int> id_{0};
};

// Signals the Wakeup with this id, if it still exists. For holders of an id only.
void wakeup_signal_id(int id);
