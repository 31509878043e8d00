#include "sip/registration.h"

#include <gtest/gtest.h>

#include <vector>

#include "core/posting.h"
#include "core/tagged_text.h"
#include "security/md5.h"
#include "sip/message_text.h"
#include "sip/request_routing.h"
#include "sip/sip_send.h"
#include "sip/transaction.h"
#include "tests/support/test_support.h"

namespace {

std::vector<String> answers;            // texts sent to the phone
std::vector<std::pair<int, TaggedText>> to_control;

void capture_send(const String& value) {
  SendOrder order;
  if (!read_send_order(value, order)) return;
  LocalEnd end;
  end.ip = String("127.0.0.1");
  end.port = 5060;
  answers.push_back(message_text(order.message, end, String(), order.transport));
}

template <int tag>
void capture_control(const String& value) {
  to_control.emplace_back(tag, TaggedText(value));
}

String md5_hex(const String& s) { return hex(md5(s)); }

class RegistrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    answers.clear();
    to_control.clear();
    clear_pending_packets();
    clear_registrations();
    request_routing_register();
    registration_register();
    register_control_handler(tag_sip_send, capture_send);
    register_control_handler(tag_credentials_question, capture_control<tag_credentials_question>);
    register_control_handler(tag_registration_request, capture_control<tag_registration_request>);
    register_control_handler(tag_registration_refresh, capture_control<tag_registration_refresh>);
    register_control_handler(tag_authentication_failed, capture_control<tag_authentication_failed>);
  }
  void TearDown() override {
    clear_pending_packets();
    clear_registrations();
    routing_hooks = RoutingHooks();
  }

  void receive(const String& text, const char* transport = "udp") {
    ReceivedPacket p;
    p.socket_key = String(transport) == "udp" ? String("udp:5060") : String("tls:1");
    p.text = text;
    p.transport = String(transport);
    p.source = Address(parse_adr(String("127.0.0.1")), 5062);
    p.local = Address(parse_adr(String("127.0.0.1")), 5060);
    receive_packet(p);
    exchsrv_soap();
  }

  static String register_text(int cseq, const String& authorization = String()) {
    String auth = authorization.empty() ? String() : "Authorization: " + authorization + "\r\n";
    return format("REGISTER sip:pbx.test SIP/2.0\r\n"
                  "Via: SIP/2.0/UDP 127.0.0.1:5062;branch=z9hG4bK%d;rport\r\n"
                  "From: <sip:1001@pbx.test>;tag=ft\r\nTo: <sip:1001@pbx.test>\r\n"
                  "Call-ID: reg-1\r\nCSeq: %d REGISTER\r\nContact: <sip:1001@127.0.0.1:5062>\r\n"
                  "Expires: 3600\r\n%sContent-Length: 0\r\n\r\n",
                  cseq, cseq, auth);
  }

  static void answer_policy(const String& call_id = String("reg-1"), const String& auth_adr = String(),
                            bool no_auth = false) {
    TaggedText t;
    (void)t.add(rec_call_id, call_id);
    if (!auth_adr.empty()) (void)t.add(rec_auth_adr, auth_adr);
    if (no_auth) (void)t.add(rec_no_auth, true);
    (void)t.add(rec_account_found, true);
    (void)t.add(rec_realm, String("pbx.test"));
    (void)t.add(rec_domain, 1);
    (void)t.add(rec_user, String("1001"));
    (void)t.add(rec_password, String("secret"));
    TaggedText outer;
    (void)outer.add(tag_register_policy, t);
    pbxsrv_post(outer.text());
    pbxsrv_soap();
    exchsrv_soap();
  }

  static void answer_request(int cseq, int status, int expires) {
    TaggedText t;
    (void)t.add(rec_call_id, String("reg-1"));
    (void)t.add(rec_cseq, cseq);
    (void)t.add(rec_status, status);
    (void)t.add(rec_reason, String(status < 300 ? "Ok" : "Forbidden"));
    (void)t.add(rec_expires, expires);
    TaggedText outer;
    (void)outer.add(tag_register_response, t);
    pbxsrv_post(outer.text());
    pbxsrv_soap();
    exchsrv_soap();
  }

  static String authorization_for(const String& challenge, const char* password) {
    String nonce = challenge.substr(challenge.find(String("nonce=\"")) + 7, 32);
    String ha1 = md5_hex(format("1001:pbx.test:%s", password));
    String ha2 = md5_hex(String("REGISTER:sip:pbx.test"));
    return format("Digest username=\"1001\",realm=\"pbx.test\",nonce=\"%s\",uri=\"sip:pbx.test\",response=\"%s\"",
                  nonce, md5_hex(format("%s:%s:%s", ha1, nonce, ha2)));
  }
};

}  // namespace

// Challenge, admission, and refreshes that the service half answers by itself.
TEST_F(RegistrationTest, ChallengeAdmitAndRefreshLocally) {
  receive(register_text(1));
  ASSERT_EQ(to_control.size(), 1u);
  EXPECT_EQ(to_control[0].first, tag_credentials_question);
  EXPECT_TRUE(answers.empty());
  answer_policy();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(answers[0].starts_with(String("SIP/2.0 401 Authentication Required")));
  String challenge = header_value(answers[0], String("WWW-Authenticate"));
  ASSERT_FALSE(challenge.empty());

  receive(register_text(2, authorization_for(challenge, "secret")));
  ASSERT_EQ(to_control.back().first, tag_registration_request);
  EXPECT_EQ(to_control.back().second.find(rec_expires), String("3600"));
  answer_request(2, 200, 3600);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_TRUE(answers[1].starts_with(String("SIP/2.0 200 Ok")));
  String contact = header_value(answers[1], String("Contact"));
  int expires = contact.tail(contact.find(String("expires=")) + 8).to_int();
  EXPECT_GE(expires, 3598);
  EXPECT_LE(expires, 3602);

  // Two refreshes: no Authorization needed, nothing but the refresh notice crosses over.
  size_t crossings = to_control.size();
  receive(register_text(3));
  receive(register_text(4));
  ASSERT_EQ(answers.size(), 4u);
  EXPECT_TRUE(answers[3].starts_with(String("SIP/2.0 200 Ok")));
  ASSERT_EQ(to_control.size(), crossings + 2);
  EXPECT_EQ(to_control.back().first, tag_registration_refresh);
  EXPECT_EQ(to_control.back().second.find(rec_expires), String("3600"));
  EXPECT_TRUE(source_is_registered(Address(parse_adr(String("127.0.0.1")), 5062)));
}

TEST_F(RegistrationTest, WrongPasswordGetsTheWarningAndCountsAsAFailure) {
  receive(register_text(1));
  answer_policy();
  String challenge = header_value(answers[0], String("WWW-Authenticate"));
  receive(register_text(2, authorization_for(challenge, "guess")));
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_TRUE(answers[1].starts_with(String("SIP/2.0 401 Authentication Required")));
  EXPECT_EQ(header_value(answers[1], String("Warning")), String("399 pbx.test Password does not match"));
  EXPECT_TRUE(header_value(answers[1], String("WWW-Authenticate")).empty());
  EXPECT_EQ(to_control.back().first, tag_authentication_failed);
  // The server loop has charged the REGISTER already.
  EXPECT_EQ(to_control.back().second.find(rec_charged), String("true"));
  EXPECT_EQ(to_control.back().second.find(rec_points), String("16"));
  // The next request without Authorization gets a fresh challenge.
  receive(register_text(3));
  EXPECT_FALSE(header_value(answers.back(), String("WWW-Authenticate")).empty());
}

TEST_F(RegistrationTest, UnknownAccountGets404WithRetryAfter) {
  String star = register_text(1);
  star.replace_all(String("Contact: <sip:1001@127.0.0.1:5062>\r\nExpires: 3600"), String("Contact: *\r\nExpires: 0"));
  receive(star);
  TaggedText policy;
  (void)policy.add(rec_call_id, String("reg-1"));
  (void)policy.add(rec_account_found, false);
  TaggedText wrapped;
  (void)wrapped.add(tag_register_policy, policy);
  pbxsrv_post(wrapped.text());
  pbxsrv_soap();
  exchsrv_soap();
  // Clearing the bindings of an unknown account has nothing to clear.
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(answers[0].starts_with(String("SIP/2.0 200 Ok"))) << to_std(answers[0]);
  answers.clear();
  clear_registrations();
  clear_pending_packets();

  receive(register_text(1));
  TaggedText t;
  (void)t.add(rec_call_id, String("reg-1"));
  (void)t.add(rec_account_found, false);
  TaggedText outer;
  (void)outer.add(tag_register_policy, t);
  pbxsrv_post(outer.text());
  pbxsrv_soap();
  exchsrv_soap();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(answers[0].starts_with(String("SIP/2.0 404 Not Found")));
  EXPECT_EQ(header_value(answers[0], String("Retry-After")), String("3600"));
}

// A REGISTER that names everything the control half keeps: the answer repeats the Path,
// names the unknown Proxy-Require option, and an expiry that isn't a number goes on as
// text for the control half to refuse.
TEST_F(RegistrationTest, WhatTheControlHalfHearsAndTheOkCarries) {
  auto text = [](int cseq, const char* expires) {
    return format("REGISTER sip:pbx.test SIP/2.0\r\n"
                  "Via: SIP/2.0/UDP 127.0.0.1:5062;branch=z9hG4bKw%d;rport\r\n"
                  "From: <sip:1001@pbx.test>;tag=ft\r\nTo: <sip:1001@pbx.test>\r\n"
                  "Call-ID: reg-1\r\nCSeq: %d REGISTER\r\nPath: <sip:edge.test;lr>\r\n"
                  "Supported: path\r\nProxy-Require: path, frobnicate\r\n"
                  "WWW-Contact: <http://127.0.0.1:80/>\r\n"
                  "Contact: <sip:1001@127.0.0.1:5062;wrtc=true>;+sip.instance=\"<urn:uuid:1>\";fcmtoken=tok9, <https://127.0.0.1/>\r\n"
                  "Expires: %s\r\nContent-Length: 0\r\n\r\n",
                  cseq, cseq, expires);
  };
  receive(text(1, "abc"));
  answer_policy(String("reg-1"), String(), true);
  ASSERT_EQ(to_control.back().first, tag_registration_request);
  const TaggedText& q = to_control.back().second;
  EXPECT_EQ(q.find(rec_expires), String("abc"));
  EXPECT_EQ(q.find(rec_instance), String("<urn:uuid:1>"));
  EXPECT_EQ(q.find(rec_www), String("https://127.0.0.1/"));
  EXPECT_EQ(q.find(rec_wrtc), String("true"));
  EXPECT_EQ(q.find(rec_proxy_require), String("path, frobnicate"));
  EXPECT_EQ(q.find(rec_contact),
            String("<sip:edge.test;lr>,<sip:1001@127.0.0.1:5062;wrtc=true>;+sip.instance=\"<urn:uuid:1>\";fcmtoken=tok9"));
  EXPECT_EQ(q.find(rec_push_token), String("tok9"));
  EXPECT_TRUE(q.find(rec_clear_all).empty());
  answer_request(1, 400, 0);
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(answers[0].starts_with(String("SIP/2.0 400")));

  // The same values again, now with a good expiry: not taken for a refresh of what was
  // refused.
  receive(text(2, "600"));
  ASSERT_EQ(to_control.back().first, tag_registration_request);
  answer_request(2, 200, 600);
  ASSERT_FALSE(answers.empty());
  const String& ok = answers.back();
  EXPECT_TRUE(ok.starts_with(String("SIP/2.0 200 Ok"))) << to_std(ok);
  EXPECT_EQ(header_value(ok, String("Path")), String("<sip:edge.test;lr>"));
  EXPECT_EQ(header_value(ok, String("Require")), String("frobnicate"));
  EXPECT_EQ(header_value(ok, String("Supported")), String("path"));
  EXPECT_FALSE(header_value(ok, String("Server")).empty());
  EXPECT_FALSE(header_value(ok, String("Date")).empty());
}

TEST_F(RegistrationTest, AddressBoundAccount) {
  struct Case {
    const char* auth_adr;
    bool admitted;
  } cases[] = {{"10.0.0.0/8", false}, {"10.0.0.1 127.0.0.0/8", true}};
  for (const Case& c : cases) {
    clear_registrations();
    clear_pending_packets();
    answers.clear();
    to_control.clear();
    receive(register_text(1));
    answer_policy(String("reg-1"), String(c.auth_adr));
    if (c.admitted) {
      ASSERT_FALSE(to_control.empty()) << c.auth_adr;
      EXPECT_EQ(to_control.back().first, tag_registration_request) << c.auth_adr;
      EXPECT_TRUE(answers.empty()) << c.auth_adr;
    } else {
      ASSERT_EQ(answers.size(), 1u) << c.auth_adr;
      EXPECT_TRUE(answers[0].starts_with(String("SIP/2.0 403 Forbidden"))) << to_std(answers[0]);
      EXPECT_TRUE(header_value(answers[0], String("WWW-Authenticate")).empty());
    }
  }
}

// A SUBSCRIBE that answers a challenge passes the server loop free, so its failure is the
// one charge it gets.
TEST_F(RegistrationTest, FailedSubscribeIsChargedAtTheCheck) {
  auto text = [](int cseq, const String& authorization) {
    String auth = authorization.empty() ? String() : "Authorization: " + authorization + "\r\n";
    return format("SUBSCRIBE sip:1001@pbx.test SIP/2.0\r\n"
                  "Via: SIP/2.0/UDP 127.0.0.1:5062;branch=z9hG4bKs%d;rport\r\n"
                  "From: <sip:1001@pbx.test>;tag=ft\r\nTo: <sip:1001@pbx.test>\r\n"
                  "Call-ID: reg-1\r\nCSeq: %d SUBSCRIBE\r\nEvent: message-summary\r\n"
                  "Contact: <sip:1001@127.0.0.1:5062>\r\nExpires: 60\r\n%sContent-Length: 0\r\n\r\n",
                  cseq, cseq, auth);
  };
  receive(text(1, String()));
  answer_policy();
  String challenge = header_value(answers[0], String("WWW-Authenticate"));
  String nonce = challenge.substr(challenge.find(String("nonce=\"")) + 7, 32);
  receive(text(2, format("Digest username=\"1001\",realm=\"pbx.test\",nonce=\"%s\",uri=\"sip:1001@pbx.test\","
                         "response=\"00000000000000000000000000000000\"",
                         nonce)));
  ASSERT_EQ(to_control.back().first, tag_authentication_failed);
  EXPECT_EQ(to_control.back().second.find(rec_charged), String("false"));
  EXPECT_EQ(to_control.back().second.find(rec_points), String("1"));
  EXPECT_EQ(to_control.back().second.find(rec_source), parse_adr(String("127.0.0.1")));
}

// Odd values in the headers that the service half reads itself: each request still
// reaches the control half, with the expiry as the service half understood it.
TEST_F(RegistrationTest, OddHeadersReachTheControlHalf) {
  struct Case {
    const char* headers;  // whole lines, replacing the Expires line
    const char* expires;  // as posted
  } cases[] = {
      {"Expires: 60\r\n", "60"},
      {"Expires:  60 \r\n", "60"},
      {"Expires: -1\r\n", "-1"},
      {"Expires: 0000000000000000000000000120\r\n", "120"},
      {"Expires: 99999999999999999999999\r\n", "1000000000"},
      {"Expires: 4294967306\r\n", "1000000000"},
      {"Expires: 0x10\r\n", "0x10"},
      {"Expires: 1e3\r\n", "1e3"},
      {"Expires:\r\n", "3600"},
      {"", "3600"},
      {"Expires: 60\r\nProxy-Require: ,,,,,,,,\r\n", "60"},
      {"Expires: 60\r\nSupported: \xff\xfe\r\nWWW-Contact: <\r\n", "60"},
      {"Expires: 60\r\nWWW-Contact: http:\r\nWWW-Contact: >>>https\r\n", "60"},
  };
  int n = 0;
  for (const Case& c : cases) {
    clear_registrations();
    clear_pending_packets();
    to_control.clear();
    String call_id = format("odd%d", n++);
    String text = format("REGISTER sip:pbx.test SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:5062;branch=z9hG4bK%s;rport\r\n"
                         "From: <sip:1001@pbx.test>;tag=ft\r\nTo: <sip:1001@pbx.test>\r\nCall-ID: %s\r\n"
                         "CSeq: 1 REGISTER\r\nContact: <sip:1001@127.0.0.1:5062>\r\n%sContent-Length: 0\r\n\r\n",
                         call_id, call_id, String(c.headers));
    receive(text);
    answer_policy(call_id, String(), true);
    ASSERT_FALSE(to_control.empty()) << c.headers;
    EXPECT_EQ(to_control.back().first, tag_registration_request) << c.headers;
    EXPECT_EQ(to_control.back().second.find(rec_expires), String(c.expires)) << c.headers;
  }
}

// A binding over TLS vouches for later requests on its connection that claim its
// identity; nothing else does.
TEST_F(RegistrationTest, ConnectionCarriesItsBinding) {
  auto tls = [](String text) {
    return text.replace_all(String("SIP/2.0/UDP"), String("SIP/2.0/TLS"));
  };
  receive(tls(register_text(1)), "tls");
  answer_policy();
  String challenge = header_value(answers.back(), String("WWW-Authenticate"));
  auto message = [](const char* from, int port, const char* extra) {
    SipMessage m(format("MESSAGE sip:1002@pbx.test SIP/2.0\r\nVia: SIP/2.0/TLS 127.0.0.1:5062;branch=z9hG4bKm\r\n"
                        "From: <sip:%s@pbx.test>;tag=m\r\nTo: <sip:1002@pbx.test>\r\nCall-ID: m1\r\n"
                        "CSeq: 1 MESSAGE\r\n%sContent-Length: 0\r\n\r\n",
                        String(from), String(extra)));
    m.transport = Transport::tls;
    m.source = Address(parse_adr(String("127.0.0.1")), port);
    return m;
  };
  // Challenged but not yet admitted: no vouching.
  EXPECT_FALSE(registered_on_connection(message("1001", 5062, "")));
  receive(tls(register_text(2, authorization_for(challenge, "secret"))), "tls");
  answer_request(2, 200, 600);
  ASSERT_TRUE(answers.back().starts_with(String("SIP/2.0 200 Ok")));
  struct Case {
    const char* from;
    int port;
    const char* extra;
    bool vouched;
  } cases[] = {
      {"1001", 5062, "", true},
      {"1002", 5062, "", false},
      {"1001", 5063, "", false},
      {"1002", 5062, "P-Preferred-Identity: <sip:1001@PBX.test>\r\n", true},
      {"1001", 5062, "P-Preferred-Identity: <sip:1003@pbx.test>\r\n", false},
      {"1001", 5062, "P-Preferred-Identity: \xff<<\r\n", false},
  };
  for (const Case& c : cases)
    EXPECT_EQ(registered_on_connection(message(c.from, c.port, c.extra)), c.vouched) << c.from << " " << c.port << c.extra;
  SipMessage over_udp = message("1001", 5062, "");
  over_udp.transport = Transport::udp;
  EXPECT_FALSE(registered_on_connection(over_udp));
  EXPECT_TRUE(registration_call_id_known(String("reg-1")));
  EXPECT_FALSE(registration_call_id_known(String("reg-2")));
}

// A refresh gets what the control half granted, not what it asks; asking for something
// else is a question for the control half again.
TEST_F(RegistrationTest, RefreshesKeepTheGrantedExpiry) {
  receive(register_text(1));
  answer_policy();
  String challenge = header_value(answers[0], String("WWW-Authenticate"));
  receive(register_text(2, authorization_for(challenge, "secret")));
  answer_request(2, 200, 360);  // asked 3600, limited to 360
  receive(register_text(3));
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(to_control.back().first, tag_registration_refresh);
  EXPECT_EQ(to_control.back().second.find(rec_expires), String("360"));
  String contact = header_value(answers[2], String("Contact"));
  int expires = contact.tail(contact.find(String("expires=")) + 8).to_int();
  EXPECT_GE(expires, 358);
  EXPECT_LE(expires, 362);

  String shorter = register_text(4);
  shorter.replace_all(String("Expires: 3600"), String("Expires: 120"));
  receive(shorter);
  EXPECT_EQ(to_control.back().first, tag_registration_request);
  EXPECT_EQ(to_control.back().second.find(rec_expires), String("120"));
  EXPECT_EQ(answers.size(), 3u);
}
