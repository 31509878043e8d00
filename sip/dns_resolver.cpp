#include "sip/dns_resolver.h"

#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>

#include "core/command_line.h"
#include "core/files.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/poll_set.h"
#include "core/random.h"
#include "core/server.h"
#include "core/tick.h"
#include "core/udp_socket.h"
#include "sip/interfaces.h"

const int dns_retry_ms[7] = {500, 1000, 2000, 4000, 4000, 4000, 4000};

namespace {

constexpr int negative_ttl = 10;
constexpr int retry_limit = 7;
// Bounds on what a hostile server can make us keep: lines per key, keys in all,
// and how far CNAMEs are chased.
constexpr int max_lines = 64;
constexpr int max_entries = 20000;
constexpr int max_cname_hops = 8;
constexpr int max_hosts_size = 1 << 20;
constexpr int max_requests = 4096;

struct CacheEntry {
  String name;
  int type = 0;
  String text;
  Tick expires;
  Timeout timer;
};

struct DnsRequest {
  int id = 0;
  String name;
  int type = 0;
  String query;
  int retries = 0;
  int cname_hops = 0;
  Timeout retry_timer;
  std::vector<callback_argument> callbacks;
};

Mutex dns_mutex("dns");
std::map<String, std::unique_ptr<CacheEntry>> cache;
std::map<int, std::unique_ptr<DnsRequest>> requests;
std::map<String, int> pending_keys;
int next_id = 1;
int server_port = 53;
UdpSocket socket4, socket6;

String hosts_path("/etc/hosts");
int64_t hosts_stamp = -1;
int64_t hosts_size = -1;
std::map<String, std::vector<String>> hosts;

void log_dns(int level, const String& text) {
  if (log_enabled(LOG_DNS, level)) log_add_message_global(LOG_DNS, level, 0, text);
}

String cache_key(int type, const String& name) { return format("%s %s", dns_type_word(type), name); }

String normal_name(const String& name) { return name.trim_right('.').to_lower(); }

// Re-reads the hosts file only when its time stamp or size changed: a lookup per
// outgoing request must not cost a file read.
void refresh_hosts_locked() {
  struct stat st;
  std::string path(hosts_path.c_data(), static_cast<size_t>(hosts_path.length()));  // NUL-terminated
  if (stat(path.c_str(), &st) != 0) {
    hosts.clear();
    hosts_stamp = -1;
    return;
  }
  int64_t stamp = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  if (stamp == hosts_stamp && st.st_size == hosts_size) return;
  hosts_stamp = stamp;
  hosts_size = st.st_size;
  hosts.clear();
  if (st.st_size > max_hosts_size) return;
  String text = read_file(hosts_path, true);
  for (const String& raw : text.split('\n')) {
    String line = raw;
    int hash = line.find('#');
    if (hash >= 0) line = line.head(hash);
    line.replace_all(String("\t"), String(" "));
    line = line.trim();
    if (line.empty()) continue;
    String adr = parse_adr(line.word(0, ' '));
    if (adr.empty()) continue;
    for (const String& name : line.words_from(1, ' ').split(' ')) {
      if (name.empty()) continue;
      std::vector<String>& list = hosts[normal_name(name)];
      if (list.size() < max_lines) list.push_back(adr);
    }
  }
}

bool hosts_lookup_locked(const String& name, int type, String& out, bool all) {
  refresh_hosts_locked();
  auto it = hosts.find(name);
  if (it == hosts.end()) return false;
  size_t want = type == dns_a ? 4 : 16;
  String text;
  for (const String& adr : it->second) {
    if (static_cast<size_t>(adr.length()) != want) continue;
    if (!text.empty()) {
      if (!all) break;
      text.append('\n');
    }
    text.append(adr_text(adr));
  }
  if (text.empty()) return false;
  out = text;
  return true;
}

void unregister_entry(const String& key) {
  MutexGuard g(dns_mutex, "unregister_entry", 1);
  auto it = cache.find(key);
  if (it != cache.end()) cache.erase(it);
}

// The entry of a key, dropping it if its time is up (the timer may not have run yet).
CacheEntry* live_entry_locked(const String& key) {
  auto it = cache.find(key);
  if (it == cache.end()) return nullptr;
  if (it->second->expires <= Tick::now()) {
    cache.erase(it);
    return nullptr;
  }
  return it->second.get();
}

String first_line(const String& text) {
  int lf = text.find('\n');
  return lf < 0 ? text : text.head(lf);
}

UdpSocket& socket_for(const String& server) {
  UdpSocket& s = server.length() == 16 ? socket6 : socket4;
  if (!s.valid()) {
    if (!s.open(0, server.length() == 16 ? any_ipv6 : any_ipv4))
      log_dns(2, format("DNS: Could not open a socket for server %s", adr_text(server)));
  }
  return s;
}

void send_to_server(const DnsRequest& r, const String& server) {
  UdpSocket& s = socket_for(server);
  if (s.valid()) (void)s.send_to(r.query, Address(server, server_port));
}

int take_id_locked() {
  for (int tries = 0; tries < 65535; tries++) {
    int id = next_id;
    next_id = next_id >= 65535 ? 1 : next_id + 1;
    if (requests.find(id) == requests.end()) return id;
  }
  return 0;
}

void resend_request(int id);

// Starts a request for a key that isn't pending; the callbacks go with it.
bool start_request_locked(const String& name, int type, std::vector<callback_argument> callbacks, int hops) {
  std::vector<String> servers = get_dns_servers();
  if (servers.empty()) {
    log_dns(2, String("DNS: No server found"));
    return false;
  }
  if (static_cast<int>(requests.size()) >= max_requests) {
    log_dns(2, format("DNS: Too many pending requests, not asking for %s", name));
    return false;
  }
  int id = take_id_locked();
  String query = dns_encode_query(id, name, type);
  if (id == 0 || query.empty()) {
    log_dns(3, format("DNS: Cannot encode request for %s", name));
    return false;
  }
  auto r = std::make_unique<DnsRequest>();
  r->id = id;
  r->name = name;
  r->type = type;
  r->query = query;
  r->cname_hops = hops;
  r->callbacks = std::move(callbacks);
  log_dns(7, format("DNS: Use DNS server %s", adr_text(servers[0])));
  log_dns(6, format("DNS: Request %s from server %s", cache_key(type, name), adr_text(servers[0])));
  send_to_server(*r, servers[0]);
  r->retry_timer.callback(service_queue, dns_retry_ms[0], callback_argument(resend_request, id));
  pending_keys[cache_key(type, name)] = id;
  requests[id] = std::move(r);
  return true;
}

void run_callbacks(const std::vector<callback_argument>& callbacks) {
  must_not_own(dns_mutex, "dns_callbacks", 1);
  for (const callback_argument& c : callbacks) c.run();
}

void add_cache_locked(const String& name, const String& value, int ttl, int type, bool replace) {
  if (ttl < 1) {
    log_dns(7, format("DNS: TTL %d is less that 1 sec, default it to 1", ttl));
    ttl = 1;
  }
  String key = cache_key(type, name);
  CacheEntry* e = live_entry_locked(key);
  Tick expires = Tick::now().plus_ms(static_cast<int64_t>(ttl) * 1000);
  if (!e) {
    if (static_cast<int>(cache.size()) >= max_entries) {
      log_dns(2, format("DNS: Cache full, not adding %s", key));
      return;
    }
    auto fresh = std::make_unique<CacheEntry>();
    fresh->name = name;
    fresh->type = type;
    fresh->text = value;
    fresh->expires = expires;
    fresh->timer.callback_at(service_queue, expires, callback_argument(unregister_entry, key));
    cache[key] = std::move(fresh);
  } else {
    if (replace || e->text.empty()) {
      e->text = value;
    } else if (!value.empty()) {
      std::vector<String> lines = e->text.split('\n');
      bool known = false;
      for (const String& l : lines) known = known || l == value;
      if (!known && static_cast<int>(lines.size()) < max_lines) e->text = e->text + "\n" + value;
    }
    // An entry lives as long as its shortest record.
    if (replace || expires < e->expires) {
      e->expires = expires;
      e->timer.callback_at(service_queue, expires, callback_argument(unregister_entry, key));
    }
  }
  log_dns(7, format("DNS: Add %s (ttl=%d)", key, ttl));
}

void resend_request(int id) {
  std::vector<callback_argument> callbacks;
  {
    MutexGuard g(dns_mutex, "resend_request", 1);
    auto it = requests.find(id);
    if (it == requests.end()) return;
    DnsRequest& r = *it->second;
    r.retries++;
    if (r.retries >= retry_limit) {
      log_dns(3, format("DNS: %d retry attempts failed for Id %d. Giving up...", r.retries, id));
      add_cache_locked(r.name, String(), negative_ttl, r.type, true);
      callbacks = std::move(r.callbacks);
      pending_keys.erase(cache_key(r.type, r.name));
      requests.erase(it);
    } else {
      for (const String& server : get_dns_servers()) {
        log_dns(7, format("DNS: Request %s from server %s", cache_key(r.type, r.name), adr_text(server)));
        send_to_server(r, server);
      }
      r.retry_timer.callback(service_queue, dns_retry_ms[r.retries], callback_argument(resend_request, id));
    }
  }
  run_callbacks(callbacks);
}

// The names of the CNAME chain that starts at `name` within one answer, `name` first.
std::vector<String> chase_cnames(const DnsAnswer& a, const String& name) {
  std::vector<String> chain{name};
  for (int hop = 0; hop < max_cname_hops; hop++) {
    String next;
    for (const DnsRecord& r : a.records)
      if (r.type == dns_cname && r.name == chain.back()) next = r.text;
    bool seen = next.empty();
    for (const String& n : chain) seen = seen || n == next;
    if (seen) break;
    chain.push_back(next);
  }
  return chain;
}

void process_answer(const DnsAnswer& a) {
  std::vector<callback_argument> callbacks;
  {
    MutexGuard g(dns_mutex, "process_answer", 1);
    auto it = requests.find(a.id);
    if (it == requests.end()) {
      log_dns(5, format("DNS: Received response with unknown Id %d", a.id));
      return;
    }
    DnsRequest& r = *it->second;
    if (a.question != r.name || a.question_type != r.type) {
      log_dns(5, format("DNS: Received response for Id %d that doesn't match %s", a.id, cache_key(r.type, r.name)));
      return;
    }
    if (a.truncated) {
      // A cut answer can't be used, and there is no TCP fallback: wait for a retry.
      log_dns(5, format("DNS: Ignoring truncated response for %s", r.name));
      return;
    }
    if (a.rcode != 0 && a.rcode != dns_rcode_nxdomain) {
      log_dns(5, format("DNS: Server error %d for %s", a.rcode, r.name));
      return;
    }
    log_dns(6, format("DNS: Received response for %s with %d answers", r.name, static_cast<int>(a.records.size())));
    std::vector<String> chain = chase_cnames(a, r.name);
    String target = chain.back();
    bool found = false;
    for (const DnsRecord& rec : a.records) {
      // Only what answers the question is kept: a record for an unrelated name would let
      // any server that is asked about one name plant answers for another.
      bool related = false;
      for (const String& n : chain) related = related || n == rec.name;
      if (!related) {
        log_dns(5, format("DNS: Ignoring record for %s in the answer for %s", rec.name, r.name));
        continue;
      }
      if (rec.bad) {
        log_dns(3, format("DNS: Received invalid address specification %s", rec.text));
        continue;
      }
      if (rec.type == dns_srv && rec.text.word(3, ' ') == "0") {
        log_dns(3, format("Received DNS SRV answer with port set to zero for domain %s", rec.name));
        continue;
      }
      add_cache_locked(rec.name, rec.text, rec.ttl, rec.type, false);
      if (rec.type == r.type && rec.name == target) found = true;
    }
    callbacks = std::move(r.callbacks);
    String name = r.name;
    int type = r.type;
    int hops = r.cname_hops;
    pending_keys.erase(cache_key(type, name));
    requests.erase(it);
    if (!found) {
      // The server may give the alias only: then ask for its target and answer the
      // callers when that comes, unless the target is known, which the lookup finds
      // through the alias.
      bool alias_known = false;
      if (a.rcode == 0 && target != name) {
        alias_known = live_entry_locked(cache_key(type, target)) != nullptr;
        auto pending = pending_keys.find(cache_key(type, target));
        if (!alias_known && pending != pending_keys.end()) {
          auto& list = requests[pending->second]->callbacks;
          list.insert(list.end(), callbacks.begin(), callbacks.end());
          return;
        }
        if (!alias_known && hops < max_cname_hops && start_request_locked(target, type, callbacks, hops + 1))
          return;
      }
      if (!alias_known) add_cache_locked(name, String(), negative_ttl, type, true);
    }
  }
  run_callbacks(callbacks);
}

void add_party(PollSet& set) {
  if (socket4.valid()) set.add(socket4.fd, true, false);
  if (socket6.valid()) set.add(socket6.fd, true, false);
}

void drain(UdpSocket& s) {
  // A bounded number per pass, so that a flood can't hold the thread.
  for (int i = 0; i < 64 && s.valid(); i++) {
    String text;
    Address from;
    if (!s.receive(text, from) || text.empty()) return;
    on_pdu_available(text, from);
  }
}

void serve_party(PollSet& set, Tick) {
  if (socket4.valid() && set.readable(socket4.fd)) drain(socket4);
  if (socket6.valid() && set.readable(socket6.fd)) drain(socket6);
}

}  // namespace

bool request_dns(const String& name_in, int type, const callback_argument& callback) {
  must_own(srv_run_mutex, "request_dns", 1);
  String name = normal_name(name_in);
  if (name.empty()) {
    log_dns(3, String("DNS: Cannot resolve empty DNS address"));
    return false;
  }
  if (!name.contains('.')) {
    String domain = normal_name(get_default_domain());
    if (!domain.empty()) name = name + "." + domain;
  }
  MutexGuard g(dns_mutex, "request_dns", 1);
  auto pending = pending_keys.find(cache_key(type, name));
  if (pending != pending_keys.end()) {
    log_dns(7, format("DNS: we have already a request pending for this address %s", name));
    requests[pending->second]->callbacks.push_back(callback);
    return true;
  }
  return start_request_locked(name, type, std::vector<callback_argument>{callback}, 0);
}

bool cache_lookup(const String& name_in, int type, String& out, bool all) {
  out = String();
  String name = normal_name(name_in);
  if (name.empty() || type < 0 || type >= dns_type_count) return false;
  MutexGuard g(dns_mutex, "cache_lookup", 1);
  std::vector<String> names{name};
  if (!name.contains('.')) {
    String domain = normal_name(get_default_domain());
    if (!domain.empty()) names.push_back(name + "." + domain);
  }
  for (const String& first : names) {
    String at = first;
    for (int hop = 0; hop <= max_cname_hops; hop++) {
      if ((type == dns_a || type == dns_aaaa) && hosts_lookup_locked(at, type, out, all)) return true;
      if (CacheEntry* e = live_entry_locked(cache_key(type, at))) {
        out = all ? e->text : first_line(e->text);
        return true;
      }
      if (type == dns_cname) break;
      CacheEntry* alias = live_entry_locked(cache_key(dns_cname, at));
      if (!alias || alias->text.empty()) break;
      at = first_line(alias->text);
    }
  }
  return false;
}

void add_cache(const String& name, const String& value, int ttl, int type, bool replace) {
  if (type < 0 || type >= dns_type_count) return;
  MutexGuard g(dns_mutex, "add_cache", 1);
  add_cache_locked(normal_name(name), value, ttl, type, replace);
}

void on_pdu_available(const String& text, const Address& from) {
  DnsAnswer a;
  if (!dns_decode_answer(text, a)) {
    if (log_enabled(LOG_DNS, 5))
      log_add_message_global(LOG_DNS, 5, 0, format("DNS: Invalid packet of %d bytes from %s", text.length(), address_text(from)));
    return;
  }
  process_answer(a);
}

void json_stringify(String& out) {
  MutexGuard g(dns_mutex, "json_stringify", 1);
  Tick now = Tick::now();
  bool first = true;
  for (const auto& [key, e] : cache) {
    if (e->expires <= now) continue;
    if (!first) out.append(',');
    first = false;
    String word = dns_type_word(e->type);
    int duration = static_cast<int>(sec(e->expires, now));
    out.append(format("{\"type\":%j,\"name\":%j,\"value\":%j,\"duration\":%j}", word, e->name, e->text, duration));
  }
}

std::vector<String> dns_sort_lines(const String& text, bool weights) {
  // The key puts the first number (order, priority) above the second; with weights the
  // second is scaled by chance, so that a heavier SRV target comes first more often.
  // Lines with equal keys replace each other, as a map does.
  std::map<uint64_t, String> sorted;
  for (const String& line : text.split('\n')) {
    String w0 = line.word(0, ' '), w1 = line.word(1, ' ');
    if (!w0.is_int() || !w1.is_int()) continue;
    uint64_t first = static_cast<uint64_t>(w0.to_int() & 0xffff);
    uint64_t second = static_cast<uint64_t>(w1.to_int() & 0xffff);
    uint64_t key = first << 16;
    if (weights)
      key += (second * random_below(1 << 15) + 16384) >> 15;
    else
      key += second;
    sorted[key] = line;
  }
  std::vector<String> out;
  for (auto& [key, line] : sorted) out.push_back(line);
  return out;
}

namespace {

bool sip_lookup(const String& name, int type, String& text) { return cache_lookup(name, type, text, true); }

void sip_request(const String& name, int type, void (*retry)(const CallbackObject&), const CallbackObject& pending) {
  if (request_dns(name, type, callback_argument(retry, pending))) return;
  add_cache(name.empty() ? String("-") : name, String(), negative_ttl, type, true);
  retry(pending);
}

}  // namespace

SipResolver dns_sip_resolver() {
  SipResolver r;
  r.lookup = sip_lookup;
  r.request = sip_request;
  return r;
}

void dns_open_sockets() {
  MutexGuard g(dns_mutex, "dns_open_sockets", 1);
  (void)socket_for(any_ipv4);
  if (startup_options.use_ipv6) (void)socket_for(any_ipv6);
}

void dns_register() {
  // The sockets must exist before run_pbxsrv_sip polls: a socket opened later would
  // wait for that thread's next pass, up to its minute of sleep.
  register_start_step(StartStage::before_threads, dns_open_sockets);
  register_sip_thread_party(LoopParty{40, add_party, serve_party});
  set_sip_resolver(dns_sip_resolver());
  callback_name_register(resend_request, "resend_request");
  callback_name_register(unregister_entry, "unregister_entry");
}

void dns_reset() {
  MutexGuard g(dns_mutex, "dns_reset", 1);
  requests.clear();
  pending_keys.clear();
  cache.clear();
  socket4.close();
  socket6.close();
  hosts.clear();
  hosts_stamp = -1;
  hosts_size = -1;
  next_id = 1;
}

void dns_set_server_port(int port) { server_port = port; }

void dns_set_hosts_path(const String& path) {
  MutexGuard g(dns_mutex, "dns_set_hosts_path", 1);
  hosts_path = path;
  hosts_stamp = -1;
  hosts_size = -1;
}

int dns_pending_count() {
  MutexGuard g(dns_mutex, "dns_pending_count", 1);
  return static_cast<int>(requests.size());
}

void dns_serve_sockets() {
  drain(socket4);
  drain(socket6);
}

int dns_socket_port(bool ipv6) {
  UdpSocket& s = ipv6 ? socket6 : socket4;
  return s.valid() ? s.port : 0;
}
