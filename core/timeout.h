// Timed callbacks: re-armable timers in three queues, each served by one thread with that
// thread's run lock held, so that a callback sees the same world as the thread's main loop.
// Any thread may arm, move or clear any timer; arming a new head wakes the serving thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "core/string.h"
#include "core/tick.h"

class Mutex;
class Wakeup;

// The object of a kind-7 callback: any shared object; the function casts it back.
using CallbackObject = std::shared_ptr<void>;

// What a timer runs: a function and up to three strings, one integer or one object.
//   kind 0: nothing to run        kind 4: (String, String)
//   kind 1: ()                    kind 5: (String, int)
//   kind 2: (String)              kind 6: (String, String, String)
//   kind 3: (int)                 kind 7: (object)
// Every live object is counted per function for the statistics (callback_objects).
class callback_argument {
 public:
  using Fn1 = void (*)();
  using Fn2 = void (*)(const String&);
  using Fn3 = void (*)(int);
  using Fn4 = void (*)(const String&, const String&);
  using Fn5 = void (*)(const String&, int);
  using Fn6 = void (*)(const String&, const String&, const String&);
  using Fn7 = void (*)(const CallbackObject&);

  callback_argument();
  callback_argument(Fn1 f);  // NOLINT: a bare function is an argument of kind 1
  callback_argument(Fn2 f, const String& s1);
  callback_argument(Fn3 f, int n);
  callback_argument(Fn4 f, const String& s1, const String& s2);
  callback_argument(Fn5 f, const String& s1, int n);
  callback_argument(Fn6 f, const String& s1, const String& s2, const String& s3);
  callback_argument(Fn7 f, CallbackObject object);
  // Any kind number with a function; kinds outside 1 to 7 run nothing. For tests.
  static callback_argument with_kind(int kind, Fn1 f);

  callback_argument(const callback_argument& o);
  callback_argument(callback_argument&& o) noexcept;
  callback_argument& operator=(const callback_argument& o);
  callback_argument& operator=(callback_argument&& o) noexcept;
  ~callback_argument();

  // Sets the function to none and empties the strings and the object reference.
  void clear();
  // Calls the function with its values; nothing for kinds outside 1 to 7.
  void run() const;

  int kind() const { return kind_; }
  // The function as a plain pointer, the key of callback_objects; nullptr for none.
  void* function() const { return reinterpret_cast<void*>(fn_); }
  const String& string1() const { return s1_; }
  const String& string2() const { return s2_; }
  const String& string3() const { return s3_; }
  int integer() const { return n_; }
  const CallbackObject& object() const { return object_; }

 private:
  void set_function(int kind, Fn1 f);

  int kind_ = 0;
  int n_ = 0;
  Fn1 fn_ = nullptr;
  String s1_, s2_, s3_;
  CallbackObject object_;
};

class Scheduler;

// A callback_argument that can be armed in a Scheduler. Armed at most once: arming again
// moves it. Copying an armed Timeout arms the copy for the same time in the same queue.
// The destructor clears it.
class Timeout : public callback_argument {
 public:
  Timeout();
  Timeout(const Timeout& o);
  Timeout& operator=(const Timeout& o);
  ~Timeout();

  // Clears the timer, then arms it for now plus `delay_ms` (now, if 0 or less).
  void callback(Scheduler& scheduler, int64_t delay_ms, const callback_argument& argument);
  // The same for an absolute time.
  void callback_at(Scheduler& scheduler, Tick tick, const callback_argument& argument);
  // Disarms the timer and clears its argument. After clear returns, the callback will not
  // start; one already taken from the queue may still be running on its thread.
  void clear();
  // The variant for a caller that holds the scheduler lock (inside scheduler code).
  void clear_locked();

  bool armed() const;
  Tick due() const;
  // Rounded milliseconds to the due time, plus 500, divided by 1000; 0 if not armed.
  int64_t seconds_left(Tick now) const;
  int64_t ms_left() const;
  // The due Tick in hexadecimal; empty if not armed.
  String due_text() const;

 private:
  friend class Scheduler;
  void arm_locked(Scheduler& scheduler, Tick tick);

  Scheduler* scheduler_ = nullptr;
  size_t place_ = 0;  // index of the entry in the scheduler's heap
};

// A queue of armed timers ordered by time, then by a process-wide arming sequence. All
// schedulers share one lock, held only for queue surgery, never while a callback runs.
class Scheduler {
 public:
  Scheduler() = default;
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  ~Scheduler();

  // Milliseconds to the head (rounded, not below 0), or -1 if the queue is empty. Stores the
  // time used in `now` (read fresh if `fresh` or if `now` is not set) and the head's
  // sequence number in `id` (0 if empty).
  int64_t delay(Tick& now, uint64_t& id, bool fresh);
  // The sequence number of the head, or 0.
  uint64_t wait_id();
  // Takes the head off the queue and runs a private copy of its argument with no scheduler
  // lock held. False if the queue was empty.
  bool next();

  void register_wakeup(Wakeup& w);
  void unregister_wakeup();
  // Signals the registered Wakeup, if any.
  void trigger_wakeup();

  size_t size();
  bool empty() { return size() == 0; }

 private:
  friend class Timeout;
  struct Entry {
    int64_t tick;
    uint64_t seq;
    Timeout* timer;
    bool before(const Entry& o) const { return tick < o.tick || (tick == o.tick && seq < o.seq); }
  };
  void insert_locked(Timeout* t, Tick tick);
  void erase_locked(size_t place);
  void sift_up(size_t i);
  void sift_down(size_t i);
  void put(size_t i, const Entry& e) {
    heap_[i] = e;
    e.timer->place_ = i;
  }

  std::vector<Entry> heap_;
  int wakeup_id_ = 0;
};

// The three queues of the process.
extern Scheduler control_queue;  // served by cthread_func under ctrl_run_mutex
extern Scheduler service_queue;  // served by run_pbxsrv_sip_timer under srv_run_mutex
extern Scheduler rtp_queue;      // served by run_pbxsrv_rtp under srv_run_mutex

// Steps 1 to 4 of one pass of a queue's serving thread, called with `run_lock` held (it is
// held again on return): `flush` forwards posted messages (may be nullptr); if the head is
// not due, the lock is released around a wait on `w` that an earlier arming or a posting
// ends. True when the head waited for is due and still the head: the caller then opens its
// LocationScope and calls `next`. False: go round again.
bool scheduler_wait(Scheduler& q, Mutex& run_lock, Wakeup& w, void (*flush)());
// A whole pass: scheduler_wait and, if due, next. True if a callback ran.
bool scheduler_serve(Scheduler& q, Mutex& run_lock, Wakeup& w, void (*flush)());

// Statistics: live Timeout objects, and live callback_argument objects per function.
int64_t timeout_objects();
struct CallbackCount {
  void* function;  // nullptr: objects with no function ("none")
  int64_t count;
};
std::vector<CallbackCount> callback_objects();
// Names a callback function for the statistics. Only the names of the known callbacks are
// taken; every other function prints as "unknown".
void callback_name_register(void* function, const char* name);
template <class F>
void callback_name_register(F function, const char* name) {
  callback_name_register(reinterpret_cast<void*>(function), name);
}
const char* callback_name(void* function);
// "\"none\":%d" followed by ",\"name\":%d" per name (unnamed functions add up under
// "unknown"): the members of the statistics object of the REST side.
String callback_objects_text();
