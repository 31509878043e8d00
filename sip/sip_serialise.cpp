// The serialiser: a message becomes TaggedText records, so that the side owning the
// sockets can fill in the placeholders and compute Content-Length at send time.
#include "core/format.h"
#include "sip/internal/slice.h"
#include "sip/internal/text_out.h"
#include "sip/sip_hooks.h"
#include "sip/sip_message.h"
#include "sip/sip_names.h"

namespace {

const String short_header_setting("short_header");
const String mime_version("1.0");

bool is_wildcard(const String& raw) {
  const char* p = raw.c_data();
  int b = 0;
  int e = raw.length();
  trim_span(p, b, e);
  return e - b == 1 && p[b] == '*';
}

// Writes records straight into one growing buffer instead of going through a String
// per line; the record head is patched once the value is known.
class RecordWriter {
 public:
  void open(int tag) {
    head_ = out_.length();
    char h[4] = {static_cast<char>(tag), 0, 0, 0};
    out_.append(h, 4);
  }
  void close() {
    int n = out_.length() - head_ - 4;
    if (n > tagged_max_value) {
      // Cannot be carried; the record is dropped rather than the message.
      out_.truncate(head_);
      return;
    }
    char* d = out_.data() + head_;
    d[1] = static_cast<char>(n >> 16);
    d[2] = static_cast<char>(n >> 8);
    d[3] = static_cast<char>(n);
  }
  TextOut& text() { return out_; }
  void line(int tag, const String& name, const String& value) {
    open(tag);
    put(out_, name);
    out_.append(": ", 2);
    put(out_, value);
    out_.append("\r\n", 2);
    close();
  }
  void nameaddr(int tag, const String& name, const NameAddr& a) {
    open(tag);
    put(out_, name);
    out_.append(": ", 2);
    // The wildcard of a REGISTER that removes all bindings is no name-addr.
    if (!a.dirty() && is_wildcard(a.raw())) out_.append('*');
    else a.append_full(out_);
    out_.append("\r\n", 2);
    close();
  }

 private:
  TextOut out_;
  int head_ = 0;
};

}  // namespace

bool short_headers_wanted() { return sip_setting(short_header_setting) == str_true; }

TaggedText SipMessage::serialise(Transport over) const {
  bool compact = short_headers_wanted();
  RecordWriter w;
  TextOut& out = w.text();

  w.open(sip_record_start);
  if (is_request) {
    put(out, method);
    out.append(' ');
    put(out, request_uri.text());
    out.append(" SIP/2.0\r\n");
  } else {
    out.append("SIP/2.0 ");
    put_number(out, status);
    out.append(' ');
    put(out, reason);
    put(out, str_crlf);
  }
  w.close();

  for (const String& v : via) w.line(sip_record_filled, compact ? compact_via : hdr_via, v);
  for (const NameAddr& a : route) w.nameaddr(sip_record_filled, hdr_route, a);
  for (const NameAddr& a : record_route) w.nameaddr(sip_record_filled, hdr_record_route, a);
  for (const NameAddr& a : path) w.nameaddr(sip_record_filled, hdr_path, a);
  w.nameaddr(sip_record_copied, compact ? compact_from : hdr_from, from);
  w.nameaddr(sip_record_copied, compact ? compact_to : hdr_to, to);
  w.line(sip_record_copied, compact ? compact_call_id : hdr_call_id_wire, call_id);
  w.open(sip_record_copied);
  out.append("CSeq: ");
  put_number(out, cseq);
  out.append(' ');
  put(out, cseq_method);
  put(out, str_crlf);
  w.close();
  if (is_request) {
    w.open(sip_record_copied);
    put(out, hdr_max_forwards);
    out.append(": ");
    put_number(out, max_forwards);
    put(out, str_crlf);
    w.close();
  }
  for (const NameAddr& a : contact)
    w.nameaddr(sip_record_filled, compact ? compact_contact : hdr_contact, a);
  for (const NameAddr& a : history_info) w.nameaddr(sip_record_copied, hdr_history_info, a);
  for (const SipParam& h : headers) w.line(sip_record_filled, h.name, h.value);
  if (!expires.empty()) w.line(sip_record_copied, hdr_expires, expires);

  String text;
  String type;
  if (!parts.empty()) {
    // Responses always carry the secure form of SDP: the request decided it already.
    bool secure = !is_request || over == Transport::tls;
    String port_sdp;
    if (port_index >= 0 && sip_hooks.port_sdp) port_sdp = sip_hooks.port_sdp(port_index);
    String chosen = boundary;
    write_body_parts(parts, secure, port_sdp, chosen, text, type);
  }
  if (parts.size() >= 2) w.line(sip_record_copied, hdr_mime_version, mime_version);
  if (!text.empty())
    w.line(sip_record_copied, compact ? compact_content_type : hdr_content_type, type);
  w.open(sip_record_length_name);
  put(out, compact ? compact_content_length : hdr_content_length);
  w.close();
  w.open(sip_record_body);
  put(out, text);
  w.close();
  w.open(sip_record_cseq_method);
  put(out, cseq_method);
  w.close();
  return TaggedText(out.text());
}
