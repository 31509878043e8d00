#include "sip/sip_send.h"

#include "core/format.h"
#include "core/log.h"
#include "core/posting.h"
#include "core/tcp_server.h"
#include "sip/listening_ports.h"
#include "sip/message_text.h"
#include "sip/sip_receive.h"

namespace {

LocalEnd local_end_of(const Address& a) {
  LocalEnd end;
  end.ip = adr_text(a.adr);
  end.port = a.port;
  end.ipv6 = a.is_ipv6();
  return end;
}

void log_unsent(const SendOrder& order, const char* why) {
  if (log_enabled(LOG_SIP, 4))
    log_add_message_global(LOG_SIP, 4, 0, format("Could not send to %s (%s): %s", address_text(order.destination),
                                                 order.socket_key, why));
}

bool send_udp(UdpSocket* s, const SendOrder& order) {
  if (!s) {
    log_unsent(order, "no UDP socket");
    return false;
  }
  String text = message_text(order.message, local_end_of(s->local_for(order.destination.adr)), order.media_port,
                             String("udp"));
  return s->send_to(text, order.destination);
}

void on_send_order(const String& value) {
  SendOrder order;
  if (read_send_order(value, order)) (void)execute_send_order(order);
}

}  // namespace

void post_send_order(const SendOrder& order) {
  TaggedText inner;
  (void)inner.add(tag_socket_key, order.socket_key);
  (void)inner.add(tag_text, order.message);
  (void)inner.add(tag_adr, order.destination.adr);
  (void)inner.add(tag_port, order.destination.port);
  (void)inner.add(tag_transport, order.transport);
  if (!order.media_port.empty()) (void)inner.add(tag_rtp_port, order.media_port);
  if (!order.host_name.empty()) (void)inner.add(tag_host_name, order.host_name);
  if (order.whitelist) (void)inner.add(tag_whitelist, true);
  TaggedText outer;
  if (outer.add(tag_sip_send, inner)) out_post(outer.text());
}

bool read_send_order(const String& value, SendOrder& out) {
  TaggedText t(value);
  int tag;
  String v;
  while (t.next(tag, v)) {
    switch (tag) {
      case tag_socket_key: out.socket_key = v; break;
      case tag_text: out.message = TaggedText(v); break;
      case tag_adr: out.destination.adr = v; break;
      case tag_port: out.destination.port = v.to_int(); break;
      case tag_transport: out.transport = v; break;
      case tag_rtp_port: out.media_port = v; break;
      case tag_host_name: out.host_name = v; break;
      case tag_whitelist: out.whitelist = v == "true"; break;
      default: break;
    }
  }
  return !out.message.empty();
}

bool execute_send_order(const SendOrder& order) {
  String kind = order.socket_key.word(0, ':');
  String rest = order.socket_key.words_from(1, ':');
  if (kind == "udp") return send_udp(sip_udp_ports.by_port(rest.to_int()), order);
  if (kind == "trunk") {
    UdpSocket* s = sip_udp_ports.by_port(rest.to_int());
    if (!s || s->ipv6 != order.destination.is_ipv6()) s = sip_udp_ports.first_of_family(order.destination.adr);
    return send_udp(s, order);
  }
  if (kind == "tcp" || kind == "tls") {
    TcpConnection* c = tcp_connection(rest.to_int());
    if (!c) {
      log_unsent(order, "connection gone");
      return false;
    }
    String text = message_text(order.message, local_end_of(c->socket.local()), order.media_port, kind);
    return c->socket.send(text);
  }
  if (order.socket_key.empty() && (order.transport.empty() || order.transport == "udp"))
    return send_udp(sip_udp_ports.first_of_family(order.destination.adr), order);
  log_unsent(order, "unknown socket");
  return false;
}

void sip_send_register() { register_control_handler(tag_sip_send, on_send_order); }
