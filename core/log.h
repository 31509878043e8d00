// The log of the process: 24 categories with a level each, a ring of entries in memory
// (global, and one per domain), a writer thread for the log file and remote syslog, and the
// receiver of syslog from devices (core/device_syslog.h).
//
// A log statement tests log_enabled first, then formats, then adds:
//   if (log_enabled(LOG_SIP, 5)) log_add_message_global(LOG_SIP, 5, 0, format(...));
// A message that no one wants costs one load and one comparison.
#pragma once

#include <vector>

#include "core/string.h"
#include "core/tick.h"

enum LogCategory : int {
  LOG_GENERAL = 0, LOG_SIP = 1, LOG_MEDIA = 2, LOG_APP = 3, LOG_EMAIL = 4, LOG_WEBSERVER = 5,
  LOG_REGISTER = 6, LOG_SNMP = 7, LOG_TRUNK = 8, LOG_SOAP = 9, LOG_PROV = 10, LOG_WEBCLIENT = 11,
  LOG_PSTN = 12, LOG_TLS = 13, LOG_LDAP = 14, LOG_WATCH = 15, LOG_CONFIG = 16, LOG_ACME = 17,
  LOG_DNS = 18, LOG_BILL = 19, LOG_SCRIPT = 20, LOG_CSTA = 21, LOG_CRM = 22, LOG_RPS = 23,
};
constexpr int log_categories = 24;

// The levels of the global store. They are read without a lock (a level that changes
// during a test has no harmful effect); the log reads and writes them as relaxed atomics so
// that the thread sanitizer agrees. Set them through log_set_level while threads run.
extern int log_levels[log_categories];
// False until start-up step 9 and again just before exit.
extern bool log_on;
// The `off` flag of the global store (log_duration ran out).
extern bool log_global_off;

inline bool log_flag(const bool& flag) { return __atomic_load_n(&flag, __ATOMIC_RELAXED); }
inline int log_level_of(int category) {
  return __atomic_load_n(&log_levels[category], __ATOMIC_RELAXED);
}

// `category` must be 0 to 23.
inline bool log_enabled(int category, int level) {
  if (!log_flag(log_on) || log_flag(log_global_off)) return false;
  if (category == LOG_WATCH) return true;
  return level <= log_level_of(category);
}
// The same for a domain's store; false if the domain has no store. A caller who logs for a
// domain tests both forms and adds to each that passes.
bool log_enabled(int category, int level, int domain);

void log_add_message_global(int category, int level, int domain, const String& message,
                            const String& detail = String());
void log_add_message_domain(int category, int level, int domain, const String& message,
                            const String& detail = String());

// Test hook: while set, every message added through log_add_message_global goes to this
// function instead of the log.
using LogObserver = void (*)(int category, int level, const String& message);
void log_set_observer(LogObserver observer);

struct LogEntry {
  int level = 0;
  int category = 0;
  int domain = 0;  // 0: global
  WallTime time;
  String message;
  String detail;  // may be empty
};

// "[" level "] ", the local time as 14 digits (YYYYMMDDhhmmss), ": ", the message, and a line
// feed and the detail if there is one.
String log_entry_text(const LogEntry& e);
// The name of a category as the REST log shows it; "GENERAL" outside 0 to 23.
const char* category_name(int n);
// The level a setting value gives: a number is the level, "true" (any case) 5, else 0.
int log_level_value(const String& value);

// Levels. The watch category (15) always passes; its setting is fixed at 5.
void log_set_level(int category, const String& value);
void log_set_level(int category, int level);
void log_set_level(int category, const String& value, int domain);
// One value for all 24 levels of a domain's store (the domain's `log_level`), which makes the
// store if the domain has none.
void log_set_domain_level(int domain, const String& value);
// The higher of the global and the domain's level.
int log_get_level(int category, int domain);

// The limit of a ring: a negative value means no limit, 0 keeps it empty.
void log_set_length(int n);
void log_set_length(int n, int domain);
// `log_duration`: seconds; "" or "never" for no limit. At run time (off_now false) logging
// goes on until the limit; read at boot (off_now true) the store stays off.
void log_set_duration(const String& value, bool off_now);
void log_set_duration(const String& value, bool off_now, int domain);
// `log_filename`; a "$" in it stands for the date of each entry (daily files). Call without
// holding the log lock.
void set_log_file(const String& name);
// `log_keep`: days that daily files are kept (default 3; 0 keeps them all).
void log_set_keep(int days);
void log_to_terminal(bool on);

void clear_log();
void clear_log(int domain);
void log_delete_domain(int domain);
int log_entries_size();
// A copy of a ring, oldest first (domain 0: the global ring).
std::vector<LogEntry> log_entries(int domain = 0);

// The writer. run_logging_loop is the body of the log thread: it waits on its Wakeup for at
// most 60,000 ms, drains the queue and goes round until log_writer_stop. The start and stop
// functions run it on a thread of their own; log_writer_drain does one drain on the calling
// thread (tests, and the last lines before exit).
void run_logging_loop();
void log_writer_start();
void log_writer_stop();
void log_writer_drain();

// `syslog_server_ip`: host and optional port (default 514); empty turns forwarding off.
void syslog_set_server(const String& value);
// The pieces of a syslog datagram: "<%03d>" of 128 plus the severity; "Mmm dd hh:mm:ss" in
// local time; the whole datagram "%s%s %s %s %s", cut at 1024 bytes.
int syslog_priority(int level);
String syslog_time_stamp(WallTime t);
String syslog_datagram(const LogEntry& e);

// The system log of the operating system: opened at start with the identity "PBX"; only the
// start-up notice and logins go there, as "PBX: %s" at priority 5.
void system_log_open();
void system_log_notice(const String& text);

// Empties every ring, the queue and the repeat filters, deletes the domain stores and
// restores the defaults of the settings (levels 5, length 100, no duration, no file, no
// syslog, keep 3, no terminal). For tests; the writer must not be running.
void log_reset();
