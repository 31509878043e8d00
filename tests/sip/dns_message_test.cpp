#include "sip/dns_message.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

String b(std::initializer_list<int> bytes) {
  String out;
  for (int v : bytes) out.append(static_cast<char>(v));
  return out;
}

// A response header with id 0x1234 and the given counts and flags.
String header(int flags, int qd, int an) { return b({0x12, 0x34, flags >> 8, flags & 0xff, 0, qd, 0, an, 0, 0, 0, 0}); }

// The question "a.test" of type A at offset 12.
String question() { return b({1, 'a', 4, 't', 'e', 's', 't', 0, 0, 1, 0, 1}); }

// An A record on the name pointer 0xc00c with the given data length and data.
String a_record(int rdlength, const String& data) {
  return b({0xc0, 0x0c, 0, 1, 0, 1, 0, 0, 0, 60, rdlength >> 8, rdlength & 0xff}) + data;
}

}  // namespace

TEST(DnsMessageTest, QueryEncodingRefusesBadNames) {
  struct Case {
    String name;
    bool ok;
  } cases[] = {
      {"a.test", true},
      {"a.test.", true},
      {String::repeat('x', 63) + ".test", true},
      {String::repeat('x', 64) + ".test", false},
      {"a..test", false},
      {"", false},
      {String::repeat('x', 60) + "." + String::repeat('y', 60) + "." + String::repeat('z', 60) + "." + String::repeat('w', 70), false},
  };
  for (const auto& c : cases) EXPECT_EQ(!dns_encode_query(7, c.name, dns_a).empty(), c.ok) << to_std(c.name);
  String q = dns_encode_query(0x1234, String("a.test"), dns_srv);
  EXPECT_EQ(q, b({0x12, 0x34, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 'a', 4, 't', 'e', 's', 't', 0, 0, 33, 0, 1}));
}

TEST(DnsMessageTest, RecordsSurviveTheWire) {
  std::vector<DnsRecord> records = {
      {"a.test", dns_cname, 30, "b.test"},
      {"b.test", dns_a, 60, "192.0.2.7"},
      {"b.test", dns_aaaa, 60, "2001:db8::7"},
      {"_sip._udp.b.test", dns_srv, 60, "10 60 pbx1.b.test 5070"},
      {"b.test", dns_naptr, 60, "10 50 S SIP+D2U - _sip._udp.b.test"},
      {"b.test", dns_naptr, 60, "20 50 U E2U !^.*$!sip:x@y! ."},
  };
  String query = dns_encode_query(99, String("A.Test"), dns_a);
  String pdu = dns_encode_answer(query, 0, records);
  ASSERT_FALSE(pdu.empty());
  DnsAnswer a;
  ASSERT_TRUE(dns_decode_answer(pdu, a));
  EXPECT_EQ(a.id, 99);
  EXPECT_EQ(a.question, String("a.test"));
  EXPECT_EQ(a.question_type, dns_a);
  ASSERT_EQ(a.records.size(), records.size());
  for (size_t i = 0; i < records.size(); i++) {
    EXPECT_EQ(a.records[i].name, records[i].name);
    EXPECT_EQ(a.records[i].type, records[i].type);
    EXPECT_EQ(a.records[i].ttl, records[i].ttl);
    EXPECT_EQ(a.records[i].text, records[i].text);
    EXPECT_FALSE(a.records[i].bad);
  }
  // Every cut of the datagram promises more than it holds.
  for (int n = 0; n < pdu.length(); n++) EXPECT_FALSE(dns_decode_answer(pdu.head(n), a)) << n;
}

// Answers a hostile or broken server could send; none may be read past its end.
TEST(DnsMessageTest, HostileAnswers) {
  String good = header(0x8180, 1, 1) + question() + a_record(4, b({192, 0, 2, 1}));
  struct Case {
    const char* what;
    String pdu;
    bool ok;
  } cases[] = {
      {"good", good, true},
      {"a query, not a response", header(0x0100, 1, 1) + question() + a_record(4, b({192, 0, 2, 1})), false},
      {"pointer to itself", header(0x8180, 1, 1) + question() + b({0xc0, 0x18, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 1, 2, 3, 4}), false},
      {"pointer forward", header(0x8180, 1, 1) + question() + b({0xc0, 0x30, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 1, 2, 3, 4}), false},
      {"label then pointer back to the label", header(0x8180, 1, 1) + question() + b({1, 'x', 0xc0, 0x18, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 1, 2, 3, 4}), false},
      {"pointer cut in half", header(0x8180, 1, 1) + question() + b({0xc0}), false},
      {"reserved label kind", header(0x8180, 1, 1) + question() + b({0x40, 0, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 1, 2, 3, 4}), false},
      {"RDLENGTH past the end", header(0x8180, 1, 1) + question() + a_record(200, b({192, 0, 2, 1})), false},
      {"ANCOUNT 50 with one record", header(0x8180, 1, 50) + question() + a_record(4, b({192, 0, 2, 1})), false},
      {"two questions", header(0x8180, 2, 0) + question() + question(), false},
      {"label past the end", header(0x8180, 1, 0) + b({30, 'a'}), false},
      {"question without type", header(0x8180, 1, 0) + b({1, 'a', 0, 0}), false},
      {"short header", good.head(11), false},
      {"SRV with a name past its data", header(0x8180, 1, 1) + question() + b({0xc0, 0x0c, 0, 33, 0, 1, 0, 0, 0, 60, 0, 8, 0, 1, 0, 1, 0, 5, 3, 'a'}), false},
      {"NAPTR text past its data", header(0x8180, 1, 1) + question() + b({0xc0, 0x0c, 0, 35, 0, 1, 0, 0, 0, 60, 0, 6, 0, 1, 0, 1, 9, 'S'}), false},
      {"unknown type is skipped", header(0x8180, 1, 1) + question() + b({0xc0, 0x0c, 0, 16, 0, 1, 0, 0, 0, 60, 0, 2, 1, 'x'}), true},
  };
  for (const auto& c : cases) {
    DnsAnswer a;
    EXPECT_EQ(dns_decode_answer(c.pdu, a), c.ok) << c.what;
  }
}

TEST(DnsMessageTest, FlagsAndOddAddresses) {
  DnsAnswer a;
  ASSERT_TRUE(dns_decode_answer(header(0x8380, 1, 0) + question(), a));
  EXPECT_TRUE(a.truncated);
  ASSERT_TRUE(dns_decode_answer(header(0x8183, 1, 0) + question(), a));
  EXPECT_EQ(a.rcode, dns_rcode_nxdomain);
  ASSERT_TRUE(dns_decode_answer(header(0x8180, 1, 1) + question() + a_record(3, b({1, 2, 3})), a));
  ASSERT_EQ(a.records.size(), 1u);
  EXPECT_TRUE(a.records[0].bad);
  // A huge TTL with the top bit set counts as none rather than as a negative number.
  ASSERT_TRUE(dns_decode_answer(header(0x8180, 1, 1) + question() +
                                    b({0xc0, 0x0c, 0, 1, 0, 1, 0xff, 0xff, 0xff, 0xff, 0, 4, 1, 2, 3, 4}),
                                a));
  EXPECT_EQ(a.records[0].ttl, 0);
  EXPECT_EQ(dns_type_from_word(String("naptr")), dns_naptr);
  EXPECT_EQ(dns_type_from_word(String("MX")), -1);
  EXPECT_EQ(dns_type_word(dns_aaaa), String("AAAA"));
}
