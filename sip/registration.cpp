#include "sip/registration.h"

#include <ctime>
#include <map>

#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/random.h"
#include "core/tagged_text.h"
#include "core/version.h"
#include "sip/request_routing.h"
#include "sip/sip_receive.h"
#include "sip/sip_hooks.h"
#include "sip/sip_params.h"
#include "sip/transaction.h"

namespace {

constexpr int max_waiting = 10;

std::map<String, RegistrationRef> records;
std::multimap<String, String> by_source;  // "transport:address text" to Call-ID

void log_reg(int level, const String& text) {
  if (log_enabled(LOG_REGISTER, level)) log_add_message_global(LOG_REGISTER, level, 0, text);
}

int setting_int(const char* name, int fallback) {
  String v = sip_setting(String(name));
  return v.is_int() ? v.to_int() : fallback;
}

String transport_word(const SipMessage& m) {
  return m.transport == Transport::tcp ? String("tcp") : m.transport == Transport::tls ? String("tls") : String("udp");
}

String source_key(const String& transport, const Address& a) {
  return format("%s:%s", transport, address_text(a));
}

void remove_record(const CallbackObject& o) {
  RegistrationRef r = std::static_pointer_cast<Registration>(o);
  must_own(srv_run_mutex, "remove_registration", 1);
  auto range = by_source.equal_range(source_key(r->transport, r->address));
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == r->call_id) {
      by_source.erase(it);
      break;
    }
  }
  TaggedText t;
  (void)t.add(rec_call_id, r->call_id);
  TaggedText outer;
  (void)outer.add(tag_registration_removed, t);
  out_post(outer.text());
  r->removal_timer.clear();
  records.erase(r->call_id);
}

void arm_removal(const RegistrationRef& r, int64_t ms) {
  r->removal_timer.callback(service_queue, ms, callback_argument(remove_record, CallbackObject(r)));
}

// The Contact that the record binds: the first with the scheme "sip" or "sips" that isn't
// being removed by its own `expires` of 0.
const NameAddr* bound_contact(const SipMessage& m) {
  for (const NameAddr& c : m.contact) {
    const String& scheme = c.uri().scheme();
    if ((scheme.equals_nocase("sip") || scheme.equals_nocase("sips")) && uri_param(c.uri(), String("expires")) != "0")
      return &c;
  }
  return nullptr;
}

String the_contact(const SipMessage& m) {
  const NameAddr* c = bound_contact(m);
  return c ? c->text() : String();
}

bool lone_star(const SipMessage& m) { return m.contact.size() == 1 && m.contact[0].raw().trim() == "*"; }

// The expiry the request asks for, as text: a value that isn't a number goes on to the
// control half, which names it in the log.
String requested_expires(const SipMessage& m) {
  String header = m.expires.trim();
  if (m.method == method_subscribe) return header.empty() ? String("3600") : header;
  if (const NameAddr* c = bound_contact(m)) {
    String e = uri_param(c->uri(), String("expires"));
    if (e.empty()) e = nameaddr_param(*c, String("expires"));
    if (!e.empty()) return e.trim();
  }
  return header.empty() ? String("3600") : header;
}

// A numeric expiry in seconds; what doesn't fit in nine digits is held at a billion
// seconds (or -1), so that no value wraps round into a short or negative one.
int expiry_seconds(const String& text) {
  String digits = text.trim();
  bool negative = digits.starts_with(String("-"));
  if (negative) digits = digits.tail(1);
  digits = digits.trim_left('0');
  if (digits.length() > 9) return negative ? -1 : 1000000000;
  return negative ? -digits.to_int() : digits.to_int();
}

// The http or https address that a phone offers for its own web page: WWW-Contact first,
// then Contact entries. The first wins, but https replaces http.
String web_address(const SipMessage& m) {
  String found;
  auto consider = [&found](String uri) {
    uri = uri.trim();
    if (uri.starts_with(String("<"))) {
      int close = uri.find('>');
      uri = close > 0 ? uri.substr(1, close - 1) : uri.tail(1);
    }
    String scheme = uri.word(0, ':').to_lower();
    if (scheme != "http" && scheme != "https") return;
    if (found.empty() || (scheme == "https" && found.starts_with_nocase(String("http:")))) found = uri;
  };
  for (const String& w : m.header_values(String("WWW-Contact"))) consider(w);
  for (const NameAddr& c : m.contact) consider(c.uri().text());
  return found;
}

// Options of Proxy-Require that this registrar doesn't know; they are named back in a
// Require header.
String unknown_options(const String& proxy_require) {
  String out;
  for (const String& raw : proxy_require.split(',')) {
    String option = raw.trim();
    if (option.empty() || option.equals_nocase("path") || option.equals_nocase("outbound")) continue;
    if (!out.empty()) out.append(',');
    out.append(option);
  }
  return out;
}

// A Via whose `rport` differs from the port of its sent-by: the request passed a NAT.
bool rport_differs(const String& via) {
  String rport = param_value(via, String("rport"), ';');
  if (rport.empty()) return false;
  String sent_by = via.words_from(1, ' ').word(0, ';').trim();
  int colon = sent_by.find_last(':');
  int port = 5060;
  if (colon >= 0 && !sent_by.ends_with(String("]"))) port = sent_by.tail(colon + 1).to_int();
  return rport.to_int() != port;
}

void post_to_control(int tag, const TaggedText& inner) {
  TaggedText outer;
  if (outer.add(tag, inner)) out_post(outer.text());
}

void send_register_ok(const RegistrationRef& r, SipMessage& request) {
  arm_removal(r, r->expires > 0 ? (static_cast<int64_t>(r->expires) + setting_int("reg_grace", 15)) * 1000 : 0);
  // Phones spread their refreshes when each gets a slightly different time.
  int answered = r->expires > 0 ? r->expires + static_cast<int>(random_below(5)) - 2 : 0;
  if (answered < 0) answered = 0;
  SipMessage ok(200, String("Ok"), request);
  if (request.method == method_register) {
    ok.path = request.path;
    for (const NameAddr& c : request.contact) {
      NameAddr contact = c;
      set_param(contact.params_mutable(), String("expires"), String(answered));
      ok.contact.push_back(contact);
    }
  } else {
    ok.expires = String(answered);
    ok.contact.push_back(NameAddr(String("<sip:{x-pre-adr}:{x-pre-port};transport={x-pre-trans}>")));
  }
  String require = unknown_options(request.header(String("Proxy-Require")));
  if (r->outbound_required) require = require.empty() ? String("outbound") : "outbound," + require;
  if (!require.empty()) ok.add_header(String("Require"), require);
  if (r->path_supported) ok.add_header(String("Supported"), String("path"));
  ok.add_header(String("Server"), format("%s %s", String(exch_product), String(exch_version)));
  if (!r->answered_once) {
    char date[64];
    time_t now = time(nullptr);
    tm g;
    gmtime_r(&now, &g);
    strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &g);
    ok.add_header(String("Date"), String(date));
    r->answered_once = true;
  }
  send_packet(static_cast<SipMessage&&>(ok));
}

void answer_failed(SipMessage& request, const AuthOutcome& a) {
  SipMessage r(a.status, String(a.status == 403 ? "Forbidden" : "Authentication Required"), request);
  if (!a.warning.empty()) r.add_header(String("Warning"), a.warning);
  if (!a.www_authenticate.empty()) r.add_header(String("WWW-Authenticate"), a.www_authenticate);
  r.socket_key = request.socket_key;
  send_packet(static_cast<SipMessage&&>(r));
}

void process(const RegistrationRef& r, SipMessage& m);

// A failed password counts for access control once per request: the control half
// charges the points only where the server loop didn't already charge the packet.
void report_failure(const RegistrationRef& r, const SipMessage& m) {
  int points = m.method == method_register ? 16 : m.method == method_invite ? 32 : 1;
  TaggedText t;
  (void)t.add(rec_source, r->address.adr);
  (void)t.add(rec_transport, transport_word(m));
  (void)t.add(rec_method, m.method);
  (void)t.add(rec_points, points);
  (void)t.add(rec_charged, sip_penalty_points(m.raw) > 0);
  (void)t.add(rec_text, m.raw);
  post_to_control(tag_authentication_failed, t);
}

// The eleven values that make a request a plain refresh when they stay the same.
String values_of(const SipMessage& m, const Registration& r) {
  String out;
  // The To tag is drawn anew for every request, so only the To URI counts.
  const NameAddr* contact = bound_contact(m);
  const String parts[] = {address_text(r.address), m.from.text(), m.to.uri().text(), String::join(r.route_set, ','),
                          r.event, r.event_params, contact ? nameaddr_param(*contact, String("+sip.instance")) : String(),
                          web_address(m), m.header(String("User-Agent")), m.header(String("Supported"), String("k")),
                          m.header(String("Proxy-Require"))};
  for (const String& p : parts) {
    out.append(p);
    out.append('\n');
  }
  return out;
}

void process(const RegistrationRef& r, SipMessage& m) {
  if (!r->answered_query) {
    if (!r->query_sent) {
      r->query_sent = true;
      TaggedText q;
      (void)q.add(rec_call_id, r->call_id);
      (void)q.add(rec_source, source_key(transport_word(m), r->address));
      (void)q.add(rec_from, m.from.text());
      (void)q.add(rec_to, m.to.text());
      (void)q.add(rec_socket_key, m.socket_key);
      post_to_control(tag_credentials_question, q);
    }
    if (static_cast<int>(r->waiting_security.size()) >= max_waiting) {
      r->waiting_security.erase(r->waiting_security.begin());
      log_reg(4, format("Security has %d pending packets", max_waiting));
    }
    r->waiting_security.push_back(m);
    return;
  }
  if (!r->account_found) {
    if (m.method == method_register && lone_star(m)) {
      // Clearing the bindings of nobody has nothing to clear: it succeeds.
      send_packet(SipMessage(200, String("Ok"), m));
      arm_removal(r, 1000);
      return;
    }
    SipMessage nf(404, String("Not Found"), m);
    int retry = setting_int("sub_expires", 0);
    nf.add_header(String("Retry-After"), String(retry > 0 ? retry : 3600));
    send_packet(static_cast<SipMessage&&>(nf));
    arm_removal(r, 1000);
    return;
  }
  bool authenticated_now = false;
  if (r->free_refreshes == 0 && !r->no_auth && !m.transport_authenticated) {
    AuthOutcome a = check_credentials(m, r->nonces, r->realm, r->credentials,
                                      sip_setting(String("allow_empty_passwords")) == "true", r->auth_adr);
    if (!a.passed) {
      answer_failed(m, a);
      arm_removal(r, 15000);
      if (!m.header(String("Authorization")).empty()) report_failure(r, m);
      return;
    }
    authenticated_now = true;
    r->free_refreshes = 96 + static_cast<int>(random_below(64));
    if (r->username.empty()) r->username = a.username;
  } else if (r->free_refreshes > 0) {
    r->free_refreshes--;
  }
  arm_removal(r, 1000);
  m.transport_authenticated = true;
  String supported = m.header(String("Supported"), String("k"));
  String proxy_require = m.header(String("Proxy-Require"));
  r->path_supported = supported.contains(String("path"));
  const NameAddr* contact = bound_contact(m);
  bool one_via = m.via.size() <= 1 || sip_setting(String("register_via_count")) == "false";
  if (!one_via) {
    r->nat = false;
  } else if (m.transport == Transport::udp) {
    r->nat = !m.received.empty() || (!m.via.empty() && rport_differs(m.via[0]));
  } else {
    r->nat = sip_setting(String("nat_tcp2")).is_int() || (contact && !nameaddr_param(*contact, String("reg-id")).empty());
  }
  String expires_text = requested_expires(m);
  bool numeric = expires_text.is_int();
  int expires = numeric ? expiry_seconds(expires_text) : 0;
  if (m.method == method_register && r->nat && expires > 0) {
    int nat = setting_int(m.transport == Transport::udp ? "nat_udp" : "nat_tcp2", 0);
    if (nat > 0) expires = nat;
  }
  String values = values_of(m, *r);
  // A plain refresh asks what was granted before and gets the same: the control half's
  // limits hold without asking it again.
  if (!authenticated_now && r->answered_once && numeric && values == r->last_values && expires > 0 &&
      expires == r->last_asked && r->expires > 0) {
    TaggedText t;
    (void)t.add(rec_call_id, r->call_id);
    (void)t.add(rec_cseq, static_cast<int>(m.cseq));
    (void)t.add(rec_expires, r->expires);
    (void)t.add(rec_source, address_text(r->address));
    (void)t.add(rec_transport, r->transport);
    (void)t.add(rec_socket_key, r->socket_key);
    post_to_control(tag_registration_refresh, t);
    send_register_ok(r, m);
    return;
  }
  r->last_values = values;
  r->last_asked = numeric ? expires : 0;
  if (static_cast<int>(r->waiting_register.size()) >= max_waiting) {
    r->waiting_register.erase(r->waiting_register.begin());
    log_reg(4, format("%d registration messages pending", max_waiting));
  }
  r->waiting_register.push_back(m);
  bool star = lone_star(m);
  TaggedText req;
  (void)req.add(rec_call_id, r->call_id);
  (void)req.add(rec_source, address_text(r->address));
  (void)req.add(rec_transport, r->transport);
  (void)req.add(rec_from, m.from.text());
  (void)req.add(rec_to, m.to.text());
  (void)req.add(rec_cseq, static_cast<int>(m.cseq));
  (void)req.add(rec_expires, star ? String("0") : numeric ? String(expires) : expires_text);
  (void)req.add(rec_contact, String::join(r->route_set, ','));
  if (star) (void)req.add(rec_clear_all, true);
  (void)req.add(rec_event, r->event);
  (void)req.add(rec_event_params, r->event_params);
  (void)req.add(rec_instance, contact ? nameaddr_param(*contact, String("+sip.instance")) : String());
  (void)req.add(rec_www, web_address(m));
  if (contact && uri_param(contact->uri(), String("wrtc")) == "true") (void)req.add(rec_wrtc, true);
  if (contact) {
    String token = nameaddr_param(*contact, String("fcmtoken"));
    if (token.empty()) token = uri_param(contact->uri(), String("fcmtoken"));
    if (!token.empty()) (void)req.add(rec_push_token, token);
  }
  (void)req.add(rec_user_agent, m.header(String("User-Agent")));
  (void)req.add(rec_supported, supported);
  (void)req.add(rec_proxy_require, proxy_require);
  (void)req.add(rec_socket_key, m.socket_key);
  (void)req.add(rec_username, r->username);
  (void)req.add(rec_body, m.body);
  post_to_control(tag_registration_request, req);
}

}  // namespace

void handle_register_request(SipMessage& m) {
  must_own(srv_run_mutex, "handle_register_request", 1);
  auto found = records.find(m.call_id);
  RegistrationRef r;
  if (found == records.end()) {
    r = std::make_shared<Registration>();
    r->call_id = m.call_id;
    records[m.call_id] = r;
  } else {
    r = found->second;
  }
  m.domain_id = r->domain_id;
  if (!r->removal_timer.armed()) arm_removal(r, 15000);
  if (m.to.tag().empty()) m.to.set_tag(String(static_cast<unsigned>(random_below(0x7fffffff))));
  if (r->remote.raw().empty()) r->remote = m.from;
  if (r->local.raw().empty()) r->local = m.to;
  r->route_set.clear();
  if (m.method == method_register) {
    r->event = String();
    for (const NameAddr& p : m.path) r->route_set.push_back(p.text());
  } else {
    String event = m.header(String("Event"), String("o"));
    int semi = event.find(';');
    r->event = (semi >= 0 ? event.head(semi) : event).trim().to_lower();
    r->event_params = semi >= 0 ? event.tail(semi + 1) : String();
    for (const NameAddr& p : m.record_route) r->route_set.push_back(p.text());
  }
  String contact = the_contact(m);
  if (!contact.empty()) r->route_set.push_back(contact);
  r->socket_key = m.socket_key;
  String old_key = source_key(r->transport, r->address);
  String word = transport_word(m);
  if (!m.source.empty()) {
    Address now = m.source;
    if (r->address != now || r->transport != word) {
      auto range = by_source.equal_range(old_key);
      for (auto it = range.first; it != range.second; ++it)
        if (it->second == r->call_id) {
          by_source.erase(it);
          break;
        }
      r->address = now;
      r->transport = word;
      by_source.emplace(source_key(word, now), r->call_id);
    }
  }
  process(r, m);
}

void register_policy_set(const String& value) {
  must_own(srv_run_mutex, "soap_register_policy_set", 1);
  TaggedText t(value);
  auto found = records.find(t.find(rec_call_id));
  if (found == records.end()) return;
  RegistrationRef r = found->second;
  r->answered_query = true;
  r->auth_adr = t.find(rec_auth_adr);
  r->account_found = t.find(rec_account_found) == "true";
  r->realm = t.find(rec_realm);
  r->domain_id = t.find(rec_domain).to_int();
  r->no_auth = t.find(rec_no_auth) == "true";
  r->credentials.clear();
  TaggedText walk(value);
  int tag;
  String v;
  String user;
  while (walk.next(tag, v)) {
    if (tag == rec_user) user = v;
    if (tag == rec_password) r->credentials.push_back(Credential{user, v});
  }
  std::vector<SipMessage> waiting = static_cast<std::vector<SipMessage>&&>(r->waiting_security);
  r->waiting_security = std::vector<SipMessage>();
  for (SipMessage& m : waiting) process(r, m);
}

void register_response(const String& value) {
  must_own(srv_run_mutex, "soap_register_response", 1);
  TaggedText t(value);
  auto found = records.find(t.find(rec_call_id));
  uint32_t cseq = static_cast<uint32_t>(t.find(rec_cseq).to_uint());
  if (found == records.end()) {
    log_reg(4, format("RegisterResponse %d not found", static_cast<int>(cseq)));
    return;
  }
  RegistrationRef r = found->second;
  for (auto it = r->waiting_register.begin(); it != r->waiting_register.end(); ++it) {
    if (it->cseq != cseq) continue;
    SipMessage m = *it;
    r->waiting_register.erase(it);
    if (r->waiting_register.empty()) r->waiting_register = std::vector<SipMessage>();  // its room goes too
    int status = t.find(rec_status).to_int();
    if (status < 300) {
      r->expires = t.find(rec_expires).to_int();
      send_register_ok(r, m);
    } else {
      // What was refused is no binding that a request with the same values could refresh.
      r->last_values = String();
      SipMessage answer(status, t.find(rec_reason), m);
      if (status == 404 || status == 480) {
        int retry = setting_int("sub_expires", 0);
        answer.add_header(String("Retry-After"), String(retry > 0 ? retry : 3600));
      }
      send_packet(static_cast<SipMessage&&>(answer));
      arm_removal(r, 1000);
    }
    return;
  }
  log_reg(4, format("RegisterResponse %d not found", static_cast<int>(cseq)));
}

bool source_is_registered(const Address& source) {
  for (const char* word : {"udp", "tcp", "tls"})
    if (by_source.count(source_key(String(word), source))) return true;
  return false;
}

void remove_registrations_of(const String& socket_key, const Address& source) {
  String word = socket_key.word(0, ':');
  auto range = by_source.equal_range(source_key(word, source));
  std::vector<String> ids;
  for (auto it = range.first; it != range.second; ++it) ids.push_back(it->second);
  for (const String& id : ids) {
    auto found = records.find(id);
    if (found == records.end()) continue;
    log_reg(5, format("Registration %s closed connection, removing it", id));
    remove_record(CallbackObject(found->second));
  }
}

bool registered_on_connection(const SipMessage& m) {
  // The identity the request claims: P-Preferred-Identity when there is one, else From.
  NameAddr claimed = m.from;
  String preferred = m.header(String("P-Preferred-Identity"));
  if (!preferred.empty()) claimed = NameAddr(preferred);
  const SipUri& who = claimed.uri();
  if (who.user().empty()) return false;
  auto range = by_source.equal_range(source_key(transport_word(m), m.source));
  for (auto it = range.first; it != range.second; ++it) {
    auto found = records.find(it->second);
    if (found == records.end()) continue;
    const Registration& r = *found->second;
    // Only a binding that was admitted and still runs vouches for its sender.
    if (!r.event.empty() || !r.answered_once || r.expires <= 0) continue;
    if (r.remote.uri().user() == who.user() && r.remote.uri().host().equals_nocase(who.host())) return true;
  }
  return false;
}

bool registration_call_id_known(const String& call_id) { return records.count(call_id) != 0; }

RegistrationRef find_registration(const String& call_id) {
  auto found = records.find(call_id);
  return found == records.end() ? nullptr : found->second;
}

int registration_count() { return static_cast<int>(records.size()); }

void clear_registrations() {
  for (auto& [id, r] : records) r->removal_timer.clear();
  records.clear();
  by_source.clear();
}

void registration_register() {
  register_service_handler(tag_register_policy, register_policy_set);
  register_service_handler(tag_register_response, register_response);
  routing_hooks.registration = handle_register_request;
  routing_hooks.source_registered = source_is_registered;
  routing_hooks.connection_closed = remove_registrations_of;
  routing_hooks.registered_on_connection = registered_on_connection;
  routing_hooks.call_id_known = registration_call_id_known;
}
