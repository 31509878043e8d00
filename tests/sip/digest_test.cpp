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
