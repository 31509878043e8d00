#include "sip/sip_receive.h"

#include "core/format.h"
#include "core/location_scope.h"
#include "core/log.h"
#include "core/posting.h"
#include "core/statistics.h"
#include "core/tagged_text.h"
#include "core/udp_socket.h"
#include "core/access_hooks.h"
#include "sip/listening_ports.h"
#include "sip/stun.h"

namespace {

int rejected_count = 0;

TaggedText address_record(const Address& a) {
  TaggedText t;
  (void)t.add(tag_adr, a.adr);
  (void)t.add(tag_port, a.port);
  return t;
}

Address read_address_record(const String& value) {
  TaggedText t(value);
  return Address(t.find(tag_adr), t.find(tag_port).to_int());
}

}  // namespace

// The weight of an unknown source's packet for the access control.
int sip_penalty_points(const String& text) {
  if (text.starts_with(String("REGISTER "))) return 16;
  if (text.starts_with(String("INVITE "))) return 32;
  if (text.starts_with(String("SUBSCRIBE ")) && text.contains(String("response="))) return 0;
  return 1;
}

namespace {

void add(PollSet& set) {
  for (const auto& s : sip_udp_ports.sockets()) set.add(s->fd, true, false);
}

void serve(PollSet& set, Tick) {
  for (const auto& s : sip_udp_ports.sockets()) {
    if (!set.readable(s->fd)) continue;
    String text;
    Address from;
    while (s->receive(text, from)) sip_udp_datagram(*s, text, from);
  }
}

}  // namespace

int sip_frame(const String& text, bool strict, String& message) {
  message = String();
  int n = text.length();
  int start = 0;
  while (start < n) {
    char c = text.at(start);
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n' && c != 0) break;
    start++;
  }
  String rest = text.tail(start);
  int crlf = rest.find(String("\r\n\r\n")), crcr = rest.find(String("\r\r")), lflf = rest.find(String("\n\n"));
  int end = -1, term = 0;
  if (crlf >= 0) end = crlf, term = 4;
  if (crcr >= 0 && (end < 0 || crcr < end)) end = crcr, term = 2;
  if (lflf >= 0 && (end < 0 || lflf < end)) end = lflf, term = 2;
  if (end < 0) return 0;
  String headers = rest.head(end + term);
  String length_text = header_value(headers, String("Content-Length"), String("l"));
  int header_bytes = end + term;
  int body;
  if (length_text.empty()) {
    body = strict ? 0 : rest.length() - header_bytes;
  } else {
    if (!length_text.is_int()) return 0;
    int64_t v = length_text.to_int64();
    if (v < 0 || v > rest.length() - header_bytes) return 0;
    body = static_cast<int>(v);
  }
  if (rest.length() < header_bytes + body) return 0;
  message = rest.head(header_bytes + body);
  return start + header_bytes + body;
}

void ctrl_post_sip_rx(const String& socket_key, const String& text, const Address& source,
                      const Address& local, const String& transport, const String& connection_id,
                      bool whitelisted) {
  TaggedText inner;
  (void)inner.add(tag_socket_key, socket_key);
  (void)inner.add(tag_text, text);
  (void)inner.add(tag_source, address_record(source));
  (void)inner.add(tag_local, address_record(local));
  (void)inner.add(tag_transport, transport);
  if (!connection_id.empty()) (void)inner.add(tag_connection_id, connection_id);
  if (whitelisted) (void)inner.add(tag_whitelist, String("true"));
  TaggedText outer;
  if (outer.add(tag_sip_received, inner)) pbxsrv_post(outer.text());
}

bool read_received_packet(const String& value, ReceivedPacket& out) {
  TaggedText t(value);
  int tag;
  String v;
  while (t.next(tag, v)) {
    switch (tag) {
      case tag_socket_key: out.socket_key = v; break;
      case tag_text: out.text = v; break;
      case tag_source: out.source = read_address_record(v); break;
      case tag_local: out.local = read_address_record(v); break;
      case tag_transport: out.transport = v; break;
      case tag_connection_id: out.connection_id = v; break;
      case tag_whitelist: out.whitelisted = v == "true"; break;
      default: break;
    }
  }
  return !out.socket_key.empty();
}

void sip_udp_datagram(UdpSocket& socket, const String& text, const Address& from) {
  LocationScope scope("SIP UDP", text);
  usage_add(String("sip_all"));
  usage_add(String("sip_udp"));
  int access = acl_hook_check(from, 1);
  if (access < 0) return;
  if (access == 0 && core_setting("ip_sip_udp_filter") == "true") {
    rejected_count++;
    if (rejected_count == 1 || rejected_count == 10 || rejected_count == 100 || rejected_count % 1000 == 0) {
      if (log_enabled(LOG_SIP, 2))
        log_add_message_global(LOG_SIP, 2, 0, format("Rejected %d SIP/UDP packets because they were coming from a whitelisted address", rejected_count));
    }
    return;
  }
  if (text.length() < 5) return;
  if (looks_like_stun(text)) {
    String answer = stun_binding_response(text, from);
    if (!answer.empty()) socket.send_to(answer, from);
    return;
  }
  String message;
  if (sip_frame(text, true, message) == 0) {
    if (log_enabled(LOG_SIP, 8))
      log_add_message_global(LOG_SIP, 8, 0, format("Illegal pdu(%s=%d): %s", address_text(from), text.length(), hex(text.head(100))));
    return;
  }
  ctrl_post_sip_rx(format("udp:%d", socket.port), message, from, socket.local_for(from.adr), String("udp"), String(),
                   access > 0);
  if (access == 0) {
    int points = sip_penalty_points(message);
    if (points) acl_hook_penalty(from, 1, points, "sip");
  }
}

LoopParty sip_udp_party() { return LoopParty{70, add, serve}; }
