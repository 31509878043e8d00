#include "core/statistics.h"

#include "core/command_line.h"
#include "core/files.h"
#include "core/json.h"
#include "core/location_scope.h"
#include "core/mutex.h"
#include "core/pool.h"
#include "core/server.h"
#include "core/tick.h"
#include "core/timeout.h"

ResourceUsage resource_usage;
int64_t calls_attempted = 0;
int64_t calls_completed = 0;
int64_t calls_duration = 0;

namespace {

const String stats_file("stats.json");
Timeout usage_timer;
Timeout probe_timer;
bool ticking = false;
uint64_t tick_base_ms = 0;
uint64_t last_tick_ms = 0;
int probe_samples = 0;
int probe_max = 0;
int64_t probe_sum = 0;
bool profiling = false;

int64_t memory_kib() {
  PoolCounters c = pool_counters();
  return static_cast<int64_t>((c.bytes_taken - c.bytes_given_back) / 1024);
}

void do_tick() {
  LocationScope scope("Resource usage tick");
  uint64_t now = WallTime::now().ms;
  resource_usage.tick(now, static_cast<int64_t>(now - last_tick_ms));
  last_tick_ms = now;
  resource_usage.sample(String("memory_all"), memory_kib(), now);
  // The next time comes from a fixed base, so the tick does not drift.
  tick_base_ms += 5000;
  int64_t delay = static_cast<int64_t>(tick_base_ms) - static_cast<int64_t>(now);
  usage_timer.callback(control_queue, delay, callback_argument(do_tick));
}

void start_ticking() {
  if (ticking) return;
  ticking = true;
  last_tick_ms = WallTime::now().ms;
  tick_base_ms = last_tick_ms + 5000;
  usage_timer.callback(control_queue, 5000, callback_argument(do_tick));
}

}  // namespace

void usage_add(const String& name, int64_t n) {
  resource_usage.add(name, n, WallTime::now().ms);
  start_ticking();
}

void usage_sample(const String& name, int64_t value) {
  resource_usage.sample(name, value, WallTime::now().ms);
  start_ticking();
}

void performance_probe() {
  int load = (rtp_cpu_load() + 50) / 100;
  profiling = load >= 1 && load <= 100 && load > startup_options.profiling_threshold;
  probe_samples++;
  probe_sum += load;
  if (load > probe_max) probe_max = load;
  if (probe_samples >= 120) {
    usage_sample(String("cpu_max"), probe_max);
    usage_sample(String("cpu_avg"), (probe_sum + probe_samples / 2) / probe_samples);
    probe_samples = 0;
    probe_sum = 0;
    probe_max = 0;
    if (core_setting("write_stats") != "false") save_stats_file();
  }
  probe_timer.callback(control_queue, 3000, callback_argument(performance_probe));
}

bool profiling_on() { return profiling; }

void load_stats_file() {
  if (core_setting("write_stats") == "false") return;
  String text = read_file(stats_file, true);
  if (text.empty()) return;
  resource_usage.restore(Json(text), WallTime::now().ms, calls_attempted, calls_completed, calls_duration);
}

void save_stats_file() {
  (void)write_file_atomic(
      resource_usage.stats_json(WallTime::now().ms, calls_attempted, calls_completed, calls_duration),
      stats_file);
}
