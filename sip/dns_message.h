// The DNS wire format as far as the resolver needs it: one question out, an answer in.
// The reader is bounded: it follows compression pointers only backwards and at most
// a fixed number of times, never reads past the datagram, and refuses an answer whose
// counts promise more records than it holds.
#pragma once

#include <vector>

#include "core/string.h"

// The record types of the cache, with the numbers used inside it.
enum DnsType { dns_a = 0, dns_srv = 1, dns_cname = 2, dns_naptr = 3, dns_aaaa = 4 };
constexpr int dns_type_count = 5;

// "A", "SRV", "CNAME", "NAPTR", "AAAA"; empty for other numbers.
String dns_type_word(int type);
// The inverse (any case); -1 for an unknown word.
int dns_type_from_word(const String& word);

constexpr int dns_rcode_nxdomain = 3;

// A query for `name` (dots between labels, a trailing dot allowed) with recursion
// desired; empty if the name can't be encoded (empty label, label over 63 bytes, name
// over 253 bytes).
String dns_encode_query(int id, const String& name, int type);

struct DnsRecord {
  String name;  // lower case, no trailing dot
  int type = -1;
  int ttl = 0;
  // A, AAAA: the address text. CNAME: the target. SRV: "priority weight host port".
  // NAPTR: "order preference flags service regexp replacement", "-" for an empty flags,
  // service or regexp field.
  String text;
  bool bad = false;  // an A or AAAA whose data isn't an address of its family
};

struct DnsAnswer {
  int id = 0;
  int rcode = 0;
  bool truncated = false;
  String question;  // lower-case name of the first question
  int question_type = -1;
  // Records of the answer section in the types above; others are skipped.
  std::vector<DnsRecord> records;
};

// False for anything that isn't a well-formed response; `out` is then unusable.
[[nodiscard]] bool dns_decode_answer(const String& pdu, DnsAnswer& out);

// For tests and the fake servers of tests: the response to `query` with the given
// records (types as above, text as in DnsRecord) in the answer section.
String dns_encode_answer(const String& query, int rcode, const std::vector<DnsRecord>& records);
