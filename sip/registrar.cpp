#include "sip/registrar.h"

#include <ctime>

#include "core/access_hooks.h"
#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/server.h"
#include "core/tagged_text.h"
#include "core/tcp_server.h"
#include "sip/name_addr.h"
#include "sip/registration.h"
#include "store/names.h"
#include "store/schema.h"
#include "store/settings.h"
#include "store/table.h"

namespace {

Timeout expiry_timer;

void log_reg(int level, const String& text) {
  if (log_enabled(LOG_REGISTER, level)) log_add_message_global(LOG_REGISTER, level, 0, text);
}

int setting_int(const char* name, int fallback) {
  String v = core_setting(name);
  return v.is_int() ? v.to_int() : fallback;
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

void on_credentials_question(const String& value) {
  must_own(ctrl_run_mutex, "registration_credentials", 1);
  TaggedText q(value);
  NameAddr to(q.find(rec_to));
  NameAddr from(q.find(rec_from));
  AccountRef account = find_account(to.uri().user(), to.uri().host());
  TaggedText answer;
  (void)answer.add(rec_call_id, q.find(rec_call_id));
  bool usable = account.found() && account.type == tbl_extensions;
  (void)answer.add(rec_account_found, usable);
  if (usable) {
    Table* extensions = table_by_name(tbl_extensions);
    (void)answer.add(rec_domain, account.domain);
    (void)answer.add(rec_realm, from.uri().host());
    (void)answer.add(rec_auth_adr, extensions ? extensions->get(account.row, col_auth_adr) : String());
    (void)answer.add(rec_user, to.uri().user());
    (void)answer.add(rec_password, extensions ? extensions->get(account.row, col_password) : String());
  }
  post_to_service(tag_register_policy, answer);
}

RowSet bindings_of(Table& regs, const String& tuser, const String& event) {
  return regs.find_all(col_tuser, tuser, col_event, event);
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
    respond(r, 404, "Not Found", 0);
    return;
  }
  AccountRef from_account = find_account(from.uri().user(), from.uri().host());
  if (from_account.found() && from_account.domain != account.domain) {
    respond(r, 403, "Forbidden", 0);
    return;
  }
  if (account.type != tbl_extensions) {
    respond(r, 404, "Registration Not Possible", 0);
    return;
  }
  Table* regs = table_by_name(tbl_registrations);
  Table* extensions = table_by_name(tbl_extensions);
  Table* domains = table_by_name(tbl_domains);
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
  String tuser(account.user);
  String call_id = r.find(rec_call_id);
  String contact = r.find(rec_contact);
  if (contact.empty() || contact.trim() == "*") {
    if (expires != 0) {
      log_reg(2, String("Registration: Cannot remove all registrations after a duration"));
      respond(r, 400, "Bad Request", 0);
      return;
    }
    regs->delete_rows(bindings_of(*regs, tuser, event));
    log_reg(3, String("Account ") + account.name + " requested clearing of registration database");
    respond(r, 200, "Ok", 0);
    return;
  }
  int row = regs->find_first(col_callid, call_id, col_event, event);
  if (expires == 0) {
    if (row) {
      regs->delete_row(row);
      if (event.empty()) log_reg(3, String("Account ") + account.name + " is removing a registration");
    }
    respond(r, 200, "Ok", 0);
    return;
  }
  bool is_new = row == 0;
  if (is_new) {
    String euse = extensions->get(account.row, col_euse);
    if (euse == "noreg" || euse == "mailbox") {
      respond(r, 403, "Forbidden", 0);
      return;
    }
    int limit = setting_int("max_regs", 5);
    if (domains && domains->get(account.domain, col_max_regs).is_int()) limit = domains->get(account.domain, col_max_regs).to_int();
    if (extensions->get(account.row, col_max_regs).is_int()) limit = extensions->get(account.row, col_max_regs).to_int();
    if (event.empty() && regs->count(col_tuser, tuser, col_event, String()) >= limit) {
      respond(r, 403, "Too Many Registrations", 0);
      return;
    }
  }
  int min_expires = setting_int("min_expires", 30);
  if (min_expires < 1) min_expires = 30;
  int max_expires = setting_int("max_expires", 3600);
  if (max_expires < min_expires) max_expires = min_expires;
  if (event.empty()) {
    expires = expires < min_expires ? min_expires : expires > max_expires ? max_expires : expires;
  } else if (event == "dialog") {
    expires = setting_int("sub_expires", 3600);
    if (expires < min_expires) expires = min_expires;
  } else {
    expires = expires < 5 * min_expires ? 5 * min_expires : expires > 5 * max_expires ? 5 * max_expires : expires;
  }
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
  regs->set(row, col_contact, contact);
  regs->set(row, col_user_agent, r.find(rec_user_agent));
  regs->set(row, col_un, r.find(rec_username));
  regs->set(row, col_adr, format("%s:%s", transport, source));
  regs->set(row, col_socket, r.find(rec_socket_key));
  regs->set(row, col_date, String(date), true);
  String socket = r.find(rec_socket_key);
  String kind = socket.word(0, ':');
  if (kind == "tcp" || kind == "tls") {
    TcpConnection* c = tcp_connection(socket.words_from(1, ':').to_int());
    if (c) tcp_keep_alive(*c, expires + 15);
  }
  if (is_new && event.empty()) {
    int colon = source.find_last(':');
    log_reg(3, format("Account %s is registering a new contact from %s:%s", account.name,
                      colon >= 0 ? source.head(colon) : source, colon >= 0 ? source.tail(colon + 1) : String()));
  }
  respond(r, 200, "Ok", expires);
}

void on_refresh(const String& value) {
  must_own(ctrl_run_mutex, "registration_request_update", 1);
  TaggedText t(value);
  Table* regs = table_by_name(tbl_registrations);
  if (!regs) return;
  int row = regs->find_first(col_callid, t.find(rec_call_id));
  if (!row) return;
  long date = static_cast<long>(time(nullptr)) + t.find(rec_expires).to_int() + setting_int("reg_grace", 15);
  regs->set(row, col_date, String(date));
}

void on_removed(const String& value) {
  must_own(ctrl_run_mutex, "registration_removed", 1);
  TaggedText t(value);
  Table* regs = table_by_name(tbl_registrations);
  if (!regs) return;
  regs->delete_rows(regs->find_all(col_callid, t.find(rec_call_id)));
}

void on_authentication_failed(const String& value) {
  must_own(ctrl_run_mutex, "authentication_failed", 1);
  TaggedText t(value);
  String adr = t.find(rec_source);
  int access_class = t.find(rec_transport) == "udp" ? 1 : 2;
  // An unknown source was charged when its packet arrived; a failure counts once.
  if (acl_check(adr, access_class) != 0) acl_penalty(adr, access_class, 16, "SIP");
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
      regs->delete_rows(gone);
    }
  }
  expiry_timer.callback(control_queue, 10000, callback_argument(expire_registrations));
}

void start_registration_expiry() {
  expiry_timer.callback(control_queue, 10000, callback_argument(expire_registrations));
}

void registrar_register() {
  register_control_handler(tag_credentials_question, on_credentials_question);
  register_control_handler(tag_registration_request, on_registration_request);
  register_control_handler(tag_registration_refresh, on_refresh);
  register_control_handler(tag_registration_removed, on_removed);
  register_control_handler(tag_authentication_failed, on_authentication_failed);
}
