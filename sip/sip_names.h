// Fixed names of SIP: methods, the version, and header names with their compact forms.
// Code compares against these constants; header names compare ignoring case.
#pragma once

#include "core/string.h"

extern const String sip_version;  // "SIP/2.0"

extern const String method_invite;
extern const String method_ack;
extern const String method_cancel;
extern const String method_bye;
extern const String method_prack;
extern const String method_update;
extern const String method_refer;
extern const String method_info;
extern const String method_message;
extern const String method_publish;
extern const String method_subscribe;
extern const String method_notify;
extern const String method_register;
extern const String method_options;
extern const String method_discover;
extern const String method_log;
extern const String method_ping;
extern const String method_service;

extern const String hdr_from;
extern const String hdr_to;
extern const String hdr_call_id;       // "Call-Id": the form names compare against
extern const String hdr_call_id_wire;  // "Call-ID": the form written
extern const String hdr_cseq;
extern const String hdr_content_type;
extern const String hdr_content_length;
extern const String hdr_content_id;
extern const String hdr_content_disposition;
extern const String hdr_expires;
extern const String hdr_route;
extern const String hdr_record_route;
extern const String hdr_path;
extern const String hdr_history_info;
extern const String hdr_contact;
extern const String hdr_via;
extern const String hdr_max_forwards;
extern const String hdr_mime_version;
extern const String hdr_authorization;
extern const String hdr_proxy_authorization;
extern const String hdr_www_authenticate;
extern const String hdr_proxy_authenticate;

extern const String compact_from;            // "f"
extern const String compact_to;              // "t"
extern const String compact_call_id;         // "i"
extern const String compact_content_type;    // "c"
extern const String compact_content_length;  // "l"
extern const String compact_contact;         // "m"
extern const String compact_via;             // "v"

// Headers that the message keeps in fields of their own; everything else is `other`.
enum class SipHeader : uint8_t {
  other, from, to, call_id, cseq, content_type, content_length, expires, route,
  record_route, path, history_info, contact, via, max_forwards,
};

// Which header a received name denotes, ignoring case; the seven compact forms count.
SipHeader sip_header_of(const char* name, int length);
inline SipHeader sip_header_of(const String& name) {
  return sip_header_of(name.c_data(), name.length());
}
