#include "sip/internal/slice.h"
#include "sip/message_text.h"

#include <arpa/inet.h>

#include <cstring>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "core/format.h"
#include "core/log.h"
#include "sip/sip_hooks.h"
#include "sip/sip_message.h"

namespace {

const String setting_replacement_list("ip_replacement_list");
const String setting_bind4("port_bind4");
const String setting_bind6("port_bind6");

// The canonical text of an address literal, or empty text if it is none.
String canonical_ip(const String& text, bool* ipv6 = nullptr) {
  if (text.empty() || text.length() > 60) return String();
  char buf[64];
  memcpy(buf, text.c_data(), static_cast<size_t>(text.length()));
  buf[text.length()] = 0;
  unsigned char bytes[16];
  char out[INET6_ADDRSTRLEN];
  if (inet_pton(AF_INET, buf, bytes) == 1) {
    if (ipv6) *ipv6 = false;
    return String(inet_ntop(AF_INET, bytes, out, sizeof out));
  }
  if (inet_pton(AF_INET6, buf, bytes) == 1) {
    if (ipv6) *ipv6 = true;
    return String(inet_ntop(AF_INET6, bytes, out, sizeof out));
  }
  return String();
}

// Loaded at the first use; afterwards only read, so readers take no lock.
std::mutex replacement_mutex;
std::atomic<bool> replacement_loaded{false};
std::vector<std::pair<String, String>> replacement_entries;

const std::vector<std::pair<String, String>>& replacements() {
  if (replacement_loaded.load(std::memory_order_acquire)) return replacement_entries;
  std::lock_guard<std::mutex> hold(replacement_mutex);
  if (!replacement_loaded.load(std::memory_order_relaxed)) {
    String list = sip_setting(setting_replacement_list);
    for (const String& item : list.split(' ')) {
      int slash = item.find('/');
      if (slash < 0) continue;
      String from = canonical_ip(item.head(slash));
      String to = item.tail(slash + 1);
      if (from.empty() || to.empty()) continue;
      replacement_entries.emplace_back(from, to);
      if (log_enabled(LOG_SIP, 1))
        log_add_message_global(LOG_SIP, 1, 0,
                               format("SIP IP address representation: %s -> %s", from, to));
    }
    replacement_loaded.store(true, std::memory_order_release);
  }
  return replacement_entries;
}

String mapped(const String& ip) {
  const auto& map = replacements();
  if (map.empty()) return ip;
  String canon = canonical_ip(ip);
  for (const auto& e : map)
    if (e.first == canon) return e.second;
  return ip;
}

// The bind address of a setting if it is a valid address of that family and not the
// any-address; else empty text.
String bind_address(const String& setting, bool ipv6) {
  bool is6 = false;
  String canon = canonical_ip(sip_setting(setting).trim(), &is6);
  if (canon.empty() || is6 != ipv6) return String();
  if (canon == "0.0.0.0" || canon == "::") return String();
  return canon;
}

struct Placeholder {
  const char* text;
  int length;
  int kind;
};

constexpr Placeholder placeholders[] = {
    {"{x-pre-trans}", 13, 0}, {"{x-pre-adr}", 11, 1},   {"{x-pre-port}", 12, 2},
    {"{x-pre-alias}", 13, 3}, {"{x-pre-adrs}", 12, 4},  {"{x-pre-lport}", 13, 5},
    {"{x-pre-cport}", 13, 6}, {"{x-pre-ipv}", 11, 7},
};

void append_value(String& out, int kind, const LocalEnd& a, const String& media_port,
                  const String& transport) {
  switch (kind) {
    case 0:
      put(out, transport);
      break;
    case 1: {
      String ip = mapped(a.ip);
      if (ip.contains(':')) {
        out.append('[');
        put(out, ip);
        out.append(']');
      } else {
        put(out, ip);
      }
      break;
    }
    case 2:
      put(out, String(a.port));
      break;
    case 3:
      if (transport == "tls") out.append(";alias");
      break;
    case 4: {
      String bind = bind_address(a.ipv6 ? setting_bind6 : setting_bind4, a.ipv6);
      put(out, mapped(bind.empty() ? a.ip : bind));
      break;
    }
    case 5:
      put(out, media_port);
      break;
    case 6:
      if (!media_port.empty()) put(out, String(media_port.to_int() + 1));
      break;
    case 7:
      put(out, a.ipv6 ? "IP6" : "IP4");
      break;
  }
}

}  // namespace

LocalEnd parse_local_end(const String& text) {
  LocalEnd end;
  String t = text.trim();
  if (t.starts_with("[")) {
    int close = t.find(']');
    if (close < 0) return end;
    end.ip = t.substr(1, close - 1);
    if (t.substr(close + 1, 1) == ":") end.port = t.tail(close + 2).to_int();
  } else if (t.find(':') >= 0 && t.find(':') == t.find_last(':')) {
    end.ip = t.head(t.find(':'));
    end.port = t.tail(t.find(':') + 1).to_int();
  } else {
    end.ip = t;
  }
  end.ipv6 = end.ip.contains(':');
  return end;
}

namespace {

// Appends bytes [0, n) of p with every placeholder replaced.
void append_filled(String& out, const char* p, int n, const LocalEnd& address,
                   const String& media_port, const String& transport) {
  int run = 0;
  const void* brace = memchr(p, '{', static_cast<size_t>(n));
  int i = brace ? static_cast<int>(static_cast<const char*>(brace) - p) : n;
  for (; i < n; i++) {
    if (p[i] != '{') continue;
    for (const Placeholder& ph : placeholders) {
      if (n - i < ph.length || memcmp(p + i, ph.text, static_cast<size_t>(ph.length)) != 0)
        continue;
      out.append(p + run, i - run);
      append_value(out, ph.kind, address, media_port, transport);
      i += ph.length - 1;
      run = i + 1;
      break;
    }
  }
  out.append(p + run, n - run);
}

}  // namespace

String insert_replacement(const String& text, const LocalEnd& address, const String& media_port,
                          const String& transport) {
  if (!text.contains('{')) return text;
  String out;
  out.reserve(text.length() + 64);
  append_filled(out, text.c_data(), text.length(), address, media_port, transport);
  return out;
}

String message_text(const TaggedText& message, const LocalEnd& address, const String& media_port,
                    const String& transport, String* cseq_method) {
  // The records are read in place: a String per record would cost more than the copying.
  const String& records = message.text();
  const unsigned char* d = reinterpret_cast<const unsigned char*>(records.c_data());
  int n = records.length();
  String out;
  out.reserve(n + 256);
  const char* length_name = nullptr;
  int length_name_size = 0;
  int body_at = -1;
  int body_size = 0;
  for (int pos = 0; pos + 4 <= n;) {
    int tag = d[pos];
    int size = (d[pos + 1] << 16) | (d[pos + 2] << 8) | d[pos + 3];
    int at = pos + 4;
    if (size > n - at) break;
    const char* value = reinterpret_cast<const char*>(d + at);
    switch (tag) {
      case sip_record_start:
        out.clear();
        out.reserve(n + 256);
        append_filled(out, value, size, address, media_port, transport);
        break;
      case sip_record_filled:
        append_filled(out, value, size, address, media_port, transport);
        break;
      case sip_record_copied:
        out.append(value, size);
        break;
      case sip_record_length_name:
        length_name = value;
        length_name_size = size;
        break;
      case sip_record_body:
        body_at = at;
        body_size = size;
        break;
      case sip_record_cseq_method:
        if (cseq_method) *cseq_method = records.substr(at, size);
        break;
    }
    pos = at + size;
  }
  if (length_name) {
    String body;
    if (body_at >= 0) {
      if (media_port.empty()) body = records.substr(body_at, body_size);
      else append_filled(body, reinterpret_cast<const char*>(d + body_at), body_size, address, media_port, transport);
    }
    out.append(length_name, length_name_size);
    out.append(": ");
    put_number(out, body.length());
    out.append("\r\n\r\n");
    put(out, body);
  }
  return out;
}

void reset_ip_replacement_map() {
  // Only for tests: no sender may run at the same time.
  std::lock_guard<std::mutex> hold(replacement_mutex);
  replacement_entries.clear();
  replacement_loaded.store(false, std::memory_order_release);
}
