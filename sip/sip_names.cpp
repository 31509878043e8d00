#include "sip/sip_names.h"

#include <cstring>

const String sip_version("SIP/2.0");

const String method_invite("INVITE");
const String method_ack("ACK");
const String method_cancel("CANCEL");
const String method_bye("BYE");
const String method_prack("PRACK");
const String method_update("UPDATE");
const String method_refer("REFER");
const String method_info("INFO");
const String method_message("MESSAGE");
const String method_publish("PUBLISH");
const String method_subscribe("SUBSCRIBE");
const String method_notify("NOTIFY");
const String method_register("REGISTER");
const String method_options("OPTIONS");
const String method_discover("DISCOVER");
const String method_log("LOG");
const String method_ping("PING");
const String method_service("SERVICE");

const String hdr_from("From");
const String hdr_to("To");
const String hdr_call_id("Call-Id");
const String hdr_call_id_wire("Call-ID");
const String hdr_cseq("CSeq");
const String hdr_content_type("Content-Type");
const String hdr_content_length("Content-Length");
const String hdr_content_id("Content-ID");
const String hdr_content_disposition("Content-Disposition");
const String hdr_expires("Expires");
const String hdr_route("Route");
const String hdr_record_route("Record-Route");
const String hdr_path("Path");
const String hdr_history_info("History-Info");
const String hdr_contact("Contact");
const String hdr_via("Via");
const String hdr_max_forwards("Max-Forwards");
const String hdr_mime_version("MIME-Version");
const String hdr_authorization("Authorization");
const String hdr_proxy_authorization("Proxy-Authorization");
const String hdr_www_authenticate("WWW-Authenticate");
const String hdr_proxy_authenticate("Proxy-Authenticate");

const String compact_from("f");
const String compact_to("t");
const String compact_call_id("i");
const String compact_content_type("c");
const String compact_content_length("l");
const String compact_contact("m");
const String compact_via("v");

namespace {

struct HeaderName {
  const char* name;
  SipHeader id;
  int length;
  constexpr HeaderName(const char* n, SipHeader i) : name(n), id(i), length(0) {
    while (n[length]) length++;
  }
};

// The table the parser files headers by. Plain C texts, so that lookups during static
// initialisation of other units are safe.
constexpr HeaderName header_names[] = {
    {"from", SipHeader::from},
    {"f", SipHeader::from},
    {"to", SipHeader::to},
    {"t", SipHeader::to},
    {"call-id", SipHeader::call_id},
    {"i", SipHeader::call_id},
    {"cseq", SipHeader::cseq},
    {"content-type", SipHeader::content_type},
    {"c", SipHeader::content_type},
    {"content-length", SipHeader::content_length},
    {"l", SipHeader::content_length},
    {"expires", SipHeader::expires},
    {"route", SipHeader::route},
    {"record-route", SipHeader::record_route},
    {"path", SipHeader::path},
    {"history-info", SipHeader::history_info},
    {"contact", SipHeader::contact},
    {"m", SipHeader::contact},
    {"via", SipHeader::via},
    {"v", SipHeader::via},
    {"max-forwards", SipHeader::max_forwards},
};

inline char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

}  // namespace

SipHeader sip_header_of(const char* name, int length) {
  if (length <= 0 || length > 14) return SipHeader::other;
  char first = lower(name[0]);
  for (const HeaderName& h : header_names) {
    if (h.length != length || h.name[0] != first) continue;
    int i = 1;
    while (i < length && lower(name[i]) == h.name[i]) i++;
    if (i == length) return h.id;
  }
  return SipHeader::other;
}
