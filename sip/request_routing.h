// Received SIP in the service half: filters, repetitions, and the way of each request
// and response to its handler. Handlers of later subsystems (registrar, call ports,
// trunks) join through the hooks below. Service half only (srv_run_mutex).
#pragma once

#include "sip/sip_message.h"
#include "sip/sip_receive.h"

struct RoutingHooks {
  // A REGISTER or SUBSCRIBE with exactly one Contact; the handler answers it.
  void (*registration)(SipMessage& request) = nullptr;
  // An INVITE that opens a dialog: true if a call port took it.
  bool (*new_call)(SipMessage& request) = nullptr;
  // A request or response of an existing dialog: true if a call port took it.
  bool (*dialog_request)(SipMessage& request) = nullptr;
  bool (*dialog_response)(SipMessage& response) = nullptr;
  // A response for a trunk's REGISTER or OPTIONS: true if taken.
  bool (*trunk_response)(SipMessage& response) = nullptr;
  // Whether the source is registered (an out-of-dialog OPTIONS is then answered).
  bool (*source_registered)(const Address& source) = nullptr;
  // A request over TLS whose connection carries a live registration of its sender (the
  // From, or the P-Preferred-Identity when there is one): the registration vouches for it.
  bool (*registered_on_connection)(const SipMessage& request) = nullptr;
  // A MESSAGE outside a dialog that may be delivered (authenticated, or configuration
  // for the system itself): true if the messaging side took it.
  bool (*instant_message)(SipMessage& request) = nullptr;
  // Whether a registration or a call port has this Call-ID (a request then has a home
  // here whatever its domain says).
  bool (*call_id_known)(const String& call_id) = nullptr;
  // The connection on `key` has closed.
  void (*connection_closed)(const String& key, const Address& source) = nullptr;
};
extern RoutingHooks routing_hooks;

// Entry of a received packet (message 38).
void receive_packet(const ReceivedPacket& packet);
// Adds ";received=" and fills ";rport" in the top Via from the packet's source.
void via_fix_received(SipMessage& request, const Address& source);
void travel_forward(SipMessage& request);
void travel_backward(SipMessage& response);
// Answers `request` with `status` and `reason` on its own way back.
void reply(const SipMessage& request, int status, const char* reason);
// Registers the handler of received packets and the sink of local responses.
void request_routing_register();

// The methods an OPTIONS answer offers.
extern const String allow_methods;
