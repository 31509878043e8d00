#include "sip/sip_message.h"

#include <gtest/gtest.h>

#include "sip/sip_names.h"
#include "tests/support/test_support.h"

namespace {

const char* const register_text =
    "REGISTER sip:pbx.example.com SIP/2.0\r\n"
    "Via: SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK776asdhds;rport\r\n"
    "Max-Forwards: 70\r\n"
    "To: \"Alice\" <sip:alice@pbx.example.com>\r\n"
    "From: \"Alice\" <sip:alice@pbx.example.com>;tag=1928301774\r\n"
    "Call-ID: a84b4c76e66710@pc33.example.com\r\n"
    "CSeq: 314159 REGISTER\r\n"
    "Contact: <sip:alice@192.0.2.10:5060;transport=udp>;expires=3600\r\n"
    "User-Agent: phone/1.0\r\n"
    "Allow: INVITE, ACK, CANCEL, BYE\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

std::vector<std::string> to_std_list(const std::vector<String>& list) {
  std::vector<std::string> out;
  for (const String& s : list) out.push_back(to_std(s));
  return out;
}

}  // namespace

TEST(SipMessageTest, ParsesRegister) {
  String raw(register_text);
  SipMessage m(raw);
  EXPECT_TRUE(m.is_request);
  EXPECT_EQ(m.method, String("REGISTER"));
  EXPECT_EQ(m.request_uri.text(), String("sip:pbx.example.com"));
  EXPECT_EQ(m.version, String("SIP/2.0"));
  EXPECT_EQ(m.status, 0);
  ASSERT_EQ(m.via.size(), 1);
  EXPECT_EQ(m.via[0], String("SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK776asdhds;rport"));
  EXPECT_EQ(param_value(m.via[0], "branch", ';'), String("z9hG4bK776asdhds"));
  EXPECT_EQ(m.max_forwards, 70);
  EXPECT_EQ(m.from.tag(), String("1928301774"));
  EXPECT_EQ(m.from.uri().user(), String("alice"));
  EXPECT_EQ(m.to.display(), String("Alice"));
  EXPECT_EQ(m.call_id, String("a84b4c76e66710@pc33.example.com"));
  EXPECT_EQ(m.cseq, 314159u);
  EXPECT_EQ(m.cseq_method, String("REGISTER"));
  ASSERT_EQ(m.contact.size(), 1);
  EXPECT_EQ(m.contact[0].uri().host(), String("192.0.2.10"));
  EXPECT_EQ(m.contact[0].uri().port(), String("5060"));
  EXPECT_EQ(nameaddr_param(m.contact[0], "expires"), String("3600"));
  EXPECT_EQ(m.headers.size(), 2);
  EXPECT_EQ(m.header("user-agent"), String("phone/1.0"));
  EXPECT_TRUE(m.parts.empty());
  // Parsing copies no bytes: values are slices of the received text.
  EXPECT_TRUE(m.call_id.shares_buffer_with(raw));
  EXPECT_TRUE(m.via[0].shares_buffer_with(raw));
  EXPECT_TRUE(m.from.raw().shares_buffer_with(raw));
}

TEST(SipMessageTest, ParsesStartLines) {
  struct Case {
    const char* text;
    bool request;
    const char* method;
    const char* uri;
    int status;
    const char* reason;
  } cases[] = {
      {"SIP/2.0 200 OK\r\n\r\n", false, "SIP/2.0", "", 200, "OK"},
      {"SIP/2.0 486  Busy   Here  \r\n", false, "SIP/2.0", "", 486, "Busy   Here"},
      {"SIP/2.0 abc\r\n", false, "SIP/2.0", "", 0, ""},
      {"sip/2.0 200 OK\r\n", true, "sip/2.0", "200", 0, ""},
      {"INVITE sip:b@h SIP/2.0\n", true, "INVITE", "sip:b@h", 0, ""},
      {"OPTIONS  sip:b@h\r", true, "OPTIONS", "sip:b@h", 0, ""},
      {"", true, "", "", 0, ""},
      {"\r\n\r\n", true, "", "", 0, ""},
      {"SIP/2.0 99999999999 X\r\n", false, "SIP/2.0", "", 2147483647, "X"},
  };
  for (const auto& c : cases) {
    SipMessage m{String(c.text)};
    EXPECT_EQ(m.is_request, c.request) << c.text;
    EXPECT_EQ(m.method, String(c.method)) << c.text;
    EXPECT_EQ(m.request_uri.text(), String(c.uri)) << c.text;
    EXPECT_EQ(m.status, c.status) << c.text;
    EXPECT_EQ(m.reason, String(c.reason)) << c.text;
  }
}

TEST(SipMessageTest, FilesHeadersByNameAndCompactForm) {
  SipMessage m{String(
      "INVITE sip:b@h SIP/2.0\r\n"
      "v: SIP/2.0/UDP a;branch=1, SIP/2.0/TCP b;branch=2\r\n"
      "VIA: SIP/2.0/UDP c;branch=3\r\n"
      "f: <sip:a@h>;tag=x\r\n"
      "t: sip:b@h\r\n"
      "i: id-1\r\n"
      "cseq:  +12 INVITE\r\n"
      "m: <sip:a@1.2.3.4>, \"x, y\" <sip:b@h>, <sip:c@h;p=a,b>\r\n"
      "c: application/foo\r\n"
      "l: 3\r\n"
      "s: subject text\r\n"
      "k: 100rel\r\n"
      "e: gzip\r\n"
      "o: presence\r\n"
      "r: <sip:x@h>\r\n"
      "Route: <sip:p1;lr>, <sip:p2;lr>\r\n"
      "Record-Route: <sip:rr;lr>\r\n"
      "Path: <sip:path;lr>\r\n"
      "History-Info: <sip:h1>;index=1, <sip:h2>;index=1.1\r\n"
      "EXPIRES: 60\r\n"
      "max-forwards: 12\r\n"
      ": no name\r\n"
      "no colon line\r\n"
      "\r\n"
      "abcdef")};
  EXPECT_EQ(m.via.size(), 3);
  EXPECT_EQ(m.via[2], String("SIP/2.0/UDP c;branch=3"));
  EXPECT_EQ(m.from.tag(), String("x"));
  EXPECT_EQ(m.to.uri().user(), String("b"));
  EXPECT_EQ(m.call_id, String("id-1"));
  EXPECT_EQ(m.cseq, 12u);
  EXPECT_EQ(m.cseq_method, String("INVITE"));
  ASSERT_EQ(m.contact.size(), 3);
  EXPECT_EQ(m.contact[1].display(), String("x, y"));
  EXPECT_EQ(m.contact[2].uri().text(), String("sip:c@h;p=a,b"));
  EXPECT_EQ(m.content_type, String("application/foo"));
  EXPECT_EQ(m.route.size(), 2);
  EXPECT_EQ(m.record_route.size(), 1);
  EXPECT_EQ(m.path.size(), 1);
  EXPECT_EQ(m.history_info.size(), 2);
  EXPECT_EQ(m.expires, String("60"));
  EXPECT_EQ(m.max_forwards, 12);
  // Only seven compact forms are known; the others stay general headers.
  EXPECT_EQ(m.header("Subject", "s"), String("subject text"));
  EXPECT_EQ(m.header("s"), String("subject text"));
  EXPECT_EQ(m.header("Supported", "k"), String("100rel"));
  EXPECT_EQ(m.header("r"), String("<sip:x@h>"));
  EXPECT_EQ(m.headers.size(), 5);
  EXPECT_EQ(m.body, String("abc"));
  ASSERT_EQ(m.parts.size(), 1u);
  EXPECT_EQ(m.parts[0].content_type, String("application/foo"));
  EXPECT_EQ(m.parts[0].text[0], String("abc"));
}

TEST(SipMessageTest, CallIdFormsReachOneField) {
  for (const char* name : {"Call-ID", "call-id", "CALL-ID", "i", "I", "Call-Id"}) {
    SipMessage m(String("OPTIONS sip:h SIP/2.0\r\n") + name + ": abc\r\n\r\n");
    EXPECT_EQ(m.call_id, String("abc")) << name;
    EXPECT_TRUE(m.headers.empty()) << name;
    EXPECT_EQ(m.header_text(name), String("abc"));
  }
}

TEST(SipMessageTest, ContentLengthDecidesTheBody) {
  struct Case {
    const char* text;
    const char* body;
    size_t parts;
  } cases[] = {
      {"OPTIONS sip:h SIP/2.0\r\nContent-Length: 0\r\n\r\nhello", "", 0},
      {"OPTIONS sip:h SIP/2.0\r\n\r\nhello", "", 0},
      {"OPTIONS sip:h SIP/2.0\r\nContent-Length: 100\r\n\r\nhello", "hello", 1},
      {"OPTIONS sip:h SIP/2.0\r\nContent-Length: 3\r\n\r\nhello", "hel", 1},
      {"OPTIONS sip:h SIP/2.0\r\nContent-Length: -3\r\n\r\nhello", "", 0},
      {"OPTIONS sip:h SIP/2.0\r\nContent-Length: abc\r\n\r\nhello", "", 0},
      {"OPTIONS sip:h SIP/2.0\r\nl: 2\r\nContent-Length: 4\r\n\r\nhello", "hell", 1},
      {"OPTIONS sip:h SIP/2.0\r\nContent-Length: 99999999999999\r\n\r\nhi", "hi", 1},
      {"OPTIONS sip:h SIP/2.0\r\nContent-Length: 5\r\n", "", 1},
      {"OPTIONS sip:h SIP/2.0\nContent-Length: 5\n\nab\ncd", "ab\ncd", 1},
      {"OPTIONS sip:h SIP/2.0\rContent-Length: 5\r\rab\rcd", "ab\rcd", 1},
  };
  for (const auto& c : cases) {
    SipMessage m{String(c.text)};
    EXPECT_EQ(m.body, String(c.body)) << c.text;
    EXPECT_EQ(m.parts.size(), c.parts) << c.text;
    EXPECT_EQ(m.header_text("Content-Length"), String());
  }
}

TEST(SipMessageTest, ContinuationLinesJoinWithNothingBetween) {
  SipMessage m{String(
      "OPTIONS sip:h SIP/2.0\r\n"
      "Subject: first\r\n"
      "  second\r\n"
      "\t third\r\n"
      "Via: SIP/2.0/UDP a;branch=1,\r\n"
      " SIP/2.0/UDP b;branch=2\r\n"
      "\r\n")};
  EXPECT_EQ(m.header("Subject"), String("firstsecondthird"));
  ASSERT_EQ(m.via.size(), 2);
  EXPECT_EQ(m.via[1], String("SIP/2.0/UDP b;branch=2"));
}

TEST(SipMessageTest, HeaderTextAndValues) {
  SipMessage m{String(register_text)};
  m.add_header("Supported", "path, outbound");
  m.add_header("Authorization", "Digest username=\"a\", realm=\"r\", nonce=\"n\"");
  m.add_header("X-List", "a, \"b, c\", d");
  m.add_header("x-list", "e");
  struct Case {
    const char* name;
    std::vector<std::string> values;
  } cases[] = {
      {"From", {"\"Alice\" <sip:alice@pbx.example.com>;tag=1928301774"}},
      {"t", {"\"Alice\" <sip:alice@pbx.example.com>"}},
      {"CSeq", {"314159 REGISTER"}},
      {"Max-Forwards", {"70"}},
      {"Content-Length", {""}},
      {"Expires", {""}},
      {"Contact", {"<sip:alice@192.0.2.10:5060;transport=udp>;expires=3600"}},
      {"Via", {"SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK776asdhds;rport"}},
      {"Route", {}},
      {"Supported", {"path", "outbound"}},
      {"Allow", {"INVITE", "ACK", "CANCEL", "BYE"}},
      {"authorization", {"Digest username=\"a\", realm=\"r\", nonce=\"n\""}},
      {"X-List", {"a", "\"b, c\"", "d", "e"}},
      {"Nothing", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(to_std_list(m.header_values(c.name)), c.values) << c.name;
  EXPECT_EQ(m.header_text("Via"), String());
  EXPECT_EQ(m.header_text("Contact"), String());
  EXPECT_EQ(m.header_text("CSEQ"), String("314159 REGISTER"));
  EXPECT_EQ(m.header_text("user-agent"), String("phone/1.0"));
}

TEST(SipMessageTest, EditingHeaders) {
  SipMessage m{String(register_text)};
  m.add_header_line("  X-A :  one \r\n");
  m.add_header_line("X-A: two");
  m.add_header_line("no colon");
  m.add_header_line(": empty name");
  m.add_header("Contact", "<sip:second@h>");
  m.add_header("Content-Length", "55");
  EXPECT_EQ(m.contact.size(), 2);
  EXPECT_EQ(m.header("x-a"), String("one"));
  EXPECT_EQ(m.header_values("X-A").size(), 2u);
  m.set_header("X-B", "xb", {String("1"), String("2")});
  m.add_header("xb", "3");
  EXPECT_EQ(m.header_values("X-B").size(), 2u);
  m.remove_header("X-B", "xb");
  EXPECT_EQ(m.header("X-B", "xb"), String());
  m.remove_header("x-a");
  EXPECT_EQ(m.headers.size(), 2);
  EXPECT_EQ(m.header("Content-Length"), String());
}

TEST(SipMessageTest, ResponseConstructorCopiesTheDialogFields) {
  SipMessage req{String(register_text)};
  req.socket_key = "udp:5060";
  req.port_index = 3;
  req.domain_id = 7;
  req.domain_known = true;
  req.web_client = true;
  req.add_header("Record-Route", "<sip:rr;lr>");
  SipMessage r(100, "Trying", req);
  EXPECT_FALSE(r.is_request);
  EXPECT_EQ(r.method, String("SIP/2.0"));
  EXPECT_EQ(r.status, 100);
  EXPECT_EQ(r.max_forwards, 0);
  EXPECT_EQ(r.call_id, req.call_id);
  EXPECT_EQ(r.cseq, req.cseq);
  EXPECT_EQ(r.socket_key, String("udp:5060"));
  EXPECT_EQ(r.port_index, 3);
  EXPECT_EQ(r.domain_id, 7);
  EXPECT_TRUE(r.domain_known);
  EXPECT_TRUE(r.web_client);
  EXPECT_EQ(r.via.size(), 1);
  EXPECT_EQ(r.record_route.size(), 1);
  EXPECT_TRUE(r.contact.empty());
  EXPECT_TRUE(r.headers.empty());
  // No tag is invented for the To.
  EXPECT_EQ(r.to.tag(), String());
  EXPECT_EQ(r.to.text(), req.to.text());

  SipMessage q("INVITE", NameAddr("<sip:a@h>;tag=1"), NameAddr("<sip:b@h>"), "cid", "");
  EXPECT_TRUE(q.is_request);
  EXPECT_EQ(q.cseq_method, String("INVITE"));
  EXPECT_EQ(q.max_forwards, 70);
  EXPECT_EQ(q.port_index, -1);
}

TEST(SipMessageTest, TextHelpers) {
  struct Case {
    const char* text;
    const char* name;
    char sep;
    const char* want;
  } cases[] = {
      {"SIP/2.0/UDP h;branch=z9;rport", "branch", ';', "z9"},
      {"SIP/2.0/UDP h;BRANCH = z9 ;rport", "branch", ';', "z9"},
      {"SIP/2.0/UDP h;rport;received=1.2.3.4", "rport", ';', ""},
      {"multipart/mixed; boundary=\"a;b\\\"c\"", "boundary", ';', "a;b\"c"},
      {"x=\"unterminated", "x", ';', "unterminated"},
      {"a=1,b=2", "b", ',', "2"},
      {"a=1", "c", ';', ""},
      {"", "a", ';', ""},
  };
  for (const auto& c : cases) EXPECT_EQ(param_value(c.text, c.name, c.sep), String(c.want)) << c.text;
  EXPECT_EQ(split_quoted(" a , \"b,c\" ,d", 1, ','), String("\"b,c\""));
  EXPECT_EQ(split_quoted("a,b", 2, ','), String());
  EXPECT_EQ(split_quoted("a,b", 1, ','), String("b"));
}
