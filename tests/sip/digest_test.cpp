#include "sip/digest.h"

#include <gtest/gtest.h>

#include "core/format.h"
#include "security/md5.h"
#include "sip/sip_message.h"
#include "tests/support/test_support.h"

namespace {

// RFC 2617 section 3.5.
const Credential mufasa{String("Mufasa"), String("Circle Of Life")};
const String rfc_realm("testrealm@host.com");
const String rfc_nonce("dcd98b7102dd2f0e8b11d0f600bfb0c093");

String rfc_authorization(const char* nc, const String& response) {
  return format("Digest username=\"Mufasa\", realm=\"testrealm@host.com\", nonce=\"%s\", uri=\"/dir/index.html\", "
                "qop=auth, nc=%s, cnonce=\"0a4f113b\", response=\"%s\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"",
                rfc_nonce, nc, response);
}

String md5_hex(const String& s) { return hex(md5(s)); }

// A response without qop for `nonce`.
String plain_authorization(const Credential& c, const String& realm, const String& nonce, const char* method,
                           const char* uri) {
  String ha1 = md5_hex(format("%s:%s:%s", c.user, realm, c.password));
  String ha2 = md5_hex(format("%s:%s", method, uri));
  return format("Digest username=\"%s\",realm=\"%s\",nonce=\"%s\",uri=\"%s\",response=\"%s\"", c.user, realm, nonce,
                uri, md5_hex(format("%s:%s:%s", ha1, nonce, ha2)));
}

}  // namespace

TEST(DigestTest, PublishedExampleWithQopAndNonceCounts) {
  NonceStore nonces;
  nonces.adopt(rfc_nonce);
  EXPECT_EQ(check_digest(rfc_authorization("00000001", String("6629fae49393a05397450978507c4ef1")), String("GET"),
                         String("/dir/index.html"), rfc_realm, mufasa, nonces),
            digest_ok);
  // The same count again is a replay; a greater one with the right answer passes.
  EXPECT_EQ(check_digest(rfc_authorization("00000001", String("6629fae49393a05397450978507c4ef1")), String("GET"),
                         String("/dir/index.html"), rfc_realm, mufasa, nonces),
            digest_mismatch);
  String ha1 = md5_hex(String("Mufasa:testrealm@host.com:Circle Of Life"));
  String ha2 = md5_hex(String("GET:/dir/index.html"));
  String second = md5_hex(format("%s:%s:00000002:0a4f113b:auth:%s", ha1, rfc_nonce, ha2));
  EXPECT_EQ(check_digest(rfc_authorization("00000002", second), String("GET"),
                         String("/dir/index.html"), rfc_realm, mufasa, nonces),
            digest_ok);
  EXPECT_EQ(check_digest(String("Digest username=\"Mufasa\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", qop=auth, "
                                "response=\"x\""),
                         String("GET"), String("/"), rfc_realm, mufasa, nonces),
            digest_bad);  // qop without nc
}

TEST(DigestTest, NonceWithoutQopIsUsedOnce) {
  NonceStore nonces;
  String nonce = nonces.issue();
  EXPECT_EQ(nonce.length(), 32);
  String auth = plain_authorization(mufasa, rfc_realm, nonce, "REGISTER", "sip:pbx.test");
  EXPECT_EQ(check_digest(auth, String("REGISTER"), String("sip:pbx.test"), rfc_realm, mufasa, nonces), digest_ok);
  EXPECT_EQ(check_digest(auth, String("REGISTER"), String("sip:pbx.test"), rfc_realm, mufasa, nonces),
            digest_unknown_nonce);
  nonce = nonces.issue();
  Credential other{String("Mufasa"), String("wrong")};
  EXPECT_EQ(check_digest(plain_authorization(other, rfc_realm, nonce, "REGISTER", "sip:pbx.test"), String("REGISTER"),
                         String("sip:pbx.test"), rfc_realm, mufasa, nonces),
            digest_mismatch);
  EXPECT_EQ(check_digest(plain_authorization(mufasa, rfc_realm, nonce, "REGISTER", "sip:pbx.test"), String("REGISTER"),
                         String("sip:pbx.test"), rfc_realm, Credential{String("1001"), String("x")}, nonces),
            digest_wrong_user);
  for (int i = 0; i < 300; i++) nonces.issue();
  EXPECT_EQ(nonces.size(), NonceStore::limit);
}

TEST(DigestTest, ChallengesAndWarnings) {
  String text("REGISTER sip:pbx.test SIP/2.0\r\nVia: SIP/2.0/UDP 1.2.3.4;branch=z9hG4bKa\r\n"
              "From: <sip:1001@pbx.test>;tag=1\r\nTo: <sip:1001@pbx.test>\r\nCall-ID: d1\r\nCSeq: 1 REGISTER\r\n");
  std::vector<Credential> creds = {{String("1001"), String("secret")}};
  NonceStore nonces;
  AuthOutcome none = check_credentials(SipMessage(text + "\r\n"), nonces, String("pbx.test"), creds, false);
  EXPECT_FALSE(none.passed);
  EXPECT_EQ(none.status, 401);
  auto p = digest_params(none.www_authenticate);
  EXPECT_EQ(p[String("realm")], String("pbx.test"));
  EXPECT_EQ(p[String("algorithm")], String("MD5"));
  String nonce = p[String("nonce")];
  ASSERT_TRUE(nonces.known(nonce));

  String wrong = plain_authorization(Credential{String("1001"), String("guess")}, String("pbx.test"), nonce,
                                     "REGISTER", "sip:pbx.test");
  AuthOutcome bad = check_credentials(SipMessage(text + "Authorization: " + wrong + "\r\n\r\n"), nonces,
                                      String("pbx.test"), creds, false);
  EXPECT_EQ(bad.status, 401);
  EXPECT_EQ(bad.warning, String("399 pbx.test Password does not match"));
  EXPECT_TRUE(bad.www_authenticate.empty());

  // Two Authorization headers of which one is right: admitted.
  String good = plain_authorization(creds[0], String("pbx.test"), nonce, "REGISTER", "sip:pbx.test");
  AuthOutcome ok = check_credentials(
      SipMessage(text + "Authorization: " + wrong + "\r\nAuthorization: " + good + "\r\n\r\n"), nonces,
      String("pbx.test"), creds, false);
  EXPECT_TRUE(ok.passed);
  EXPECT_EQ(ok.username, String("1001"));

  std::vector<Credential> no_password = {{String("1001"), String()}};
  EXPECT_EQ(check_credentials(SipMessage(text + "\r\n"), nonces, String("pbx.test"), no_password, false).status, 403);
  EXPECT_TRUE(check_credentials(SipMessage(text + "\r\n"), nonces, String("pbx.test"), no_password, true).passed);
  // Garbage in the header fails cleanly.
  AuthOutcome garbage = check_credentials(
      SipMessage(text + "Authorization: " + String::repeat('\x7f', 5000) + "\r\n\r\n"), nonces, String("pbx.test"),
      creds, false);
  EXPECT_EQ(garbage.status, 401);
}

TEST(DigestTest, ClientAnswersAChallengeTheServerAccepts) {
  NonceStore nonces;
  Credential c{String("trunkuser"), String("trunkpass")};
  for (const char* qop : {"", ",qop=\"auth,auth-int\""}) {
    String nonce = nonces.issue();
    String challenge = format("Digest realm=\"carrier\",nonce=\"%s\",opaque=\"xyz\"%s", nonce, qop);
    String answer = answer_challenge_header(challenge, String("INVITE"), String("sip:555@carrier"), c, String("x"));
    EXPECT_TRUE(answer.contains(String("opaque=\"xyz\"")));
    EXPECT_EQ(check_digest(answer, String("INVITE"), String("sip:555@carrier"), String("carrier"), c, nonces), digest_ok)
        << to_std(answer);
  }
}

namespace {

const String register_head("REGISTER sip:pbx.test SIP/2.0\r\nVia: SIP/2.0/UDP 1.2.3.4;branch=z9hG4bKa\r\n"
                           "From: <sip:1001@pbx.test>;tag=1\r\nTo: <sip:1001@pbx.test>\r\nCall-ID: d2\r\n"
                           "CSeq: 1 REGISTER\r\n");

SipMessage with_authorization(const String& authorization) {
  return SipMessage(register_head + "Authorization: " + authorization + "\r\n\r\n");
}

String qop_authorization(const Credential& c, const String& nonce, const char* nc, const char* cnonce) {
  String ha1 = md5_hex(format("%s:pbx.test:%s", c.user, c.password));
  String ha2 = md5_hex(String("REGISTER:sip:pbx.test"));
  return format("Digest username=\"%s\",realm=\"pbx.test\",nonce=\"%s\",uri=\"sip:pbx.test\",qop=auth,nc=%s,"
                "cnonce=\"%s\",response=\"%s\"",
                c.user, nonce, nc, cnonce, md5_hex(format("%s:%s:%s:%s:auth:%s", ha1, nonce, nc, cnonce, ha2)));
}

}  // namespace

// The order of answers that one nonce sees, through the whole check: what passes, what
// gets the Warning (a known nonce, a wrong answer) and what gets a fresh challenge.
TEST(DigestTest, NonceLifeThroughTheCheck) {
  const Credential c{String("1001"), String("secret")};
  const std::vector<Credential> creds = {c};
  NonceStore nonces;
  String plain_nonce = nonces.issue();
  String plain = plain_authorization(c, String("pbx.test"), plain_nonce, "REGISTER", "sip:pbx.test");
  String qop_nonce = nonces.issue();
  struct Step {
    const char* what;
    String authorization;
    bool passes;
    bool warning;  // else a new challenge when it fails
  } steps[] = {
      {"without qop, first use", plain, true, false},
      {"without qop, replayed", plain, false, false},
      {"qop nc 1", qop_authorization(c, qop_nonce, "00000001", "c1"), true, false},
      {"qop nc 1 again", qop_authorization(c, qop_nonce, "00000001", "c1"), false, true},
      {"qop nc 2", qop_authorization(c, qop_nonce, "00000002", "c1"), true, false},
      {"qop nc 3, other cnonce", qop_authorization(c, qop_nonce, "00000003", "c2"), false, true},
      {"qop nc 3", qop_authorization(c, qop_nonce, "00000003", "c1"), true, false},
      {"qop without nc", qop_authorization(c, qop_nonce, "", "c1"), false, false},
      {"qop without cnonce", qop_authorization(c, qop_nonce, "00000009", ""), false, false},
  };
  for (const Step& s : steps) {
    AuthOutcome o = check_credentials(with_authorization(s.authorization), nonces, String("pbx.test"), creds, false);
    EXPECT_EQ(o.passed, s.passes) << s.what;
    if (s.passes) continue;
    EXPECT_EQ(o.status, 401) << s.what;
    EXPECT_EQ(!o.warning.empty(), s.warning) << s.what;
    EXPECT_EQ(o.www_authenticate.empty(), s.warning) << s.what;
  }
  EXPECT_FALSE(nonces.known(plain_nonce));
  EXPECT_TRUE(nonces.known(qop_nonce));
}

TEST(DigestTest, TransportAndAddressesDecideBeforeDigest) {
  const std::vector<Credential> creds = {{String("1001"), String("secret")}};
  NonceStore nonces;
  SipMessage m(register_head + "\r\n");
  m.source = Address(parse_adr(String("192.168.1.77")), 5060);
  m.transport_authenticated = true;
  EXPECT_TRUE(check_credentials(m, nonces, String("pbx.test"), creds, false, String("10.0.0.1")).passed);
  m.transport_authenticated = false;
  AuthOutcome in = check_credentials(m, nonces, String("pbx.test"), creds, false, String("10.0.0.1, 192.168.1.0/24"));
  EXPECT_TRUE(in.passed);
  EXPECT_TRUE(in.by_address);
  // An account bound to addresses takes no password from elsewhere.
  AuthOutcome out = check_credentials(m, nonces, String("pbx.test"), creds, false, String("10.0.0.0/8"));
  EXPECT_FALSE(out.passed);
  EXPECT_EQ(out.status, 403);
  EXPECT_TRUE(out.www_authenticate.empty());
  EXPECT_EQ(nonces.size(), 0);
}

TEST(DigestTest, AddressLists) {
  struct Case {
    const char* adr;
    const char* list;
    bool in;
  } cases[] = {
      {"192.168.1.77", "192.168.1.77", true},
      {"192.168.1.77", "192.168.1.78", false},
      {"192.168.1.77", "10.0.0.1 192.168.1.0/24", true},
      {"192.168.1.77", "192.168.1.0/255.255.255.0", true},
      {"192.168.2.77", "192.168.1.0/255.255.255.0", false},
      {"192.168.1.77", "192.168.1.0/255.0.255.0", false},  // a mask with holes
      {"192.168.1.77", "0.0.0.0/0", true},
      {"192.168.1.77", "192.168.1.0/33", false},
      {"192.168.1.77", "192.168.1.0/-1", false},
      {"192.168.1.77", "192.168.1.0/", false},
      {"192.168.1.77", "192.168.1.", false},
      {"192.168.1.77", ",,, ;;; //", false},
      {"192.168.1.77", "", false},
      {"192.168.1.77", "::ffff:192.168.1.77", false},  // the other family
      {"2001:db8::5", "2001:db8::/32", true},
      {"2001:db9::5", "2001:db8::/32", false},
      {"2001:db8::5", "192.168.1.0/24,2001:db8::5", true},
  };
  for (const Case& c : cases)
    EXPECT_EQ(address_in_list(parse_adr(String(c.adr)), String(c.list)), c.in) << c.adr << " in " << c.list;
  EXPECT_FALSE(address_in_list(String(), String("0.0.0.0/0")));
  EXPECT_FALSE(address_in_list(parse_adr(String("1.2.3.4")), String::repeat('\xff', 5000)));
}
