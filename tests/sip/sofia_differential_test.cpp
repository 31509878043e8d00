// Differential test: a second, independent SIP parser must read the same dialog and
// transaction identifiers out of the same messages.
#include <gtest/gtest.h>

#include <sofia-sip/msg.h>
#include <sofia-sip/sip.h>
#include <sofia-sip/sip_header.h>
#include <sofia-sip/sip_protos.h>

#include <string>
#include <vector>

#include "sip/sip_message.h"
#include "tests/support/test_support.h"

namespace {

struct Reading {
  std::string call_id;
  unsigned long cseq = 0;
  std::string cseq_method;
  std::string from_tag;
  std::string to_tag;
  std::string branch;
  std::string contact_host;
  std::string contact_port;
};

std::string s(const char* p) { return p ? p : ""; }

bool read_with_sofia(const std::string& text, Reading& r) {
  msg_t* msg = msg_make(sip_default_mclass(), 0, text.data(), text.size());
  if (!msg) return false;
  sip_t* sip = sip_object(msg);
  bool ok = sip && sip->sip_call_id && sip->sip_cseq && sip->sip_from && sip->sip_to && sip->sip_via;
  if (ok) {
    r.call_id = s(sip->sip_call_id->i_id);
    r.cseq = sip->sip_cseq->cs_seq;
    r.cseq_method = s(sip->sip_cseq->cs_method_name);
    r.from_tag = s(sip->sip_from->a_tag);
    r.to_tag = s(sip->sip_to->a_tag);
    r.branch = s(sip->sip_via->v_branch);
    if (sip->sip_contact) {
      r.contact_host = s(sip->sip_contact->m_url->url_host);
      r.contact_port = s(sip->sip_contact->m_url->url_port);
    }
  }
  msg_destroy(msg);
  return ok;
}

Reading read_with_ours(const std::string& text) {
  SipMessage m(String(text.data(), static_cast<int>(text.size())));
  Reading r;
  r.call_id = to_std(m.call_id);
  r.cseq = m.cseq;
  r.cseq_method = to_std(m.cseq_method);
  r.from_tag = to_std(m.from.tag());
  r.to_tag = to_std(m.to.tag());
  r.branch = m.via.empty() ? "" : to_std(param_value(m.via[0], "branch", ';'));
  if (!m.contact.empty()) {
    String host = m.contact[0].uri().host();
    // The other parser gives IPv6 hosts with their brackets as well.
    r.contact_host = to_std(host);
    r.contact_port = to_std(m.contact[0].uri().port());
  }
  return r;
}

// Valid messages in many shapes: every combination of start line, header spelling,
// name-addr form, Via list and Contact address.
std::vector<std::string> corpus() {
  const char* starts[] = {
      "REGISTER sip:pbx.example.com SIP/2.0",
      "INVITE sip:bob@example.com;user=phone SIP/2.0",
      "SIP/2.0 200 OK",
      "OPTIONS sips:[2001:db8::10]:5061 SIP/2.0",
      "SIP/2.0 486 Busy Here",
  };
  struct Spelling {
    const char *via, *from, *to, *call_id, *contact;
  } spellings[] = {
      {"Via", "From", "To", "Call-ID", "Contact"},
      {"v", "f", "t", "i", "m"},
      {"VIA", "from", "TO", "call-id", "CONTACT"},
  };
  const char* froms[] = {
      "\"Alice Smith\" <sip:alice@example.com>;tag=a1b2c3",
      "<sip:alice@example.com;transport=tcp>;tag=x-9_8.7!",
      "sip:alice@example.com;tag=bare-tag",
      "Alice <sip:alice@example.com>;foo=bar;tag=ZZ;lr",
  };
  const char* tos[] = {"<sip:bob@example.com>", "\"Bob\" <sip:bob@example.com>;tag=314159",
                       "sip:bob@example.com;tag=t2"};
  const char* vias[] = {
      "SIP/2.0/UDP 192.0.2.1:5060;branch=z9hG4bK74bf9;rport",
      "SIP/2.0/TCP [2001:db8::1]:5070;branch=z9hG4bK-abc.def;received=192.0.2.9, SIP/2.0/UDP 10.0.0.1;branch=z9hG4bKsecond",
      "SIP/2.0/TLS pc33.example.com;branch=z9hG4bKnashds8;alias",
  };
  const char* contacts[] = {
      "<sip:alice@192.0.2.33:5062;transport=udp>;expires=3600",
      "\"A, B\" <sip:alice@[2001:db8::33]:5080>;+sip.instance=\"<urn:uuid:00000000-0000-1000-8000-000A95A0E128>\"",
      "sip:alice@pc33.example.com",
      "<sips:alice@host.example.com:5061;ob>;reg-id=1",
  };
  std::vector<std::string> out;
  int n = 0;
  for (const char* start : starts)
    for (const Spelling& sp : spellings)
      for (int k = 0; k < 4; k++) {
        n++;
        std::string m = std::string(start) + "\r\n";
        m += std::string(sp.via) + ": " + vias[(n + k) % 3] + "\r\n";
        m += std::string(sp.from) + ": " + froms[(n + 2 * k) % 4] + "\r\n";
        m += std::string(sp.to) + ": " + tos[(n + k) % 3] + "\r\n";
        m += std::string(sp.call_id) + ": " + std::to_string(n * 7919) + "-f00@host" + std::to_string(k) + ".example.com\r\n";
        std::string method = start[0] == 'S' ? "INVITE" : std::string(start, std::string(start).find(' '));
        m += "CSeq: " + std::to_string(n * 101 + k) + " " + method + "\r\n";
        m += std::string(sp.contact) + ": " + contacts[(n + 3 * k) % 4] + "\r\n";
        m += "Max-Forwards: 70\r\nUser-Agent: test/1.0\r\nContent-Length: 0\r\n\r\n";
        out.push_back(m);
      }
  return out;
}

}  // namespace

TEST(SofiaDifferentialTest, IdentifiersAgree) {
  std::vector<std::string> messages = corpus();
  ASSERT_GE(messages.size(), 50u);
  for (const std::string& text : messages) {
    Reading theirs;
    ASSERT_TRUE(read_with_sofia(text, theirs)) << text;
    Reading ours = read_with_ours(text);
    EXPECT_EQ(ours.call_id, theirs.call_id) << text;
    EXPECT_EQ(ours.cseq, theirs.cseq) << text;
    EXPECT_EQ(ours.cseq_method, theirs.cseq_method) << text;
    EXPECT_EQ(ours.from_tag, theirs.from_tag) << text;
    EXPECT_EQ(ours.to_tag, theirs.to_tag) << text;
    EXPECT_EQ(ours.branch, theirs.branch) << text;
    EXPECT_EQ(ours.contact_host, theirs.contact_host) << text;
    EXPECT_EQ(ours.contact_port, theirs.contact_port) << text;
  }
}
