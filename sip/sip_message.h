// The in-memory SIP message. A received message keeps its text in `raw`; every header
// value is a slice of it, and URIs and name-addrs are taken apart only when read.
#pragma once

#include <cstdint>
#include <vector>

#include "core/address.h"
#include "core/string.h"
#include "core/tagged_text.h"
#include "sip/body_part.h"
#include "sip/credential.h"
#include "sip/internal/small_list.h"
#include "sip/name_addr.h"
#include "sip/sip_names.h"
#include "sip/sip_params.h"
#include "sip/sip_uri.h"
#include "sip/transport.h"

// Record tags of a serialised message.
enum SipRecord : int {
  sip_record_body = 15,
  sip_record_copied = 59,
  sip_record_length_name = 60,
  sip_record_filled = 61,
  sip_record_start = 54,
  sip_record_cseq_method = 88,
};

// Bounds that keep a hostile message from costing unbounded time or memory.
constexpr int sip_max_header_fields = 2000;
constexpr int sip_max_list_items = 1000;
constexpr int sip_max_header_length = 65536;

using NameAddrList = SmallList<NameAddr, 0>;
using HeaderList = SmallList<SipParam, 12>;

class SipMessage {
 public:
  SipMessage() = default;
  // Parses received text. Never fails: what can't be read stays empty.
  explicit SipMessage(const String& text);
  // A request; an empty `cseq_method` takes the method.
  SipMessage(const String& method, const NameAddr& from, const NameAddr& to,
             const String& call_id, const String& cseq_method);
  // A response to `request`. It adds no To tag; the caller sets one where needed.
  SipMessage(int status, const String& reason, const SipMessage& request);

  bool is_request = false;
  String raw;
  String body;
  Transport transport = Transport::udp;
  Address source;  // the peer the message came from
  Address local;   // the local end it arrived on
  String socket_key;
  String received;
  String connection_id;
  String via_suffix;
  String method;
  SipUri request_uri;
  String version;
  int32_t status = 0;
  String reason;
  NameAddr from;
  NameAddr to;
  String call_id;
  uint32_t cseq = 0;
  String cseq_method;
  String expires;
  int32_t max_forwards = 70;
  // CANCEL and ACK of an INVITE: the branch hash uses "INVITE".
  bool invite_related = false;
  bool ignore_route = false;
  bool tls_only = false;
  String proxy;
  String preset_routes;
  bool transport_authenticated = false;
  bool web_client = false;
  int32_t timeout = 0;
  int32_t port_index = -1;
  int32_t domain_id = 0;
  bool domain_known = false;
  // Sending side: what the request answers a challenge with, once.
  std::vector<Credential> credentials;
  SmallList<String, 4> via;
  NameAddrList route;
  NameAddrList record_route;
  NameAddrList path;
  NameAddrList history_info;
  SmallList<NameAddr, 1> contact;
  HeaderList headers;
  String content_type;
  String boundary;
  std::vector<BodyPart> parts;

  // Value of the first general header named `name` or `compact` (which may be empty).
  String header(const String& name, const String& compact = String()) const;
  // The text of any header by name, fields included.
  String header_text(const String& name) const;
  std::vector<String> header_values(const String& name) const;
  void remove_header(const String& name, const String& compact = String());
  void set_header(const String& name, const String& compact, const std::vector<String>& values);
  // Files the header in its field, or appends it to `headers`.
  void add_header(const String& name, const String& value);
  void add_header_line(const String& text);

  TaggedText serialise(Transport transport) const;

 private:
  void parse();
  // Files bytes [b, e) of `src` as the value of a header with a field of its own.
  void file_header(SipHeader id, const String& src, int b, int e);
  // List elements that headers may still add; bounds a message of endless Vias.
  int list_budget_ = sip_max_list_items;
};

// Lines of "name: value" that a message text gets at send time.
bool short_headers_wanted();
