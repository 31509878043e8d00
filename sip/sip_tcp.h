// SIP over TCP connections of the control loop: cutting messages out of the stream,
// keep-alives, STUN frames, and the idle limits that the service half asks for.
#pragma once

#include "core/tcp_server.h"

enum { tag_idle_limit = 67, tag_seconds = 48 };

void sip_tcp_input(TcpConnection& c, const String& bytes, Tick now);
// Applies `ip_sip_tcp_port` to the SIP listeners.
void bind_sip_tcp_ports();
// Service half: asks the control half to keep the connection of `socket_key` ("tcp:N"
// or "tls:N") open for `seconds` without traffic.
void post_idle_limit(const String& socket_key, int seconds);
// Registers the kind handler and the handler of idle-limit requests (message 67).
void sip_tcp_register();
