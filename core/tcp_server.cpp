#include "core/tcp_server.h"

#include <map>
#include <vector>

#include "core/access_hooks.h"
#include "core/format.h"
#include "core/location_scope.h"
#include "core/log.h"
#include "core/statistics.h"

namespace {

struct Listener {
  ListenerKind kind;
  bool tls;
  Address address;
  TcpSocket socket;
};

struct KindHandlers {
  TcpInput on_input = nullptr;
  TcpClosed on_closed = nullptr;
};

std::vector<Listener> listeners;
std::map<int, std::unique_ptr<TcpConnection>> connections;
std::map<int, KindHandlers> handlers;
int next_number = 1;  // the connection counter

void log_web(int level, const String& text) {
  if (log_enabled(LOG_WEBSERVER, level)) log_add_message_global(LOG_WEBSERVER, level, 0, text);
}

int setting_int(const char* name, int fallback) {
  String v = core_setting(name);
  return v.is_int() ? v.to_int() : fallback;
}

void erase_connection(int number) {
  auto found = connections.find(number);
  if (found == connections.end()) return;
  std::unique_ptr<TcpConnection> c = std::move(found->second);
  connections.erase(found);
  c->idle.clear();
  auto h = handlers.find(static_cast<int>(c->kind));
  if (h != handlers.end() && h->second.on_closed && !c->blocked) h->second.on_closed(*c);
  c->socket.close();
}

void idle_expired(int number) { erase_connection(number); }

void accept_one(Listener& l) {
  LocationScope scope("HTTP fork");
  int limit = setting_int("http_threads", 1000);
  int current = static_cast<int>(connections.size());
  if (current >= limit) {
    TcpSocket throwaway;
    if (throwaway.accept(l.socket)) throwaway.close();
    log_web(3, format("Current number of requests %d has reached maximum %d, connections not accepted", current, limit));
    return;
  }
  auto c = std::make_unique<TcpConnection>();
  c->number = next_number;
  c->kind = l.kind;
  c->tls = l.tls;
  if (!c->socket.accept(l.socket)) return;
  if (c->socket.peer().empty()) {
    log_web(3, String("Could not accept connection"));
    return;
  }
  int access_class = l.kind == ListenerKind::sip ? 2 : 3;
  Address peer = c->socket.peer();
  int access = acl_hook_check(peer, access_class);
  if (access < 0) {
    int delay = setting_int("max_tcp_keep", 1000) * (limit - current) / (limit > 0 ? limit : 1);
    log_web(8, format("Accept connection from blacklisted address %s for %d ms", address_text(c->socket.peer()), delay));
    if (delay < 10) return;
    c->blocked = true;
    c->idle.callback(control_queue, delay, callback_argument(idle_expired, c->number));
  } else {
    log_web(9, format("Accept connection %d from %s", c->number, address_text(c->socket.peer())));
    if (access == 0) acl_hook_penalty(peer, access_class, 2, "accept");
    int idle_seconds = l.kind == ListenerKind::sip ? 8 : l.kind == ListenerKind::ftp ? 3 : setting_int("web_timeout", 60);
    if (l.kind == ListenerKind::ftp) {
      (void)c->socket.send(String("220 Qomra PBX.\r\n"));
      log_web(8, String("FTP: > 220 Qomra PBX."));
    }
    c->idle.callback(control_queue, idle_seconds * 1000, callback_argument(idle_expired, c->number));
  }
  next_number++;
  usage_add(String("tcp_syn"));
  int number = c->number;
  connections[number] = std::move(c);
}

void add_listeners(PollSet& set) {
  for (Listener& l : listeners) set.add(l.socket.fd(), true, false);
}

void serve_listeners(PollSet& set, Tick) {
  for (Listener& l : listeners)
    if (set.readable(l.socket.fd())) accept_one(l);
}

void add_connections(PollSet& set) {
  for (auto& [number, c] : connections) {
    if (c->blocked) continue;
    set.add(c->socket.fd(), true, c->socket.pending_output());
  }
}

void serve_connections(PollSet& set, Tick now) {
  std::vector<int> ended;
  // A handler may open or close connections, so walk a snapshot of the numbers.
  std::vector<int> numbers;
  for (auto& [number, c] : connections) numbers.push_back(number);
  for (int number : numbers) {
    auto found = connections.find(number);
    if (found == connections.end()) continue;
    TcpConnection& c = *found->second;
    if (c.blocked) continue;
    LocationScope scope("TCP loop");
    int fd = c.socket.fd();
    if (set.readable(fd)) {
      String bytes = c.socket.receive();
      if (bytes.empty() && !c.socket.would_block()) {
        ended.push_back(number);
        continue;
      }
      auto h = handlers.find(static_cast<int>(c.kind));
      if (!bytes.empty() && h != handlers.end() && h->second.on_input) h->second.on_input(c, bytes, now);
    }
    if (set.writable(fd) && c.socket.pending_output()) (void)c.socket.send(String());
    if (c.close_requested && !c.socket.pending_output()) ended.push_back(number);
  }
  for (int number : ended) erase_connection(number);
}

}  // namespace

void register_tcp_kind(ListenerKind kind, TcpInput on_input, TcpClosed on_closed) {
  handlers[static_cast<int>(kind)] = KindHandlers{on_input, on_closed};
}

void apply_tcp_listeners(ListenerKind kind, bool tls, const String& setting, int default_port) {
  std::vector<Address> wanted;
  for (const String& item : setting.split(' ')) {
    String port_text = port_part(item);
    bool bare = port_text.empty() && !item.contains(':') && !item.contains('.');
    int port = (bare ? item : port_text).to_int();
    if (port < 1 || port > 65535) {
      if (log_enabled(LOG_GENERAL, 1))
        log_add_message_global(LOG_GENERAL, 1, 0, format("HTTP: Port number %d is invalid, taking %d instead", port, default_port));
      port = default_port;
    }
    if (bare) {
      wanted.push_back(Address(any_ipv4, port));
      wanted.push_back(Address(any_ipv6, port));
    } else {
      String adr = parse_adr(host_part(item));
      if (!adr.empty()) wanted.push_back(Address(adr, port));
    }
  }
  for (size_t i = 0; i < listeners.size();) {
    Listener& l = listeners[i];
    bool keep = l.kind != kind || l.tls != tls;
    for (const Address& a : wanted) keep = keep || a == l.address;
    if (keep) {
      i++;
      continue;
    }
    log_web(5, format("Removing TCP port %d", l.address.port));
    listeners.erase(listeners.begin() + static_cast<long>(i));
  }
  for (const Address& a : wanted) {
    bool have = false;
    for (const Listener& l : listeners) have = have || (l.kind == kind && l.tls == tls && l.address == a);
    if (have) continue;
    Listener l{kind, tls, a, TcpSocket()};
    if (!l.socket.listen(a.port, a.adr)) {
      log_web(1, format("Could not open TCP port %d", a.port));
      continue;
    }
    listeners.push_back(l);
  }
}

int tcp_listener_port(ListenerKind kind, bool tls, bool ipv6) {
  for (const Listener& l : listeners)
    if (l.kind == kind && l.tls == tls && l.address.is_ipv6() == ipv6) return l.socket.port();
  return 0;
}

TcpConnection* tcp_connection(int number) {
  auto found = connections.find(number);
  return found == connections.end() ? nullptr : found->second.get();
}

int tcp_connection_count() { return static_cast<int>(connections.size()); }

bool tcp_send(int number, const String& text) {
  TcpConnection* c = tcp_connection(number);
  return c && !c->blocked && c->socket.send(text);
}

void tcp_close(int number) {
  TcpConnection* c = tcp_connection(number);
  if (!c) return;
  c->close_requested = true;
  // With nothing left to send, the connection goes right after the current handler.
  if (!c->socket.pending_output()) c->idle.callback(control_queue, 0, callback_argument(idle_expired, number));
}

void tcp_keep_alive(TcpConnection& c, int seconds) {
  c.idle.callback(control_queue, static_cast<int64_t>(seconds) * 1000, callback_argument(idle_expired, c.number));
}

LoopParty tcp_connection_party() { return LoopParty{100, add_connections, serve_connections}; }
LoopParty tcp_listener_party() { return LoopParty{110, add_listeners, serve_listeners}; }

void tcp_server_reset() {
  while (!connections.empty()) erase_connection(connections.begin()->first);
  listeners.clear();
  next_number = 1;
}
