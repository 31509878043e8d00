// The service half of the registrar: one Registration per Call-ID of a REGISTER or
// SUBSCRIBE. It checks the Digest answer itself with the credentials the control half
// sent for the Call-ID, and answers a plain refresh without asking the control half.
// Service half only (srv_run_mutex).
#pragma once

#include <memory>
#include <vector>

#include "core/address.h"
#include "core/timeout.h"
#include "sip/digest.h"
#include "sip/sip_message.h"

// Top-level tags of the registrar's posted messages.
enum RegistrarTag {
  tag_register_policy = 76,     // to service: the credentials of a Call-ID
  tag_register_response = 45,   // to service: the decision on a registration request
  tag_credentials_question = 77,  // to control
  tag_registration_request = 78,  // to control
  tag_registration_refresh = 79,  // to control
  tag_registration_removed = 80,  // to control
  tag_authentication_failed = 81, // to control: penalty points for the source
};

// Record tags inside them.
enum RegistrarRecord {
  rec_call_id = 19, rec_auth_adr = 148, rec_account_found = 55, rec_realm = 106, rec_user = 153,
  rec_password = 95, rec_domain = 43, rec_no_auth = 13, rec_cseq = 20, rec_status = 21, rec_reason = 22,
  rec_expires = 23, rec_source = 134, rec_transport = 145, rec_from = 24, rec_to = 25, rec_route_set = 26,
  rec_event = 27, rec_event_params = 28, rec_instance = 29, rec_www = 30, rec_user_agent = 31,
  rec_supported = 32, rec_proxy_require = 33, rec_body = 34, rec_socket_key = 66, rec_username = 35,
  rec_contact = 36, rec_min_expires = 37, rec_max_expires = 38, rec_points = 39, rec_charged = 40,
  rec_clear_all = 41, rec_text = 42, rec_wrtc = 43, rec_method = 44, rec_push_token = 47,
};

struct Registration {
  String call_id;
  std::vector<String> route_set;  // name-addr texts: Path or Record-Route, then the Contact
  Address address;
  String transport;
  String socket_key;
  int domain_id = 0;
  bool nat = false, path_supported = false, outbound_required = false;
  NameAddr remote, local;
  String event, event_params, user_agent;
  bool answered_query = false, query_sent = false, account_found = false, no_auth = false;
  String auth_adr, realm;
  std::vector<Credential> credentials;
  String username;
  int free_refreshes = 0;
  NonceStore nonces;
  // Requests waiting for the control half; empty almost always, so they hold no room
  // then (a deque would keep a block of messages for every phone).
  std::vector<SipMessage> waiting_security;
  std::vector<SipMessage> waiting_register;
  Timeout removal_timer;
  int expires = 0;     // granted by the control half
  int last_asked = 0;  // what the request that got it asked for
  bool answered_once = false;
  String last_values;  // the eleven values of the last request, joined
};
using RegistrationRef = std::shared_ptr<Registration>;

// From travel_forward: a REGISTER or SUBSCRIBE with one Contact.
void handle_register_request(SipMessage& request);
// The control half's answers.
void register_policy_set(const String& value);
void register_response(const String& value);
// The registrations of a source ("udp:1.2.3.4:5060" style key is transport word and
// address text with port).
bool source_is_registered(const Address& source);
void remove_registrations_of(const String& socket_key, const Address& source);
// A request over a connection that carries a live binding of the identity it claims
// (P-Preferred-Identity, else From), from the same source and transport.
bool registered_on_connection(const SipMessage& request);
bool registration_call_id_known(const String& call_id);
RegistrationRef find_registration(const String& call_id);
int registration_count();
void clear_registrations();
// Registers the service-half handlers and the routing hooks.
void registration_register();
