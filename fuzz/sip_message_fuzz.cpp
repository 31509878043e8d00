// Parses arbitrary bytes as a SIP message, reads every field through its getter,
// changes a few, serialises and sends the result, and parses that again.
#include <cstddef>
#include <cstdint>

#include "sip/branch.h"
#include "sip/message_text.h"
#include "sip/sip_message.h"
#include "sip/sip_names.h"

namespace {

void touch_uri(const SipUri& u) {
  (void)u.scheme();
  (void)u.user();
  (void)u.password();
  (void)u.host();
  (void)u.port();
  for (const SipParam& p : u.params()) (void)p.value.length();
  for (const SipParam& p : u.headers()) (void)p.value.length();
  (void)uri_param(u, "transport");
  (void)uri_header(u, "subject");
  (void)u.text();
}

void touch(const NameAddr& a) {
  (void)a.display();
  (void)a.tag();
  (void)a.angle_form();
  (void)a.display_quoted();
  (void)nameaddr_param(a, "expires");
  touch_uri(a.uri());
  (void)a.full();
  (void)a.text();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SipMessage m(String(reinterpret_cast<const char*>(data), static_cast<int>(size)));
  touch_uri(m.request_uri);
  touch(m.from);
  touch(m.to);
  for (const NameAddr& a : m.contact) touch(a);
  for (const NameAddr& a : m.route) touch(a);
  for (const NameAddr& a : m.record_route) touch(a);
  for (const NameAddr& a : m.path) touch(a);
  for (const NameAddr& a : m.history_info) touch(a);
  for (const String& v : m.via) (void)param_value(v, "branch", ';');
  for (const char* name : {"From", "t", "Call-ID", "CSeq", "Content-Type", "Expires", "Max-Forwards",
                           "Content-Length", "Contact", "Via", "Route", "Authorization", "Allow"}) {
    (void)m.header_text(name);
    (void)m.header_values(name);
  }
  (void)m.header("Subject", "s");
  (void)split_quoted(m.content_type, 1, ';');
  (void)uri_equal(m.request_uri, m.to.uri());
  (void)make_via_suffix(m);

  if (size & 1) {
    m.from.set_tag("fz");
    m.request_uri.set_user("{x-pre-adr} u");
    if (!m.contact.empty()) nameaddr_set_param(m.contact[0], "q", "a\"b");
    m.add_header_line("X-Fuzz: 1");
    set_local_tag(m);
  }
  for (Transport t : {Transport::udp, Transport::tls}) {
    TaggedText records = m.serialise(t);
    String text = message_text(records, parse_local_end(size & 2 ? "[2001:db8::1]:5060" : "192.0.2.1:5060"),
                               size & 4 ? "4000" : "", "udp");
    SipMessage again(text);
    (void)again.from.tag();
  }
  return 0;
}
