#include "sip/sip_uri.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

String params_text(const ParamList& list) {
  String out;
  for (const SipParam& p : list) {
    out.append(p.name);
    out.append('=');
    out.append(p.value);
    out.append('|');
  }
  return out;
}

}  // namespace

TEST(SipUriTest, ParsesFields) {
  struct Case {
    const char* text;
    const char* scheme;
    const char* user;
    const char* password;
    const char* host;
    const char* port;
    const char* params;
    const char* headers;
  } cases[] = {
      {"sip:alice@[2001:db8::1]:5062;transport=tcp?subject=x", "sip", "alice", "", "[2001:db8::1]",
       "5062", "transport=tcp|", "subject=x|"},
      {"pbx1:5060", "", "", "", "pbx1", "5060", "", ""},
      {"sips:pbx1", "sips", "", "", "pbx1", "", "", ""},
      {"sip:host", "sip", "", "", "host", "", "", ""},
      {"sip:[::1]", "sip", "", "", "[::1]", "", "", ""},
      {"[::1]:5070", "", "", "", "[::1]", "5070", "", ""},
      {"  sip:bob:secret@example.com:5060;lr;maddr=10.0.0.1  ", "sip", "bob", "secret",
       "example.com", "5060", "lr=|maddr=10.0.0.1|", ""},
      {"sip:a%40b%3Ac@x.org", "sip", "a@b:c", "", "x.org", "", "", ""},
      {"sip:a%3ab:p%41ss@x.org", "sip", "a:b", "pAss", "x.org", "", "", ""},
      {"tel:+4930123;phone-context=x", "tel", "", "", "+4930123", "", "phone-context=x|", ""},
      {"urn:service:sos", "urn", "", "", "service", "", "", ""},
      {"sip:u@h;a=1;a=2;%62=%63", "sip", "u", "", "h", "", "a=1|a=2|b=c|", ""},
      {"sip:u@h?a=1&b=&c", "sip", "u", "", "h", "", "", "a=1|b=|c=|"},
      {"sip:u@{x-pre-adr}:{x-pre-port};transport={x-pre-trans}", "sip", "u", "", "{x-pre-adr}",
       "{x-pre-port}", "transport={x-pre-trans}|", ""},
      {"", "", "", "", "", "", "", ""},
      {"@", "", "", "", "", "", "", ""},
      {"sip:", "sip", "", "", "", "", "", ""},
      {"sip:u@h:;x", "sip", "u", "", "h", "", "x=|", ""},
      {"sip:u@[::1;x=1", "sip", "u", "", "[::1;x=1", "", "", ""},
  };
  for (const auto& c : cases) {
    SipUri u(c.text);
    EXPECT_TRUE(u.unparsed());
    EXPECT_EQ(u.scheme(), String(c.scheme)) << c.text;
    EXPECT_FALSE(u.unparsed());
    EXPECT_EQ(u.user(), String(c.user)) << c.text;
    EXPECT_EQ(u.password(), String(c.password)) << c.text;
    EXPECT_EQ(u.host(), String(c.host)) << c.text;
    EXPECT_EQ(u.port(), String(c.port)) << c.text;
    EXPECT_EQ(params_text(u.params()), String(c.params)) << c.text;
    EXPECT_EQ(params_text(u.headers()), String(c.headers)) << c.text;
    EXPECT_EQ(u.text(), String(c.text)) << "unchanged URIs keep their text";
  }
}

TEST(SipUriTest, FieldsAreSlicesOfTheRawText) {
  String raw("sip:alice@example.com:5060;transport=udp");
  SipUri u(raw);
  EXPECT_TRUE(u.user().shares_buffer_with(raw));
  EXPECT_TRUE(u.host().shares_buffer_with(raw));
  EXPECT_TRUE(u.params()[0].value.shares_buffer_with(raw));
}

TEST(SipUriTest, RebuildsAfterChange) {
  struct Case {
    const char* text;
    void (*change)(SipUri&);
    const char* want;
  } cases[] = {
      {"sip:alice@example.com", [](SipUri& u) { u.set_port("5062"); }, "sip:alice@example.com:5062"},
      {"sip:alice@example.com;lr", [](SipUri& u) { uri_set_param(u, "transport", "tcp"); },
       "sip:alice@example.com;lr;transport=tcp"},
      {"sip:alice@example.com;TRANSPORT=udp", [](SipUri& u) { uri_set_param(u, "transport", "tls"); },
       "sip:alice@example.com;TRANSPORT=tls"},
      {"sip:h", [](SipUri& u) { u.set_user("a b@c;d"); }, "sip:a%20b%40c;d@h"},
      {"sip:h", [](SipUri& u) { u.set_user("{x-pre-user} x"); }, "sip:{x-pre-user}%20x@h"},
      {"sip:h", [](SipUri& u) { u.set_user("{x-nothing}"); }, "sip:%7Bx-nothing%7D@h"},
      {"sip:h", [](SipUri& u) { u.set_user("\xc3\xa4"); }, "sip:%C3%A4@h"},
      {"sip:u:pw@h", [](SipUri& u) { u.set_password("p:w"); }, "sip:u:p%3Aw@h"},
      {"sip:u@h?subject=a", [](SipUri& u) { uri_set_header(u, "priority", "urgent x"); },
       "sip:u@h?subject=a&priority=urgent%20x"},
      {"sip:u@h", [](SipUri& u) { uri_set_param(u, "x", "[a]/b:c d"); }, "sip:u@h;x=[a]/b:c%20d"},
      {"sip:u@h", [](SipUri& u) { u.set_host("[2001:db8::2]"); }, "sip:u@[2001:db8::2]"},
  };
  for (const auto& c : cases) {
    SipUri u(c.text);
    c.change(u);
    EXPECT_TRUE(u.dirty());
    EXPECT_EQ(u.text(), String(c.want)) << c.text;
    EXPECT_FALSE(u.dirty());
  }
}

TEST(SipUriTest, ParamAccessIgnoresCase) {
  SipUri u("sip:u@h;Transport=TCP;lr");
  EXPECT_EQ(uri_param(u, "transport"), String("TCP"));
  EXPECT_TRUE(uri_has_param(u, "LR"));
  EXPECT_FALSE(uri_has_param(u, "maddr"));
  EXPECT_EQ(uri_param(u, "maddr"), String());
  EXPECT_FALSE(u.dirty());
}

TEST(SipUriTest, Comparison) {
  struct Case {
    const char* a;
    const char* b;
    bool equal;
  } cases[] = {
      {"sip:alice@h", "sip:alice@h", true},
      {"sip:alice@h", "sip:Alice@h", false},
      {"sip:alice@h", "sips:alice@h", false},
      {"sip:alice@h:5060", "sip:alice@h", false},
      {"sip:alice@h;transport=tcp", "sip:alice@h", true},
      {"sip:alice@h;transport=tcp", "sip:alice@h;transport=udp", false},
      {"sip:alice@h;user=phone", "sip:alice@h", false},
      {"sip:alice@h", "sip:alice@h;ttl=1", false},
      {"sip:alice@h;method=INVITE", "sip:alice@h", false},
      {"sip:alice@h;maddr=x", "sip:alice@h", false},
      {"sip:alice@h;a=1;b=2", "sip:alice@h;b=2;a=1", true},
      {"sip:alice@h?x=1", "sip:alice@h", false},
      {"sip:alice@h?x=1&y=2", "sip:alice@h?y=2&x=1", true},
      {"sip:alice@h?x=1", "sip:alice@h?x=2", false},
      {"sip:%61lice@h", "sip:alice@h", true},
      {"sip:a:pw@h", "sip:a@h", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(uri_equal(SipUri(c.a), SipUri(c.b)), c.equal) << c.a << " vs " << c.b;
    EXPECT_EQ(uri_equal(SipUri(c.b), SipUri(c.a)), c.equal) << c.b << " vs " << c.a;
  }
}

TEST(SipUriTest, HostileText) {
  std::string cases[] = {
      std::string(100000, '@'), std::string(100000, '['), std::string(100000, ';'),
      std::string(100000, '%'), "sip:" + std::string(50000, ':'), std::string("sip:a\0b@c\0d", 11),
      "sip:u@h?" + std::string(50000, '&'), "sip:u@h:" + std::string(50000, '9'),
      "sip:%", "sip:u%@h", "sip:u@h;%", "sip:u@h?%=%",
  };
  for (const auto& t : cases) {
    SipUri u(String(t.data(), static_cast<int>(t.size())));
    (void)u.host();
    u.set_scheme("sip");
    EXPECT_LE(u.text().length(), static_cast<int>(t.size()) * 3 + 8);
  }
}
