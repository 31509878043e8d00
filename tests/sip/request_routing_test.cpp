#include "sip/request_routing.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "core/log.h"
#include "core/posting.h"
#include "core/tick.h"
#include "core/timeout.h"
#include "sip/digest.h"
#include "sip/dns_message.h"
#include "sip/domain_names.h"
#include "sip/message_text.h"
#include "sip/sip_hooks.h"
#include "sip/sip_send.h"
#include "sip/sip_tcp.h"
#include "sip/transaction.h"
#include "store/names.h"
#include "store/schema.h"
#include "tests/support/test_support.h"

namespace {

int64_t fake_now = 1000000000;
int64_t fake_clock() { return fake_now; }

struct Sent {
  int64_t at_ms;
  SendOrder order;
  String text;
};
std::vector<Sent> sent;
std::vector<SipMessage> local_responses;

void capture_send(const String& value) {
  SendOrder order;
  if (!read_send_order(value, order)) return;
  LocalEnd end;
  end.ip = String("192.0.2.10");
  end.port = 5060;
  sent.push_back({(fake_now - 1000000000) / 1000000, order, message_text(order.message, end, String(), order.transport)});
}

bool capture_response(SipMessage& r) {
  local_responses.push_back(r);
  return true;
}

std::map<std::string, std::string> extra_settings;

String setting(const String& name) {
  auto found = extra_settings.find(to_std(name));
  if (found != extra_settings.end()) return String(found->second.c_str());
  if (name == "out_of_dialog_options") return String("true");
  if (name == "max_udp_invite") return String("2");
  return String();
}

bool accept_call(SipMessage&) { return true; }

class RoutingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_now = 1000000000;
    tick_set_source(fake_clock);
    sent.clear();
    local_responses.clear();
    clear_pending_packets();
    request_routing_register();
    register_control_handler(tag_sip_send, capture_send);
    exchsrv_soap();  // what an earlier test left posted
    sent.clear();
    sip_hooks.setting = setting;
    extra_settings.clear();
    routing_hooks = RoutingHooks();
    routing_hooks.dialog_response = capture_response;
  }
  void TearDown() override {
    clear_pending_packets();
    sip_hooks.setting = nullptr;
    tick_set_source(nullptr);
  }

  void receive(const String& text, const char* source = "127.0.0.9", int port = 5062, const char* transport = "udp",
               bool whitelisted = false) {
    ReceivedPacket p;
    p.whitelisted = whitelisted;
    p.socket_key = format("%s:5060", transport);
    p.text = text;
    p.transport = String(transport);
    p.source = Address(parse_adr(String(source)), port);
    p.local = Address(parse_adr(String("127.0.0.1")), 5060);
    receive_packet(p);
    exchsrv_soap();
  }

  // Moves the fake clock on, running the service timers that fall due on the way.
  void advance_to(int64_t ms) {
    int64_t target = 1000000000 + ms * 1000000;
    for (;;) {
      Tick now;
      uint64_t id;
      int64_t d = service_queue.delay(now, id, true);
      if (d < 0 || fake_now + d * 1000000 > target) break;
      fake_now += d * 1000000;
      service_queue.next();
      exchsrv_soap();
    }
    fake_now = target;
  }

  static String request(const char* method, const char* extra = "") {
    return format("%s sip:pbx.test SIP/2.0\r\n"
                  "Via: SIP/2.0/UDP 10.0.0.5:5062;branch=z9hG4bK77\r\n"
                  "From: <sip:1001@pbx.test>;tag=ft\r\nTo: <sip:pbx.test>\r\n"
                  "Call-ID: call-%s\r\nCSeq: 1 %s\r\n%sContent-Length: 0\r\n\r\n",
                  method, method, method, extra);
  }
};

}  // namespace

TEST_F(RoutingTest, OutOfDialogAnswers) {
  struct Case {
    const char* method;
    const char* extra;
    const char* first_line;
  } cases[] = {
      {"OPTIONS", "", "SIP/2.0 200 Ok"},
      {"BYE", "", "SIP/2.0 481 Call/Transaction Does Not Exist"},
      {"FOO", "", "SIP/2.0 501 Not Supported"},
      {"PING", "", "SIP/2.0 200 Keep Alive"},
      {"NOTIFY", "Event: keep-alive\r\n", "SIP/2.0 200 Keep Alive"},
      {"INVITE", "", "SIP/2.0 400 Bad Request"},
      {"REGISTER", "Contact: <sip:a@1.2.3.4>\r\nContact: <sip:b@1.2.3.4>\r\n", "SIP/2.0 500 Expecting One Contact"},
      {"REGISTER", "Contact: *\r\n", "SIP/2.0 200 Ok"},
  };
  for (const auto& c : cases) {
    sent.clear();
    clear_pending_packets();
    receive(request(c.method, c.extra));
    ASSERT_EQ(sent.size(), 1u) << c.method;
    EXPECT_TRUE(sent[0].text.starts_with(String(c.first_line))) << to_std(sent[0].text);
  }
  // The OPTIONS answer offers the methods and tags the To.
  sent.clear();
  clear_pending_packets();
  receive(request("OPTIONS"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_TRUE(sent[0].text.contains(String("Allow: INVITE, ACK, CANCEL, BYE, REFER, PRACK, INFO, UPDATE\r\n")));
  EXPECT_TRUE(sent[0].text.contains(String("To: <sip:pbx.test>;tag=")));
}

TEST_F(RoutingTest, ResponseGoesToTheRealSourceWithReceivedAndRport) {
  receive(request("OPTIONS"), "127.0.0.9", 40000);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].order.destination, Address(parse_adr(String("127.0.0.9")), 40000));
  EXPECT_TRUE(sent[0].text.contains(String("Via: SIP/2.0/UDP 10.0.0.5:5062;branch=z9hG4bK77;rport=40000;received=127.0.0.9\r\n")));
}

TEST_F(RoutingTest, RepeatedRequestGetsTheStoredAnswer) {
  LogCapture log;
  receive(request("OPTIONS"));
  receive(request("OPTIONS"));
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].text, sent[1].text);
  EXPECT_TRUE(log.contains("Message repetition, packet dropped"));
}

TEST_F(RoutingTest, ScannersAndNoViaGetSilence) {
  LogCapture log;
  receive(request("OPTIONS", "User-Agent: friendly-scanner/1.0\r\n"));
  EXPECT_TRUE(sent.empty());
  EXPECT_TRUE(log.contains("ignored because of user-agent friendly-scanner"));
  receive(String("OPTIONS sip:x SIP/2.0\r\nVia: ,,,\r\nCall-ID: v\r\nCSeq: 1 OPTIONS\r\n\r\n"));
  receive(String("SIP/2.0 abc Whatever\r\nVia: SIP/2.0/UDP 1.2.3.4\r\nCall-ID: r\r\nCSeq: 1 OPTIONS\r\n\r\n"));
  receive(String("OPTIONS sip:x SIP/2.0\r\nCall-ID: nv\r\nCSeq: 1 OPTIONS\r\n\r\n"));
  EXPECT_TRUE(sent.empty());
}

// A request to a silent peer goes out at 0, 0.5, 1.5, 3.5 and 7.5 s, then every 4 s,
// and the transaction ends after 32 s with a local 408.
TEST_F(RoutingTest, RetransmissionScheduleAndTimeout) {
  SipMessage m(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=lt")), NameAddr(String("<sip:peer@127.0.0.9>")),
               String("retrans-1"), String());
  m.request_uri = String("sip:peer@127.0.0.9:5099");
  send_packet(m);
  exchsrv_soap();
  advance_to(40000);
  std::vector<int64_t> times;
  for (const Sent& s : sent) times.push_back(s.at_ms);
  ASSERT_GE(times.size(), 5u);
  std::vector<int64_t> first(times.begin(), times.begin() + 5);
  EXPECT_EQ(first, (std::vector<int64_t>{0, 500, 1500, 3500, 7500}));
  EXPECT_EQ(times.back(), 31500);
  EXPECT_EQ(sent[0].order.destination, Address(parse_adr(String("127.0.0.9")), 5099));
  ASSERT_EQ(local_responses.size(), 1u);
  EXPECT_EQ(local_responses[0].status, 408);
  EXPECT_EQ(pending_packet_count(), 0);
}

TEST_F(RoutingTest, UnresolvableHostGivesALocal404) {
  SipMessage m(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=lt")), NameAddr(String("<sip:x@nowhere.test>")),
               String("unres-1"), String());
  m.request_uri = String("sip:x@nowhere.test");
  send_packet(m);
  EXPECT_TRUE(sent.empty());
  ASSERT_EQ(local_responses.size(), 1u);
  EXPECT_EQ(local_responses[0].status, 404);
}

namespace {

// A DNS that knows `records` (type and name to the record text; a missing key is a
// negative answer) and answers each key only after it was asked for, the way a cache
// fills: the first look-up misses, the request answers at once.
std::map<std::pair<int, std::string>, std::string> records;
std::map<std::pair<int, std::string>, bool> asked;
std::vector<std::string> requests;

bool fake_lookup(const String& name, int type, String& text) {
  auto key = std::make_pair(type, to_std(name));
  if (!asked[key]) return false;
  auto found = records.find(key);
  text = found == records.end() ? String() : String(found->second.c_str());
  return true;
}

void fake_request(const String& name, int type, void (*retry)(const CallbackObject&), const CallbackObject& pending) {
  requests.push_back(to_std(dns_type_word(type)) + " " + to_std(name));
  asked[std::make_pair(type, to_std(name))] = true;
  retry(pending);
}

std::vector<std::string> resolve_lines(const LogCapture& log) {
  std::vector<std::string> out;
  for (const std::string& l : log.lines()) {
    size_t at = l.find("Resolve ");
    if (at != std::string::npos) out.push_back(l.substr(at));
  }
  return out;
}

class DnsRoutingTest : public RoutingTest {
 protected:
  void SetUp() override {
    RoutingTest::SetUp();
    records.clear();
    asked.clear();
    requests.clear();
    set_sip_resolver(SipResolver{fake_lookup, fake_request});
  }
  void TearDown() override {
    set_sip_resolver(SipResolver());
    RoutingTest::TearDown();
  }
  void send_options(const char* uri) {
    SipMessage m(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=lt")), NameAddr(format("<%s>", uri)),
                 String("dns-1"), String());
    m.request_uri = String(uri);
    send_packet(m);
    exchsrv_soap();
  }
};

}  // namespace

// A domain without a port is found through its NAPTR, then SRV, then the addresses of
// the SRV target. A line that waits for DNS is counted again when its answer comes.
TEST_F(DnsRoutingTest, NaptrThenSrvThenAddress) {
  records[{dns_naptr, "example.test"}] = "10 50 S SIP+D2U - _sip._udp.example.test";
  records[{dns_srv, "_sip._udp.example.test"}] = "10 60 pbx1.example.test 5070";
  records[{dns_a, "pbx1.example.test"}] = "127.0.0.1";
  LogCapture log;
  send_options("sip:100@example.test");
  EXPECT_EQ(resolve_lines(log), (std::vector<std::string>{
                                    "Resolve 0: url sip:100@example.test",
                                    "Resolve 1: naptr example.test",
                                    "Resolve 2: naptr example.test",
                                    "Resolve 3: srv udp _sip._udp.example.test",
                                    "Resolve 4: srv udp _sip._udp.example.test",
                                    "Resolve 5: aaaa udp pbx1.example.test 5070",
                                    "Resolve 6: aaaa udp pbx1.example.test 5070",
                                    "Resolve 7: a udp pbx1.example.test 5070",
                                    "Resolve 8: a udp pbx1.example.test 5070",
                                    "Resolve 9: udp 127.0.0.1 5070",
                                }));
  EXPECT_EQ(requests, (std::vector<std::string>{"NAPTR example.test", "SRV _sip._udp.example.test",
                                                "AAAA pbx1.example.test", "A pbx1.example.test"}));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].order.destination, Address(parse_adr(String("127.0.0.1")), 5070));
}

// Without NAPTR records the host's own address comes first, then its SRV records; a
// transport parameter narrows both to that transport.
TEST_F(DnsRoutingTest, WithoutNaptrAddressesThenSrv) {
  records[{dns_srv, "_sip._tcp.example.test"}] = "10 60 127.0.0.3 5080";
  LogCapture log;
  send_options("sip:100@example.test;transport=tcp");
  EXPECT_EQ(requests, (std::vector<std::string>{"NAPTR example.test", "A example.test", "AAAA example.test",
                                                "SRV _sip._tcp.example.test"}));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].order.destination, Address(parse_adr(String("127.0.0.3")), 5080));
  EXPECT_EQ(sent[0].order.transport, String("tcp"));
  EXPECT_TRUE(log.contains("Resolve 9: tcp 127.0.0.3 5080"));
}

// Each SRV target name buys four more lines, up to a hundred: sixty dead targets run
// out of lines and end in the local 404 rather than looping.
TEST_F(DnsRoutingTest, ManySrvTargetsHitTheIterationLimit) {
  std::string srv;
  for (int i = 0; i < 60; i++) srv += (i ? "\n" : "") + std::to_string(i) + " 0 dead" + std::to_string(i) + ".test 5060";
  records[{dns_naptr, "many.test"}] = "10 50 S SIP+D2U - _sip._udp.many.test";
  records[{dns_srv, "_sip._udp.many.test"}] = srv;
  LogCapture log;
  send_options("sip:100@many.test");
  EXPECT_TRUE(log.contains("Cannot route packet 103 (too many iterations)"));
  EXPECT_TRUE(sent.empty());
  ASSERT_EQ(local_responses.size(), 1u);
  EXPECT_EQ(local_responses[0].status, 404);
}

// Where a request goes before any DNS: preset routes, a maddr in the target, an ENUM name
// for a number, and a CANCEL to the hop of its INVITE with the INVITE's branch.
TEST_F(DnsRoutingTest, TargetsChosenBeforeDns) {
  records[{dns_naptr, "7.6.5.4.9.4.e164.arpa"}] = "10 10 u E2U+sip !^.*$!sip:info@127.0.0.4:5064! .";
  LogCapture log;
  SipMessage preset(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=lt")), NameAddr(String("<sip:x@far.test>")),
                    String("t-preset"), String());
  preset.request_uri = String("sip:x@far.test");
  preset.preset_routes = String("udp 127.0.0.5 5065\n");
  send_packet(preset);
  SipMessage maddr(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=lt")), NameAddr(String("<sip:x@far.test>")),
                   String("t-maddr"), String());
  maddr.request_uri = String("sip:x@far.test:5066;maddr=127.0.0.6;transport=TCP");
  send_packet(maddr);
  SipMessage number(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=lt")), NameAddr(String("<sip:+494567@far.test>")),
                    String("t-enum"), String());
  number.request_uri = String("sip:+494567@far.test;enum=true");
  send_packet(number);
  exchsrv_soap();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].order.destination, Address(parse_adr(String("127.0.0.5")), 5065));
  EXPECT_EQ(sent[1].order.destination, Address(parse_adr(String("127.0.0.6")), 5066));
  EXPECT_EQ(sent[1].order.transport, String("tcp"));
  EXPECT_EQ(sent[2].order.destination, Address(parse_adr(String("127.0.0.4")), 5064));
  EXPECT_TRUE(log.contains("Converting phone +494567 into 7.6.5.4.9.4.e164.arpa"));

  sent.clear();
  SipMessage invite(String("INVITE"), NameAddr(String("<sip:pbx@pbx.test>;tag=ci")), NameAddr(String("<sip:x@127.0.0.7:5067>")),
                    String("t-cancel"), String());
  invite.request_uri = String("sip:x@127.0.0.7:5067");
  send_packet(invite);
  SipMessage cancel(String("CANCEL"), NameAddr(String("<sip:pbx@pbx.test>;tag=ci")), NameAddr(String("<sip:x@127.0.0.7:5067>")),
                    String("t-cancel"), String());
  cancel.request_uri = String("sip:x@other.test");  // not where the INVITE went
  cancel.invite_related = true;
  send_packet(cancel);
  exchsrv_soap();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1].order.destination, sent[0].order.destination);
  auto branch = [](const String& text) { return text.substr(text.find(String("branch=")), 50); };
  EXPECT_EQ(branch(sent[1].text), branch(sent[0].text));
  EXPECT_TRUE(sent[1].text.starts_with(String("CANCEL ")));
}

namespace {
std::vector<std::string> delivered;
bool deliver(SipMessage& m) {
  delivered.push_back(to_std(m.call_id));
  return true;
}
bool registered_sender(const SipMessage& m) { return m.from.uri().user() == "1001"; }
}  // namespace

// A MESSAGE outside a dialog is delivered when the TLS connection it came on carries the
// sender's registration, or when it is configuration for the system; else 403.
TEST_F(RoutingTest, MessagesNeedAnAuthenticatedSender) {
  delivered.clear();
  routing_hooks.instant_message = deliver;
  routing_hooks.registered_on_connection = registered_sender;
  LogCapture log;
  struct Case {
    const char* transport;
    const char* content_type;
    const char* first_line;
  } cases[] = {
      {"tls", "text/plain", "SIP/2.0 200 Ok"},
      {"udp", "text/plain", "SIP/2.0 403 Authentication Required"},
      {"udp", "x-pbx-config; charset=utf-8", "SIP/2.0 200 Ok"},
  };
  int n = 0;
  for (const Case& c : cases) {
    sent.clear();
    String text = request("MESSAGE", to_std(format("Content-Type: %s\r\n", c.content_type)).c_str());
    text.replace_all(String("call-MESSAGE"), format("msg-%d", n++));
    receive(text, "127.0.0.9", 5062, c.transport);
    ASSERT_EQ(sent.size(), 1u) << c.transport;
    EXPECT_TRUE(sent[0].text.starts_with(String(c.first_line))) << to_std(sent[0].text);
  }
  EXPECT_EQ(delivered, (std::vector<std::string>{"msg-0", "msg-2"}));
  EXPECT_TRUE(log.contains("Packet authenticated by transport layer"));
}

// Packets older than ten minutes are swept out when new ones are linked, oldest first,
// whatever their own timers say; younger ones stay.
TEST_F(RoutingTest, SweepRemovesOnlyTheExpired) {
  auto options = [](int i, int timeout) {
    SipMessage m(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=sw")), NameAddr(String("<sip:p@127.0.0.9>")),
                 format("sweep-%d", i), String());
    m.request_uri = String("sip:p@127.0.0.9:5099");
    m.timeout = timeout;
    send_packet(m);
  };
  for (int i = 0; i < 5; i++) options(i, 5000);  // lives far beyond the sweep
  fake_now += 300 * 1000000000LL;
  for (int i = 5; i < 8; i++) options(i, 5000);
  fake_now += 301 * 1000000000LL;
  LogCapture log;
  for (int i = 8; i < 40; i++) options(i, 5000);
  int swept = 0;
  for (const std::string& l : log.lines()) swept += l.find("Found expired pending packet") != std::string::npos;
  EXPECT_EQ(swept, 5);
  EXPECT_EQ(pending_packet_count(), 35);
  fake_now += 300 * 1000000000LL;
  for (int i = 40; i < 56; i++) options(i, 5000);
  EXPECT_EQ(pending_packet_count(), 48);  // the three of the second batch went too
}

namespace {
std::vector<std::pair<int, int>> traced;  // category and level of each "SIP Rx"
void observe(int category, int level, const String& message) {
  if (message.starts_with(String("SIP Rx "))) traced.push_back({category, level});
}
}  // namespace

// The packet trace follows the setting of the packet's class, and a watched address is
// traced whatever the levels say.
TEST_F(RoutingTest, PacketTraceByClassAndWatchlist) {
  LogCapture quiet;  // saves and restores the levels
  for (int& l : log_levels) l = 0;
  log_set_observer(observe);
  traced.clear();
  extra_settings["log_sip_register"] = "true";
  extra_settings["log_sip_watchlist"] = "127.0.0.8, 10.1.1.1";
  receive(request("REGISTER", "Contact: *\r\n"));
  receive(request("OPTIONS"));
  receive(request("PING"), "127.0.0.8");
  EXPECT_EQ(traced, (std::vector<std::pair<int, int>>{{LOG_SIP, 5}, {LOG_WATCH, 9}}));
}

namespace {
bool known_call(const String& call_id) { return call_id == "call-BYE"; }
}  // namespace

// With ignore_wrong_domain, a stranger's request needs one of our domains (or aliases)
// or a Call-ID we know; a whitelisted source needs nothing.
TEST_F(RoutingTest, StrangersNeedAKnownDomain) {
  create_tables();
  Table* aliases = find_table(tbl_domain_alias);
  ASSERT_NE(aliases, nullptr);
  bool persist = aliases->persist();
  aliases->set_persist(false);
  extra_settings["ignore_wrong_domain"] = "true";
  routing_hooks.call_id_known = known_call;
  LogCapture log;
  publish_domain_names();
  receive(request("OPTIONS"));
  EXPECT_TRUE(sent.empty());
  EXPECT_TRUE(log.contains("Traffic from 127.0.0.9:5062 ignored because domain pbx.test was not found"));
  receive(request("OPTIONS"), "127.0.0.9", 5062, "udp", true);
  receive(request("BYE"));
  EXPECT_EQ(sent.size(), 2u);
  int row = aliases->create_row();
  aliases->set(row, col_name, String("PBX.Test"));
  publish_domain_names();
  sent.clear();
  clear_pending_packets();
  receive(request("OPTIONS"));
  EXPECT_EQ(sent.size(), 1u);
  aliases->delete_row(row, false);
  publish_domain_names();
  aliases->set_persist(persist);
}

namespace {
std::vector<std::string> idle_limits;
void capture_idle_limit(const String& value) {
  TaggedText t(value);
  idle_limits.push_back(to_std(t.find(tag_socket_key)) + " " + to_std(t.find(tag_seconds)));
}
}  // namespace

// Ringing and answering a call over a connection lift its idle limit to the longest call.
TEST_F(RoutingTest, CallAnswersKeepTheConnectionOpen) {
  idle_limits.clear();
  register_control_handler(tag_idle_limit, capture_idle_limit);
  extra_settings["max_call_duration"] = "7200";
  SipMessage invite(request("INVITE", "Contact: <sip:a@10.0.0.5>\r\n"));
  invite.socket_key = String("tls:12");
  SipMessage ringing(180, String("Ringing"), invite);
  send_packet(ringing);
  SipMessage trying(100, String("Trying"), invite);
  send_packet(trying);
  invite.socket_key = String("udp:5060");
  SipMessage over_udp(200, String("Ok"), invite);
  send_packet(over_udp);
  exchsrv_soap();
  EXPECT_EQ(idle_limits, std::vector<std::string>{"tls:12 7200"});
}

namespace {
// The peer's challenge to a request we sent, as it comes back over the wire.
String challenge_to(const String& sent_text, const char* header) {
  SipMessage request(sent_text);
  return format("SIP/2.0 401 Unauthorized\r\nVia: %s\r\nFrom: %s\r\nTo: %s;tag=peer\r\nCall-ID: %s\r\n"
                "CSeq: %d %s\r\n%s: Digest realm=\"far.test\", nonce=\"n0nce\", qop=\"auth,auth-int\", opaque=\"op\"\r\n"
                "Content-Length: 0\r\n\r\n",
                request.via[0], request.from.text(), request.to.text(), request.call_id,
                static_cast<int64_t>(request.cseq), request.method, String(header));
}
}  // namespace

// A challenged INVITE is acknowledged and sent again once with the answer, to the same
// hop; a second challenge goes up to the caller.
TEST_F(RoutingTest, ChallengesAreAnsweredOnce) {
  SipMessage invite(String("INVITE"), NameAddr(String("<sip:40@pbx.test>;tag=ours")), NameAddr(String("<sip:7@far.test>")),
                    String("auth-1"), String());
  invite.request_uri = String("sip:7@far.test");
  invite.preset_routes = String("udp 127.0.0.9 5099");
  invite.credentials = {{String("trunkuser"), String("trunkpass")}};
  send_packet(invite);
  exchsrv_soap();
  ASSERT_EQ(sent.size(), 1u);
  LogCapture log;
  receive(challenge_to(sent[0].text, "Proxy-Authenticate"), "127.0.0.9", 5099);
  ASSERT_EQ(sent.size(), 3u);
  SipMessage ack(sent[1].text), again(sent[2].text);
  EXPECT_EQ(ack.method, String("ACK"));
  EXPECT_EQ(ack.cseq, SipMessage(sent[0].text).cseq);
  EXPECT_EQ(ack.to.tag(), String("peer"));
  EXPECT_EQ(again.method, String("INVITE"));
  EXPECT_EQ(again.cseq, ack.cseq + 1);
  EXPECT_EQ(sent[2].order.destination, sent[0].order.destination);
  EXPECT_TRUE(log.contains("Answer challenge with username trunkuser"));
  EXPECT_TRUE(local_responses.empty()) << "the answered challenge went up";
  // The answer is one the peer accepts.
  NonceStore nonces;
  nonces.adopt(String("n0nce"));
  String authorization = again.header(String("Proxy-Authorization"));
  EXPECT_TRUE(authorization.contains(String("opaque=\"op\""))) << to_std(authorization);
  EXPECT_EQ(check_digest(authorization, String("INVITE"), String("sip:7@far.test"), String("far.test"),
                         Credential{String("trunkuser"), String("trunkpass")}, nonces),
            digest_ok);
  receive(challenge_to(sent[2].text, "Proxy-Authenticate"), "127.0.0.9", 5099);
  ASSERT_EQ(local_responses.size(), 1u);
  EXPECT_EQ(local_responses[0].status, 401);
}

// More than max_udp_invite new INVITEs over UDP within a second are refused.
TEST_F(RoutingTest, UdpInviteRateGuard) {
  routing_hooks.new_call = accept_call;
  LogCapture log;
  for (int i = 0; i < 3; i++)
    receive(format("INVITE sip:1001@pbx.test SIP/2.0\r\nVia: SIP/2.0/UDP 10.0.0.5:5062;branch=z9hG4bKi%d\r\n"
                   "From: <sip:a@pbx.test>;tag=f%d\r\nTo: <sip:1001@pbx.test>\r\nCall-ID: inv-%d\r\n"
                   "CSeq: 1 INVITE\r\nContact: <sip:a@10.0.0.5:5062>\r\nContent-Length: 0\r\n\r\n",
                   i, i, i));
  ASSERT_EQ(sent.size(), 1u);  // the first two went to their call ports
  EXPECT_TRUE(sent[0].text.starts_with(String("SIP/2.0 501 Temporarily Unavailable")));
  EXPECT_TRUE(log.contains("DoS protection: Not accepting more calls"));
  // A second later the guard lets calls in again.
  fake_now += 1100000000;
  receive(format("INVITE sip:1001@pbx.test SIP/2.0\r\nVia: SIP/2.0/UDP 10.0.0.5:5062;branch=z9hG4bKi9\r\n"
                 "From: <sip:a@pbx.test>;tag=f9\r\nTo: <sip:1001@pbx.test>\r\nCall-ID: inv-9\r\n"
                 "CSeq: 1 INVITE\r\nContact: <sip:a@10.0.0.5:5062>\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(sent.size(), 1u);
}
