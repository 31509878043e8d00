#include "core/tick.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

#include "core/format.h"
#include "core/log.h"

static std::atomic<int> clock_id{CLOCK_MONOTONIC};
static std::atomic<int> precision_us{1};
static std::atomic<TickSource> tick_source{nullptr};
static std::atomic<WallSource> wall_source{nullptr};

Tick Tick::now() {
  if (TickSource s = tick_source.load(std::memory_order_relaxed)) return Tick(s());
  timespec ts;
  clock_gettime(clock_id.load(std::memory_order_relaxed), &ts);
  return Tick(static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec);
}

String tick_hex(Tick t) {
  static const char digits[] = "0123456789abcdef";
  char text[16];
  uint64_t v = static_cast<uint64_t>(t.ns);
  for (int i = 15; i >= 0; i--, v >>= 4) text[i] = digits[v & 15];
  return String(text, 16);
}

void measure_clock_precision() {
  timespec res;
  if (clock_getres(CLOCK_MONOTONIC, &res) != 0) {
    clock_id.store(CLOCK_REALTIME);
    if (clock_getres(CLOCK_REALTIME, &res) != 0) res = {0, 1000};
  }
  int64_t p = (static_cast<int64_t>(res.tv_sec) * 1000000000 + res.tv_nsec + 999) / 1000;
  precision_us.store(p < 1 ? 1 : static_cast<int>(p));
  if (log_enabled(LOG_GENERAL, 8))
    log_add_message_global(LOG_GENERAL, 8, 0,
                           format("Scheduler precision is %d us", precision_us.load()));
}

int scheduler_precision() { return precision_us.load(std::memory_order_relaxed); }
int tick_clock_id() { return clock_id.load(std::memory_order_relaxed); }

WallTime WallTime::now() {
  if (WallSource s = wall_source.load(std::memory_order_relaxed)) return WallTime(s());
  timeval tv;
  gettimeofday(&tv, nullptr);
  return WallTime(static_cast<uint64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000);
}

String WallTime::text() const {
  return format("%d.%03d", static_cast<int64_t>(ms / 1000), static_cast<int>(ms % 1000));
}

WallTime WallTime::parse(const String& text) {
  int dot = text.find('.');
  if (dot < 0) return WallTime(text.to_uint64() * 1000);
  String frac = text.tail(dot + 1).head(3);
  uint64_t m = frac.to_uint64();
  for (int i = frac.length(); i < 3; i++) m *= 10;
  return WallTime(text.head(dot).to_uint64() * 1000 + m);
}

int64_t wall_seconds(WallTime a, WallTime b) {
  int64_t d = static_cast<int64_t>(a.ms - b.ms);
  return d >= 0 ? d / 1000 : -((-d + 999) / 1000);
}

void tick_set_source(TickSource source) { tick_source.store(source); }
void wall_set_source(WallSource source) { wall_source.store(source); }
