// The TCP listeners of the control loop and the connections accepted from them. Each
// listener has a kind (web, FTP, LDAP, SIP); the subsystem of a kind registers what it
// does with the bytes of a connection. Control half only (ctrl_run_mutex).
#pragma once

#include <memory>

#include "core/server.h"
#include "core/tcp_socket.h"

enum class ListenerKind { web = 0, ftp = 3, ldap = 5, sip = 7 };

struct TcpConnection {
  int number = 0;
  TcpSocket socket;
  ListenerKind kind = ListenerKind::web;
  bool tls = false;
  bool blocked = false;        // blacklisted: kept a while, never read
  bool close_requested = false;
  String input;                // bytes received and not yet used by the kind's handler
  std::shared_ptr<void> state; // what the kind's handler keeps per connection
  Timeout idle;
};

using TcpInput = void (*)(TcpConnection& connection, const String& bytes, Tick now);
using TcpClosed = void (*)(TcpConnection& connection);
void register_tcp_kind(ListenerKind kind, TcpInput on_input, TcpClosed on_closed);

// Adds or removes the listeners of one kind and TLS flag so that they match the port
// list `setting` (blank-separated ports or address:port items); connections already
// accepted stay. `default_port` replaces an invalid port.
void apply_tcp_listeners(ListenerKind kind, bool tls, const String& setting, int default_port);
int tcp_listener_port(ListenerKind kind, bool tls, bool ipv6);

TcpConnection* tcp_connection(int number);
int tcp_connection_count();
// Sends on a connection; false if it is gone.
bool tcp_send(int number, const String& text);
// Closes at the end of this pass, after queued output is flushed.
void tcp_close(int number);
// Restarts the idle timer of a connection.
void tcp_keep_alive(TcpConnection& c, int seconds);

// The loop parties: connections (order 100) and listeners (order 110).
LoopParty tcp_connection_party();
LoopParty tcp_listener_party();
// For tests: closes every connection and listener, and counts connections from 1 again.
void tcp_server_reset();
