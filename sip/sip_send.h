// Send orders: the service half names a socket (or a destination) and hands over a
// serialised message; the control loop picks the socket, fills in the placeholders
// with that socket's address and sends.
#pragma once

#include "core/address.h"
#include "core/tagged_text.h"

struct SendOrder {
  String socket_key;        // "udp:5060", "tcp:12", "trunk:5060", or empty
  TaggedText message;       // the serialised message
  Address destination;
  String transport;         // "udp", "tcp", "tls"
  String media_port;        // the value of the local RTP port placeholder
  String host_name;         // for TLS
  bool whitelist = false;   // add the destination to the temporary whitelist
};

// Service half: posts the order to the control half.
void post_send_order(const SendOrder& order);
// Control half: carries out an order; false if no socket could be found.
bool execute_send_order(const SendOrder& order);
bool read_send_order(const String& value, SendOrder& out);
// Registers the control-half handler of send orders.
void sip_send_register();
