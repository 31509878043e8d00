#include <gtest/gtest.h>

#include <map>
#include <string>

#include "sip/branch.h"
#include "sip/message_text.h"
#include "sip/sip_hooks.h"
#include "sip/sip_message.h"
#include "tests/support/test_support.h"

namespace {

std::map<std::string, std::string> settings;

String read_setting(const String& name) {
  auto it = settings.find(to_std(name));
  return it == settings.end() ? String() : String(it->second.c_str());
}

class SerialiseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    settings.clear();
    sip_hooks.setting = read_setting;
    reset_ip_replacement_map();
  }
  void TearDown() override {
    sip_hooks = SipHooks();
    settings.clear();
    reset_ip_replacement_map();
  }
};

const char* const register_text =
    "REGISTER sip:pbx.example.com SIP/2.0\r\n"
    "Via: SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK776asdhds;rport\r\n"
    "Max-Forwards: 70\r\n"
    "To: Alice <sip:alice@pbx.example.com>\r\n"
    "From: \"Alice\" <sip:alice@pbx.example.com>;tag=1928301774\r\n"
    "call-id: a84b4c76e66710@pc33.example.com\r\n"
    "CSeq: 314159 REGISTER\r\n"
    "Contact: <sip:alice@192.0.2.10:5060;transport=udp>;expires=3600\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

SipMessage ok_to_register() {
  SipMessage req{String(register_text)};
  SipMessage r(200, "OK", req);
  r.to.set_tag("a6c85cf");
  r.contact.push_back(NameAddr("<sip:alice@192.0.2.10:5060;transport=udp>;expires=3600"));
  r.add_header("Date", "Sat, 13 Nov 2010 23:29:00 GMT");
  r.expires = "3600";
  return r;
}

const LocalEnd local4 = parse_local_end("192.0.2.1:5060");

}  // namespace

TEST_F(SerialiseTest, OkToRegisterByteForByte) {
  const char* long_form =
      "SIP/2.0 200 OK\r\n"
      "Via: SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK776asdhds;rport\r\n"
      "From: \"Alice\" <sip:alice@pbx.example.com>;tag=1928301774\r\n"
      "To: Alice <sip:alice@pbx.example.com>;tag=a6c85cf\r\n"
      "Call-ID: a84b4c76e66710@pc33.example.com\r\n"
      "CSeq: 314159 REGISTER\r\n"
      "Contact: <sip:alice@192.0.2.10:5060;transport=udp>;expires=3600\r\n"
      "Date: Sat, 13 Nov 2010 23:29:00 GMT\r\n"
      "Expires: 3600\r\n"
      "Content-Length: 0\r\n"
      "\r\n";
  const char* short_form =
      "SIP/2.0 200 OK\r\n"
      "v: SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK776asdhds;rport\r\n"
      "f: \"Alice\" <sip:alice@pbx.example.com>;tag=1928301774\r\n"
      "t: Alice <sip:alice@pbx.example.com>;tag=a6c85cf\r\n"
      "i: a84b4c76e66710@pc33.example.com\r\n"
      "CSeq: 314159 REGISTER\r\n"
      "m: <sip:alice@192.0.2.10:5060;transport=udp>;expires=3600\r\n"
      "Date: Sat, 13 Nov 2010 23:29:00 GMT\r\n"
      "Expires: 3600\r\n"
      "l: 0\r\n"
      "\r\n";
  SipMessage r = ok_to_register();
  String method;
  EXPECT_EQ(message_text(r.serialise(Transport::udp), local4, "", "udp", &method), String(long_form));
  EXPECT_EQ(method, String("REGISTER"));
  settings["short_header"] = "true";
  EXPECT_EQ(message_text(r.serialise(Transport::udp), local4, "", "udp"), String(short_form));
}

TEST_F(SerialiseTest, RecordsCarryTheirTags) {
  SipMessage r = ok_to_register();
  TaggedText t = r.serialise(Transport::udp);
  std::vector<int> tags;
  int tag;
  String value;
  while (t.next(tag, value)) tags.push_back(tag);
  std::vector<int> want = {54, 61, 59, 59, 59, 59, 61, 61, 59, 60, 15, 88};
  EXPECT_EQ(tags, want);
}

TEST_F(SerialiseTest, RequestNamesAreNormalAndMaxForwardsIsSent) {
  SipMessage m{String(
      "invite sip:bob@h SIP/2.0\r\n"
      "v: SIP/2.0/UDP a;branch=z9hG4bK1\r\n"
      "f: sip:a@h;tag=1\r\n"
      "t: sip:b@h\r\n"
      "i: X\r\n"
      "cseq: 2 invite\r\n"
      "route: <sip:p;lr>;x\r\n"
      "max-forwards: 9\r\n"
      "\r\n")};
  String text = message_text(m.serialise(Transport::udp), local4, "", "udp");
  EXPECT_EQ(text, String(
      "invite sip:bob@h SIP/2.0\r\n"
      "Via: SIP/2.0/UDP a;branch=z9hG4bK1\r\n"
      "Route: <sip:p;lr>;x=\r\n"
      "From: <sip:a@h>;tag=1\r\n"
      "To: <sip:b@h>\r\n"
      "Call-ID: X\r\n"
      "CSeq: 2 invite\r\n"
      "Max-Forwards: 9\r\n"
      "Content-Length: 0\r\n"
      "\r\n"));
}

TEST_F(SerialiseTest, PlaceholdersAreFilledAtSendTime) {
  struct Case {
    const char* local;
    const char* media_port;
    const char* transport;
    const char* text;
    const char* want;
  } cases[] = {
      {"192.0.2.1:5060", "", "udp", "{x-pre-adr}:{x-pre-port};transport={x-pre-trans}",
       "192.0.2.1:5060;transport=udp"},
      {"[2001:db8::1]:5061", "", "tls", "{x-pre-adr}:{x-pre-port}{x-pre-alias}",
       "[2001:db8::1]:5061;alias"},
      {"[2001:db8::1]:5061", "4000", "tcp", "c=IN {x-pre-ipv} {x-pre-adrs} {x-pre-lport} {x-pre-cport}",
       "c=IN IP6 2001:db8::1 4000 4001"},
      {"10.0.0.1:5060", "", "udp", "{x-pre-cport}|{x-pre-lport}|{x-pre-ipv}", "||IP4"},
      {"10.0.0.1:5060", "", "udp", "{x-pre-none}{x-pre-adr}{", "{x-pre-none}10.0.0.1{"},
      {"10.0.0.1:5060", "", "udp", "{{x-pre-port}}", "{5060}"},
      {"10.0.0.1:5060", "", "udp", "{x-pre-adr", "{x-pre-adr"},
      {"10.0.0.1", "", "udp", "{x-pre-port}", "0"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(insert_replacement(c.text, parse_local_end(c.local), c.media_port, c.transport),
              String(c.want))
        << c.text;
}

TEST_F(SerialiseTest, AddressMapAndMediaBind) {
  settings["ip_replacement_list"] = "10.0.0.1/203.0.113.5 bogus/1.2.3.4 10.0.0.2/ fd00::1/pbx.example.com";
  settings["port_bind4"] = "10.0.0.9";
  settings["port_bind6"] = "10.0.0.8";
  LogCapture log;
  EXPECT_EQ(insert_replacement("{x-pre-adr}", parse_local_end("10.0.0.1:5060"), "", "udp"),
            String("203.0.113.5"));
  EXPECT_TRUE(log.contains("SIP IP address representation: 10.0.0.1 -> 203.0.113.5"));
  EXPECT_EQ(insert_replacement("{x-pre-adr} {x-pre-adrs}", parse_local_end("[fd00::1]:5060"), "", "udp"),
            String("pbx.example.com pbx.example.com"));
  EXPECT_EQ(insert_replacement("{x-pre-adrs}", parse_local_end("10.0.0.1:5060"), "", "udp"),
            String("10.0.0.9"));
  EXPECT_EQ(insert_replacement("{x-pre-adrs}", parse_local_end("[fd00::2]:5060"), "", "udp"),
            String("fd00::2"));
  EXPECT_EQ(insert_replacement("{x-pre-adr}", parse_local_end("10.0.0.2:5060"), "", "udp"),
            String("10.0.0.2"));
}

TEST_F(SerialiseTest, ContentLengthFitsTheFilledBody) {
  SipMessage m("INVITE", NameAddr("<sip:a@h>;tag=1"), NameAddr("<sip:b@h>"), "cid", "");
  m.request_uri.assign("sip:b@h");
  m.cseq = 1;
  m.via.push_back("SIP/2.0/{x-pre-trans} {x-pre-adr}:{x-pre-port};branch=z9hG4bK-x");
  m.contact.push_back(NameAddr("<sip:a@{x-pre-adr}:{x-pre-port};transport={x-pre-trans}>"));
  String sdp("v=0\r\nc=IN {x-pre-ipv} {x-pre-adrs}\r\nm=audio {x-pre-lport} RTP/AVP 0\r\n");
  m.parts.push_back(BodyPart::from_text("application/sdp", sdp));
  TaggedText t = m.serialise(Transport::udp);
  String text = message_text(t, parse_local_end("[2001:db8::7]:5062"), "40000", "udp");
  String body("v=0\r\nc=IN IP6 2001:db8::7\r\nm=audio 40000 RTP/AVP 0\r\n");
  EXPECT_TRUE(text.contains("Via: SIP/2.0/udp [2001:db8::7]:5062;branch=z9hG4bK-x\r\n")) << to_std(text);
  EXPECT_TRUE(text.contains("Contact: <sip:a@[2001:db8::7]:5062;transport=udp>\r\n"));
  EXPECT_TRUE(text.contains("Content-Type: application/sdp\r\n"));
  EXPECT_TRUE(text.ends_with(String("Content-Length: ") + String(body.length()) + "\r\n\r\n" + body));
  // Without a media port the body leaves as stored, and its length is the stored one.
  String plain = message_text(t, parse_local_end("10.0.0.1:5060"), "", "udp");
  EXPECT_TRUE(plain.ends_with(String("Content-Length: ") + String(sdp.length()) + "\r\n\r\n" + sdp));
}

TEST_F(SerialiseTest, CompactNamesWithABody) {
  settings["short_header"] = "true";
  SipMessage m("MESSAGE", NameAddr("<sip:a@h>;tag=1"), NameAddr("<sip:b@h>"), "cid", "");
  m.request_uri.assign("sip:b@h");
  m.cseq = 3;
  m.parts.push_back(BodyPart::from_text("text/plain", "hello"));
  String text = message_text(m.serialise(Transport::udp), local4, "", "udp");
  EXPECT_EQ(text, String(
      "MESSAGE sip:b@h SIP/2.0\r\n"
      "f: <sip:a@h>;tag=1\r\n"
      "t: <sip:b@h>\r\n"
      "i: cid\r\n"
      "CSeq: 3 MESSAGE\r\n"
      "Max-Forwards: 70\r\n"
      "c: text/plain\r\n"
      "l: 5\r\n"
      "\r\n"
      "hello"));
}

TEST_F(SerialiseTest, PlaceholderInUserPartSurvivesRebuild) {
  NameAddr c("<sip:{x-pre-user}@{x-pre-adr}:{x-pre-port}>");
  c.uri_mutable().set_user("{x-pre-adr} a");
  uri_set_param(c.uri_mutable(), "transport", "{x-pre-trans}");
  EXPECT_EQ(c.full(), String("<sip:{x-pre-adr}%20a@{x-pre-adr}:{x-pre-port};transport={x-pre-trans}>"));
  EXPECT_EQ(insert_replacement(c.full(), local4, "", "tcp"),
            String("<sip:192.0.2.1%20a@192.0.2.1:5060;transport=tcp>"));
}

TEST_F(SerialiseTest, MultipartBuildAndParse) {
  SipMessage m("INVITE", NameAddr("<sip:a@h>;tag=1"), NameAddr("<sip:b@h>"), "cid", "");
  m.request_uri.assign("sip:b@h");
  m.cseq = 5;
  String sdp("v=0\r\no=- 1 1 IN IP4 1.2.3.4\r\ns=-\r\n");
  m.parts.push_back(BodyPart::from_text("application/sdp", sdp));
  BodyPart xml = BodyPart::from_text("application/pidf+xml", "<presence/>\r\n.hidden\r\n");
  xml.content_id = "<abc@h>";
  xml.content_disposition = "render;handling=optional";
  m.parts.push_back(xml);
  String text = message_text(m.serialise(Transport::udp), local4, "", "udp");
  EXPECT_TRUE(text.contains("MIME-Version: 1.0\r\n"));
  EXPECT_TRUE(text.contains("Content-Disposition: render;handling=optional\r\nContent-ID: <abc@h>\r\n"
                            "Content-Type: application/pidf+xml\r\n\r\n<presence/>\r\n..hidden\r\n"));

  SipMessage back(text);
  ASSERT_EQ(back.parts.size(), 2u);
  EXPECT_EQ(back.boundary.length(), 28);
  EXPECT_TRUE(back.boundary.starts_with("b-"));
  EXPECT_EQ(back.parts[0].content_type, String("application/sdp"));
  EXPECT_EQ(back.parts[0].text[0], sdp);
  EXPECT_EQ(back.parts[1].content_type, String("application/pidf+xml"));
  EXPECT_EQ(back.parts[1].text[0], String("<presence/>\r\n..hidden\r\n"));
}

TEST_F(SerialiseTest, MultipartParseEdges) {
  struct Case {
    const char* content_type;
    const char* body;
    std::vector<std::string> types;
    std::vector<std::string> texts;
  } cases[] = {
      {"multipart/mixed;boundary=XX",
       "--XX\r\nContent-Type: text/plain\r\n\r\none\r\n--XX\r\ncontent-type: a/b\r\n\r\ntwo\r\n--XX--\r\nafter",
       {"text/plain", ""}, {"one", "two"}},
      // A preamble is a piece too; without a blank line it is all headers.
      {"Multipart/Related; type=x; boundary=\"q;q\"",
       "pre\r\n--q;q\r\n\r\nbare\r\n--q;q--", {"", ""}, {"", "bare"}},
      {"multipart/mixed;boundary=ZZ", "--ZZ\r\nContent-Type: text/plain\r\n\r\nnever closed",
       {}, {}},
      {"multipart/mixed", "--x\r\nabc", {"multipart/mixed"}, {"--x\r\nabc"}},
      {"multipart/mixed;boundary=B", "--B\r\nno header end--B--", {""}, {""}},
  };
  for (const auto& c : cases) {
    String boundary;
    std::vector<BodyPart> parts;
    read_body_parts(c.body, c.content_type, boundary, parts);
    std::vector<std::string> types;
    std::vector<std::string> texts;
    for (const BodyPart& p : parts) {
      types.push_back(to_std(p.content_type));
      texts.push_back(p.text.empty() ? "" : to_std(p.text[0]));
    }
    EXPECT_EQ(types, c.types) << c.body;
    EXPECT_EQ(texts, c.texts) << c.body;
  }
}

TEST_F(SerialiseTest, BranchAndLocalTagAreStable) {
  SipMessage req{String(register_text)};
  String branch = make_via_suffix(req);
  EXPECT_TRUE(branch.starts_with(";branch=z9hG4bK-"));
  EXPECT_EQ(branch.length(), 16 + 32);
  EXPECT_EQ(make_via_suffix(SipMessage{String(register_text)}), branch);
  // MD5 of "a84b4c76e66710@pc33.example.com z9hG4bK776asdhds 314159REGISTER".
  EXPECT_EQ(branch, String(";branch=z9hG4bK-") + "0a4d6a1cadbbdb033a11e0251c1c129c");

  SipMessage cancel = req;
  cancel.method = "CANCEL";
  EXPECT_NE(make_via_suffix(cancel), branch);
  SipMessage inv = req;
  inv.method = "INVITE";
  cancel.invite_related = true;
  EXPECT_EQ(make_via_suffix(cancel), make_via_suffix(inv));

  SipMessage a{String(register_text)};
  String tag = set_local_tag(a);
  EXPECT_EQ(tag.length(), 10);
  EXPECT_EQ(a.to.tag(), tag);
  SipMessage b{String(register_text)};
  EXPECT_EQ(set_local_tag(b), tag);
  EXPECT_EQ(set_local_tag(a), tag);
  SipMessage r(100, "Trying", SipMessage{String(register_text)});
  EXPECT_EQ(r.to.tag(), String());
}
