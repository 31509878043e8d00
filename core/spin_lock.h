// A lock for the few instructions of ring and free-list surgery. A kernel mutex costs
// more than the work it would guard there.
#pragma once

#include <sched.h>

#include <atomic>

class SpinLock {
 public:
  constexpr SpinLock() = default;
  void lock() {
    for (int spins = 0; flag_.exchange(true, std::memory_order_acquire);) {
      while (flag_.load(std::memory_order_relaxed)) {
        // A holder that lost its processor would make us spin for a whole time slice.
        if (++spins > 64) sched_yield();
#if defined(__x86_64__) || defined(__i386__)
        else __builtin_ia32_pause();
#endif
      }
    }
  }
  void unlock() { flag_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> flag_{false};
};
