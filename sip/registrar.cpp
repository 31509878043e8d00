#include "sip/registrar.h"

#include <cctype>
#include <ctime>

#include "core/device_syslog.h"
#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/server.h"
#include "core/tagged_text.h"
#include "core/tcp_server.h"
#include "sip/access_control.h"
#include "sip/name_addr.h"
#include "sip/registration.h"
#include "store/names.h"
#include "store/schema.h"
#include "store/settings.h"
#include "store/table.h"

RegistrarHooks registrar_hooks;

namespace {

Timeout expiry_timer;
WebAccountLookup web_account = nullptr;

void log_reg(int level, const String& text) {
  if (log_enabled(LOG_REGISTER, level)) log_add_message_global(LOG_REGISTER, level, 0, text);
}

int setting_int(const char* name, int fallback) {
  String v = core_setting(name);
  return v.is_int() ? v.to_int() : fallback;
}

bool looks_like_mac(const String& user) {
  if (user.length() != 12) return false;
  for (int i = 0; i < 12; i++)
    if (!isxdigit(static_cast<unsigned char>(user.at(i)))) return false;
  return true;
}

bool known_device(const String& user) {
  return looks_like_mac(user) && registrar_hooks.known_device && registrar_hooks.known_device(user);
}

int min_expires_setting() {
  int min_expires = setting_int("min_expires", 30);
  return min_expires < 1 ? 30 : min_expires;
}

void post_to_service(int tag, const TaggedText& inner) {
  TaggedText outer;
  if (outer.add(tag, inner)) pbxsrv_post(outer.text());
}

void respond(const TaggedText& request, int status, const char* reason, int expires) {
  TaggedText t;
  (void)t.add(rec_call_id, request.find(rec_call_id));
  (void)t.add(rec_cseq, request.find(rec_cseq));
  (void)t.add(rec_status, status);
  (void)t.add(rec_reason, String(reason));
  (void)t.add(rec_expires, expires);
  post_to_service(tag_register_response, t);
}

// The one-domain hint: a phone that names a host this system doesn't know, when there is
// only one domain it could have meant.
void log_unknown_domain(const String& host) {
  Table* domains = table_by_name(tbl_domains);
  if (!domains || domains->row_count() != 1 || find_domain(host)) return;
  log_reg(2, format("You have only one domain and the domain %s cannot be found, consider using \"localhost\" as the domain name",
                    host));
}

void on_credentials_question(const String& value) {
  must_own(ctrl_run_mutex, "registration_credentials", 1);
  TaggedText q(value);
  NameAddr to(q.find(rec_to));
  NameAddr from(q.find(rec_from));
  AccountRef account = find_account(to.uri().user(), to.uri().host());
  TaggedText answer;
  (void)answer.add(rec_call_id, q.find(rec_call_id));
  bool usable = account.found() && account.type == tbl_extensions;
  // A phone inside a logged-in web page has shown its password to the web server already.
  String socket_key = q.find(rec_socket_key);
  if (account.found() && socket_key.starts_with(String("rest:")) && web_account && web_account(socket_key) == account.user) {
    log_reg(5, format("Allow registration without further authentication for %s", account.name));
    (void)answer.add(rec_account_found, true);
    (void)answer.add(rec_domain, account.domain);
    (void)answer.add(rec_no_auth, true);
    post_to_service(tag_register_policy, answer);
    return;
  }
  if (!account.found() && known_device(to.uri().user())) {
    // A device that provisioning knows by its MAC registers without a password of its own.
    (void)answer.add(rec_account_found, true);
    (void)answer.add(rec_domain, account.domain);
    (void)answer.add(rec_no_auth, true);
    post_to_service(tag_register_policy, answer);
    return;
  }
  if (!account.found()) log_unknown_domain(to.uri().host());
  (void)answer.add(rec_account_found, usable);
  if (usable) {
    Table* extensions = table_by_name(tbl_extensions);
    (void)answer.add(rec_domain, account.domain);
    (void)answer.add(rec_realm, from.uri().host());
    (void)answer.add(rec_auth_adr, extensions ? extensions->get(account.row, col_auth_adr) : String());
    // In this order: the SIP password, the web password, then each provisioned device of
    // the account with its MAC and its own password.
    std::vector<std::pair<String, String>> credentials;
    String user = to.uri().user();
    credentials.emplace_back(user, extensions ? extensions->get(account.row, col_password) : String());
    String web_pass = extensions ? extensions->get(account.row, col_web_pass) : String();
    if (!web_pass.empty()) credentials.emplace_back(user, web_pass);
    if (Table* macs = table_by_name(tbl_macs)) {
      // A device may serve several accounts: its `user` is a list of account ids.
      String id(account.user);
      for (int row = macs->first(); row; row = macs->next(row)) {
        bool serves = false;
        for (const String& word : macs->get(row, col_user).split(' ')) serves = serves || word == id;
        String mac = macs->get(row, col_adr), pass = macs->get(row, col_pass);
        if (serves && !mac.empty() && !pass.empty()) credentials.emplace_back(mac, pass);
      }
    }
    String list;
    for (const auto& [name, password] : credentials) {
      (void)answer.add(rec_user, name);
      (void)answer.add(rec_password, password);
      list.append(format("%s %s\n", name, password));
    }
    if (core_setting("rest_show_passwords") == "true" && log_enabled(LOG_REGISTER, 9))
      log_add_message_domain(LOG_REGISTER, 9, account.domain, format("Registration credentials for %s", account.name), list);
  }
  post_to_service(tag_register_policy, answer);
}

// An app that names a push token in its Contact can be woken for a call while it sleeps.
void keep_push_token(const String& token, const AccountRef& account, const String& device, const String& agent) {
  Table* tokens = table_by_name(tbl_fcmregs);
  if (!tokens) return;
  int row = tokens->find_first(col_token, token);
  if (!row) row = tokens->create_row();
  if (!row) return;
  tokens->set(row, col_token, token);
  tokens->set(row, col_device, device);
  tokens->set(row, col_ts, String(static_cast<long>(time(nullptr))));
  tokens->set(row, col_domain, String(account.domain));
  tokens->set(row, col_user, String(account.user));
  tokens->set(row, col_ua, agent, true);
}

// The expiry as local time text, for people who read the row files.
String format_expiry(long date) {
  time_t t = static_cast<time_t>(date);
  tm local;
  localtime_r(&t, &local);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return String(text);
}

RowSet bindings_of(Table& regs, const String& tuser, const String& event) {
  return regs.find_all(col_tuser, tuser, col_event, event);
}

// The sender address of a row's `adr` ("udp:1.2.3.4:5060"), in the form that the receiver
// of device syslog names senders.
String device_address(const String& adr) {
  int colon = adr.find(':');
  String bytes = parse_adr(host_part(colon >= 0 ? adr.tail(colon + 1) : adr));
  return bytes.empty() ? String() : adr_text(bytes);
}

// Deletes binding rows; a device address that no binding of its account uses any more
// leaves the device syslog map.
void remove_bindings(Table& regs, const RowSet& rows) {
  std::vector<std::pair<String, int>> gone;
  for (int row : rows)
    if (regs.get(row, col_event).empty())
      gone.emplace_back(device_address(regs.get(row, col_adr)), regs.get(row, col_tuser).to_int());
  regs.delete_rows(rows);
  for (const auto& [adr, user] : gone) {
    if (adr.empty() || user <= 0) continue;
    bool still = false;
    for (int row : regs.find_all(col_tuser, String(user), col_event, String()))
      still = still || device_address(regs.get(row, col_adr)) == adr;
    if (!still) device_syslog_unregister(adr, user);
  }
}

void remove_binding(Table& regs, int row) {
  RowSet one;
  (void)one.add(row);
  remove_bindings(regs, one);
}

// The row of this binding or subscription: by instance when the phone names one and the
// row is of the same account, else by Call-ID, else by account and contact.
int find_binding(Table& regs, const TaggedText& r, const String& tuser, const String& event) {
  String instance = r.find(rec_instance);
  if (!instance.empty()) {
    for (int row : regs.find_all(col_instance, instance, col_event, event))
      if (regs.get(row, col_tuser) == tuser) return row;
  }
  int row = regs.find_first(col_callid, r.find(rec_call_id), col_event, event);
  if (row) return row;
  return regs.find_first(col_tuser, tuser, col_contact, r.find(rec_contact), col_event, event);
}

int binding_limit(const AccountRef& account) {
  Table* domains = table_by_name(tbl_domains);
  Table* extensions = table_by_name(tbl_extensions);
  int limit = setting_int("max_regs", 5);
  if (domains && domains->get(account.domain, col_max_regs).is_int()) limit = domains->get(account.domain, col_max_regs).to_int();
  if (extensions && extensions->get(account.row, col_max_regs).is_int())
    limit = extensions->get(account.row, col_max_regs).to_int();
  return limit;
}

int limited_expires(int expires, const String& event, bool wrtc) {
  if (wrtc) return 86400;
  int min_expires = min_expires_setting();
  int max_expires = setting_int("max_expires", 3600);
  if (max_expires < min_expires) max_expires = min_expires;
  if (event.empty()) return expires < min_expires ? min_expires : expires > max_expires ? max_expires : expires;
  if (event == "dialog") {
    int sub = setting_int("sub_expires", 3600);
    return sub < min_expires ? min_expires : sub;
  }
  // Mailbox and feature subscriptions are cheap to keep and costly to renew.
  return expires < 5 * min_expires ? 5 * min_expires : expires > 5 * max_expires ? 5 * max_expires : expires;
}

// A phone on a connection says nothing between its refreshes: the connection must
// outlive the binding by a little.
void keep_connection_open(const String& socket, int expires) {
  String kind = socket.word(0, ':');
  if (expires <= 0 || (kind != "tcp" && kind != "tls" && kind != "ttc" && kind != "ttl")) return;
  TcpConnection* c = tcp_connection(socket.words_from(1, ':').to_int());
  if (c) tcp_keep_alive(*c, expires + 15);
}

void on_registration_request(const String& value) {
  must_own(ctrl_run_mutex, "registration_request", 1);
  TaggedText r(value);
  log_reg(9, format("Registration request for %s", r.find(rec_call_id)));
  String event = r.find(rec_event);
  if (!event.empty() && event != "message-summary" && event != "dialog" && event != "as-feature-event") {
    respond(r, 489, "Bad Event", 0);
    return;
  }
  NameAddr to(r.find(rec_to));
  NameAddr from(r.find(rec_from));
  AccountRef account = find_account(to.uri().user(), to.uri().host());
  if (!account.found()) {
    if (event.empty() && known_device(to.uri().user())) {
      int expires = min_expires_setting();
      if (registrar_hooks.device_registered)
        registrar_hooks.device_registered(to.uri().user(), r.find(rec_user_agent), r.find(rec_source));
      Address device = parse_address(r.find(rec_source), 0);
      if (!device.adr.empty() && device.port)
        acl_allow(device, device.adr.length() * 8 + 16, true,
                  r.find(rec_transport) == "udp" ? acl_class_udp : acl_class_tcp, expires,
                  format("PROV %s", to.uri().user()));
      respond(r, 200, "Ok", expires);
      return;
    }
    log_unknown_domain(to.uri().host());
    respond(r, 404, "Not Found", 0);
    return;
  }
  AccountRef from_account = find_account(from.uri().user(), from.uri().host());
  String star_tuser;
  if (!from_account.found() && from.uri().user().starts_with(String("*")) && registrar_hooks.star_code)
    star_tuser = registrar_hooks.star_code(account.domain, from.uri().user(), account.user);
  if (!star_tuser.empty()) {
    log_reg(5, format("Registering starcode %s to %s", star_tuser, account.name));
    from_account = account;  // the code is the account's own key
  }
  if (from_account.found() && from_account.domain != account.domain) {
    respond(r, 403, "Forbidden", 0);
    return;
  }
  if (account.type != tbl_extensions) {
    respond(r, 404, "Registration Not Possible", 0);
    return;
  }
  // Only a dialog subscription watches someone else, and it must say who watches.
  if (event == "dialog" ? !from_account.found() : from_account.found() && from_account.user != account.user) {
    respond(r, 403, "Forbidden", 0);
    return;
  }
  Table* regs = table_by_name(tbl_registrations);
  Table* extensions = table_by_name(tbl_extensions);
  if (!regs || !extensions) {
    respond(r, 500, "Server Error", 0);
    return;
  }
  String expires_text = r.find(rec_expires);
  if (!expires_text.is_int()) {
    log_reg(2, format("Registration: Cannot handle expiration %s", expires_text));
    respond(r, 400, "Bad Request", 0);
    return;
  }
  int expires = expires_text.to_int();
  String tuser = star_tuser.empty() ? String(account.user) : star_tuser;
  String call_id = r.find(rec_call_id);
  String contact = r.find(rec_contact);
  if (r.find(rec_clear_all) == "true") {
    if (expires != 0) {
      log_reg(2, String("Registration: Cannot remove all registrations after a duration"));
      respond(r, 400, "Bad Request", 0);
      return;
    }
    remove_bindings(*regs, bindings_of(*regs, tuser, event));
    log_reg(3, String("Account ") + account.name + " requested clearing of registration database");
    respond(r, 200, "Ok", 0);
    return;
  }
  int row = find_binding(*regs, r, tuser, event);
  if (expires <= 0) {
    if (row) {
      remove_binding(*regs, row);
      if (event.empty()) {
        log_reg(3, String("Account ") + account.name + " is removing a registration");
        if (registrar_hooks.presence) registrar_hooks.presence(account.user, false);
      }
    }
    respond(r, 200, "Ok", 0);
    return;
  }
  bool is_new = row == 0;
  bool first_binding = is_new && event.empty() && regs->count(col_tuser, tuser, col_event, String()) == 0;
  if (is_new) {
    String euse = extensions->get(account.row, col_euse);
    if (euse == "noreg" || euse == "mailbox") {
      respond(r, 403, "Forbidden", 0);
      return;
    }
    if (event.empty() && regs->count(col_tuser, tuser, col_event, String()) >= binding_limit(account)) {
      respond(r, 403, "Too Many Registrations", 0);
      return;
    }
  } else if (!event.empty() && (regs->get(row, col_from) != from.text() || regs->get(row, col_to) != to.text())) {
    log_reg(5, format("Account %s changed tags for %s subscription", account.name, event));
  }
  expires = limited_expires(expires, event, r.find(rec_wrtc) == "true");
  if (is_new) {
    row = regs->create_row();
    if (!row) {
      respond(r, 500, "Server Error", 0);
      return;
    }
    regs->set(row, col_start, String(static_cast<long>(time(nullptr))));
  }
  String source = r.find(rec_source);
  String transport = r.find(rec_transport);
  long date = static_cast<long>(time(nullptr)) + expires + setting_int("reg_grace", 15);
  regs->set(row, col_domain, String(account.domain));
  regs->set(row, col_from, from.text());
  regs->set(row, col_to, to.text());
  regs->set(row, col_fuser, String(from_account.user));
  regs->set(row, col_tuser, tuser);
  regs->set(row, col_event, event);
  regs->set(row, col_callid, call_id);
  regs->set(row, col_instance, r.find(rec_instance));
  regs->set(row, col_contact, contact);
  regs->set(row, col_www, r.find(rec_www));
  regs->set(row, col_user_agent, r.find(rec_user_agent));
  regs->set(row, col_un, r.find(rec_username));
  regs->set(row, col_adr, format("%s:%s", transport, source));
  regs->set(row, col_socket, r.find(rec_socket_key));
  if (core_setting("save_registration") == "true") regs->set(row, col_ad, format_expiry(date));
  regs->set(row, col_date, String(date), true);
  keep_connection_open(r.find(rec_socket_key), expires);
  // The phone's address and port may talk for as long as the binding lasts.
  Address peer = parse_address(source, 0);
  if (!peer.adr.empty() && peer.port)
    acl_allow(peer, peer.adr.length() * 8 + 16, true, transport == "udp" ? acl_class_udp : acl_class_tcp, expires,
              format("Registration %s", account.name));
  if (event.empty()) device_syslog_register(device_address(regs->get(row, col_adr)), account.user);
  String token = r.find(rec_push_token);
  if (!token.empty()) keep_push_token(token, account, r.find(rec_instance), r.find(rec_user_agent));
  if (is_new && event.empty()) {
    int colon = source.find_last(':');
    log_reg(3, format("Account %s is registering a new contact from %s:%s", account.name,
                      colon >= 0 ? source.head(colon) : source, colon >= 0 ? source.tail(colon + 1) : String()));
  }
  respond(r, 200, "Ok", expires);
  if (first_binding && registrar_hooks.presence) registrar_hooks.presence(account.user, true);
  if (event == "as-feature-event" && !r.find(rec_body).empty() && registrar_hooks.feature_event)
    registrar_hooks.feature_event(account.user, r.find(rec_body));
  if (is_new && (event == "message-summary" || event == "dialog") && registrar_hooks.subscription_started)
    registrar_hooks.subscription_started(row);
}

void on_refresh(const String& value) {
  must_own(ctrl_run_mutex, "registration_request_update", 1);
  TaggedText t(value);
  Table* regs = table_by_name(tbl_registrations);
  if (!regs) return;
  int row = regs->find_first(col_callid, t.find(rec_call_id));
  if (!row) return;
  int expires = t.find(rec_expires).to_int();
  long date = static_cast<long>(time(nullptr)) + expires + setting_int("reg_grace", 15);
  regs->set(row, col_date, String(date));
  keep_connection_open(t.find(rec_socket_key), expires);
  Address peer = parse_address(t.find(rec_source), 0);
  if (!peer.adr.empty() && peer.port && expires > 0)
    acl_allow(peer, peer.adr.length() * 8 + 16, true, t.find(rec_transport) == "udp" ? acl_class_udp : acl_class_tcp,
              expires, String());
}

void on_removed(const String& value) {
  must_own(ctrl_run_mutex, "registration_removed", 1);
  TaggedText t(value);
  Table* regs = table_by_name(tbl_registrations);
  if (!regs) return;
  remove_bindings(*regs, regs->find_all(col_callid, t.find(rec_call_id)));
}

void on_authentication_failed(const String& value) {
  must_own(ctrl_run_mutex, "authentication_failed", 1);
  TaggedText t(value);
  Address source(t.find(rec_source), 0);
  int access_class = t.find(rec_transport) == "udp" ? acl_class_udp : acl_class_tcp;
  // The server loop charges an unknown source for each packet it reads; a failed password
  // adds nothing to that, so that a request counts once. Only a packet that the loop let
  // pass free (an answer to a challenge of a SUBSCRIBE) is charged here. A listed source
  // isn't charged at all.
  if (t.find(rec_charged) == "true" || acl_check(source, access_class) != 0) return;
  acl_penalty(Tick::now(), source, t.find(rec_points).to_int(), access_class, String("SIP"), t.find(rec_text));
}

}  // namespace

int find_domain(const String& host) {
  Table* domains = table_by_name(tbl_domains);
  if (!domains) return 0;
  int d = domains->find_first(col_name, host.to_lower());
  if (!d) d = domains->find_first(col_name, host);
  if (d) return d;
  Table* aliases = table_by_name(tbl_domain_alias);
  int a = aliases ? aliases->find_first(col_name, host.to_lower()) : 0;
  return a ? aliases->get(a, col_domain).to_int() : 0;
}

AccountRef find_account(const String& user, const String& host) {
  AccountRef out;
  out.domain = find_domain(host);
  Table* aliases = table_by_name(tbl_user_alias);
  Table* users = table_by_name(tbl_users);
  if (!out.domain || !aliases || !users || user.empty()) return out;
  int a = aliases->find_first(col_name, user, col_domain, String(out.domain));
  if (!a) return out;
  out.user = aliases->get(a, col_user).to_int();
  if (!users->has_row(out.user)) {
    out.user = 0;
    return out;
  }
  out.type = users->get(out.user, col_type);
  out.row = users->get(out.user, col_id).to_int();
  out.name = users->get(out.user, col_alias);
  return out;
}

void expire_registrations() {
  must_own(ctrl_run_mutex, "expire_registrations", 1);
  Table* regs = table_by_name(tbl_registrations);
  if (regs) {
    long now = static_cast<long>(time(nullptr));
    RowSet gone;
    for (int row = regs->first(); row; row = regs->next(row)) {
      String date = regs->get(row, col_date);
      if (date.is_int() && date.to_int64() < now) (void)gone.add(row);
    }
    if (!gone.empty()) {
      log_reg(5, String("Device registration expired"));
      remove_bindings(*regs, gone);
    }
  }
  expiry_timer.callback(control_queue, 10000, callback_argument(expire_registrations));
}

void start_registration_expiry() {
  expiry_timer.callback(control_queue, 10000, callback_argument(expire_registrations));
}

void set_registrar_web_account(WebAccountLookup lookup) { web_account = lookup; }

void registrar_register() {
  register_control_handler(tag_credentials_question, on_credentials_question);
  register_control_handler(tag_registration_request, on_registration_request);
  register_control_handler(tag_registration_refresh, on_refresh);
  register_control_handler(tag_registration_removed, on_removed);
  register_control_handler(tag_authentication_failed, on_authentication_failed);
}
