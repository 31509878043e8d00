#include "sip/internal/slice.h"
#include "sip/body_part.h"

#include "sip/sip_names.h"
#include "sip/sip_params.h"

const String media_application_sdp("application/sdp");

namespace {

const String multipart_word("multipart");
const String boundary_name("boundary");
const String header_end("\r\n\r\n");
const String content_type_prefix("Content-Type:");
// Bounds what a hostile body can make us build.
constexpr int max_body_parts = 64;

}  // namespace

BodyPart BodyPart::from_text(const String& type, const String& text) {
  BodyPart p;
  p.content_type = type;
  p.text.push_back(text);
  return p;
}

BodyPart BodyPart::from_sdp_text(const String& text) {
  if (sip_hooks.parse_sdp) {
    if (std::shared_ptr<Sdp> sdp = sip_hooks.parse_sdp(text)) return from_sdp(std::move(sdp));
  }
  return from_text(media_application_sdp, text);
}

BodyPart BodyPart::from_sdp(std::shared_ptr<Sdp> sdp) {
  BodyPart p;
  p.content_type = media_application_sdp;
  p.sdp.push_back(std::move(sdp));
  return p;
}

String media_type_of(const String& content_type) {
  int semi = content_type.find(';');
  String t = semi < 0 ? content_type : content_type.head(semi);
  return t.trim().to_lower();
}

namespace {

// The Content-Type of a part's header lines; the name is compared exactly.
String part_content_type(const String& headers) {
  int pos = 0;
  int n = headers.length();
  while (pos < n) {
    int end = headers.find(str_crlf, pos);
    if (end < 0) end = n;
    String line = headers.substr(pos, end - pos);
    if (line.starts_with(content_type_prefix)) return line.tail(content_type_prefix.length()).trim();
    pos = end + 2;
  }
  return String();
}

void read_piece(const String& piece, std::vector<BodyPart>& parts) {
  String headers;
  String content;
  if (piece.starts_with(str_crlf)) {
    content = piece.tail(2);
  } else {
    int end = piece.find(header_end);
    if (end < 0) {
      headers = piece;
    } else {
      headers = piece.head(end);
      content = piece.tail(end + 4);
    }
  }
  String type = part_content_type(headers);
  if (media_type_of(type) == media_application_sdp) parts.push_back(BodyPart::from_sdp_text(content));
  else parts.push_back(BodyPart::from_text(type, content));
}

}  // namespace

void read_body_parts(const String& body, const String& content_type, String& boundary,
                     std::vector<BodyPart>& parts) {
  String media = media_type_of(content_type);
  if (media.word(0, '/') == multipart_word) {
    int semi = content_type.find(';');
    if (semi >= 0) boundary = param_value(content_type.tail(semi + 1), boundary_name, ';');
  }
  if (boundary.empty()) {
    if (media == media_application_sdp) parts.push_back(BodyPart::from_sdp_text(body));
    else parts.push_back(BodyPart::from_text(content_type, body));
    return;
  }
  String delimiter = String("--") + boundary;
  int pos = 0;
  while (static_cast<int>(parts.size()) < max_body_parts) {
    int d = body.find(delimiter, pos);
    if (d < 0) break;
    // The line end before a delimiter belongs to the delimiter, so that a body read and
    // written again keeps its length.
    int end = d;
    if (end - pos >= 2 && body.substr(end - 2, 2) == str_crlf) end -= 2;
    if (end > pos) read_piece(body.substr(pos, end - pos), parts);
    int after = d + delimiter.length();
    if (body.substr(after, 2) == "--") break;
    if (body.substr(after, 2) == str_crlf) after += 2;
    pos = after;
  }
}

namespace {

// The text of one part as sent: SDP objects are written now.
String part_text(const BodyPart& part, bool secure, const String& port_sdp, String& type) {
  type = part.content_type;
  bool is_sdp = !part.sdp.empty() || media_type_of(part.content_type) == media_application_sdp;
  if (is_sdp) {
    type = media_application_sdp;
    if (!port_sdp.empty()) return port_sdp;
  }
  String out;
  for (const std::shared_ptr<Sdp>& s : part.sdp)
    if (s && sip_hooks.write_sdp) out.append(sip_hooks.write_sdp(*s, secure));
  for (const String& t : part.text) put(out, t);
  return out;
}

// A line that starts with "." gets one more in front.
void append_dot_stuffed(String& out, const String& text) {
  const char* p = text.c_data();
  int n = text.length();
  bool line_start = true;
  int run = 0;
  for (int i = 0; i < n; i++) {
    if (line_start && p[i] == '.') {
      out.append(p + run, i - run);
      out.append('.');
      run = i;
    }
    line_start = p[i] == '\n' || (p[i] == '\r' && (i + 1 >= n || p[i + 1] != '\n'));
  }
  out.append(p + run, n - run);
}

}  // namespace

void write_body_parts(const std::vector<BodyPart>& parts, bool secure, const String& port_sdp,
                      String& boundary, String& body, String& content_type) {
  body.clear();
  content_type.clear();
  if (parts.empty()) return;
  std::vector<String> texts;
  std::vector<String> types;
  texts.reserve(parts.size());
  types.reserve(parts.size());
  for (const BodyPart& part : parts) {
    String type;
    texts.push_back(part_text(part, secure, port_sdp, type));
    types.push_back(type);
  }
  if (parts.size() == 1) {
    body = texts[0];
    content_type = types[0];
    return;
  }
  while (boundary.empty()) {
    String candidate = String("b-") + random_text(26);
    bool clash = false;
    for (const String& t : texts) clash = clash || t.contains(candidate);
    if (!clash) boundary = candidate;
  }
  content_type = String("multipart/mixed; boundary=") + boundary;
  for (size_t i = 0; i < parts.size(); i++) {
    body.append("--");
    put(body, boundary);
    put(body, str_crlf);
    if (!parts[i].content_disposition.empty()) {
      put(body, hdr_content_disposition);
      body.append(": ");
      put(body, parts[i].content_disposition);
      put(body, str_crlf);
    }
    if (!parts[i].content_id.empty()) {
      put(body, hdr_content_id);
      body.append(": ");
      put(body, parts[i].content_id);
      put(body, str_crlf);
    }
    put(body, hdr_content_type);
    body.append(": ");
    put(body, types[i]);
    put(body, str_crlf);
    put(body, str_crlf);
    append_dot_stuffed(body, texts[i]);
    put(body, str_crlf);
  }
  body.append("--");
  put(body, boundary);
  body.append("--\r\n");
}
