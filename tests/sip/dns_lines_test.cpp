#include "sip/dns_lines.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

using Lines = std::vector<String>;

TEST(DnsLinesTest, NaptrRecordsInOrderForTheWantedTransport) {
  LogCapture log;
  String records(
      "20 50 S SIP+D2T - _sip._tcp.example.test\n"
      "10 50 S SIP+D2U - _sip._udp.example.test\n"
      "30 50 S SIPS+D2T - _sips._tcp.example.test\n"
      "5 10 P SIP+D2U - ignored.test\n"
      "6 10 - SIP+D2U - noflag.test\n"
      "40 10 A sip+d2u - pbx.example.test\n"
      "50 10 S X-OTHER - other.test");
  struct Case {
    const char* wanted;
    Lines lines;
  } cases[] = {
      {"", {"srv udp _sip._udp.example.test", "srv tcp _sip._tcp.example.test", "srv tls _sips._tcp.example.test",
            "aaaa udp pbx.example.test 5060", "a udp pbx.example.test 5060"}},
      {"udp", {"srv udp _sip._udp.example.test", "aaaa udp pbx.example.test 5060", "a udp pbx.example.test 5060"}},
      {"tcp", {"srv tcp _sip._tcp.example.test"}},
      {"tls", {"srv tls _sip._udp.example.test", "srv tls _sip._tcp.example.test", "srv tls _sips._tcp.example.test",
               "aaaa tls pbx.example.test 5061", "a tls pbx.example.test 5061"}},
  };
  for (const auto& c : cases) EXPECT_EQ(naptr_lines(records, String(c.wanted), false, String()), c.lines) << c.wanted;
  EXPECT_TRUE(log.contains("P Flag on NAPTR record ignored"));
  EXPECT_TRUE(log.contains("NAPTR: No flag set"));
}

TEST(DnsLinesTest, EnumRecordsGiveUrls) {
  String records(
      "100 10 u E2U+sip !^.*$!sip:info@example.test! .\n"
      "90 10 U E2U+sip !^\\+(.*)$!sip:\\1@gw.test! .\n"
      "80 10 U E2U+mailto !^.*$!mailto:x@y! .\n"
      "70 10 S E2U+sip !^.*$!sip:never@here! .");
  // The mailto service also says E2U: the URI is given, and the caller finds it no SIP URI.
  EXPECT_EQ(naptr_lines(records, String(), true, String("+4930123")),
            (Lines{"url mailto:x@y", "url sip:4930123@gw.test", "url sip:info@example.test"}));
}

TEST(DnsLinesTest, HostileRegularExpressions) {
  struct Case {
    const char* regexp;
    const char* subject;
    const char* result;
  } cases[] = {
      {"!^(.*)$!sip:\\1@x!", "+1", "sip:+1@x"},
      {"/^.*$/sip:a@b/i", "Z", "sip:a@b"},
      {"!(!x!", "a", ""},          // malformed pattern
      {"!a!b", "a", ""},           // two parts
      {"!a!b!c!", "a", ""},        // four parts
      {"!", "a", ""},
      {"!z!y!", "a", ""},          // no match
      {"!(a*)*b!x!", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaac", ""},  // nested repetition: refused
      {"!(a|aa)+b!x!", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaac", ""},
      {"!a*a*a*a*a*b!x!", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaac", ""},  // too many quantifiers
      {"!a**b!x!", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaac", ""},        // a quantifier of a quantifier
      {"!a{1,3}*b!x!", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaac", ""},
      {"!a{2}b!x!", "aab", "x"},
      {"!a{1000}b!x!", "aab", ""},                                   // bounds too large to build
      {"!a{99999999999999999999}b!x!", "aab", ""},
      {"!^\\+49(.*)$!sip:\\1@de!", "+49301", "sip:301@de"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(naptr_apply_regexp(String(c.regexp), String(c.subject)), String(c.result)) << c.regexp;
  EXPECT_TRUE(naptr_apply_regexp(String("!") + String::repeat('a', 300) + "!b!", String("a")).empty());
}

TEST(DnsLinesTest, WithoutNaptrAddressesThenServices) {
  EXPECT_EQ(naptr_fallback_lines(String("example.test"), String(), 0),
            (Lines{"a udp example.test 5060", "aaaa udp example.test 5060", "srv udp _sip._udp.example.test",
                   "srv tcp _sip._tcp.example.test", "srv tls _sips._tcp.example.test", "srv tls _sip._tls.example.test"}));
  EXPECT_EQ(naptr_fallback_lines(String("example.test"), String("tls"), 0),
            (Lines{"a tls example.test 5061", "aaaa tls example.test 5061", "srv tls _sips._tcp.example.test",
                   "srv tls _sip._tls.example.test"}));
  EXPECT_EQ(naptr_fallback_lines(String("example.test"), String("tcp"), 5080),
            (Lines{"a tcp example.test 5080", "aaaa tcp example.test 5080", "srv tcp _sip._tcp.example.test"}));
}

TEST(DnsLinesTest, SrvTargets) {
  String records("10 60 pbx1.example.test 5070\n5 0 192.0.2.1 5080\n1 0 zero.test 0\n20 0 [bad 5060");
  int names = -1;
  EXPECT_EQ(srv_lines(records, String("udp"), true, true, names),
            (Lines{"udp 192.0.2.1 5080", "aaaa udp pbx1.example.test 5070", "a udp pbx1.example.test 5070",
                   "aaaa udp [bad 5060", "a udp [bad 5060"}));
  EXPECT_EQ(names, 2);
  EXPECT_EQ(srv_lines(records, String("tcp"), true, false, names),
            (Lines{"tcp 192.0.2.1 5080", "a tcp pbx1.example.test 5070", "a tcp [bad 5060"}));
  EXPECT_TRUE(srv_lines(String(), String("udp"), true, true, names).empty());
  EXPECT_EQ(names, 0);
}
