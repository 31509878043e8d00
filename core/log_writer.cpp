// The log thread: takes entries off the queue under the log lock and does all file and
// network work with the lock released, so that a slow disk never holds up a run lock.
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <thread>

#include "core/format.h"
#include "core/internal/log_state.h"
#include "core/log.h"

namespace {

// Serialises drains (the thread's and a caller's of log_writer_drain) and guards the file.
std::mutex writer_lock;
FILE* file = nullptr;
String file_open_name;

std::atomic<bool> stop_requested{false};
std::thread writer_thread;
std::mutex thread_lock;  // guards writer_thread

// The name of the file of the day of `t`: the first "$" replaced by "YYYY-MM-DD".
String dated_name(const String& name, WallTime t) {
  int dollar = name.find('$');
  if (dollar < 0) return name;
  struct tm tm;
  log_local_time(t, &tm);
  return format("%s%04d-%02d-%02d%s", name.head(dollar), tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, name.tail(dollar + 1));
}

String c_path(const String& s) {
  String p = s;
  p += '\0';
  return p;
}

void write_entry(const LogEntry& e, const String& name, int keep_days, const String& target,
                 int generation) {
  String today = dated_name(name, e.time);
  if (file && today != file_open_name) {
    fclose(file);
    file = nullptr;
    file_open_name = String();
    if (name.contains('$') && keep_days > 0) {
      // The daily rotation: the file of `log_keep` days ago goes. The hour keeps a day with a
      // shift of daylight saving time from naming the wrong file.
      WallTime old(e.time.ms - static_cast<uint64_t>(keep_days) * 86400000 + 3600000);
      String old_name = c_path(dated_name(name, old));
      unlink(old_name.c_data());
    }
  }
  if (!file && !today.empty()) {
    String path = c_path(today);
    file = fopen(path.c_data(), "ab");  // retried at the next entry if it fails
    if (file) file_open_name = today;
  }
  if (file) {
    String text = log_entry_text(e);
    fprintf(file, "%.*s\n", text.length(), text.c_data());
    fflush(file);
  }
  syslog_send_entry(e, target, generation);
}

}  // namespace

void log_writer_drain() {
  std::lock_guard<std::mutex> w(writer_lock);
  LogGlobal& g = log_global();
  for (;;) {
    LogEntry e;
    String name;
    String target;
    int keep = 0;
    int generation = 0;
    {
      MutexGuard guard(log_mutex, "run_logging_loop", 1);
      if (g.queue.empty()) break;
      e = std::move(g.queue.front());
      g.queue.pop_front();
      name = g.file_name;
      keep = g.keep_days;
      target = g.syslog_target;
      generation = g.syslog_generation;
    }
    write_entry(e, name, keep, target, generation);
  }
  // A file whose name was cleared is closed even without a further entry.
  MutexGuard guard(log_mutex, "run_logging_loop", 2);
  if (file && g.file_name.empty()) {
    fclose(file);
    file = nullptr;
    file_open_name = String();
  }
}

void run_logging_loop() {
  Wakeup& w = log_global().writer_wakeup;
  while (!stop_requested.load()) {
    w.wait(60000);
    log_writer_drain();
  }
  log_writer_drain();
}

void log_writer_start() {
  std::lock_guard<std::mutex> g(thread_lock);
  if (writer_thread.joinable()) return;
  stop_requested.store(false);
  writer_thread = std::thread(run_logging_loop);
}

void log_writer_stop() {
  std::lock_guard<std::mutex> g(thread_lock);
  stop_requested.store(true);
  log_global().writer_wakeup.signal();
  if (writer_thread.joinable()) writer_thread.join();
  std::lock_guard<std::mutex> w(writer_lock);
  if (file) {
    fclose(file);
    file = nullptr;
    file_open_name = String();
  }
  syslog_close();
}
