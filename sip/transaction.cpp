#include "sip/transaction.h"

#include <algorithm>
#include <map>
#include <vector>

#include "core/command_line.h"
#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/random.h"
#include "sip/branch.h"
#include "sip/internal/sip_log.h"
#include "sip/digest.h"
#include "sip/dns_lines.h"
#include "sip/dns_message.h"
#include "sip/sip_hooks.h"
#include "sip/sip_params.h"
#include "sip/sip_send.h"
#include "sip/sip_tcp.h"

namespace {

std::multimap<String, PendingRef> pending;
PendingPacket* oldest = nullptr;
PendingPacket* newest = nullptr;
struct DialogCSeq {
  uint32_t next;
  uint32_t last_invite;
};
std::map<String, DialogCSeq> dialog_cseq;
int link_count = 0;
ResponseSink response_sink = nullptr;
SipResolver resolver;

PendingRef ref_of(const CallbackObject& o) { return std::static_pointer_cast<PendingPacket>(o); }

void route_pending_packet(const PendingRef& p);
void resend_packet(const CallbackObject& o);

bool is_literal(const String& host) { return !parse_adr(host).empty(); }

// The "SIP/2.0/XXX" of our own top Via gets the word of the transport chosen now.
void set_via_transport(SipMessage& m, const String& word) {
  if (!m.is_request || m.via.empty()) return;
  String& v = m.via[0];
  int slash = v.find(String("SIP/2.0/"));
  if (slash != 0) return;
  int end = v.find(' ');
  if (end < 0) return;
  v = String("SIP/2.0/") + word.to_upper() + v.tail(end);
}

void send_a_packet(const PendingRef& p) {
  if (!p->message) return;  // let go: only its text is left, and that went out already
  SipMessage& m = *p->message;
  String word = p->transport.empty() ? String("udp") : p->transport;
  if (word != "udp" && word != "tcp" && word != "tls") {
    log_sip(4, "send_a_packet: Transport %s not supported", word);
    return;
  }
  set_via_transport(m, word);
  Transport over = word == "tcp" ? Transport::tcp : word == "tls" ? Transport::tls : Transport::udp;
  p->tagged = m.serialise(over);
  SendOrder order;
  order.socket_key = p->socket_key;
  order.message = p->tagged;
  order.destination = p->target;
  order.transport = word;
  order.whitelist = m.is_request ? m.port_index >= 0 : (m.status >= 180 && m.status < 300);
  post_send_order(order);
}

void arm_retransmission(const PendingRef& p) {
  if (!p->retransmit || p->transport != "udp") return;
  p->interval_units = 1;
  p->resend_due = Tick::now().plus_ms(500);
  p->retransmit_timer.callback_at(service_queue, p->resend_due, callback_argument(resend_packet, CallbackObject(p)));
}

// A response built here when a request can't go anywhere; it takes the path of a
// received response so that the caller sees one way for remote and local failure.
void local_response(const PendingRef& p, int status, const char* reason) {
  if (!p->is_request || p->method == method_ack || !p->first_message) return;
  SipMessage r(status, String(reason), *p->first_message);
  r.received = String("local");
  if (response_sink) response_sink(r);
}

void resend_packet(const CallbackObject& o) {
  PendingRef p = ref_of(o);
  must_own(srv_run_mutex, "resend_packet", 1);
  if (p->final_seen) return;
  if (p->retransmit && !p->target.empty() && p->transport == "udp" && p->method != method_discover) {
    // Requests other than INVITE stop doubling at 4 s; INVITE goes on until its life ends.
    if (!p->is_request || p->method == method_invite || p->interval_units < 8) p->interval_units *= 2;
    post_send_order([&] {
      SendOrder order;
      order.socket_key = p->socket_key;
      order.message = p->tagged;
      order.destination = p->target;
      order.transport = p->transport;
      return order;
    }());
    // Counted from when this send was due, not from when the timer got to run, so that
    // the schedule doesn't drift by the delay of each wake-up.
    p->resend_due = p->resend_due.plus_ms(static_cast<int64_t>(p->interval_units) * 500);
    p->retransmit_timer.callback_at(service_queue, p->resend_due, callback_argument(resend_packet, o));
    return;
  }
  route_pending_packet(p);
}

void pending_packet_timeout(const CallbackObject& o) {
  PendingRef p = ref_of(o);
  must_own(srv_run_mutex, "pending_packet_timeout", 1);
  p->retransmit_timer.clear();
  if (p->is_request && !p->final_seen) {
    local_response(p, 408, "Request Timeout");
  } else if (!p->is_request && !p->final_seen && p->cseq_method == method_invite && p->status >= 200) {
    log_sip(4, "Did not receive ACK, disconnecting call %s", p->call_id);
  }
  erase_pending_packet(p, p->call_id);
}

void age_link(PendingPacket* p) {
  p->older = newest;
  p->newer = nullptr;
  if (newest) newest->newer = p;
  else oldest = p;
  newest = p;
}

void age_unlink(PendingPacket* p) {
  if (p->older) p->older->newer = p->newer;
  else if (oldest == p) oldest = p->newer;
  else return;  // not in the list
  if (p->newer) p->newer->older = p->older;
  else newest = p->older;
  p->older = p->newer = nullptr;
}

// Removes `p` from the table and from the age list; it may die here.
void unlink_pending(const PendingRef& p, const String& call_id) {
  age_unlink(p.get());
  auto range = pending.equal_range(call_id);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == p) {
      pending.erase(it);
      break;
    }
  }
}

void link_pending_packet(const String& call_id, const PendingRef& p) {
  if (++link_count % 16 == 0) {
    log_sip(9, "%d callids pending", static_cast<int>(pending.size()));
    // Packets whose timers were lost would stay for ever; the age list is in order of
    // creation, so only the expired ones at its head are looked at.
    Tick now = Tick::now();
    while (oldest && sec(now, oldest->created) > 600) {
      PendingRef expired = oldest->shared_from_this();
      log_sip(5, String("Found expired pending packet"));
      expired->retransmit_timer.clear();
      expired->life_timer.clear();
      unlink_pending(expired, expired->call_id);
    }
  }
  pending.emplace(call_id, p);
  age_link(p.get());
}

PendingRef make_pending(SipMessage&& m) {
  auto p = std::make_shared<PendingPacket>();
  p->created = Tick::now();
  p->socket_key = m.socket_key;
  p->call_id = m.call_id;
  p->from_tag = m.from.tag();
  p->cseq = m.cseq;
  p->method = m.method;
  p->cseq_method = m.cseq_method;
  p->status = m.status;
  p->is_request = m.is_request;
  p->tls_only = m.tls_only;
  p->credentials = std::move(m.credentials);
  m.credentials.clear();
  int64_t life = m.timeout > 0 ? static_cast<int64_t>(m.timeout) * 1000 : pending_life_ms;
  if (m.is_request) p->first_message = std::make_unique<SipMessage>(m);
  p->message = std::make_unique<SipMessage>(static_cast<SipMessage&&>(m));
  p->life_timer.callback(service_queue, life, callback_argument(pending_packet_timeout, CallbackObject(p)));
  link_pending_packet(p->call_id, p);
  return p;
}

void push_lines_front(const PendingRef& p, const std::vector<String>& lines) {
  for (auto it = lines.rbegin(); it != lines.rend(); ++it) p->resolve_list.insert(p->resolve_list.begin(), *it);
}

// "url <uri>": the lines that reach the URI's host.
void expand_url(const PendingRef& p, const String& uri_text) {
  SipUri uri(uri_text);
  String transport = uri_param(uri, String("transport")).to_lower();
  bool tls = transport == "tls" || uri.scheme().equals_nocase("sips");
  String word = tls ? String("tls") : transport == "tcp" ? String("tcp") : String("udp");
  String host = uri.host();
  if (host.starts_with(String("["))) host = host.substr(1, host.length() - 2);
  String port = uri.port();
  std::vector<String> lines;
  if (is_literal(host)) {
    lines.push_back(format("%s %s %d", word, host, port.empty() ? (tls ? 5061 : 5060) : port.to_int()));
  } else if (!port.empty()) {
    if (startup_options.use_ipv6) lines.push_back(format("aaaa %s %s %s", word, host, port));
    if (startup_options.use_ipv4) lines.push_back(format("a %s %s %s", word, host, port));
  } else {
    // No port: the domain's NAPTR and SRV records say where its SIP service is.
    String wanted = tls ? String("tls") : transport == "tcp" || transport == "udp" ? transport : String();
    lines.push_back(wanted.empty() ? format("naptr %s", host) : format("naptr %s %s", host, wanted));
  }
  push_lines_front(p, lines);
}

void retry_route(const CallbackObject& o) { route_pending_packet(ref_of(o)); }

// The record text of a DNS name, or false after asking: the line stays in the list and the
// answer's callback routes the packet again.
bool dns_text(const PendingRef& p, const String& name, int type, String& text) {
  if (!resolver.lookup) return true;  // no DNS at all: as good as no record
  if (resolver.lookup(name, type, text)) return true;
  if (resolver.request) resolver.request(name, type, retry_route, CallbackObject(p));
  return false;
}

// What ENUM expressions are applied to: the user and host of the request's URI.
String enum_subject(const PendingRef& p) {
  if (!p->message) return String();
  const SipUri& uri = p->message->request_uri;
  return uri.user().empty() ? uri.host() : format("%s@%s", uri.user(), uri.host());
}

// One step of the NAPTR, SRV or address look-up of the line in front; false when the
// packet waits for DNS.
bool resolve_line(const PendingRef& p, const String& verb, const String& line) {
  if (verb == "naptr" || verb == "enum") {
    bool is_enum = verb == "enum";
    String host = line.word(1, ' '), wanted = is_enum ? String() : line.word(2, ' ');
    String records;
    if (!dns_text(p, host, dns_naptr, records)) return false;
    p->resolve_list.erase(p->resolve_list.begin());
    if (!records.empty()) push_lines_front(p, naptr_lines(records, wanted, is_enum, enum_subject(p)));
    else if (!is_enum) push_lines_front(p, naptr_fallback_lines(host, wanted, 0));
    return true;
  }
  if (verb == "srv") {
    String transport = line.word(1, ' '), name = line.word(2, ' ');
    String records;
    if (!dns_text(p, name, dns_srv, records)) return false;
    p->resolve_list.erase(p->resolve_list.begin());
    int names = 0;
    std::vector<String> lines = srv_lines(records, transport, startup_options.use_ipv4, startup_options.use_ipv6, names);
    // Every target name costs up to four more lines (its look-ups and the send).
    if (p->method != method_discover)
      for (int i = 0; i < names && p->max_iterations < 100; i++) p->max_iterations += 4;
    push_lines_front(p, lines);
    return true;
  }
  // "a" and "aaaa": transport, host, port.
  String word = line.word(1, ' '), host = line.word(2, ' '), port = line.word(3, ' ');
  if (port.empty()) port = String("5060");
  if (host.starts_with(String("[")) && host.ends_with(String("]"))) host = host.substr(1, host.length() - 2);
  String adr = parse_adr(host);
  bool v6 = verb == "aaaa";
  if (!adr.empty() && (adr.length() == 16) != v6) {
    p->resolve_list.erase(p->resolve_list.begin());
    return true;
  }
  if (adr.empty()) {
    String text;
    if (!dns_text(p, host, v6 ? dns_aaaa : dns_a, text)) return false;
    adr = parse_adr(text.word(0, '\n').word(0, ' '));
    if (!adr.empty() && (adr.length() == 16) != v6) adr = String();
  }
  p->resolve_list.erase(p->resolve_list.begin());
  if (!adr.empty()) p->resolve_list.insert(p->resolve_list.begin(), format("%s %s %s", word, adr_text(adr), port));
  return true;
}

void route_pending_packet(const PendingRef& p) {
  while (!p->resolve_list.empty()) {
    String line = p->resolve_list.front();
    log_sip(9, "Resolve %d: %s", p->iterations, line);
    if (++p->iterations > p->max_iterations) {
      log_sip(2, "Cannot route packet %d (too many iterations): %s", p->iterations, line);
      p->resolve_list.clear();
      break;
    }
    String verb = line.word(0, ' ');
    if (verb == "udp" || verb == "tcp" || verb == "tls") {
      p->resolve_list.erase(p->resolve_list.begin());
      if (verb == "udp" && p->tls_only) continue;
      p->target = Address(parse_adr(line.word(1, ' ')), line.word(2, ' ').to_int());
      p->transport = verb;
      send_a_packet(p);
      arm_retransmission(p);
      // A response that won't go again by itself is answered from its text alone.
      if (!p->is_request && !p->retransmit) p->message.reset();
      return;
    }
    if (verb == "url") {
      p->resolve_list.erase(p->resolve_list.begin());
      expand_url(p, line.words_from(1, ' '));
      continue;
    }
    if (verb == "a" || verb == "aaaa" || verb == "srv" || verb == "naptr" || verb == "enum") {
      if (!resolve_line(p, verb, line)) return;
      continue;
    }
    log_sip(2, "Internal error: Unknown DNS resolve type %s", verb);
    p->resolve_list.erase(p->resolve_list.begin());
  }
  log_sip(3, "Could not determine destination address on %d", p->iterations);
  if (p->is_request && p->method != method_ack) {
    p->final_seen = true;
    local_response(p, 404, "Not Found");
    erase_pending_packet(p, p->call_id);
  }
}

struct ViaParts {
  String protocol, host, port, rport, received, maddr;
};

ViaParts read_via(const String& via) {
  ViaParts v;
  v.protocol = via.word(0, ' ');
  String rest = via.words_from(1, ' ');
  int semi = rest.find(';');
  String sent_by = (semi >= 0 ? rest.head(semi) : rest).trim();
  v.host = host_part(sent_by);
  v.port = port_part(sent_by);
  String params = semi >= 0 ? rest.tail(semi) : String();
  v.rport = param_value(params, String("rport"), ';');
  v.received = param_value(params, String("received"), ';');
  v.maddr = param_value(params, String("maddr"), ';');
  return v;
}

void send_response(SipMessage&& m) {
  // A new response replaces the one pending for the same transaction.
  String from_tag = m.from.tag();
  auto range = pending.equal_range(m.call_id);
  std::vector<PendingRef> replaced;
  for (auto it = range.first; it != range.second; ++it) {
    PendingPacket& q = *it->second;
    if (q.is_request || q.cseq != m.cseq || q.cseq_method != m.cseq_method || q.from_tag != from_tag)
      continue;
    replaced.push_back(it->second);
  }
  for (const PendingRef& q : replaced) erase_pending_packet(q, m.call_id);
  if (m.via.empty()) {
    log_sip(3, "Via is empty for %s, cannot send reply to %s", m.call_id, m.received);
    return;
  }
  if (m.cseq_method == method_invite && m.status >= 180 && m.status < 300) {
    // A ringing or answered call must not lose its connection to the idle limit.
    String kind = m.socket_key.word(0, ':');
    if (kind == "tcp" || kind == "tls") post_idle_limit(m.socket_key, sip_setting(String("max_call_duration")).to_int());
  }
  ViaParts via = read_via(m.via[0]);
  String word = via.protocol.to_lower();
  if (word == "sip/2.0/udp") word = String("udp");
  else if (word == "sip/2.0/tcp") word = String("tcp");
  else if (word == "sip/2.0/tls") word = String("tls");
  else {
    log_sip(3, "Unsupported transport layer in %s", m.via[0]);
    word = via.protocol.words_from(2, '/').to_lower();
  }
  int port = via.port.is_int() ? via.port.to_int() : (word == "tls" ? 5061 : 5060);
  if (via.rport.is_int()) port = via.rport.to_int();
  bool retransmit = m.cseq_method == method_invite && (m.status >= 200 || (m.status >= 180 && !m.header(String("RSeq")).empty()));
  PendingRef p = make_pending(static_cast<SipMessage&&>(m));
  p->retransmit = retransmit;
  if (!via.maddr.empty()) {
    p->resolve_list.push_back(format("aaaa %s %s %d", word, via.maddr, port));
    p->resolve_list.push_back(format("a %s %s %d", word, via.maddr, port));
  } else if (!via.received.empty()) {
    p->resolve_list.push_back(format("%s %s %d", word, via.received, port));
  } else {
    p->resolve_list.push_back(format("aaaa %s %s %d", word, via.host, port));
    p->resolve_list.push_back(format("a %s %s %d", word, via.host, port));
  }
  route_pending_packet(p);
}

// The pending INVITE that a CANCEL is for: same Call-ID, CSeq number and From tag.
PendingRef pending_invite_of(const SipMessage& cancel) {
  auto range = pending.equal_range(cancel.call_id);
  for (auto it = range.first; it != range.second; ++it) {
    const PendingPacket& q = *it->second;
    if (q.is_request && q.method == method_invite && q.cseq == cancel.cseq && q.from_tag == cancel.from.tag())
      return it->second;
  }
  return PendingRef();
}

// The ENUM name of a telephone number: its digits reversed, one label each, under
// "e164.arpa"; empty for anything that isn't a number.
String enum_domain(const String& user) {
  String digits = user.starts_with(String("+")) ? user.tail(1) : user;
  if (digits.empty() || digits.length() > 32) return String();
  String out;
  for (int i = digits.length() - 1; i >= 0; i--) {
    char c = digits[i];
    if (c < '0' || c > '9') return String();
    out.append(String(&c, 1));
    out.append(String("."));
  }
  out.append(String("e164.arpa"));
  return out;
}

void send_request(SipMessage&& m) {
  if (m.method != method_notify || m.cseq == 0) {
    String key = m.from.tag().empty() ? m.call_id : format("%s %s", m.call_id, m.from.tag());
    auto found = dialog_cseq.find(key);
    if (found == dialog_cseq.end()) {
      if (m.method == method_notify)
        log_sip(4, "Unregistered subscription %s (tag=%s)", m.call_id, m.from.tag());
      found = dialog_cseq.emplace(key, DialogCSeq{random_below(32768) + 1, 0}).first;
    }
    if (m.method == method_ack || m.method == method_cancel) {
      m.cseq = found->second.last_invite ? found->second.last_invite : m.cseq;
    } else {
      m.cseq = found->second.next++;
      if (m.method == method_invite) found->second.last_invite = m.cseq;
    }
  }
  if (m.from.raw().empty() || m.to.raw().empty() || m.call_id.empty()) {
    const char* missing = m.from.raw().empty() ? "From" : m.to.raw().empty() ? "To" : "Call-ID";
    log_sip(3, "send_packet %s: %s missing %s", m.method, missing, m.call_id);
    return;
  }
  String kind = m.socket_key.word(0, ':');
  bool connection = kind == "tcp" || kind == "tls" || kind == "ctcp" || kind == "ctls";
  set_via_suffix(m);
  PendingRef cancelled = m.method == method_cancel ? pending_invite_of(m) : PendingRef();
  if (cancelled && cancelled->message) m.via_suffix = cancelled->message->via_suffix;
  String via_word = connection ? (kind == "tcp" || kind == "ctcp" ? String("TCP") : String("TLS")) : String("XXX");
  String via = sip_setting(String("no_rport")) == "true" || m.method == method_options
                   ? format("SIP/2.0/%s {x-pre-adr}:{x-pre-port}%s", via_word, m.via_suffix)
                   : format("SIP/2.0/%s {x-pre-adr}:{x-pre-port}%s;rport", via_word, m.via_suffix);
  SmallList<String, 4> vias;
  vias.push_back(via);
  m.via = static_cast<SmallList<String, 4>&&>(vias);
  bool retransmit = m.method != method_ack;
  PendingRef p = make_pending(static_cast<SipMessage&&>(m));
  p->retransmit = retransmit && !connection;
  if (connection) {
    p->transport = kind == "tcp" || kind == "ctcp" ? String("tcp") : String("tls");
    send_a_packet(p);
    return;
  }
  SipMessage& msg = *p->message;
  if (!msg.preset_routes.empty()) {
    for (const String& line : msg.preset_routes.split('\n')) {
      String l = line.trim();
      if (l.empty()) continue;
      p->resolve_list.push_back(l);
      p->max_iterations = std::min(100, p->max_iterations + 4);
    }
    route_pending_packet(p);
    return;
  }
  if (cancelled) {
    // A CANCEL must reach the very hop that has the INVITE.
    if (!cancelled->target.empty())
      p->resolve_list.push_back(format("%s %s %d", cancelled->transport.empty() ? String("udp") : cancelled->transport,
                                       adr_text(cancelled->target.adr), cancelled->target.port));
  }
  String target;
  String enum_name;
  if (!msg.route.empty() && !msg.ignore_route) target = msg.route[0].uri().text();
  else if (msg.proxy == "sip:loopback") p->resolve_list.push_back(String("udp 127.0.0.1 5060"));
  else if (!msg.proxy.empty()) target = msg.proxy.contains(':') ? msg.proxy : String("sip:") + msg.proxy;
  else if (uri_param(msg.request_uri, String("enum")) == "true" && !(enum_name = enum_domain(msg.request_uri.user())).empty()) {
    log_sip(7, "Converting phone %s into %s", msg.request_uri.user(), enum_name);
    p->resolve_list.push_back(String("enum ") + enum_name);
  } else target = msg.request_uri.text();
  if (!target.empty()) {
    SipUri uri(target);
    String maddr = uri_param(uri, String("maddr"));
    if (maddr.empty()) {
      p->resolve_list.push_back(String("url ") + target);
    } else {
      String transport = uri_param(uri, String("transport")).to_lower();
      if (transport.empty()) transport = String("udp");
      int port = uri.port().is_int() ? uri.port().to_int() : transport == "tls" ? 5061 : 5060;
      p->resolve_list.push_back(format("aaaa %s %s %d", transport, maddr, port));
      p->resolve_list.push_back(format("a %s %s %d", transport, maddr, port));
    }
  }
  route_pending_packet(p);
}

}  // namespace

void set_local_response_sink(ResponseSink sink) { response_sink = sink; }
void set_sip_resolver(const SipResolver& r) { resolver = r; }

void send_packet(SipMessage message) {
  must_own(srv_run_mutex, "send_packet", 1);
  if (message.is_request) send_request(static_cast<SipMessage&&>(message));
  else send_response(static_cast<SipMessage&&>(message));
}

void erase_pending_packet(const PendingRef& p, const String& call_id) {
  unlink_pending(p, call_id);
  p->retransmit_timer.clear();
  p->life_timer.clear();
}

int pending_packet_count() { return static_cast<int>(pending.size()); }

void clear_pending_packets() {
  for (auto& [id, p] : pending) {
    p->retransmit_timer.clear();
    p->life_timer.clear();
  }
  for (auto& [id, p] : pending) p->older = p->newer = nullptr;
  pending.clear();
  oldest = newest = nullptr;
  dialog_cseq.clear();
}

namespace {

// The first challenge of the scheme Digest among the values of a header.
String digest_challenge(const std::vector<String>& values) {
  for (const String& v : values)
    if (v.trim().word(0, ' ').equals_nocase(String("Digest"))) return v.trim();
  return String();
}

// A request of ours that a peer challenged goes again, once, with the answer; an INVITE
// first acknowledges the challenge. The challenge itself goes no further.
bool answer_challenge(const PendingRef& p, const SipMessage& response) {
  if (response.status < 400 || response.status > 499 || p->credentials.empty() || p->auth_attempts != 0)
    return false;
  bool proxy = false;
  String challenge = digest_challenge(response.header_values(hdr_www_authenticate));
  if (challenge.empty()) {
    challenge = digest_challenge(response.header_values(hdr_proxy_authenticate));
    proxy = true;
  }
  if (challenge.empty()) return false;
  const Credential& credential = p->credentials.front();
  log_sip(5, "Answer challenge with username %s", credential.user);
  p->auth_attempts++;
  if (!p->first_message) return false;
  SipMessage again = *p->first_message;
  again.remove_header(hdr_authorization);
  again.remove_header(hdr_proxy_authorization);
  again.add_header(proxy ? hdr_proxy_authorization : hdr_authorization,
                   answer_challenge_header(challenge, again.method, again.request_uri.text(), credential,
                                           again.from.uri().host()));
  again.socket_key = p->socket_key;
  if (!p->transport.empty() && !p->target.empty())
    again.preset_routes = format("%s %s %d %s", p->transport, adr_text(p->target.adr), p->target.port, p->socket_key);
  if (again.method == method_invite) {
    SipMessage ack(method_ack, again.from, response.to, again.call_id, String());
    ack.request_uri = again.request_uri;
    ack.route = again.route;
    ack.ignore_route = again.ignore_route;
    ack.proxy = again.proxy;
    ack.preset_routes = again.preset_routes;
    ack.socket_key = again.socket_key;
    ack.cseq = response.cseq;
    ack.invite_related = true;
    send_request(static_cast<SipMessage&&>(ack));
  }
  send_request(static_cast<SipMessage&&>(again));
  return true;
}

}  // namespace

bool message_repetition(const SipMessage& m) {
  auto range = pending.equal_range(m.call_id);
  std::vector<PendingRef> same;
  String from_tag = m.from.tag();
  for (auto it = range.first; it != range.second; ++it)
    if (it->second->from_tag == from_tag) same.push_back(it->second);
  for (const PendingRef& p : same) {
    if (p->cseq != m.cseq) continue;
    if (!m.is_request) {
      if (p->is_request && p->method == method_ack && m.cseq_method == method_invite) {
        send_a_packet(p);
        return true;
      }
      if (p->is_request && p->cseq_method == m.cseq_method) {
        if (m.status >= 200) p->final_seen = true;
        p->retransmit_timer.clear();
        if (answer_challenge(p, m)) return true;
        return m.status < 180;
      }
      continue;
    }
    if (m.method == method_ack) {
      if (!p->is_request && p->cseq_method == method_invite) {
        p->final_seen = true;
        p->retransmit_timer.clear();
      }
      continue;
    }
    if (!p->is_request && p->cseq_method == m.method && !p->retransmit_timer.armed()) {
      // A request we answered already: over UDP the stored answer goes out again.
      if (p->transport == "udp" && !p->tagged.empty()) {
        SendOrder order;
        order.socket_key = p->socket_key;
        order.message = p->tagged;
        order.destination = p->target;
        order.transport = p->transport;
        post_send_order(order);
      }
      return true;
    }
  }
  return false;
}

void stop_message_repetition(const String& call_id, uint32_t cseq, const String& method) {
  auto range = pending.equal_range(call_id);
  for (auto it = range.first; it != range.second; ++it) {
    PendingPacket& p = *it->second;
    if (!p.is_request && p.status < 200 && p.cseq == cseq && p.cseq_method == method)
      p.retransmit_timer.clear();
  }
}
