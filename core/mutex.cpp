#include "core/mutex.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "core/format.h"

std::atomic<bool> single_threaded{true};

constinit Mutex ctrl_run_mutex("ctrl_run_mutex");
constinit Mutex srv_run_mutex("srv_run_mutex");

static std::atomic<int> lock_limit_ms{15000};
static std::atomic<const char*> dump_path{"mutex.txt"};

void mutex_set_lock_limit_ms(int ms) { lock_limit_ms.store(ms); }
void mutex_set_dump_path(const char* path) { dump_path.store(path ? path : "mutex.txt"); }

Mutex::~Mutex() {
  if (level() > 0 && count_ > 0 && newest_depth() > 0)
    dump("Destructor called when mutex still locked", nullptr, 0);
  pthread_mutex_destroy(&mutex_);
}

bool Mutex::owned_by_caller() const {
  return owner_.load(std::memory_order_relaxed) == pthread_self();
}

const Mutex::Event& Mutex::history_event(int i) const {
  return history_[(index_ - 1 - i + 2 * history_size) % history_size];
}

int Mutex::newest_depth() const { return count_ > 0 ? history_event(0).depth : 0; }

void Mutex::add_event(const char* place, int step, bool mark, int depth, Tick tick) {
  history_[index_] = Event{place, step, mark, depth, tick, locked_since()};
  index_ = (index_ + 1) % history_size;
  if (count_ < history_size) count_++;
}

// pthread_mutex_timedlock measures on the wall clock (D9 wants the monotonic one); the thread
// sanitizer does not know pthread_mutex_clocklock, so its builds use timedlock and retry
// what remains of the limit after an early end.
static bool timed_lock(pthread_mutex_t* m, int limit_ms) {
#if defined(__SANITIZE_THREAD__)
  Tick until = Tick::now().plus_ms(limit_ms);
  for (;;) {
    int64_t left = until.ns - Tick::now().ns;
    if (left <= 0) return pthread_mutex_trylock(m) == 0;
    timespec abs;
    clock_gettime(CLOCK_REALTIME, &abs);
    abs.tv_sec += left / 1000000000;
    abs.tv_nsec += left % 1000000000;
    if (abs.tv_nsec >= 1000000000) {
      abs.tv_sec++;
      abs.tv_nsec -= 1000000000;
    }
    int rc = pthread_mutex_timedlock(m, &abs);
    if (rc == 0) return true;
    if (rc != ETIMEDOUT) return false;
  }
#else
  timespec abs;
  clock_gettime(tick_clock_id(), &abs);
  abs.tv_sec += limit_ms / 1000;
  abs.tv_nsec += static_cast<long>(limit_ms % 1000) * 1000000;
  if (abs.tv_nsec >= 1000000000) {
    abs.tv_sec++;
    abs.tv_nsec -= 1000000000;
  }
  return pthread_mutex_clocklock(m, tick_clock_id(), &abs) == 0;
#endif
}

void Mutex::lock(const char* place, int step) {
  if (single_threaded.load(std::memory_order_relaxed)) return;
  int lvl = level();
  if (lvl == 0) {
    pthread_mutex_lock(&mutex_);
    return;
  }
  if (!timed_lock(&mutex_, lock_limit_ms.load(std::memory_order_relaxed))) {
    dump("Locking the mutex timed out", place, step);
    pthread_mutex_lock(&mutex_);
  }
  owner_.store(pthread_self(), std::memory_order_relaxed);
  add_event(place, step, false, count_ > 0 ? newest_depth() + 1 : 1, Tick());
  locked_since_.store(lvl >= 2 ? Tick::now().ns : 0, std::memory_order_relaxed);
}

void Mutex::unlock(const char* place, int step) {
  if (single_threaded.load(std::memory_order_relaxed)) return;
  int lvl = level();
  if (lvl > 0) {
    if (count_ == 0) dump("Unlocking without previous locking", place, step);
    // The history belongs to the holder: a thread that does not hold the lock leaves it
    // alone, and the failing pthread_mutex_unlock below reports it.
    if (owned_by_caller()) {
      int64_t since = locked_since_.load(std::memory_order_relaxed);
      if (lvl >= 2 && since != 0 && ms(Tick::now(), Tick(since)) >= 501)
        dump("Mutex was locked for more than 500 ms", place, step);
      int depth = count_ > 0 ? newest_depth() - 1 : 0;
      if (depth < 0) depth = 0;
      add_event(place, step, false, depth, Tick());
      if (depth == 0) {
        owner_.store(0, std::memory_order_relaxed);
        locked_since_.store(0, std::memory_order_relaxed);
      }
    }
  }
  if (pthread_mutex_unlock(&mutex_) != 0 && lvl > 0) dump("Unlocking the mutex failed", place, step);
}

void Mutex::must_own(const char* place, int step) {
  if (single_threaded.load(std::memory_order_relaxed)) return;
  int lvl = level();
  if (lvl == 0) return;
  if (owned_by_caller())
    add_event(place, step, true, newest_depth(), lvl >= 2 ? Tick::now() : Tick());
  else
    dump("Must own", place, step);
}

void Mutex::must_not_own(const char* place, int step) {
  if (single_threaded.load(std::memory_order_relaxed)) return;
  if (level() == 0) return;
  if (owned_by_caller()) dump("Must not own", place, step);
}

void Mutex::dump(const char* message, const char* place, int step) const {
  int fd = open(dump_path.load(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  String text;
  if (place)
    text = format("%s: %s %d\r\n", message, place, step);
  else
    text = format("Alert: %s %d\r\n", message, step);
  if (name_) text += format("Name: %s\r\n", name_);
  text += format("Time: %d\r\n", static_cast<int64_t>(WallTime::now().seconds()));
  text += format("PID: %d\r\n", static_cast<int>(getpid()));
  for (int i = 0; i < count_; i++) {
    const Event& e = history_event(i);
    const char* where = e.place ? e.place : "";
    if (!e.mark)
      text += format("  [%d] %s:%d\r\n", e.depth, where, e.step);
    else if (e.tick.is_set() && e.held_since.is_set())
      text += format("  [T] %d %s:%d\r\n", ms(e.tick, e.held_since), where, e.step);
    else
      text += format("  [T] %s:%d\r\n", where, e.step);
  }
  const char* p = text.c_data();
  int left = text.length();
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n <= 0) break;
    p += n;
    left -= static_cast<int>(n);
  }
  close(fd);
}

// thread_level

namespace {

const char* const level_keys[] = {"ctrl", "srv", "log", "str", "ip"};
constexpr int level_key_count = 5;

struct LevelTable {
  std::mutex lock;
  int levels[level_key_count] = {};
  std::vector<Mutex*> locks[level_key_count];
};

LevelTable& level_table() {
  static LevelTable* t = [] {
    auto* made = new LevelTable();
    made->locks[0].push_back(&ctrl_run_mutex);
    made->locks[1].push_back(&srv_run_mutex);
    return made;
  }();
  return *t;
}

int key_index(const char* key, int length) {
  for (int i = 0; i < level_key_count; i++)
    if (static_cast<int>(strlen(level_keys[i])) == length && memcmp(level_keys[i], key, length) == 0)
      return i;
  return -1;
}

}  // namespace

void apply_thread_level(const String& value) {
  int levels[level_key_count] = {};
  const char* p = value.c_data();
  int n = value.length();
  for (int i = 0; i < n;) {
    while (i < n && (p[i] == ' ' || p[i] == '\t')) i++;
    int start = i;
    while (i < n && p[i] != ' ' && p[i] != '\t') i++;
    String item = value.substr(start, i - start);
    int eq = item.find('=');
    if (eq <= 0) continue;
    int k = key_index(item.c_data(), eq);
    if (k < 0) continue;  // "bw" and unknown names are accepted and ignored
    int v = item.tail(eq + 1).to_int();
    levels[k] = v < 0 ? 0 : v;
  }
  LevelTable& t = level_table();
  std::lock_guard<std::mutex> g(t.lock);
  for (int k = 0; k < level_key_count; k++) {
    t.levels[k] = levels[k];
    for (Mutex* m : t.locks[k]) m->set_level(levels[k]);
  }
}

void thread_level_register(const char* key, Mutex* mutex) {
  int k = key_index(key, static_cast<int>(strlen(key)));
  if (k < 0 || !mutex) return;
  LevelTable& t = level_table();
  std::lock_guard<std::mutex> g(t.lock);
  t.locks[k].push_back(mutex);
  mutex->set_level(t.levels[k]);
}

int thread_level_of(const char* key) {
  int k = key_index(key, static_cast<int>(strlen(key)));
  if (k < 0) return 0;
  LevelTable& t = level_table();
  std::lock_guard<std::mutex> g(t.lock);
  return t.levels[k];
}
