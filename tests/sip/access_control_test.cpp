#include "sip/access_control.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "core/access_hooks.h"
#include "core/posting.h"
#include "core/server.h"
#include "core/timeout.h"
#include "store/names.h"
#include "store/schema.h"
#include "store/table.h"
#include "tests/support/test_support.h"

namespace {

int64_t fake_now = 5000000000;
int64_t fake_tick() { return fake_now; }
void advance_ms(int64_t m) { fake_now += m * 1000000; }

std::map<std::string, std::string> settings;
String read_setting(const char* name) {
  auto it = settings.find(name);
  return it == settings.end() ? String() : String(it->second.c_str());
}

struct Mail {
  std::string template_name, subject, text;
};
std::vector<Mail> mails;
void on_mail(const String& t, const String& s, const String& x) { mails.push_back({to_std(t), to_std(s), to_std(x)}); }

Address at(const char* text, int port = 0) { return Address(parse_adr(String(text)), port); }

// Runs the control queue's timers that are due at the fake time.
void run_due_timers() {
  for (int i = 0; i < 1000; i++) {
    Tick now;
    uint64_t id;
    if (control_queue.delay(now, id, true) != 0) return;
    control_queue.next();
  }
}

class AclTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tick_set_source(fake_tick);
    settings.clear();
    settings["email_blacklist_ip"] = "blacklist";
    set_setting_reader(read_setting);
    mails.clear();
    set_acl_mail(on_mail);
    acl_reset();
  }
  void TearDown() override {
    acl_reset();
    set_acl_mail(nullptr);
    set_setting_reader(nullptr);
    tick_set_source(nullptr);
  }
};

const char* const register_text =
    "REGISTER sip:example.com SIP/2.0\r\nVia: SIP/2.0/UDP 192.0.2.50:5060\r\n"
    "From: \"Bob\" <sip:100@Example.COM:5060>;tag=1\r\nTo: <sip:100@example.com>\r\n\r\n";

}  // namespace

TEST_F(AclTest, ManualPrefixesLongestFirst) {
  std::vector<AclRow> rows = {
      {1, "10.1.2.0", "24", "black", "office net"},
      {2, "10.1.2.7", "32", "white", "admin"},
      {3, "192.168.0.0", "255.255.0.0", "white", "lan"},
      {4, "2001:db8::", "64", "black", ""},
      {5, "::", "0", "white", "all of IPv6"},
      {6, "172.16.0.0", "12", "white", "a length outside the list"},
      {7, "bogus", "32", "white", ""},
      {8, "10.9.9.9", "255.0.255.0", "white", "not a prefix"},
  };
  EXPECT_EQ(acl_load_manual(rows), 5);
  struct Case {
    const char* adr;
    int result;
  } cases[] = {
      {"10.1.2.7", 1},  {"10.1.2.8", -1},   {"10.1.3.1", 0},     {"192.168.44.1", 1},
      {"172.16.0.1", 0}, {"2001:db8::1", -1}, {"2001:db9::1", 1}, {"10.9.9.9", 0},
  };
  for (const auto& c : cases)
    for (int cls : {acl_class_udp, acl_class_tcp, acl_class_http}) EXPECT_EQ(acl_check(at(c.adr, 5060), cls), c.result) << c.adr;
  // A manual black entry beats an automatic white one inside it.
  acl_allow(at("10.1.2.9"), 32, true, acl_class_udp, 0, String("Trunk t"));
  EXPECT_EQ(acl_check(at("10.1.2.9"), acl_class_udp), -1);
  String json;
  acl_json(json);
  EXPECT_NE(json.find(String("{\"adr\":\"10.1.2.0\",\"mask\":24,\"type\":\"manual\",\"comment\":\"office net\",\"enabled\":false,\"id\":1}")), -1);
  EXPECT_NE(json.find(String("{\"adr\":\"::\",\"mask\":0,\"type\":\"manual\",\"comment\":\"all of IPv6\",\"enabled\":true,\"id\":5}")), -1);
  // A reload replaces what was there.
  EXPECT_EQ(acl_load_manual({}), 0);
  EXPECT_EQ(acl_check(at("10.1.2.8"), acl_class_udp), 0);
}

TEST_F(AclTest, AutomaticEntriesExpireAndKeepTheirLongestLife) {
  LogCapture log;
  acl_allow(at("192.0.2.1", 5060), 48, true, acl_class_udp, 60, String("Registration 100"));
  EXPECT_EQ(acl_check(at("192.0.2.1", 5060), acl_class_udp), 1);
  EXPECT_EQ(acl_check(at("192.0.2.1", 5061), acl_class_udp), 0);
  EXPECT_EQ(acl_check(at("192.0.2.1", 5060), acl_class_tcp), 0);
  acl_allow(at("192.0.2.1", 5060), 48, true, acl_class_udp, 10, String());  // doesn't shorten
  acl_allow(at("192.0.2.2"), 32, true, acl_class_udp, 0, String("Trunk t"));
  acl_allow(at("192.0.2.2"), 32, true, acl_class_udp, 10, String());  // a trunk lasts
  acl_allow(at("2001:db8::1", 5060), 144, true, acl_class_udp, 30, String("v6"));
  EXPECT_EQ(acl_check(at("2001:db8::1", 5060), acl_class_udp), 1);
  String status;
  acl_status(status);
  EXPECT_EQ(status, String("{\"auto_sip_udp\":3,\"auto_sip_tcp\":0,\"auto_http\":0,\"white_ports_sip_udp\":2,"
                           "\"white_ports_sip_tcp\":0,\"white_ports_http\":0,\"accept_sip_tcp\":0,\"accept_http\":0,"
                           "\"authentication_failures\":0,\"authentication_list\":0}"));
  String json;
  acl_json(json);
  EXPECT_EQ(json, String("[{\"adr\":\"192.0.2.1\",\"port\":5060,\"mask\":48,\"type\":\"udp\",\"duration\":60,\"enabled\":true,\"comment\":\"Registration 100\"},"
                         "{\"adr\":\"192.0.2.2\",\"port\":0,\"mask\":32,\"type\":\"udp\",\"duration\":0,\"enabled\":true,\"comment\":\"Trunk t\"},"
                         "{\"adr\":\"2001:db8::1\",\"port\":5060,\"mask\":144,\"type\":\"udp\",\"duration\":30,\"enabled\":true,\"comment\":\"v6\"},"
                         "{\"type\":\"white\",\"transport\":\"udp\",\"adr\":\"192.0.2.1\",\"count\":1},"
                         "{\"type\":\"white\",\"transport\":\"udp\",\"adr\":\"2001:db8::1\",\"count\":1}]"));
  advance_ms(30000);
  run_due_timers();
  EXPECT_TRUE(log.contains("Remove SIP/UDP entry"));
  EXPECT_EQ(acl_check(at("2001:db8::1", 5060), acl_class_udp), 0);
  EXPECT_EQ(acl_check(at("192.0.2.1", 5060), acl_class_udp), 1);
  advance_ms(30000);
  acl_expire_now();
  EXPECT_EQ(acl_check(at("192.0.2.1", 5060), acl_class_udp), 0);
  advance_ms(int64_t{3600} * 1000);
  acl_expire_now();
  EXPECT_EQ(acl_check(at("192.0.2.2"), acl_class_udp), 1);
  acl_status(status);
  EXPECT_NE(status.find(String("\"auto_sip_udp\":1,")), -1);
  EXPECT_NE(status.find(String("\"white_ports_sip_udp\":0,")), -1);
  EXPECT_TRUE(acl_remove(at("192.0.2.2"), acl_class_udp));
  EXPECT_FALSE(acl_remove(at("192.0.2.2"), acl_class_udp));
  EXPECT_EQ(acl_check(at("192.0.2.2"), acl_class_udp), 0);
}

// With the default settings: 9 REGISTERs in the period pass, the 10th blacklists, and a
// source on a list is never blacklisted (again).
TEST_F(AclTest, PenaltiesBlacklistOnce) {
  Tick t = Tick::now();
  Address src = at("198.51.100.7", 5062);
  for (int i = 0; i < 9; i++) acl_penalty(t.plus_ms(i * 50), src, 16, acl_class_udp, String("SIP"), String(register_text));
  EXPECT_EQ(acl_check(src, acl_class_udp), 0);
  advance_ms(1001 + 8 * 50);  // the period passes without a failure: start again from 0
  for (int i = 0; i < 9; i++) acl_penalty(Tick::now().plus_ms(i), src, 16, acl_class_udp, String("SIP"), String(register_text));
  EXPECT_EQ(acl_check(src, acl_class_udp), 0);
  acl_penalty(Tick::now().plus_ms(9), src, 16, acl_class_udp, String("SIP"), String(register_text));
  EXPECT_EQ(acl_check(src, acl_class_udp), -1);
  EXPECT_EQ(acl_check(at("198.51.100.7", 1), acl_class_udp), -1);  // the address, any port
  EXPECT_EQ(acl_check(src, acl_class_tcp), 0);
  for (int i = 0; i < 20; i++) acl_penalty(Tick::now().plus_ms(10 + i), src, 32, acl_class_udp, String("SIP"), String(register_text));
  ASSERT_EQ(mails.size(), 1u);
  EXPECT_EQ(mails[0].template_name, "blacklist");
  EXPECT_EQ(mails[0].subject, "Address 198.51.100.7 has been blacklisted");
  EXPECT_EQ(mails[0].text, "The IP address 198.51.100.7 has been blacklisted for 60 minutes because there were 10 unsuccessful authentication attempts.");
  String json;
  acl_json(json);
  EXPECT_NE(json.find(String("{\"adr\":\"198.51.100.7\",\"port\":0,\"mask\":32,\"type\":\"udp\",\"duration\":3600,\"enabled\":false,\"comment\":\"REGISTER 100@example.com\"}")), -1);

  // 160 points of other requests, or 5 INVITEs; the whitelisted address never falls.
  settings["blacklist_expires"] = "600";
  acl_load_manual({{1, "127.0.0.1", "32", "white", "me"}});
  for (int i = 0; i < 200; i++) acl_penalty(Tick::now(), at("127.0.0.1", 5060), 32, acl_class_udp, String("SIP"), String());
  EXPECT_EQ(acl_check(at("127.0.0.1", 5060), acl_class_udp), 1);
  for (int i = 0; i < 5; i++) acl_penalty(Tick::now(), at("198.51.100.8", 9), 32, acl_class_udp, String("SIP"), String("INVITE sip:x SIP/2.0\r\nf: <tel:+4930123>\r\n\r\n"));
  for (int i = 0; i < 160; i++) acl_penalty(Tick::now(), at("198.51.100.9", 9), 1, acl_class_http, String("HTTP"), String());
  EXPECT_EQ(acl_check(at("198.51.100.8"), acl_class_udp), -1);
  EXPECT_EQ(acl_check(at("198.51.100.9"), acl_class_http), -1);
  ASSERT_EQ(mails.size(), 3u);
  EXPECT_EQ(mails[1].text, "The IP address 198.51.100.8 has been blacklisted for 10 minutes because there were 10 unsuccessful authentication attempts.");
  acl_json(json);
  EXPECT_NE(json.find(String("\"comment\":\"INVITE +4930123@\"")), -1);
  EXPECT_NE(json.find(String("\"type\":\"http\",\"duration\":600,\"enabled\":false,\"comment\":\"HTTP\"")), -1);
  // An allow takes the penalty record with it.
  acl_penalty(Tick::now(), at("203.0.113.1", 7), 16, acl_class_udp, String("SIP"), String());
  String status;
  acl_status(status);
  EXPECT_NE(status.find(String("\"authentication_failures\":5,")), -1);
  acl_allow(at("203.0.113.1", 7), 48, true, acl_class_udp, 60, String());
  acl_status(status);
  EXPECT_NE(status.find(String("\"authentication_failures\":4,")), -1);
  // Nothing for an empty or all-zero source.
  blacklist_address(Address(), acl_class_udp, String("x"));
  blacklist_address(at("0.0.0.0"), acl_class_udp, String("x"));
  EXPECT_EQ(acl_check(at("0.0.0.0"), acl_class_udp), 0);
}

TEST_F(AclTest, ConnectionCounts) {
  LogCapture log;
  settings["blacklist_conthres"] = "3";
  settings["blacklist_contdur"] = "5";
  Address peer = at("198.51.100.20", 40000);
  acl_connection(peer, acl_class_tcp, 1);
  acl_connection(peer, acl_class_tcp, 1);
  String json;
  acl_json(json);
  EXPECT_NE(json.find(String("{\"type\":\"accept\",\"transport\":\"tcp\",\"adr\":\"198.51.100.20\",\"count\":2}")), -1);
  acl_forget_connection(peer, acl_class_tcp);
  acl_connection(peer, acl_class_tcp, 1);
  EXPECT_EQ(acl_check(peer, acl_class_tcp), 0);
  acl_connection(peer, acl_class_tcp, 1);
  EXPECT_EQ(acl_check(peer, acl_class_tcp), -1);
  ASSERT_EQ(mails.size(), 1u);
  EXPECT_EQ(mails[0].text, "The IP address 198.51.100.20 has been blacklisted for 60 minutes because there were 3 unsuccessful connections.");
  acl_connection(peer, acl_class_tcp, 1);
  EXPECT_EQ(mails.size(), 1u);
  acl_json(json);
  EXPECT_NE(json.find(String("\"type\":\"tcp\",\"duration\":3600,\"enabled\":false,\"comment\":\"Connection\"")), -1);

  // The count clears after `blacklist_contdur` seconds.
  Address web = at("198.51.100.21", 1);
  acl_connection(web, acl_class_http, 2);
  advance_ms(5000);
  run_due_timers();
  EXPECT_TRUE(log.contains("Clear HTTP"));
  acl_connection(web, acl_class_http, 2);
  EXPECT_EQ(acl_check(web, acl_class_http), 0);

  // A whitelisted port on the address, or a threshold of 0, switches the count off.
  Address phone = at("198.51.100.22", 5060);
  acl_allow(phone, 48, true, acl_class_tcp, 600, String());
  for (int i = 0; i < 10; i++) acl_connection(at("198.51.100.22", 50000 + i), acl_class_tcp, 1);
  EXPECT_EQ(acl_check(at("198.51.100.22"), acl_class_tcp), 0);
  settings["blacklist_conthres"] = "0";
  for (int i = 0; i < 10; i++) acl_connection(at("198.51.100.23", 1), acl_class_tcp, 1);
  EXPECT_EQ(acl_check(at("198.51.100.23"), acl_class_tcp), 0);
  acl_json(json);
  EXPECT_EQ(json.find(String("\"adr\":\"198.51.100.23\"")), -1);
}

TEST_F(AclTest, HooksReachTheLists) {
  acl_register();
  acl_load_manual({{1, "127.0.0.1", "32", "white", ""}});
  EXPECT_EQ(acl_hook_check(at("127.0.0.1", 5060), 1), 1);
  EXPECT_EQ(acl_hook_check(at("127.0.0.9", 5060), 1), 0);
  for (int i = 0; i < 10; i++) acl_hook_penalty(at("127.0.0.9", 5060), 1, 16, "sip");
  EXPECT_EQ(acl_hook_check(at("127.0.0.9", 5061), 1), -1);
  EXPECT_EQ(acl_hook_check(at("127.0.0.1", 5060), 1), 1);
  // The reports of the service half arrive as posted messages.
  for (int i = 0; i < 5; i++)
    dispatch_posted(acl_penalty_message(at("127.0.0.10", 5070), 32, acl_class_udp, String("SIP"),
                                        String("INVITE sip:1@pbx SIP/2.0\r\nFrom: <sip:200@Host.Test>;tag=x\r\n\r\n")),
                    false);
  EXPECT_EQ(acl_check(at("127.0.0.10"), acl_class_udp), -1);
  dispatch_posted(acl_allow_message(at("127.0.0.11", 5060), 48, true, acl_class_tcp, 120, String("Registration 200")), false);
  EXPECT_EQ(acl_check(at("127.0.0.11", 5060), acl_class_tcp), 1);
  // The binding whitelists the phone's port, not its neighbours, and the socket code
  // passes the port along.
  EXPECT_EQ(acl_hook_check(at("127.0.0.11", 5060), acl_class_tcp), 1);
  EXPECT_EQ(acl_hook_check(at("127.0.0.11", 5062), acl_class_tcp), 0);
  String json;
  acl_json(json);
  EXPECT_NE(json.find(String("\"comment\":\"INVITE 200@host.test\"")), -1);
  EXPECT_NE(json.find(String("{\"adr\":\"127.0.0.11\",\"port\":5060,\"mask\":48,\"type\":\"tcp\",\"duration\":120,\"enabled\":true,\"comment\":\"Registration 200\"}")), -1);
  set_acl_hooks(nullptr, nullptr);
}

TEST_F(AclTest, ManualEntriesFollowTheTable) {
  create_tables();
  Table* t = find_table(tbl_accesslist);
  ASSERT_NE(t, nullptr);
  bool persist = t->persist();
  t->set_persist(false);  // no files below the working directory
  int row = t->create_row();
  ASSERT_NE(row, 0);
  t->set(row, col_adr, String("127.0.0.0"));
  t->set(row, col_mask, String("8"));
  t->set(row, col_type, String("white"));
  t->set(row, col_comment, String("loopback"));
  EXPECT_EQ(acl_load_accesslist(), 1);
  EXPECT_EQ(acl_check(at("127.0.0.9"), acl_class_udp), 1);
  // What a write with notification does at its end.
  t->set(row, col_type, String("black"));
  ASSERT_NE(t->on_change, nullptr);
  t->on_change(*t, row);
  EXPECT_EQ(acl_check(at("127.0.0.9"), acl_class_udp), -1);
  String json;
  acl_json(json);
  EXPECT_EQ(json, format("[{\"adr\":\"127.0.0.0\",\"mask\":8,\"type\":\"manual\",\"comment\":\"loopback\",\"enabled\":false,\"id\":%d}]", row));
  t->delete_row(row, false);
  t->on_change = nullptr;
  t->set_persist(persist);
}
