#include "core/server.h"

#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <deque>
#include <mutex>
#include <vector>

#include "core/command_line.h"
#include "core/files.h"
#include "core/format.h"
#include "core/json.h"
#include "core/location_scope.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/statistics.h"
#include "core/wakeup.h"

namespace {

std::vector<void (*)()> start_steps[static_cast<int>(StartStage::count)];
std::vector<LoopParty> control_parties, sip_parties, rtp_parties;
std::vector<void (*)()> keep_alive_steps, midnight_steps;
SettingReader setting_reader = nullptr;
StartNotice start_notice = nullptr;

std::atomic<bool> stopping{false};
std::vector<pthread_t> threads;
int sip_stop_fd = -1;
int rtp_stop_fd = -1;
Wakeup rtp_wakeup;
Wakeup file_wakeup;
std::mutex file_lock;
std::deque<callback_argument> file_jobs;
std::atomic<int> cpu_load{0};
int idle_passes = 0;

Timeout keep_alive;
Timeout midnight;
Timeout probe;

void log_text(int category, int level, const String& text) {
  if (log_enabled(category, level)) log_add_message_global(category, level, 0, text);
}

void add_parties(const std::vector<LoopParty>& parties, PollSet& set) {
  for (const LoopParty& p : parties)
    if (p.add) p.add(set);
}

void serve_parties(const std::vector<LoopParty>& parties, PollSet& set, Tick now) {
  for (const LoopParty& p : parties)
    if (p.serve) p.serve(set, now);
}

// --- the threads -----------------------------------------------------------------------

void* cthread_func(void*) {
  Wakeup w;
  ctrl_run_mutex.lock("cthread_func", 1);
  while (!stopping.load()) {
    if (scheduler_wait(control_queue, ctrl_run_mutex, w, pbxsrv_flush)) {
      LocationScope scope("Cthread timeout");
      control_queue.next();
    }
  }
  ctrl_run_mutex.unlock("cthread_func", 2);
  return nullptr;
}

void* run_pbxsrv_sip_timer(void*) {
  Wakeup w;
  srv_run_mutex.lock("run_pbxsrv_sip_timer", 1);
  while (!stopping.load()) {
    if (scheduler_wait(service_queue, srv_run_mutex, w, out_flush)) service_queue.next();
  }
  srv_run_mutex.unlock("run_pbxsrv_sip_timer", 2);
  return nullptr;
}

void* run_pbxsrv_sip(void*) {
  PollSet set;
  int idle = 0;
  srv_run_mutex.lock("run_pbxsrv_sip", 1);
  while (!stopping.load()) {
    set.reset();
    set.add(sip_stop_fd, true, false);
    add_parties(sip_parties, set);
    srv_run_mutex.unlock("run_pbxsrv_sip", 2);
    int n = set.wait(60000);
    srv_run_mutex.lock("run_pbxsrv_sip", 3);
    if (n == 0) {
      if (++idle % 60 == 0 && idle >= 120) log_text(LOG_GENERAL, 8, format("SIP client waited for %d sec!", idle * 60));
      continue;
    }
    idle = 0;
    serve_parties(sip_parties, set, Tick::now());
  }
  srv_run_mutex.unlock("run_pbxsrv_sip", 4);
  return nullptr;
}

void set_realtime_and_affinity() {
  sched_param param;
  param.sched_priority = sched_get_priority_min(SCHED_RR);
  if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) != 0)
    log_text(LOG_GENERAL, 1, String("Could not set scheduling priority"));
  else
    log_text(LOG_GENERAL, 5, format("Set scheduling priority to %d", param.sched_priority));
  String mask_text = core_setting("affinity_mask");
  int mask = mask_text.is_int() ? mask_text.to_int() : 1;
  if (mask == 0) mask = 1;
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int cpu = 0; cpu < 32; cpu++)
    if (mask & (1 << cpu)) CPU_SET(cpu, &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0)
    log_text(LOG_GENERAL, 2, format("Set process affinity to %d failed", mask));
  else
    log_text(LOG_GENERAL, 5, format("Set process affinity to %d", mask));
}

void* run_pbxsrv_rtp(void*) {
  set_realtime_and_affinity();
  PollSet set;
  int64_t work_ns = 0, wait_ns = 0;
  srv_run_mutex.lock("run_pbxsrv_rtp", 1);
  while (!stopping.load()) {
    Tick now;
    uint64_t id = 0;
    int64_t d = rtp_queue.delay(now, id, true);
    if (d < 0 || d >= 301) d = 200;
    set.reset();
    set.add(rtp_stop_fd, true, false);
    add_parties(rtp_parties, set);
    Tick before = Tick::now();
    rtp_queue.register_wakeup(rtp_wakeup);
    srv_run_mutex.unlock("run_pbxsrv_rtp", 2);
    if (d > 0) {
      if (set.size() > 1) set.wait(static_cast<int>(d));
      else rtp_wakeup.wait(static_cast<uint32_t>(d));
    }
    srv_run_mutex.lock("run_pbxsrv_rtp", 3);
    rtp_queue.unregister_wakeup();
    Tick after = Tick::now();
    wait_ns += after.ns - before.ns;
    serve_parties(rtp_parties, set, after);
    while (id != 0 && rtp_queue.wait_id() == id) {
      Tick t;
      uint64_t head = 0;
      if (rtp_queue.delay(t, head, true) != 0) break;
      rtp_queue.next();
      id = rtp_queue.wait_id();
    }
    work_ns += Tick::now().ns - after.ns;
    // The working share of the last 200 ms enters an average of seven eighths old value.
    if (work_ns + wait_ns >= 200000000) {
      int share = static_cast<int>(work_ns * 10000 / (work_ns + wait_ns));
      cpu_load.store((cpu_load.load() * 7 + share) / 8);
      work_ns = wait_ns = 0;
    }
  }
  srv_run_mutex.unlock("run_pbxsrv_rtp", 4);
  return nullptr;
}

void* log_thread(void*) {
  run_logging_loop();
  return nullptr;
}

void* file_thread(void*) {
  while (!stopping.load()) {
    callback_argument job;
    {
      std::lock_guard<std::mutex> g(file_lock);
      if (!file_jobs.empty()) {
        job = file_jobs.front();
        file_jobs.pop_front();
      }
    }
    if (job.kind() == 0) {
      file_wakeup.wait(10000);
      continue;
    }
    job.run();
  }
  return nullptr;
}

void start(void* (*fn)(void*)) {
  pthread_t t;
  if (pthread_create(&t, nullptr, fn, nullptr) == 0) threads.push_back(t);
}

// --- timed checks ----------------------------------------------------------------------

void keep_alive_timer() {
  LocationScope scope("Keep alive timer");
  for (auto step : keep_alive_steps) step();
  time_t now = time(nullptr);
  keep_alive.callback(control_queue, (15 - now % 15) * 1000, callback_argument(keep_alive_timer));
}

void midnight_timer() {
  for (auto step : midnight_steps) step();
  time_t now = time(nullptr);
  tm local;
  localtime_r(&now, &local);
  int64_t seconds = (16 - local.tm_min % 15) * 60 - local.tm_sec;
  if (seconds < 60) seconds = 60;
  midnight.callback(control_queue, seconds * 1000, callback_argument(midnight_timer));
}

}  // namespace

void register_start_step(StartStage stage, void (*step)()) {
  start_steps[static_cast<int>(stage)].push_back(step);
}

void run_start_steps(StartStage stage) {
  for (auto step : start_steps[static_cast<int>(stage)]) step();
}

static void add_sorted(std::vector<LoopParty>& list, const LoopParty& p) {
  list.push_back(p);
  std::stable_sort(list.begin(), list.end(), [](const LoopParty& a, const LoopParty& b) { return a.order < b.order; });
}

void register_control_party(const LoopParty& p) { add_sorted(control_parties, p); }
void register_sip_thread_party(const LoopParty& p) { add_sorted(sip_parties, p); }
void register_rtp_thread_party(const LoopParty& p) { add_sorted(rtp_parties, p); }
void register_keep_alive_step(void (*step)()) { keep_alive_steps.push_back(step); }
void register_midnight_step(void (*step)()) { midnight_steps.push_back(step); }
void set_setting_reader(SettingReader reader) { setting_reader = reader; }
String core_setting(const char* name) { return setting_reader ? setting_reader(name) : String(); }
void set_start_notice(StartNotice notice) { start_notice = notice; }
int rtp_cpu_load() { return cpu_load.load(); }

void file_thread_post(const callback_argument& job) {
  {
    std::lock_guard<std::mutex> g(file_lock);
    file_jobs.push_back(job);
  }
  file_wakeup.signal();
}

void read_reboot_reason(String& reason, String& location) {
  reason = String("unknown");
  location = String();
  String text = read_file(String("reboot.txt"), true);
  if (text.empty()) return;
  (void)remove_file(String("reboot.txt"), true);
  Json doc(text);
  String r = doc.get_string(String("reason"));
  if (!r.empty()) reason = r;
  location = doc.get_string(String("location"));
}

void server_start_threads() {
  stopping.store(false);
  if (sip_stop_fd < 0) sip_stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (rtp_stop_fd < 0) rtp_stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  ctrl_run_mutex.set_name("ctrl_run_mutex");
  srv_run_mutex.set_name("srv_run_mutex");
  apply_thread_level(core_setting("thread_level"));
  single_threaded.store(false);
  start(run_pbxsrv_rtp);
  start(run_pbxsrv_sip);
  start(run_pbxsrv_sip_timer);
  start(cthread_func);
  start(log_thread);
  start(file_thread);
}

void server_stop_threads() {
  stopping.store(true);
  uint64_t one = 1;
  if (write(sip_stop_fd, &one, sizeof one) < 0) {
  }
  if (write(rtp_stop_fd, &one, sizeof one) < 0) {
  }
  control_queue.trigger_wakeup();
  service_queue.trigger_wakeup();
  rtp_wakeup.signal();
  file_wakeup.signal();
  log_writer_stop();
  for (pthread_t t : threads) pthread_join(t, nullptr);
  threads.clear();
  uint64_t drain;
  if (read(sip_stop_fd, &drain, sizeof drain) < 0) {
  }
  if (read(rtp_stop_fd, &drain, sizeof drain) < 0) {
  }
}

void server_loop_pass(PollSet& set, int wait_ms) {
  pbxsrv_flush();
  set.reset();
  add_parties(control_parties, set);
  ctrl_run_mutex.unlock("run_server", 3);
  int n = set.wait(wait_ms);
  int error = errno;
  ctrl_run_mutex.lock("run_server", 4);
  Tick now = Tick::now();
  if (n < 0) {
    if (error != EINTR && error != EBADF && error != ETIMEDOUT)
      log_text(LOG_GENERAL, 4, format("select returns error %d", error));
    return;
  }
  if (n == 0) {
    if (++idle_passes % 60 == 0 && idle_passes >= 120)
      log_text(LOG_GENERAL, 8, format("HTTP/NTP/SNMP client waited for %d s", idle_passes * wait_ms / 1000));
    return;
  }
  idle_passes = 0;
  serve_parties(control_parties, set, now);
}

void run_server() {
  run_start_steps(StartStage::before_threads);
  log_text(LOG_GENERAL, 5, String("Starting threads"));
  server_start_threads();
  run_start_steps(StartStage::after_threads);
  ctrl_run_mutex.lock("run_server", 1);
  String reason, location;
  read_reboot_reason(reason, location);
  if (start_notice) start_notice(reason, location);
  keep_alive.callback(control_queue, 10000, callback_argument(keep_alive_timer));
  probe.callback(control_queue, 3000, callback_argument(performance_probe));
  run_start_steps(StartStage::bind_ports);
  midnight_timer();
  PollSet set;
  for (;;) server_loop_pass(set, 10000);
}
