// Remote syslog: the writer thread sends each entry as one UDP datagram to the server of
// `syslog_server_ip`. A failing send is ignored; nothing here logs about itself.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "core/format.h"
#include "core/internal/log_state.h"
#include "core/log.h"

namespace {

// Writer thread only.
int sock = -1;
int sock_generation = -1;

const String& host_name() {
  static const String name = [] {
    char buf[256];
    if (gethostname(buf, sizeof buf) != 0) return String("unknown-pbx");
    buf[sizeof buf - 1] = 0;
    return String(buf);
  }();
  return name;
}

// "host", "host:port", "[v6]", "[v6]:port" or a bare IPv6 address; port 514 by default.
bool split_target(const String& text, String& host, String& port) {
  String t = text.trim();
  port = "514";
  if (t.empty()) return false;
  if (t[0] == '[') {
    int close = t.find(']');
    if (close < 0) return false;
    host = t.substr(1, close - 1);
    if (close + 1 < t.length() && t[close + 1] == ':') port = t.tail(close + 2);
  } else if (t.find(':') >= 0 && t.find(':') == t.find_last(':')) {
    int colon = t.find(':');
    host = t.head(colon);
    port = t.tail(colon + 1);
  } else {
    host = t;
  }
  return !host.empty() && !port.empty();
}

void open_socket(const String& target) {
  syslog_close();
  String host, port;
  if (!split_target(target, host, port)) return;
  host += '\0';
  port += '\0';
  addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  // The writer thread holds no lock here, so a name lookup may take its time.
  if (getaddrinfo(host.c_data(), port.c_data(), &hints, &found) != 0 || !found) return;
  for (addrinfo* a = found; a; a = a->ai_next) {
    int s = socket(a->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) continue;
    if (connect(s, a->ai_addr, a->ai_addrlen) == 0) {
      sock = s;
      break;
    }
    close(s);
  }
  freeaddrinfo(found);
}

}  // namespace

int syslog_priority(int level) {
  int severity = level;
  if (level < 0) severity = 0;
  else if (level <= 4) severity = level;
  else if (level <= 6) severity = 5;
  else if (level == 7) severity = 6;
  else severity = 7;
  return 128 + severity;  // facility 16, local0
}

String syslog_time_stamp(WallTime t) {
  static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  struct tm tm;
  log_local_time(t, &tm);
  const char* month = tm.tm_mon >= 0 && tm.tm_mon < 12 ? months[tm.tm_mon] : "Jan";
  return format("%s %02d %02d:%02d:%02d", month, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

String syslog_datagram(const LogEntry& e) {
  String priority = format("<%03d>", syslog_priority(e.level));
  String d = format("%s%s %s %s %s", priority, syslog_time_stamp(e.time), host_name(), e.message,
                    e.detail);
  if (d.length() > 1024) d = d.head(1024);
  return d;
}

void syslog_send_entry(const LogEntry& e, const String& target, int generation) {
  if (target.empty()) {
    if (sock >= 0) syslog_close();
    return;
  }
  if (generation != sock_generation) {
    open_socket(target);
    sock_generation = generation;
  }
  if (sock < 0) return;
  String d = syslog_datagram(e);
  ssize_t sent = send(sock, d.c_data(), d.length(), MSG_DONTWAIT | MSG_NOSIGNAL);
  (void)sent;
}

void syslog_close() {
  if (sock >= 0) close(sock);
  sock = -1;
  sock_generation = -1;
}

void syslog_set_server(const String& value) {
  String v = value.trim();
  {
    MutexGuard guard(log_mutex, "syslog_set_server", 1);
    LogGlobal& g = log_global();
    g.syslog_target = v;
    g.syslog_generation++;
  }
  if (v.empty()) {
    if (log_enabled(LOG_APP, 7)) log_add_message_global(LOG_APP, 7, 0, "syslog is disabled on the PBX");
  } else if (log_enabled(LOG_APP, 1)) {
    log_add_message_global(LOG_APP, 1, 0, format("syslog messages will be sent to %s", v));
  }
}
