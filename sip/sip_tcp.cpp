#include "sip/sip_tcp.h"

#include "core/access_hooks.h"
#include "core/format.h"
#include "core/log.h"
#include "core/posting.h"
#include "core/statistics.h"
#include "core/tagged_text.h"
#include "sip/sip_receive.h"

namespace {

constexpr int max_unframed = 65537;
constexpr int first_idle_seconds = 8;

// Message 67 from the service half: a connection's idle limit, raised for a registration
// or a call.
void on_idle_limit(const String& value) {
  TaggedText t(value);
  String key = t.find(tag_socket_key);
  int seconds = t.find(tag_seconds).to_int();
  bool connection = key.starts_with(String("tcp:")) || key.starts_with(String("tls:"));
  if (!connection || seconds <= 0) return;
  TcpConnection* c = tcp_connection(key.tail(4).to_int());
  if (c) tcp_keep_alive(*c, seconds);
}

// The service half learns of a closed connection as an empty packet on its key.
void on_closed(TcpConnection& c) {
  String transport(c.tls ? "tls" : "tcp");
  ctrl_post_sip_rx(format("%s:%d", transport, c.number), String(), c.socket.peer(), Address(), transport, String(c.number));
}

}  // namespace

void sip_tcp_input(TcpConnection& c, const String& bytes, Tick) {
  usage_add(String("sip_all"));
  usage_add(String(c.tls ? "sip_tls" : "sip_tcp"));
  c.input.append(bytes);
  Address peer = c.socket.peer();
  String transport(c.tls ? "tls" : "tcp");
  if (c.idle.ms_left() < first_idle_seconds * 1000) tcp_keep_alive(c, first_idle_seconds);
  for (;;) {
    int blanks = 0;
    while (blanks < c.input.length() && (c.input.at(blanks) == ' ' || c.input.at(blanks) == '\r' || c.input.at(blanks) == '\n'))
      blanks++;
    if (blanks > 0) {
      if (log_enabled(LOG_SIP, 9))
        log_add_message_global(LOG_SIP, 9, 0, format("SIP: %d bytes from %s", blanks, address_text(peer)));
      c.input = c.input.tail(blanks);
      continue;
    }
    if (c.input.length() >= 20 && c.input.byte_at(0) < 2 && c.input.byte_at(1) != 0) {
      int length = ((c.input.byte_at(2) << 8) | c.input.byte_at(3)) + 20;
      if (c.input.length() < length) break;
      c.input = c.input.tail(length);
      continue;
    }
    String message;
    int taken = sip_frame(c.input, true, message);
    if (taken == 0) {
      if (c.input.length() >= max_unframed) {
        if (log_enabled(LOG_SIP, 4))
          log_add_message_global(LOG_SIP, 4, 0, format("Illegal pdu(%s=%d): %s", address_text(peer), c.input.length(), hex(c.input.head(100))));
        c.input = String();
        tcp_close(c.number);
      }
      break;
    }
    c.input = c.input.tail(taken);
    int access = acl_hook_check(peer, 2);
    ctrl_post_sip_rx(format("%s:%d", transport, c.number), message, peer, c.socket.local(), transport, String(c.number),
                     access > 0);
    if (access == 0) {
      int points = sip_penalty_points(message);
      if (points) acl_hook_penalty(peer, 2, points, "sip");
    }
  }
}

void bind_sip_tcp_ports() {
  apply_tcp_listeners(ListenerKind::sip, false, core_setting("ip_sip_tcp_port"), 80);
}

void post_idle_limit(const String& socket_key, int seconds) {
  TaggedText inner;
  (void)inner.add(tag_socket_key, socket_key);
  (void)inner.add(tag_seconds, seconds);
  TaggedText outer;
  if (outer.add(tag_idle_limit, inner)) out_post(outer.text());
}

void sip_tcp_register() {
  register_tcp_kind(ListenerKind::sip, sip_tcp_input, on_closed);
  register_control_handler(tag_idle_limit, on_idle_limit);
}
