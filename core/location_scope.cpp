#include "core/location_scope.h"

#include <atomic>
#include <mutex>

#include "core/command_line.h"
#include "core/files.h"
#include "core/format.h"
#include "core/log.h"
#include "core/pool.h"
#include "core/tick.h"

namespace {

std::mutex lock;
String last;
std::atomic<bool> counting{false};
std::map<String, int64_t>* totals = nullptr;

// The detail in printable form: control bytes and bytes above 126 become dots.
String printable(const String& s) {
  String out = s.head(200);
  char* p = out.empty() ? nullptr : out.writable_data();
  for (int i = 0; i < out.length(); i++)
    if (static_cast<unsigned char>(p[i]) < 32 || static_cast<unsigned char>(p[i]) > 126) p[i] = '.';
  return out;
}

}  // namespace

LocationScope::LocationScope(const char* name, const String& detail)
    : name_(name), detail_(detail), bytes_at_entry_(pool_thread_bytes()), ns_at_entry_(0) {
  if (startup_options.log_time > 0) ns_at_entry_ = Tick::now().ns;
  String n(name);
  {
    std::lock_guard<std::mutex> g(lock);
    last = n;
  }
  if (startup_options.log_location)
    (void)write_file(format("{\"reason\":\"crash\",\"location\":%j}", n), String("reboot.txt"));
}

LocationScope::~LocationScope() {
  int64_t used = pool_thread_bytes() - bytes_at_entry_;
  if (counting) {
    std::lock_guard<std::mutex> g(lock);
    if (!totals) totals = new std::map<String, int64_t>;
    (*totals)[String(name_)] += used;
  }
  if (startup_options.log_memory > 0 && used > static_cast<int64_t>(startup_options.log_memory) * 1024 &&
      log_enabled(LOG_GENERAL, 1)) {
    String text = format("Resource usage: %s added %d bytes", name_, used);
    if (!detail_.empty()) text = text + " " + printable(detail_);
    log_add_message_global(LOG_GENERAL, 1, 0, text);
  }
  if (startup_options.log_time > 0 && ns_at_entry_) {
    int64_t ran = ms(Tick::now(), Tick(ns_at_entry_));
    if (ran > startup_options.log_time && log_enabled(LOG_GENERAL, 1)) {
      String text = format("Resource usage: %s ran for %dms", name_, ran);
      if (!detail_.empty()) text = text + " " + printable(detail_);
      log_add_message_global(LOG_GENERAL, 1, 0, text);
    }
  }
}

String last_location() {
  std::lock_guard<std::mutex> g(lock);
  return last;
}

void set_location_counting(bool on) { counting = on; }

std::map<String, int64_t> location_totals() {
  std::lock_guard<std::mutex> g(lock);
  return totals ? *totals : std::map<String, int64_t>();
}
