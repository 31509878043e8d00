#include "core/wakeup.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <memory>
#include <mutex>
#include <unordered_map>

#include "core/tick.h"

namespace {

struct Condition {
  pthread_cond_t cond;
  int pending = 0;
  int waiters = 0;
  Condition() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, tick_clock_id());
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
  }
  ~Condition() { pthread_cond_destroy(&cond); }
};

// The innermost lock of the process: nothing is called while it is held.
pthread_mutex_t map_lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<int> next_id{1};

std::unordered_map<int, std::unique_ptr<Condition>>& conditions() {
  static auto* map = new std::unordered_map<int, std::unique_ptr<Condition>>();
  return *map;
}

Condition* find_or_make(int id) {
  auto& map = conditions();
  auto it = map.find(id);
  if (it != map.end()) return it->second.get();
  auto made = std::make_unique<Condition>();
  Condition* c = made.get();
  map.emplace(id, std::move(made));
  return c;
}

}  // namespace

int Wakeup::id() {
  int id = id_.load(std::memory_order_acquire);
  if (id != 0) return id;
  int fresh = next_id.fetch_add(1);
  if (id_.compare_exchange_strong(id, fresh)) return fresh;
  return id;  // another thread gave it an id first
}

int Wakeup::wait() {
  int my_id = id();
  pthread_mutex_lock(&map_lock);
  Condition* c = find_or_make(my_id);
  int result = signalled;
  c->waiters++;
  while (c->pending == 0) {
    if (pthread_cond_wait(&c->cond, &map_lock) != 0) {
      result = error;
      break;
    }
  }
  if (result == signalled) c->pending--;
  c->waiters--;
  pthread_mutex_unlock(&map_lock);
  return result;
}

int Wakeup::wait(uint32_t ms) {
  int my_id = id();
  timespec limit;
  clock_gettime(tick_clock_id(), &limit);
  limit.tv_sec += ms / 1000;
  limit.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
  if (limit.tv_nsec >= 1000000000) {
    limit.tv_sec++;
    limit.tv_nsec -= 1000000000;
  }
  pthread_mutex_lock(&map_lock);
  Condition* c = find_or_make(my_id);
  int result = signalled;
  c->waiters++;
  while (c->pending == 0) {
    int rc = pthread_cond_timedwait(&c->cond, &map_lock, &limit);
    if (rc == ETIMEDOUT) {
      result = c->pending > 0 ? signalled : timed_out;
      break;
    }
    if (rc != 0) {
      result = error;
      break;
    }
  }
  if (result == signalled) c->pending--;
  c->waiters--;
  pthread_mutex_unlock(&map_lock);
  return result;
}

void Wakeup::signal() { wakeup_signal_id(id()); }

void wakeup_signal_id(int id) {
  if (id <= 0) return;
  pthread_mutex_lock(&map_lock);
  Condition* c = find_or_make(id);
  c->pending++;
  pthread_cond_signal(&c->cond);
  pthread_mutex_unlock(&map_lock);
}

void Wakeup::release() {
  int my_id = id_.exchange(0);
  if (my_id == 0) return;
  pthread_mutex_lock(&map_lock);
  auto& map = conditions();
  auto it = map.find(my_id);
  // A condition with a waiter stays: destroying it under the waiter would be undefined.
  if (it != map.end() && it->second->waiters == 0) map.erase(it);
  pthread_mutex_unlock(&map_lock);
}
