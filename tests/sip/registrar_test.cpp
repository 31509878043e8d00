// The control half of the registrar on in-memory tables: who may register, for how long,
// which row a request updates, and what it tells access control and the device syslog.
#include "sip/registrar.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "core/device_syslog.h"
#include "core/format.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/server.h"
#include "core/tagged_text.h"
#include "sip/access_control.h"
#include "sip/registration.h"
#include "store/names.h"
#include "store/schema.h"
#include "tests/support/test_support.h"

namespace {

std::map<std::string, std::string> settings;
String read_setting(const char* name) {
  auto it = settings.find(name);
  return it == settings.end() ? String() : String(it->second.data(), static_cast<int>(it->second.size()));
}

std::vector<TaggedText> responses;
void capture_response(const String& value) { responses.emplace_back(value); }
std::vector<TaggedText> policies;
void capture_policy(const String& value) { policies.emplace_back(value); }

struct Request {
  String from = String("<sip:1001@pbx.test>;tag=a");
  String to = String("<sip:1001@pbx.test>");
  String call_id = String("c1");
  String expires = String("600");
  String event;
  String contact = String("<sip:1001@192.0.2.10:5062>");
  String instance;
  bool wrtc = false;
  bool clear_all = false;
  String push_token;
  String body;
};

class RegistrarTest : public ::testing::Test {
 protected:
  void SetUp() override {
    settings.clear();
    set_setting_reader(read_setting);
    create_tables();
    // In memory only: nothing of this test reaches a file.
    for (const String& name : {tbl_domains, tbl_domain_alias, tbl_users, tbl_user_alias, tbl_extensions,
                               tbl_attendants, tbl_registrations, tbl_macs, tbl_fcmregs}) {
      Table* t = table_by_name(name);
      ASSERT_NE(t, nullptr);
      persisted_.emplace_back(t, t->persist());
      t->set_persist(false);
      t->clear();
    }
    acl_reset();
    device_syslog_clear();
    responses.clear();
    policies.clear();
    registrar_register();
    register_service_handler(tag_register_response, capture_response);
    register_service_handler(tag_register_policy, capture_policy);
    ctrl_run_mutex.lock("registrar_test", 1);
    domain_ = add_row(tbl_domains, {{col_name, String("pbx.test")}});
    ext1001_ = add_account("1001", tbl_extensions, {{col_password, String("pw1")}});
    ext1002_ = add_account("1002", tbl_extensions, {{col_password, String("pw2"), }});
    add_account("1003", tbl_extensions, {{col_password, String("pw3")}, {col_euse, String("noreg")}});
    add_account("1100", tbl_attendants, {});
  }
  // Asks for the credentials of the account in To on a connection.
  TaggedText credentials_for(const char* number, const char* socket_key) {
    TaggedText q;
    (void)q.add(rec_call_id, String("c1"));
    (void)q.add(rec_from, format("<sip:%s@pbx.test>;tag=x", String(number)));
    (void)q.add(rec_to, format("<sip:%s@pbx.test>", String(number)));
    (void)q.add(rec_socket_key, String(socket_key));
    TaggedText outer;
    (void)outer.add(tag_credentials_question, q);
    policies.clear();
    dispatch_posted(outer.text(), false);
    pbxsrv_flush();
    pbxsrv_soap();
    return policies.empty() ? TaggedText() : policies.back();
  }

  void TearDown() override {
    set_registrar_web_account(nullptr);
    registrar_hooks = RegistrarHooks();
    // Later tests of this process find the tables as empty as they were.
    for (const auto& [table, persist] : persisted_) {
      table->clear();
      table->set_persist(persist);
    }
    ctrl_run_mutex.unlock("registrar_test", 1);
    set_setting_reader(nullptr);
  }

  static int add_row(const String& table, const std::map<String, String>& cells) {
    Table* t = table_by_name(table);
    int row = t->create_row();
    for (const auto& [column, value] : cells) t->set(row, column, value);
    return row;
  }

  // The `users` row of a new account.
  int add_account(const char* number, const String& type, const std::map<String, String>& cells) {
    int own = add_row(type, cells);
    int user = add_row(tbl_users, {{col_alias, String(number)}, {col_domain, String(domain_)}, {col_type, type},
                                   {col_id, String(own)}});
    add_row(tbl_user_alias, {{col_user, String(user)}, {col_domain, String(domain_)}, {col_name, String(number)}});
    return user;
  }

  // Posts a registration request as the service half would and returns the answer:
  // status, reason and expires.
  TaggedText request(const Request& q) {
    TaggedText t;
    (void)t.add(rec_call_id, q.call_id);
    (void)t.add(rec_source, String("192.0.2.10:5062"));
    (void)t.add(rec_transport, String("udp"));
    (void)t.add(rec_from, q.from);
    (void)t.add(rec_to, q.to);
    (void)t.add(rec_cseq, ++cseq_);
    (void)t.add(rec_expires, q.expires);
    (void)t.add(rec_contact, q.contact);
    if (q.clear_all) (void)t.add(rec_clear_all, true);
    (void)t.add(rec_event, q.event);
    (void)t.add(rec_instance, q.instance);
    if (q.wrtc) (void)t.add(rec_wrtc, true);
    if (!q.push_token.empty()) (void)t.add(rec_push_token, q.push_token);
    (void)t.add(rec_user_agent, String("App/2.1 Android/14"));
    if (!q.body.empty()) (void)t.add(rec_body, q.body);
    (void)t.add(rec_socket_key, String("udp:5060"));
    TaggedText outer;
    (void)outer.add(tag_registration_request, t);
    responses.clear();
    dispatch_posted(outer.text(), false);
    pbxsrv_flush();
    pbxsrv_soap();
    return responses.empty() ? TaggedText() : responses.back();
  }

  static int bindings() { return table_by_name(tbl_registrations)->row_count(); }

  std::vector<std::pair<Table*, bool>> persisted_;
  int domain_ = 0, ext1001_ = 0, ext1002_ = 0;
  int cseq_ = 0;
};

}  // namespace

TEST_F(RegistrarTest, WhoMayRegisterAndForHowLong) {
  settings["min_expires"] = "30";
  settings["max_expires"] = "360";
  settings["sub_expires"] = "900";
  auto with = [](void (*edit)(Request&)) {
    Request q;
    edit(q);
    return q;
  };
  struct Case {
    const char* name;
    Request request;
    int status;
    const char* reason;
    int expires;  // when admitted
  } cases[] = {
      {"a binding", with([](Request&) {}), 200, "Ok", 360},
      {"below the minimum", with([](Request& q) { q.expires = String("5"); }), 200, "Ok", 30},
      {"unknown event", with([](Request& q) { q.event = String("presence"); }), 489, "Bad Event", 0},
      {"unknown account", with([](Request& q) { q.to = String("<sip:1999@pbx.test>"); }), 404, "Not Found", 0},
      {"unknown domain", with([](Request& q) { q.to = String("<sip:1001@other.test>"); }), 404, "Not Found", 0},
      {"not an extension", with([](Request& q) { q.to = String("<sip:1100@pbx.test>"); }), 404,
       "Registration Not Possible", 0},
      {"no registration for this extension", with([](Request& q) {
         q.to = String("<sip:1003@pbx.test>");
         q.from = String("<sip:1003@pbx.test>;tag=a");
       }),
       403, "Forbidden", 0},
      {"another account in From", with([](Request& q) { q.from = String("<sip:1002@pbx.test>;tag=a"); }), 403,
       "Forbidden", 0},
      {"another account in From, mailbox subscription", with([](Request& q) {
         q.from = String("<sip:1002@pbx.test>;tag=a");
         q.event = String("message-summary");
       }),
       403, "Forbidden", 0},
      {"another account watching dialogs", with([](Request& q) {
         q.from = String("<sip:1002@pbx.test>;tag=a");
         q.event = String("dialog");
       }),
       200, "Ok", 900},
      {"dialogs watched by nobody known", with([](Request& q) {
         q.from = String("<sip:stranger@pbx.test>;tag=a");
         q.event = String("dialog");
       }),
       403, "Forbidden", 0},
      {"mailbox subscription for 60", with([](Request& q) {
         q.event = String("message-summary");
         q.expires = String("60");
       }),
       200, "Ok", 150},
      {"feature subscription above", with([](Request& q) {
         q.event = String("as-feature-event");
         q.expires = String("99999");
       }),
       200, "Ok", 1800},
      {"web client", with([](Request& q) { q.wrtc = true; }), 200, "Ok", 86400},
      {"expiry that isn't a number", with([](Request& q) { q.expires = String("abc"); }), 400, "Bad Request", 0},
  };
  int n = 0;
  for (Case& c : cases) {
    table_by_name(tbl_registrations)->clear();
    c.request.call_id = format("case%d", n++);
    LogCapture log;
    TaggedText answer = request(c.request);
    EXPECT_EQ(answer.find(rec_status).to_int(), c.status) << c.name;
    EXPECT_EQ(answer.find(rec_reason), String(c.reason)) << c.name;
    EXPECT_EQ(bindings(), c.status == 200 ? 1 : 0) << c.name;
    if (c.status == 200) {
      EXPECT_EQ(answer.find(rec_expires).to_int(), c.expires) << c.name;
    }
    if (c.status == 400) {
      EXPECT_TRUE(log.contains("Registration: Cannot handle expiration abc")) << c.name;
    }
  }
}

// One binding moves between Call-IDs by its instance; the limit counts bindings, not
// requests; a star clears them; a subscription that changes its tags is noticed.
TEST_F(RegistrarTest, RowsOfAnAccount) {
  settings["max_regs"] = "2";
  Request q;
  q.instance = String("<urn:uuid:phone-1>");
  EXPECT_EQ(request(q).find(rec_status), String("200"));
  q.call_id = String("c2");  // the phone restarted with a new Call-ID
  EXPECT_EQ(request(q).find(rec_status), String("200"));
  EXPECT_EQ(bindings(), 1);
  Table* regs = table_by_name(tbl_registrations);
  int row = regs->first();
  EXPECT_EQ(regs->get(row, col_callid), String("c2"));
  EXPECT_EQ(regs->get(row, col_adr), String("udp:192.0.2.10:5062"));
  EXPECT_EQ(regs->get(row, col_tuser), String(ext1001_));

  Request second;
  second.call_id = String("c3");
  second.contact = String("<sip:1001@192.0.2.11:5062>");
  EXPECT_EQ(request(second).find(rec_status), String("200"));
  Request third = second;
  third.call_id = String("c4");
  third.contact = String("<sip:1001@192.0.2.12:5062>");
  TaggedText refused = request(third);
  EXPECT_EQ(refused.find(rec_status), String("403"));
  EXPECT_EQ(refused.find(rec_reason), String("Too Many Registrations"));
  // A refresh of a binding that exists is no new binding.
  EXPECT_EQ(request(second).find(rec_status), String("200"));
  EXPECT_EQ(bindings(), 2);

  Request sub;
  sub.call_id = String("s1");
  sub.event = String("message-summary");
  EXPECT_EQ(request(sub).find(rec_status), String("200"));
  sub.from = String("<sip:1001@pbx.test>;tag=b");
  {
    LogCapture log;
    EXPECT_EQ(request(sub).find(rec_status), String("200"));
    EXPECT_TRUE(log.contains("Account 1001 changed tags for message-summary subscription"));
  }
  EXPECT_EQ(bindings(), 3);

  Request clear;
  clear.call_id = String("c5");
  clear.contact = String("*");
  clear.clear_all = true;
  clear.expires = String("0");
  LogCapture log;
  EXPECT_EQ(request(clear).find(rec_status), String("200"));
  EXPECT_TRUE(log.contains("Account 1001 requested clearing of registration database"));
  EXPECT_EQ(bindings(), 1);  // the subscription stays
}

// A binding whitelists the phone's address and port for its time and puts the address in
// the device syslog map, which it leaves with the last binding from there.
TEST_F(RegistrarTest, BindingsReachAccessControlAndDeviceSyslog) {
  Address phone(parse_adr(String("192.0.2.10")), 5062);
  EXPECT_EQ(acl_check(phone, acl_class_udp), 0);
  Request q;
  EXPECT_EQ(request(q).find(rec_status), String("200"));
  EXPECT_GT(acl_check(phone, acl_class_udp), 0);
  EXPECT_EQ(acl_check(Address(phone.adr, 5063), acl_class_udp), 0);
  EXPECT_TRUE(device_syslog_receive(String("<14>booted"), String("192.0.2.10")));

  Request other = q;
  other.call_id = String("c2");
  other.contact = String("<sip:1001@192.0.2.10:5070>");
  EXPECT_EQ(request(other).find(rec_status), String("200"));
  q.expires = String("0");
  EXPECT_EQ(request(q).find(rec_status), String("200"));
  EXPECT_TRUE(device_syslog_receive(String("<14>still there"), String("192.0.2.10")));
  other.expires = String("0");
  EXPECT_EQ(request(other).find(rec_status), String("200"));
  EXPECT_EQ(bindings(), 0);
  EXPECT_FALSE(device_syslog_receive(String("<14>gone"), String("192.0.2.10")));
}

TEST_F(RegistrarTest, CredentialsOfAnAccount) {
  table_by_name(tbl_extensions)->set(table_by_name(tbl_users)->get(ext1002_, col_id).to_int(), col_web_pass,
                                     String("webpw"));
  add_row(tbl_macs, {{col_adr, String("0004F2000001")}, {col_user, format("%d %d", ext1001_, ext1002_)},
                     {col_pass, String("devpw")}});
  add_row(tbl_macs, {{col_adr, String("0004F2000002")}, {col_user, String(ext1001_)}, {col_pass, String("other")}});
  TaggedText policy = credentials_for("1002", "udp:5060");
  EXPECT_EQ(policy.find(rec_account_found), String("true"));
  EXPECT_EQ(policy.find(rec_realm), String("pbx.test"));
  EXPECT_TRUE(policy.find(rec_no_auth).empty());
  std::vector<std::string> pairs;
  TaggedText walk(policy.text());
  int tag;
  String v, user;
  while (walk.next(tag, v)) {
    if (tag == rec_user) user = v;
    if (tag == rec_password) pairs.push_back(to_std(user) + " " + to_std(v));
  }
  EXPECT_EQ(pairs, (std::vector<std::string>{"1002 pw2", "1002 webpw", "0004F2000001 devpw"}));
}

// A phone in a web page whose connection is logged in as the same account needs no
// password; another account's web connection does not help.
TEST_F(RegistrarTest, LoggedInWebConnectionNeedsNoPassword) {
  static int logged_in;
  logged_in = ext1001_;
  set_registrar_web_account([](const String& key) { return key == "rest:7" ? logged_in : 0; });
  LogCapture log;
  TaggedText own = credentials_for("1001", "rest:7");
  EXPECT_EQ(own.find(rec_no_auth), String("true"));
  EXPECT_EQ(own.find(rec_account_found), String("true"));
  EXPECT_TRUE(log.contains("Allow registration without further authentication for 1001"));
  struct Case {
    const char* number;
    const char* socket_key;
  } others[] = {{"1002", "rest:7"}, {"1001", "rest:8"}, {"1001", "udp:5060"}};
  for (const Case& c : others) {
    TaggedText policy = credentials_for(c.number, c.socket_key);
    EXPECT_TRUE(policy.find(rec_no_auth).empty()) << c.number << " " << c.socket_key;
    EXPECT_FALSE(policy.find(rec_password).empty()) << c.number << " " << c.socket_key;
  }
}

TEST_F(RegistrarTest, AppsKeepTheirPushToken) {
  Request q;
  q.push_token = String("tok-1");
  q.instance = String("<urn:uuid:app>");
  EXPECT_EQ(request(q).find(rec_status), String("200"));
  q.call_id = String("c2");
  EXPECT_EQ(request(q).find(rec_status), String("200"));
  Table* tokens = table_by_name(tbl_fcmregs);
  ASSERT_EQ(tokens->row_count(), 1);
  int row = tokens->first();
  EXPECT_EQ(tokens->get(row, col_user), String(ext1001_));
  EXPECT_EQ(tokens->get(row, col_domain), String(domain_));
  EXPECT_EQ(tokens->get(row, col_ua), String("App/2.1 Android/14"));
  EXPECT_EQ(tokens->get(row, col_device), String("<urn:uuid:app>"));
}

namespace {
std::vector<std::string> heard;  // what the hooks were told, in order
}  // namespace

// A device that provisioning knows by its MAC registers without an account or password,
// for `min_expires`, and its address and port are whitelisted for that time.
TEST_F(RegistrarTest, DevicesKnownByMac) {
  heard.clear();
  registrar_hooks.known_device = [](const String& mac) { return mac == "0004F2ABCDEF"; };
  registrar_hooks.device_registered = [](const String& mac, const String& agent, const String& source) {
    heard.push_back(to_std(format("%s|%s|%s", mac, agent, source)));
  };
  settings["min_expires"] = "45";
  TaggedText policy = credentials_for("0004F2ABCDEF", "udp:5060");
  EXPECT_EQ(policy.find(rec_account_found), String("true"));
  EXPECT_EQ(policy.find(rec_no_auth), String("true"));
  EXPECT_EQ(credentials_for("0004F2ABCDE0", "udp:5060").find(rec_account_found), String("false"));

  Request q;
  q.to = String("<sip:0004F2ABCDEF@pbx.test>");
  q.from = String("<sip:0004F2ABCDEF@pbx.test>;tag=d");
  TaggedText answer = request(q);
  EXPECT_EQ(answer.find(rec_status), String("200"));
  EXPECT_EQ(answer.find(rec_expires), String("45"));
  EXPECT_EQ(heard, (std::vector<std::string>{"0004F2ABCDEF|App/2.1 Android/14|192.0.2.10:5062"}));
  EXPECT_GT(acl_check(Address(parse_adr(String("192.0.2.10")), 5062), acl_class_udp), 0);
  EXPECT_EQ(bindings(), 0);
  struct Case {
    const char* to;
    const char* event;
  } refused[] = {{"<sip:0004F2ABCDE0@pbx.test>", ""}, {"<sip:0004F2ABCDEF@pbx.test>", "message-summary"},
                 {"<sip:0004F2ABCDEFAB@pbx.test>", ""}};
  for (const Case& c : refused) {
    Request r;
    r.to = String(c.to);
    r.event = String(c.event);
    r.call_id = String(c.to);
    EXPECT_EQ(request(r).find(rec_status), String("404")) << c.to << " " << c.event;
  }
}

TEST_F(RegistrarTest, PresenceAndSubscriptionHooks) {
  heard.clear();
  registrar_hooks.presence = [](int user, bool registered) {
    heard.push_back(to_std(format("presence %d %s", user, String(registered ? "true" : "false"))));
  };
  registrar_hooks.subscription_started = [](int row) {
    heard.push_back("subscription " + to_std(table_by_name(tbl_registrations)->get(row, col_event)));
  };
  registrar_hooks.feature_event = [](int user, const String& body) {
    heard.push_back(to_std(format("feature %d %s", user, body)));
  };
  Request a;
  EXPECT_EQ(request(a).find(rec_status), String("200"));
  EXPECT_EQ(request(a).find(rec_status), String("200"));  // a refresh
  Request b;
  b.call_id = String("c2");
  b.contact = String("<sip:1001@192.0.2.10:5070>");
  EXPECT_EQ(request(b).find(rec_status), String("200"));
  Request mwi;
  mwi.call_id = String("s1");
  mwi.event = String("message-summary");
  EXPECT_EQ(request(mwi).find(rec_status), String("200"));
  EXPECT_EQ(request(mwi).find(rec_status), String("200"));
  Request feature;
  feature.call_id = String("s2");
  feature.event = String("as-feature-event");
  feature.body = String("<SetDoNotDisturb/>");
  EXPECT_EQ(request(feature).find(rec_status), String("200"));
  a.expires = String("0");
  EXPECT_EQ(request(a).find(rec_status), String("200"));
  std::string id = std::to_string(ext1001_);
  EXPECT_EQ(heard, (std::vector<std::string>{"presence " + id + " true", "subscription message-summary",
                                             "feature " + id + " <SetDoNotDisturb/>", "presence " + id + " false"}));
}

// A watcher whose From is a star code of the domain subscribes to dialogs under the code.
TEST_F(RegistrarTest, StarCodeWatchers) {
  registrar_hooks.star_code = [](int, const String& from_user, int to_user) {
    return from_user == "*55" ? format("*55%d", to_user) : String();
  };
  Request q;
  q.event = String("dialog");
  q.from = String("<sip:*55@pbx.test>;tag=w");
  LogCapture log;
  EXPECT_EQ(request(q).find(rec_status), String("200"));
  Table* regs = table_by_name(tbl_registrations);
  ASSERT_EQ(bindings(), 1);
  EXPECT_EQ(regs->get(regs->first(), col_tuser), format("*55%d", ext1001_));
  EXPECT_TRUE(log.contains(to_std(format("Registering starcode *55%d to 1001", ext1001_))));
  Request other = q;
  other.call_id = String("c2");
  other.from = String("<sip:*77@pbx.test>;tag=w");
  EXPECT_EQ(request(other).find(rec_status), String("403"));
}
