// The control loop's side of SIP reception: cutting messages out of datagrams and
// streams, answering STUN, and posting what arrived to the service half.
#pragma once

#include "core/address.h"
#include "core/server.h"

// Tags of the records of a received packet (38) and of a send order (58).
enum SipPostTag {
  tag_sip_received = 38,
  tag_sip_send = 58,
  tag_adr = 4,
  tag_port = 101,
  tag_remote_tag = 17,
  tag_call_id = 19,
  tag_domain = 43,
  tag_port_index = 64,
  tag_socket_key = 66,
  tag_text = 73,
  tag_source = 134,
  tag_local = 45,
  tag_cseq_method = 88,
  tag_rtp_port = 126,
  tag_whitelist = 127,
  tag_host_name = 128,
  tag_transport = 145,
  tag_connection_id = 146,
};

// Cuts one message from the front of `text`: leading blanks, CR, LF and NUL are skipped,
// the headers end at CR LF CR LF, CR CR or LF LF, and Content-Length (or "l") gives the
// body. Returns the bytes taken, or 0 if the message is not complete; `message` is it.
// With `strict`, a missing Content-Length counts as 0, else the rest is the body.
int sip_frame(const String& text, bool strict, String& message);

// Posts a received message to the service half. `whitelisted` is what the access
// control said of the source, since the service half can't ask it.
void ctrl_post_sip_rx(const String& socket_key, const String& text, const Address& source,
                      const Address& local, const String& transport, const String& connection_id,
                      bool whitelisted = false);
// The fields of a posted received packet, as the service half reads them.
struct ReceivedPacket {
  String socket_key, text, transport, connection_id;
  Address source, local;
  bool whitelisted = false;
};
bool read_received_packet(const String& value, ReceivedPacket& out);

// Penalty points of a packet from an unknown source: 16 for a REGISTER, 32 for an INVITE,
// none for a SUBSCRIBE answering a challenge, 1 for the rest.
int sip_penalty_points(const String& text);

// Handles one datagram that reached a SIP UDP socket.
void sip_udp_datagram(class UdpSocket& socket, const String& text, const Address& from);
// The control loop party that reads the SIP UDP sockets.
LoopParty sip_udp_party();
