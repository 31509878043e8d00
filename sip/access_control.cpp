#include "sip/access_control.h"

#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <unordered_map>

#include "core/access_hooks.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/tagged_text.h"
#include "core/server.h"
#include "core/timeout.h"
#include "store/names.h"
#include "store/schema.h"
#include "store/table.h"

bool AclKey::operator==(const AclKey& o) const {
  return length == o.length && bits == o.bits && port == o.port && memcmp(bytes, o.bytes, length) == 0;
}

namespace {

constexpr int class_count = 4;  // index 0 unused
const char* const class_words[class_count] = {"", "udp", "tcp", "http"};
const char* const remove_texts[class_count] = {"", "Remove SIP/UDP entry", "Remove SIP/TCP entry", "Remove HTTP entry"};

// The prefix lengths of the manual maps, longest first; a lookup walks them in order.
const int ipv4_prefixes[] = {32, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 16, 8, 0};
const int ipv6_prefixes[] = {128, 96, 64, 0};
constexpr int ipv4_count = sizeof ipv4_prefixes / sizeof ipv4_prefixes[0];
constexpr int ipv6_count = sizeof ipv6_prefixes / sizeof ipv6_prefixes[0];

struct AclKeyHash {
  size_t operator()(const AclKey& k) const {
    uint64_t h = 1469598103934665603ull ^ k.bits ^ (static_cast<uint64_t>(k.port) << 8);
    for (int i = 0; i < k.length; i++) h = (h ^ k.bytes[i]) * 1099511628211ull;
    return static_cast<size_t>(h);
  }
};

struct ExpiryItem {
  int access_class;
  AclKey key;
};
using ExpiryIndex = std::multimap<Tick, ExpiryItem>;

struct AclEntry {
  bool white = false;
  Tick timer;  // not set: for ever
  int duration = 0;
  String comment;
  ExpiryIndex::iterator expiry;
};

struct ManualEntry {
  int id = 0;
  bool white = false;
  String comment;
};

struct AcceptCount {
  int count = 0;
  Timeout clear;
};

struct PenaltyRecord {
  Tick first;
  int count = 0;  // -1: already reported
};

using V6Bytes = std::array<uint8_t, 16>;

std::unordered_map<AclKey, AclEntry, AclKeyHash> auto_entries[class_count];
std::map<String, int> white_ports[class_count];
std::map<String, std::unique_ptr<AcceptCount>> accept_counts[class_count];
struct V6Hash {
  size_t operator()(const V6Bytes& b) const {
    uint64_t h = 1469598103934665603ull;
    for (uint8_t byte : b) h = (h ^ byte) * 1099511628211ull;
    return static_cast<size_t>(h);
  }
};

// Hashed for the check, which looks at up to 15 of them per datagram; the JSON output
// sorts them.
std::unordered_map<uint32_t, ManualEntry> manual_v4[ipv4_count];
std::unordered_map<V6Bytes, ManualEntry, V6Hash> manual_v6[ipv6_count];
std::map<String, PenaltyRecord> penalties;
std::deque<std::pair<Tick, String>> penalty_list;

ExpiryIndex expiry_index;
Timeout expiry_timer;
AclMail mail_hook = nullptr;

void log_acl(int level, const String& text, const String& detail = String()) {
  if (log_enabled(LOG_SIP, level)) log_add_message_global(LOG_SIP, level, 0, text, detail);
}

int setting_int(const char* name, int fallback) {
  String v = core_setting(name);
  return v.is_int() ? v.to_int() : fallback;
}

bool valid_class(int c) { return c >= 1 && c < class_count; }

uint32_t v4_value(const uint8_t* b) {
  return (static_cast<uint32_t>(b[0]) << 24) | (static_cast<uint32_t>(b[1]) << 16) |
         (static_cast<uint32_t>(b[2]) << 8) | b[3];
}

uint32_t v4_mask(int bits) { return bits == 0 ? 0 : ~uint32_t{0} << (32 - bits); }

V6Bytes v6_masked(const uint8_t* b, int bits) {
  V6Bytes out{};
  for (int i = 0; i < 16; i++) {
    int keep = bits - i * 8;
    uint8_t m = keep >= 8 ? 0xff : keep <= 0 ? 0 : static_cast<uint8_t>(0xff << (8 - keep));
    out[i] = b[i] & m;
  }
  return out;
}

// The key of the address with its port (48 or 144 bits), or alone.
bool make_key(const Address& a, bool with_port, AclKey& k) {
  int n = a.adr.length();
  if (n != 4 && n != 16) return false;
  k = AclKey();
  memcpy(k.bytes, a.adr.c_data(), static_cast<size_t>(n));
  k.length = static_cast<uint8_t>(n);
  k.bits = static_cast<uint8_t>(n * 8 + (with_port ? 16 : 0));
  k.port = with_port ? static_cast<uint16_t>(a.port) : 0;
  return true;
}

// The key of acl_allow: cut to `bits`; 48 and 144 keep the port.
bool make_cut_key(const Address& a, int bits, AclKey& k) {
  int n = a.adr.length();
  if (n != 4 && n != 16) return false;
  bool with_port = bits == n * 8 + 16;
  if (!make_key(a, with_port, k)) return false;
  if (with_port) return true;
  int keep = bits < 0 ? 0 : bits > n * 8 ? n * 8 : bits;
  if (n == 4) {
    uint32_t v = v4_value(k.bytes) & v4_mask(keep);
    for (int i = 0; i < 4; i++) k.bytes[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
  } else {
    V6Bytes m = v6_masked(k.bytes, keep);
    memcpy(k.bytes, m.data(), 16);
  }
  k.bits = static_cast<uint8_t>(keep);
  return true;
}

String key_adr_text(const AclKey& k) { return adr_text(String(k.bytes, k.length)); }

bool has_port(const AclKey& k) { return k.bits == k.length * 8 + 16; }

void arm_expiry() {
  if (expiry_index.empty()) {
    expiry_timer.clear();
    return;
  }
  Tick first = expiry_index.begin()->first;
  if (!expiry_timer.armed() || expiry_timer.due() != first) expiry_timer.callback_at(control_queue, first, callback_argument(acl_expire_now));
}

void drop_white_port(int c, const AclKey& k) {
  auto it = white_ports[c].find(key_adr_text(k));
  if (it == white_ports[c].end()) return;
  if (--it->second <= 0) white_ports[c].erase(it);
}

// Removes an entry with its expiry item and its share of the white port counts.
void erase_entry(int c, std::unordered_map<AclKey, AclEntry, AclKeyHash>::iterator it) {
  if (it->second.timer.is_set()) expiry_index.erase(it->second.expiry);
  if (it->second.white && has_port(it->first)) drop_white_port(c, it->first);
  auto_entries[c].erase(it);
}

void set_timer(int c, const AclKey& k, AclEntry& e, Tick due) {
  if (e.timer.is_set()) expiry_index.erase(e.expiry);
  e.timer = due;
  if (due.is_set()) e.expiry = expiry_index.emplace(due, ExpiryItem{c, k});
  arm_expiry();
}

// An automatic entry until its expiry has removed it. The check reads no clock: a timer
// that runs a little late keeps an entry a little longer, which costs nothing, while a
// clock read per datagram does.
const AclEntry* live_auto(int c, const AclKey& k) {
  auto it = auto_entries[c].find(k);
  return it == auto_entries[c].end() ? nullptr : &it->second;
}

void drop_old_penalties(Tick time, int period_ms) {
  while (!penalty_list.empty() && ms(time, penalty_list.front().first) > period_ms) {
    auto it = penalties.find(penalty_list.front().second);
    if (it != penalties.end() && it->second.first == penalty_list.front().first) penalties.erase(it);
    penalty_list.pop_front();
  }
}

void forget_penalty(const Address& a) { penalties.erase(address_text(a)); }

// "%s %s@%s": the method or status, the From user (the number of a "tel" URI) and the
// host, from the text of a SIP message; empty when the text has no start line.
String sip_comment(const String& text) {
  String start = text.line(0, false).trim();
  if (start.empty()) return String();
  String what = start.starts_with(String("SIP/")) ? start.word(1, ' ') : start.word(0, ' ');
  String from = header_value(text, String("From"), String("f"));
  int open = from.find('<');
  String uri = open >= 0 ? from.tail(open + 1) : from;
  int close = uri.find('>');
  if (close >= 0) uri = uri.head(close);
  uri = uri.trim();
  String user, host;
  if (uri.starts_with_nocase(String("tel:"))) {
    user = uri.tail(4);
    int semi = user.find(';');
    if (semi >= 0) user = user.head(semi);
  } else {
    int colon = uri.find(':');
    String rest = colon >= 0 ? uri.tail(colon + 1) : uri;
    int semi = rest.find(';');
    if (semi >= 0) rest = rest.head(semi);
    int at = rest.find('@');
    if (at >= 0) {
      user = rest.head(at);
      host = rest.tail(at + 1);
    } else {
      host = rest;
    }
    if (host.starts_with(String("["))) {
      int end = host.find(']');
      if (end >= 0) host = host.head(end + 1);
    } else {
      int port = host.find(':');
      if (port >= 0) host = host.head(port);
    }
  }
  return format("%s %s@%s", what, user, host.to_lower());
}

void send_mail(const String& adr, const char* text_template, int minutes, int count) {
  String subject = format("Address %s has been blacklisted", adr);
  String text = format(text_template, adr, minutes, count);
  log_acl(2, subject, text);
  if (mail_hook) mail_hook(core_setting("email_blacklist_ip"), subject, text);
}

void clear_accept(const String& adr, int c) {
  must_own(ctrl_run_mutex, "clear_accept", 1);
  if (!valid_class(c)) return;
  log_acl(7, String(c == acl_class_tcp ? "Clear SIP/TCP" : "Clear HTTP"), adr);
  accept_counts[c].erase(adr);
}

int hook_check(const Address& source, int access_class) { return acl_check(source, access_class); }

void hook_penalty(const Address& source, int access_class, int points, const char* tag) {
  String label = String(tag).to_upper();
  acl_penalty(Tick::now(), source, points, access_class, label, String());
}

// The records inside a posted report.
enum ReportTag { r_adr = 4, r_port = 101, r_text = 73, r_points = 1, r_class = 2, r_label = 3, r_bits = 5,
                 r_white = 6, r_seconds = 7, r_comment = 8 };

struct Report {
  Address address;
  int points = 0, access_class = 0, bits = 0, seconds = 0;
  bool white = false;
  String label, text, comment;
};

Report read_report(const String& value) {
  Report r;
  TaggedText t(value);
  int tag;
  String v;
  while (t.next(tag, v)) {
    switch (tag) {
      case r_adr: r.address.adr = v; break;
      case r_port: r.address.port = v.to_int(); break;
      case r_text: r.text = v; break;
      case r_points: r.points = v.to_int(); break;
      case r_class: r.access_class = v.to_int(); break;
      case r_label: r.label = v; break;
      case r_bits: r.bits = v.to_int(); break;
      case r_white: r.white = v == str_true; break;
      case r_seconds: r.seconds = v.to_int(); break;
      case r_comment: r.comment = v; break;
      default: break;
    }
  }
  return r;
}

String wrap(int tag, const TaggedText& inner) {
  TaggedText outer;
  return outer.add(tag, inner) ? outer.text() : String();
}

void on_penalty_report(const String& value) {
  Report r = read_report(value);
  acl_penalty(Tick::now(), r.address, r.points, r.access_class, r.label, r.text);
}

void on_allow_report(const String& value) {
  Report r = read_report(value);
  acl_allow(r.address, r.bits, r.white, r.access_class, r.seconds, r.comment);
}

bool white_type(const String& type) {
  return type.equals_nocase("white") || type.equals_nocase("allow") || type.equals_nocase("true") || type == "1";
}

// A prefix length, or a dotted mask turned into one; -1 for anything else.
int prefix_of(const String& mask, int family_bits) {
  String m = mask.trim();
  if (m.is_int()) {
    int n = m.to_int();
    return n >= 0 && n <= family_bits ? n : -1;
  }
  String bytes = parse_adr(m);
  if (bytes.length() * 8 != family_bits) return -1;
  int n = 0;
  bool ended = false;
  for (int i = 0; i < bytes.length(); i++) {
    for (int bit = 7; bit >= 0; bit--) {
      bool set = (bytes.byte_at(i) >> bit) & 1;
      if (set && ended) return -1;
      if (set) n++;
      else ended = true;
    }
  }
  return n;
}

}  // namespace

int acl_load_manual(const std::vector<AclRow>& rows) {
  must_own(ctrl_run_mutex, "acl_load_manual", 1);
  for (auto& m : manual_v4) m.clear();
  for (auto& m : manual_v6) m.clear();
  int loaded = 0;
  for (const AclRow& row : rows) {
    String adr = parse_adr(row.adr.trim());
    if (adr.empty()) continue;
    int bits = prefix_of(row.mask, adr.length() * 8);
    ManualEntry e{row.id, white_type(row.type), row.comment};
    const uint8_t* b = reinterpret_cast<const uint8_t*>(adr.c_data());
    bool placed = false;
    if (adr.length() == 4) {
      for (int i = 0; i < ipv4_count && !placed; i++) {
        if (ipv4_prefixes[i] != bits) continue;
        manual_v4[i][v4_value(b) & v4_mask(bits)] = e;
        placed = true;
      }
    } else {
      for (int i = 0; i < ipv6_count && !placed; i++) {
        if (ipv6_prefixes[i] != bits) continue;
        manual_v6[i][v6_masked(b, bits)] = e;
        placed = true;
      }
    }
    if (placed) loaded++;
    else log_acl(3, format("Access list entry %d has a mask %s that can't be used", row.id, row.mask));
  }
  return loaded;
}

int acl_load_accesslist() {
  must_own(ctrl_run_mutex, "acl_load_accesslist", 1);
  Table* t = find_table(tbl_accesslist);
  if (!t) return 0;
  if (!t->on_change) t->on_change = [](Table&, int) { (void)acl_load_accesslist(); };
  int adr = t->column_index(col_adr), mask = t->column_index(col_mask);
  int type = t->column_index(col_type), comment = t->column_index(col_comment);
  std::vector<AclRow> rows;
  for (int row = t->first(); row != 0; row = t->next(row))
    rows.push_back({row, t->get(row, adr), t->get(row, mask), t->get(row, type), t->get(row, comment)});
  return acl_load_manual(rows);
}

int acl_check(const Address& address, int access_class) {
  must_own(ctrl_run_mutex, "acl_check", 1);
  const uint8_t* b = reinterpret_cast<const uint8_t*>(address.adr.c_data());
  if (address.adr.length() == 4) {
    uint32_t v = v4_value(b);
    for (int i = 0; i < ipv4_count; i++) {
      const auto& m = manual_v4[i];
      if (m.empty()) continue;
      auto it = m.find(v & v4_mask(ipv4_prefixes[i]));
      if (it != m.end()) return it->second.white ? 1 : -1;
    }
  } else if (address.adr.length() == 16) {
    for (int i = 0; i < ipv6_count; i++) {
      const auto& m = manual_v6[i];
      if (m.empty()) continue;
      auto it = m.find(v6_masked(b, ipv6_prefixes[i]));
      if (it != m.end()) return it->second.white ? 1 : -1;
    }
  } else {
    return 0;
  }
  if (!valid_class(access_class) || auto_entries[access_class].empty()) return 0;
  AclKey k;
  if (address.port != 0 && make_key(address, true, k)) {
    if (const AclEntry* e = live_auto(access_class, k)) return e->white ? 1 : -1;
  }
  if (make_key(address, false, k)) {
    if (const AclEntry* e = live_auto(access_class, k)) return e->white ? 1 : -1;
  }
  return 0;
}

void acl_allow(const Address& address, int bits, bool white, int access_class, int seconds, const String& comment) {
  must_own(ctrl_run_mutex, "acl_allow", 1);
  if (!valid_class(access_class)) return;
  forget_penalty(address);
  AclKey k;
  if (!make_cut_key(address, bits, k)) return;
  auto [it, fresh] = auto_entries[access_class].try_emplace(k);
  AclEntry& e = it->second;
  bool was_white_port = !fresh && e.white && has_port(k);
  e.white = white;
  if (!comment.empty()) e.comment = comment;
  Tick now = Tick::now();
  if (seconds <= 0) {
    e.duration = 0;
    set_timer(access_class, k, e, Tick());
  } else if (fresh || (e.timer.is_set() && e.timer < now.plus_ms(int64_t{seconds} * 1000))) {
    e.duration = seconds;
    set_timer(access_class, k, e, now.plus_ms(int64_t{seconds} * 1000));
  }
  if (white && has_port(k) && !was_white_port) white_ports[access_class][key_adr_text(k)]++;
  if (!white && was_white_port) drop_white_port(access_class, k);
  if (white && access_class != acl_class_udp) accept_counts[access_class].erase(adr_text(address.adr));
}

void blacklist_address(const Address& address, int access_class, const String& comment) {
  must_own(ctrl_run_mutex, "blacklist_address", 1);
  if (address.adr.empty() || is_any_adr(address.adr)) return;
  if (acl_check(Address(address.adr, 0), access_class) != 0) return;
  int expires = setting_int("blacklist_expires", 3600);
  acl_allow(Address(address.adr, 0), address.adr.length() * 8, false, access_class, expires, comment);
  send_mail(adr_text(address.adr),
            "The IP address %s has been blacklisted for %d minutes because there were %d unsuccessful authentication attempts.",
            (expires + 30) / 60, setting_int("blacklist_attempts", 10));
}

void acl_penalty(Tick time, const Address& address, int points, int access_class, const String& label, const String& text) {
  must_own(ctrl_run_mutex, "acl_penalty", 1);
  if (address.adr.empty()) return;
  String key = address_text(address);
  drop_old_penalties(time, setting_int("blacklist_period", 1000));
  auto [it, fresh] = penalties.try_emplace(key);
  if (fresh) {
    it->second.first = time;
    penalty_list.emplace_back(time, key);
  }
  PenaltyRecord& r = it->second;
  if (r.count < 0) return;
  r.count += points;
  if (r.count < 16 * setting_int("blacklist_attempts", 10)) return;
  r.count = -1;
  String comment = label;
  if (label == "SIP" && !text.empty()) comment = sip_comment(text);
  blacklist_address(address, access_class, comment);
}

void acl_connection(const Address& address, int access_class, int count) {
  must_own(ctrl_run_mutex, "acl_connection", 1);
  if (access_class != acl_class_tcp && access_class != acl_class_http) return;
  int threshold = setting_int("blacklist_conthres", 100);
  if (threshold == 0) return;
  String adr = adr_text(address.adr);
  auto white = white_ports[access_class].find(adr);
  if (white != white_ports[access_class].end() && white->second > 0) {
    accept_counts[access_class].erase(adr);
    return;
  }
  std::unique_ptr<AcceptCount>& a = accept_counts[access_class][adr];
  if (!a) a = std::make_unique<AcceptCount>();
  a->count += count;
  int lifetime = setting_int("blacklist_contdur", 0);
  if (lifetime > 0) a->clear.callback(control_queue, int64_t{lifetime} * 1000, callback_argument(clear_accept, adr, access_class));
  if (a->count < threshold) return;
  AclKey k;
  if (!make_key(address, false, k) || live_auto(access_class, k)) return;
  forget_penalty(address);
  int expires = setting_int("blacklist_expires", 3600);
  acl_allow(Address(address.adr, 0), address.adr.length() * 8, false, access_class, expires, String("Connection"));
  send_mail(adr, "The IP address %s has been blacklisted for %d minutes because there were %d unsuccessful connections.",
            (expires + 30) / 60, a->count);
}

void acl_forget_connection(const Address& address, int access_class) {
  must_own(ctrl_run_mutex, "acl_forget_connection", 1);
  if (!valid_class(access_class)) return;
  auto it = accept_counts[access_class].find(adr_text(address.adr));
  if (it == accept_counts[access_class].end()) return;
  if (--it->second->count <= 0) accept_counts[access_class].erase(it);
}

bool acl_remove(const Address& address, int access_class) {
  must_own(ctrl_run_mutex, "acl_remove", 1);
  if (!valid_class(access_class)) return false;
  AclKey k;
  for (bool with_port : {true, false}) {
    if (with_port && address.port == 0) continue;
    if (!make_key(address, with_port, k)) return false;
    auto it = auto_entries[access_class].find(k);
    if (it == auto_entries[access_class].end()) continue;
    erase_entry(access_class, it);
    arm_expiry();
    return true;
  }
  return false;
}

void acl_expire_now() {
  must_own(ctrl_run_mutex, "acl_expire_now", 1);
  Tick now = Tick::now();
  // Only what is due is touched: the index is ordered by time.
  while (!expiry_index.empty() && expiry_index.begin()->first <= now) {
    ExpiryItem item = expiry_index.begin()->second;
    auto it = auto_entries[item.access_class].find(item.key);
    if (it == auto_entries[item.access_class].end()) {
      expiry_index.erase(expiry_index.begin());
      continue;
    }
    log_acl(7, String(remove_texts[item.access_class]), key_adr_text(item.key));
    erase_entry(item.access_class, it);
  }
  arm_expiry();
}

void acl_json(String& out) {
  must_own(ctrl_run_mutex, "acl_json", 1);
  out = "[";
  bool first = true;
  auto item = [&](const String& text) {
    if (!first) out.append(',');
    first = false;
    out.append(text);
  };
  Tick now = Tick::now();
  for (int c = 1; c < class_count; c++) {
    // Sorted, so that the page and the tests see a stable order.
    std::map<String, String> sorted;
    for (const auto& [k, e] : auto_entries[c]) {
      if (e.timer.is_set() && e.timer <= now) continue;
      int left = e.timer.is_set() ? static_cast<int>(sec(e.timer, now)) : 0;
      String adr = key_adr_text(k);
      String comment = e.comment;
      sorted[format("%s %05d %d", adr, static_cast<int>(k.port), static_cast<int>(k.bits))] =
          format("{\"adr\":%j,\"port\":%d,\"mask\":%d,\"type\":\"%s\",\"duration\":%d,\"enabled\":%j,\"comment\":%j}", adr,
                 static_cast<int>(k.port), static_cast<int>(k.bits), class_words[c], left, e.white, comment);
    }
    for (const auto& [key, text] : sorted) item(text);
  }
  for (int i = 0; i < ipv4_count; i++) {
    std::map<uint32_t, const ManualEntry*> sorted;
    for (const auto& [v, e] : manual_v4[i]) sorted[v] = &e;
    for (const auto& [v, e] : sorted) {
      String adr = adr_text(String::bytes(static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)));
      item(format("{\"adr\":%j,\"mask\":%d,\"type\":\"manual\",\"comment\":%j,\"enabled\":%j,\"id\":%d}", adr, ipv4_prefixes[i],
                  e->comment, e->white, e->id));
    }
  }
  for (int i = 0; i < ipv6_count; i++) {
    std::map<V6Bytes, const ManualEntry*> sorted;
    for (const auto& [v, e] : manual_v6[i]) sorted[v] = &e;
    for (const auto& [v, e] : sorted) {
      String adr = adr_text(String(v.data(), 16));
      item(format("{\"adr\":%j,\"mask\":%d,\"type\":\"manual\",\"comment\":%j,\"enabled\":%j,\"id\":%d}", adr, ipv6_prefixes[i],
                  e->comment, e->white, e->id));
    }
  }
  for (int c = 1; c < class_count; c++)
    for (const auto& [adr, count] : white_ports[c])
      item(format("{\"type\":\"white\",\"transport\":\"%s\",\"adr\":%j,\"count\":%d}", class_words[c], adr, count));
  for (int c = acl_class_tcp; c < class_count; c++)
    for (const auto& [adr, a] : accept_counts[c])
      item(format("{\"type\":\"accept\",\"transport\":\"%s\",\"adr\":%j,\"count\":%d}", class_words[c], adr, a->count));
  out.append(']');
}

void acl_status(String& out) {
  must_own(ctrl_run_mutex, "acl_status", 1);
  out = format("{\"auto_sip_udp\":%d,\"auto_sip_tcp\":%d,\"auto_http\":%d", static_cast<int>(auto_entries[1].size()),
               static_cast<int>(auto_entries[2].size()), static_cast<int>(auto_entries[3].size()));
  out.append(format(",\"white_ports_sip_udp\":%d,\"white_ports_sip_tcp\":%d,\"white_ports_http\":%d",
                    static_cast<int>(white_ports[1].size()), static_cast<int>(white_ports[2].size()),
                    static_cast<int>(white_ports[3].size())));
  out.append(format(",\"accept_sip_tcp\":%d,\"accept_http\":%d", static_cast<int>(accept_counts[2].size()),
                    static_cast<int>(accept_counts[3].size())));
  for (int i = 0; i < ipv4_count; i++)
    if (!manual_v4[i].empty()) out.append(format(",\"ipv4_manual[%d]\":%d", ipv4_prefixes[i], static_cast<int>(manual_v4[i].size())));
  for (int i = 0; i < ipv6_count; i++)
    if (!manual_v6[i].empty()) out.append(format(",\"ipv6_manual[%d]\":%d", ipv6_prefixes[i], static_cast<int>(manual_v6[i].size())));
  out.append(format(",\"authentication_failures\":%d,\"authentication_list\":%d}", static_cast<int>(penalties.size()),
                    static_cast<int>(penalty_list.size())));
}

String acl_penalty_message(const Address& address, int points, int access_class, const String& label, const String& text) {
  TaggedText t;
  (void)t.add(r_adr, address.adr);
  (void)t.add(r_port, address.port);
  (void)t.add(r_points, points);
  (void)t.add(r_class, access_class);
  (void)t.add(r_label, label);
  (void)t.add(r_text, text);
  return wrap(tag_acl_penalty, t);
}

String acl_allow_message(const Address& address, int bits, bool white, int access_class, int seconds, const String& comment) {
  TaggedText t;
  (void)t.add(r_adr, address.adr);
  (void)t.add(r_port, address.port);
  (void)t.add(r_bits, bits);
  (void)t.add(r_white, white);
  (void)t.add(r_class, access_class);
  (void)t.add(r_seconds, seconds);
  (void)t.add(r_comment, comment);
  return wrap(tag_acl_allow, t);
}

void acl_post_penalty(const Address& address, int points, int access_class, const String& label, const String& text) {
  String m = acl_penalty_message(address, points, access_class, label, text);
  if (!m.empty()) out_post(m);
}

void acl_post_allow(const Address& address, int bits, bool white, int access_class, int seconds, const String& comment) {
  String m = acl_allow_message(address, bits, white, access_class, seconds, comment);
  if (!m.empty()) out_post(m);
}

void set_acl_mail(AclMail mail) { mail_hook = mail; }

void acl_register() {
  set_acl_hooks(hook_check, hook_penalty);
  register_control_handler(tag_acl_penalty, on_penalty_report);
  register_control_handler(tag_acl_allow, on_allow_report);
  callback_name_register(acl_expire_now, "acl_expire");
  callback_name_register(clear_accept, "clear_accept");
}

void acl_reset() {
  for (auto& m : auto_entries) m.clear();
  for (auto& m : white_ports) m.clear();
  for (auto& m : accept_counts) m.clear();
  for (auto& m : manual_v4) m.clear();
  for (auto& m : manual_v6) m.clear();
  penalties.clear();
  penalty_list.clear();
  expiry_index.clear();
  expiry_timer.clear();
}
