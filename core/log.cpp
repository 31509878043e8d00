#include "core/log.h"

#include <stdio.h>
#include <syslog.h>
#include <time.h>

#include <atomic>
#include <map>
#include <memory>

#include "core/format.h"
#include "core/internal/log_state.h"

int log_levels[log_categories] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
                                  5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
bool log_on = false;
bool log_global_off = false;

constinit Mutex log_mutex("log");
static const bool log_mutex_registered = (thread_level_register("log", &log_mutex), true);

static std::atomic<LogObserver> observer{nullptr};

void log_set_observer(LogObserver o) { observer.store(o); }

LogGlobal& log_global() {
  static LogGlobal* g = [] {
    auto* made = new LogGlobal();
    made->levels = log_levels;
    made->off = &log_global_off;
    return made;
  }();
  return *g;
}

// Domain stores by domain id; guarded by log_mutex.
static std::map<int, std::unique_ptr<LogStore>>& domain_stores() {
  static auto* m = new std::map<int, std::unique_ptr<LogStore>>();
  return *m;
}

static LogStore* find_domain(int domain) {
  auto& m = domain_stores();
  auto it = m.find(domain);
  return it == m.end() ? nullptr : it->second.get();
}

static LogStore& domain_store(int domain) {
  auto& slot = domain_stores()[domain];
  if (!slot) slot = std::make_unique<LogStore>();
  return *slot;
}

static const char* const category_names[log_categories] = {
    "GENERAL", "SIP", "MEDIA", "APP", "EMAIL", "WEBSERVER", "REGISTER", "SNMP",
    "TRUNK", "SOAP", "PROV", "WEBCLIENT", "PSTN", "TLS", "LDAP", "PACKETS",
    "CONFIG", "ACME", "DNS", "BILL", "SCRIPT", "CSTA", "CRM", ""};

const char* category_name(int n) {
  if (n < 0 || n >= log_categories) return "GENERAL";
  return category_names[n];
}

int log_level_value(const String& value) {
  String v = value.trim();
  if (!v.empty() && v.is_int()) return v.to_int();
  if (v.equals_nocase("true")) return 5;
  return 0;
}

void log_local_time(WallTime t, struct tm* out) {
  time_t seconds = static_cast<time_t>(t.seconds());
  localtime_r(&seconds, out);
}

String log_entry_text(const LogEntry& e) {
  struct tm tm;
  log_local_time(e.time, &tm);
  String text = format("[%d] %04d%02d%02d%02d%02d%02d: %s", e.level, tm.tm_year + 1900, tm.tm_mon + 1,
                       tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, e.message);
  if (!e.detail.empty()) {
    text += '\n';
    text += e.detail;
  }
  return text;
}

// ---- writing, with log_mutex held

static void trim_ring(LogStore& s) {
  if (s.max_entries < 0) return;
  while (static_cast<int>(s.entries.size()) > s.max_entries) s.entries.pop_front();
}

static void add_to_store(LogStore& s, bool global, int category, int level, int domain,
                         const String& message, const String& detail);

// `log_duration` ran out: the repeat count is flushed and the store turns itself off.
static void stop_store(LogStore& s, bool global) {
  s.stop_time = WallTime();
  add_to_store(s, global, 0, 0, 0, String(), String());
  store_relaxed(*s.off, true);
}

static void write_log(LogStore& s, bool global, int category, int level, int domain,
                      const String& message, const String& detail) {
  if (load_relaxed(*s.off)) return;
  LogEntry e;
  e.level = level;
  e.category = category;
  e.domain = domain;
  e.time = WallTime::now();
  e.message = message;
  e.detail = detail;
  if (s.stop_time.ms != 0 && e.time >= s.stop_time) {
    stop_store(s, global);
    return;
  }
  s.entries.push_back(e);
  trim_ring(s);
  if (!global) return;
  LogGlobal& g = log_global();
  if (g.terminal) {
    String text = log_entry_text(e);
    fprintf(stderr, "%.*s\n", text.length(), text.c_data());
    fflush(stderr);
  }
  if (!g.file_name.empty() || !g.syslog_target.empty()) {
    g.queue.push_back(std::move(e));
    g.writer_wakeup.signal();
  }
}

// The repeat filter: a message equal to the last one (message, detail, domain, category and
// level) only counts; the next different one first writes how often the last one came.
static void add_to_store(LogStore& s, bool global, int category, int level, int domain,
                         const String& message, const String& detail) {
  // The limit is checked before the repeat filter, so that the flush of the count is the
  // last line written and the message that found the store expired is the one dropped.
  if (s.stop_time.ms != 0 && WallTime::now() >= s.stop_time) {
    stop_store(s, global);
    return;
  }
  if (!message.empty() && s.has_last && level == s.last_level && category == s.last_category &&
      domain == s.last_domain && message == s.last_message && detail == s.last_detail) {
    s.repeat_count++;
    return;
  }
  if (s.repeat_count > 0) {
    int n = s.repeat_count + 1;
    s.repeat_count = 0;
    write_log(s, global, s.last_category, s.last_level, s.last_domain,
              format("Last message repeated %d times", n), String());
  }
  if (message.empty()) return;
  s.has_last = true;
  s.last_level = level;
  s.last_category = category;
  s.last_domain = domain;
  s.last_message = message;
  s.last_detail = detail;
  write_log(s, global, category, level, domain, message, detail);
}

void log_add_message_global(int category, int level, int domain, const String& message,
                            const String& detail) {
  if (LogObserver o = observer.load(std::memory_order_relaxed)) {
    o(category, level, message);
    return;
  }
  if (!log_flag(log_on)) return;
  MutexGuard guard(log_mutex, "log_add_message_global", 1);
  add_to_store(log_global(), true, category, level, domain, message, detail);
}

void log_add_message_domain(int category, int level, int domain, const String& message,
                            const String& detail) {
  if (!log_flag(log_on) || domain < 1) return;
  MutexGuard guard(log_mutex, "log_add_message_domain", 1);
  add_to_store(domain_store(domain), false, category, level, domain, message, detail);
}

bool log_enabled(int category, int level, int domain) {
  if (!log_flag(log_on) || category < 0 || category >= log_categories)
    return false;
  MutexGuard guard(log_mutex, "log_enabled", 1);
  LogStore* s = find_domain(domain);
  if (!s || load_relaxed(*s->off)) return false;
  if (category == LOG_WATCH) return true;
  return level <= load_relaxed(s->levels[category]);
}

// ---- settings

void log_set_level(int category, int level) {
  if (category < 0 || category >= log_categories) return;
  store_relaxed(log_levels[category], category == LOG_WATCH ? 5 : level);
}

void log_set_level(int category, const String& value) { log_set_level(category, log_level_value(value)); }

void log_set_level(int category, const String& value, int domain) {
  if (domain < 1) {
    log_set_level(category, value);
    return;
  }
  if (category < 0 || category >= log_categories) return;
  MutexGuard guard(log_mutex, "log_set_level", 1);
  store_relaxed(domain_store(domain).levels[category], category == LOG_WATCH ? 5 : log_level_value(value));
}

void log_set_domain_level(int domain, const String& value) {
  if (domain < 1) return;
  int level = log_level_value(value);
  MutexGuard guard(log_mutex, "log_set_domain_level", 1);
  LogStore& s = domain_store(domain);
  for (int c = 0; c < log_categories; c++) store_relaxed(s.levels[c], c == LOG_WATCH ? 5 : level);
}

int log_get_level(int category, int domain) {
  if (category < 0 || category >= log_categories) return 0;
  int level = log_level_of(category);
  if (domain < 1) return level;
  MutexGuard guard(log_mutex, "log_get_level", 1);
  LogStore* s = find_domain(domain);
  if (s) {
    int d = load_relaxed(s->levels[category]);
    if (d > level) level = d;
  }
  return level;
}

void log_set_length(int n) {
  MutexGuard guard(log_mutex, "log_set_length", 1);
  log_global().max_entries = n;
  trim_ring(log_global());
}

void log_set_length(int n, int domain) {
  if (domain < 1) {
    log_set_length(n);
    return;
  }
  MutexGuard guard(log_mutex, "log_set_length", 2);
  LogStore& s = domain_store(domain);
  s.max_entries = n;
  trim_ring(s);
}

static void set_duration(LogStore& s, const String& value, bool off_now) {
  String v = value.trim();
  if (v.empty() || v == "never") {
    s.stop_time = WallTime();
    store_relaxed(*s.off, false);
    return;
  }
  s.stop_time = WallTime(WallTime::now().ms + static_cast<uint64_t>(v.to_int64()) * 1000);
  store_relaxed(*s.off, off_now);
}

void log_set_duration(const String& value, bool off_now) {
  MutexGuard guard(log_mutex, "log_set_duration", 1);
  set_duration(log_global(), value, off_now);
}

void log_set_duration(const String& value, bool off_now, int domain) {
  if (domain < 1) {
    log_set_duration(value, off_now);
    return;
  }
  MutexGuard guard(log_mutex, "log_set_duration", 2);
  set_duration(domain_store(domain), value, off_now);
}

void set_log_file(const String& name) {
  MutexGuard guard(log_mutex, "set_log_file", 1);
  log_global().file_name = name;
}

void log_set_keep(int days) {
  MutexGuard guard(log_mutex, "log_set_keep", 1);
  log_global().keep_days = days;
}

void log_to_terminal(bool on) {
  MutexGuard guard(log_mutex, "log_to_terminal", 1);
  log_global().terminal = on;
}

void clear_log() {
  MutexGuard guard(log_mutex, "clear_log", 1);
  log_global().entries.clear();
}

void clear_log(int domain) {
  if (domain < 1) {
    clear_log();
    return;
  }
  MutexGuard guard(log_mutex, "clear_log", 2);
  if (LogStore* s = find_domain(domain)) s->entries.clear();
}

void log_delete_domain(int domain) {
  MutexGuard guard(log_mutex, "log_delete_domain", 1);
  domain_stores().erase(domain);
}

int log_entries_size() {
  MutexGuard guard(log_mutex, "log_entries_size", 1);
  return static_cast<int>(log_global().entries.size());
}

std::vector<LogEntry> log_entries(int domain) {
  MutexGuard guard(log_mutex, "log_entries", 1);
  LogStore* s = domain < 1 ? &log_global() : find_domain(domain);
  if (!s) return {};
  return std::vector<LogEntry>(s->entries.begin(), s->entries.end());
}

void system_log_open() { openlog("PBX", LOG_NDELAY, LOG_USER); }

void system_log_notice(const String& text) {
  syslog(LOG_NOTICE, "PBX: %.*s", text.length(), text.c_data());
}

void log_reset() {
  MutexGuard guard(log_mutex, "log_reset", 1);
  LogGlobal& g = log_global();
  for (int c = 0; c < log_categories; c++) store_relaxed(log_levels[c], 5);
  store_relaxed(log_global_off, false);
  g.stop_time = WallTime();
  g.entries.clear();
  g.max_entries = 100;
  g.repeat_count = 0;
  g.has_last = false;
  g.last_message = String();
  g.last_detail = String();
  g.file_name = String();
  g.terminal = false;
  g.queue.clear();
  g.syslog_target = String();
  g.syslog_generation++;
  g.keep_days = 3;
  domain_stores().clear();
}
