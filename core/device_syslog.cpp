#include "core/device_syslog.h"

#include <deque>
#include <map>
#include <mutex>
#include <set>

#include "core/format.h"

namespace {

struct Receiver {
  std::mutex lock;  // the loop of the control half and the registrar both come here
  std::map<String, std::set<int>> users_by_address;
  std::map<int, std::deque<DeviceSyslogEntry>> lists;
  DeviceSyslogLookup lookup = nullptr;
  int max_size = 100;
};

Receiver& receiver() {
  static auto* r = new Receiver();
  return *r;
}

}  // namespace

void device_syslog_register(const String& address, int user) {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  r.users_by_address[address].insert(user);
}

void device_syslog_unregister(const String& address, int user) {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  auto it = r.users_by_address.find(address);
  if (it == r.users_by_address.end()) return;
  it->second.erase(user);
  if (it->second.empty()) r.users_by_address.erase(it);
}

void device_syslog_forget_address(const String& address) {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  r.users_by_address.erase(address);
}

void device_syslog_set_lookup(DeviceSyslogLookup lookup) {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  r.lookup = lookup;
}

void device_syslog_set_max_size(int n) {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  r.max_size = n < 0 ? 0 : n;
}

bool device_syslog_receive(const String& datagram, const String& address) {
  // "<" digits ">" and at least one byte more: 4 bytes for one digit, 5 for two, 6 for three.
  int n = datagram.length();
  if (n < 4 || datagram[0] != '<') return false;
  int digits = 0;
  int value = 0;
  while (digits < 3 && 1 + digits < n && datagram[1 + digits] >= '0' && datagram[1 + digits] <= '9') {
    value = value * 10 + (datagram[1 + digits] - '0');
    digits++;
  }
  if (digits == 0 || 1 + digits >= n || datagram[1 + digits] != '>') return false;
  if (n < 3 + digits) return false;
  int facility = value / 8;
  if (facility >= 24) return false;
  DeviceSyslogEntry e;
  e.time = WallTime::now();
  e.level = value % 8;
  e.facility = facility;
  e.text = datagram.tail(2 + digits);

  Receiver& r = receiver();
  std::vector<int> users;
  DeviceSyslogLookup lookup;
  {
    std::lock_guard<std::mutex> g(r.lock);
    lookup = r.lookup;
    if (!lookup) {
      auto it = r.users_by_address.find(address);
      if (it != r.users_by_address.end()) users.assign(it->second.begin(), it->second.end());
    }
  }
  if (lookup) users = lookup(address);
  if (users.empty()) return false;
  std::lock_guard<std::mutex> g(r.lock);
  for (int user : users) {
    auto& list = r.lists[user];
    // The list holds at most `syslog_max_size` entries with the new one.
    while (!list.empty() && static_cast<int>(list.size()) >= r.max_size) list.pop_front();
    if (r.max_size > 0) list.push_back(e);
  }
  return true;
}

std::vector<DeviceSyslogEntry> device_syslog_entries(int user) {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  auto it = r.lists.find(user);
  if (it == r.lists.end()) return {};
  return std::vector<DeviceSyslogEntry>(it->second.begin(), it->second.end());
}

String device_syslog_json(int user) {
  String out = "[";
  bool first = true;
  for (const DeviceSyslogEntry& e : device_syslog_entries(user)) {
    if (!first) out += ',';
    first = false;
    out += format("{\"time\":%d,\"level\":%d,\"facility\":%d,\"msg\":%j}",
                  static_cast<int64_t>(e.time.seconds()), e.level, e.facility, e.text);
  }
  out += ']';
  return out;
}

String device_syslog_summary() {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  int64_t messages = 0;
  for (const auto& [user, list] : r.lists) messages += static_cast<int64_t>(list.size());
  return format("\"messages\":%d,\"users\":%d", messages, static_cast<int>(r.lists.size()));
}

void device_syslog_clear() {
  Receiver& r = receiver();
  std::lock_guard<std::mutex> g(r.lock);
  r.users_by_address.clear();
  r.lists.clear();
}
