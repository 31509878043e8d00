// State shared by the pieces of the log (log.cpp, log_writer.cpp, syslog.cpp). Everything
// here is guarded by log_mutex unless said otherwise.
#pragma once

#include <deque>

#include "core/log.h"
#include "core/mutex.h"
#include "core/string.h"
#include "core/tick.h"
#include "core/wakeup.h"

// Levels and the off flag are read without the log lock (log_enabled), so they are
// accessed as relaxed atomics.
inline int load_relaxed(const int& x) { return __atomic_load_n(&x, __ATOMIC_RELAXED); }
inline bool load_relaxed(const bool& x) { return __atomic_load_n(&x, __ATOMIC_RELAXED); }
inline void store_relaxed(int& x, int v) { __atomic_store_n(&x, v, __ATOMIC_RELAXED); }
inline void store_relaxed(bool& x, bool v) { __atomic_store_n(&x, v, __ATOMIC_RELAXED); }

struct LogStore {
  int own_levels[log_categories];
  bool own_off = false;
  int* levels = own_levels;  // the global store points at log_levels
  bool* off = &own_off;      // and at log_global_off
  WallTime stop_time;
  std::deque<LogEntry> entries;
  int max_entries = 100;
  int repeat_count = 0;
  bool has_last = false;
  int last_level = 0;
  int last_category = 0;
  int last_domain = 0;
  String last_message;
  String last_detail;

  LogStore() {
    for (int& l : own_levels) l = 5;
  }
};

struct LogGlobal : LogStore {
  String file_name;
  bool terminal = false;
  std::deque<LogEntry> queue;
  Wakeup writer_wakeup;  // signalled without the log lock being needed
  String syslog_target;  // the setting's text; empty: no forwarding
  int syslog_generation = 0;  // counts changes of the target, so the writer re-opens
  int keep_days = 3;
};

extern Mutex log_mutex;
LogGlobal& log_global();

// The writer's side of syslog: sends one entry to the target (no log lock held).
void syslog_send_entry(const LogEntry& e, const String& target, int generation);
void syslog_close();
// Broken-down local time of a wall time.
struct tm;
void log_local_time(WallTime t, struct tm* out);
