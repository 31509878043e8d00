#include "sip/registration.h"

#include <ctime>
#include <map>

#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/random.h"
#include "core/tagged_text.h"
#include "sip/request_routing.h"
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

String the_contact(const SipMessage& m) {
  for (const NameAddr& c : m.contact) {
    const String& scheme = c.uri().scheme();
    if ((scheme.equals_nocase("sip") || scheme.equals_nocase("sips")) && uri_param(c.uri(), String("expires")) != "0")
      return c.text();
  }
  return String();
}

int requested_expires(const SipMessage& m) {
  if (m.method == method_subscribe) return m.expires.is_int() ? m.expires.to_int() : 3600;
  for (const NameAddr& c : m.contact) {
    String e = uri_param(c.uri(), String("expires"));
    if (e.empty()) e = param_value(c.text(), String("expires"), ';');
    if (e.is_int()) return e.to_int();
  }
  return m.expires.is_int() ? m.expires.to_int() : 3600;
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
    for (const NameAddr& c : request.contact) {
      NameAddr contact = c;
      set_param(contact.params_mutable(), String("expires"), String(answered));
      ok.contact.push_back(contact);
    }
  } else {
    ok.expires = String(answered);
    ok.contact.push_back(NameAddr(String("<sip:{x-pre-adr}:{x-pre-port};transport={x-pre-trans}>")));
  }
  if (r->outbound_required) ok.add_header(String("Require"), String("outbound"));
  if (r->path_supported) ok.add_header(String("Supported"), String("path"));
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

// The eleven values that make a request a plain refresh when they stay the same.
String values_of(const SipMessage& m, const Registration& r) {
  String out;
  // The To tag is drawn anew for every request, so only the To URI counts.
  const String parts[] = {address_text(r.address), m.from.text(), m.to.uri().text(), String::join(r.route_set, ','),
                          r.event, r.event_params, uri_param(NameAddr(the_contact(m)).uri(), String("+sip.instance")),
                          String(), m.header(String("User-Agent")), m.header(String("Supported"), String("k")),
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
      r->waiting_security.pop_front();
      log_reg(4, format("Security has %d pending packets", max_waiting));
    }
    r->waiting_security.push_back(m);
    return;
  }
  if (!r->account_found) {
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
                                      sip_setting(String("allow_empty_passwords")) == "true");
    if (!a.passed) {
      answer_failed(m, a);
      arm_removal(r, 15000);
      if (!m.header(String("Authorization")).empty()) {
        TaggedText t;
        (void)t.add(rec_source, r->address.adr);
        (void)t.add(rec_transport, transport_word(m));
        post_to_control(tag_authentication_failed, t);
      }
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
  r->path_supported = supported.contains(String("path"));
  String via_rport = m.via.empty() ? String() : param_value(m.via[0], String("rport"), ';');
  r->nat = m.transport == Transport::udp ? !m.received.empty() : !param_value(the_contact(m), String("reg-id"), ';').empty();
  int expires = requested_expires(m);
  if (r->nat && expires > 0) {
    int nat = setting_int(m.transport == Transport::udp ? "nat_udp" : "nat_tcp2", 0);
    if (nat > 0) expires = nat;
  }
  String values = values_of(m, *r);
  if (!authenticated_now && values == r->last_values && expires > 0) {
    r->expires = expires;
    TaggedText t;
    (void)t.add(rec_call_id, r->call_id);
    (void)t.add(rec_cseq, static_cast<int>(m.cseq));
    (void)t.add(rec_expires, expires);
    post_to_control(tag_registration_refresh, t);
    send_register_ok(r, m);
    return;
  }
  r->last_values = values;
  if (static_cast<int>(r->waiting_register.size()) >= max_waiting) {
    r->waiting_register.pop_front();
    log_reg(4, format("%d registration messages pending", max_waiting));
  }
  r->waiting_register.push_back(m);
  TaggedText req;
  (void)req.add(rec_call_id, r->call_id);
  (void)req.add(rec_source, address_text(r->address));
  (void)req.add(rec_transport, r->transport);
  (void)req.add(rec_from, m.from.text());
  (void)req.add(rec_to, m.to.text());
  (void)req.add(rec_cseq, static_cast<int>(m.cseq));
  (void)req.add(rec_expires, m.contact.size() == 1 && m.contact[0].raw().trim() == "*" ? String("0") : String(expires));
  (void)req.add(rec_contact, String::join(r->route_set, ','));
  (void)req.add(rec_event, r->event);
  (void)req.add(rec_event_params, r->event_params);
  (void)req.add(rec_user_agent, m.header(String("User-Agent")));
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
  std::deque<SipMessage> waiting = static_cast<std::deque<SipMessage>&&>(r->waiting_security);
  r->waiting_security.clear();
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
    int status = t.find(rec_status).to_int();
    if (status < 300) {
      r->expires = t.find(rec_expires).to_int();
      send_register_ok(r, m);
    } else {
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
}
