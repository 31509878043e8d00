// The memory of SIP transactions in the service half: every message that goes out is
// kept as a PendingPacket until its life ends, so that retransmissions are answered
// from it, requests are sent again over UDP, and an unanswered request ends in a local
// 408. Service half only (srv_run_mutex).
#pragma once

#include <memory>
#include <vector>

#include "core/address.h"
#include "core/tick.h"
#include "core/timeout.h"
#include "sip/sip_message.h"

// Thousands of transactions are remembered at a time, each for 32 s, so a packet keeps
// what it is matched by apart from the message: a sent response that needs no further
// sending lets its message go and keeps only its text.
struct PendingPacket : std::enable_shared_from_this<PendingPacket> {
  String call_id;
  String from_tag;
  uint32_t cseq = 0;
  String method;       // of a request
  String cseq_method;
  int status = 0;      // of a response
  bool is_request = false;
  bool tls_only = false;
  std::unique_ptr<SipMessage> first_message;  // requests: as the sender gave it
  std::unique_ptr<SipMessage> message;        // as on the wire; empty once let go
  TaggedText tagged;
  bool final_seen = false;
  String socket_key;
  Address target;
  String transport;  // of the current target
  bool retransmit = false;
  std::vector<String> resolve_list;  // a few lines; the front is taken first
  int iterations = 0;
  int max_iterations = 50;
  Timeout retransmit_timer;
  Timeout life_timer;
  int interval_units = 0;
  Tick resend_due;  // when the last send by the retransmit timer was due
  Tick created;
  int auth_attempts = 0;
  std::vector<Credential> credentials;
  bool superseded = false;
  // Neighbours in the order of creation, so that the sweep of forgotten packets looks at
  // the oldest ones only.
  PendingPacket* older = nullptr;
  PendingPacket* newer = nullptr;
};
using PendingRef = std::shared_ptr<PendingPacket>;

// Hands a message to the network; the caller gives it up.
void send_packet(SipMessage message);
// True if the packet is a repetition that has been dealt with.
bool message_repetition(const SipMessage& message);
void stop_message_repetition(const String& call_id, uint32_t cseq, const String& method);
void erase_pending_packet(const PendingRef& pending, const String& call_id);
int pending_packet_count();
// For tests: forgets every pending packet.
void clear_pending_packets();

// Locally built responses (404 when no route, 408 on time-out) go where received
// responses go. Filled in by the request routing.
using ResponseSink = void (*)(SipMessage& response);
void set_local_response_sink(ResponseSink sink);

// DNS look-ups for the resolver lines: `lookup` is true with the record text (one record
// a line; empty for a negative answer) when it is known now; otherwise `request` asks and
// `retry` runs with the pending packet once the answer, or the give-up, is in the cache.
// `type` is one of the record types of the DNS client (A, SRV, NAPTR, AAAA). Filled in by
// the DNS resolver.
struct SipResolver {
  bool (*lookup)(const String& name, int type, String& text) = nullptr;
  void (*request)(const String& name, int type, void (*retry)(const CallbackObject&), const CallbackObject& pending) = nullptr;
};
void set_sip_resolver(const SipResolver& resolver);

// Life of a transaction when the message sets no time-out.
constexpr int64_t pending_life_ms = 32000;
