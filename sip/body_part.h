// One part of a message body, and the reading and writing of multipart bodies.
#pragma once

#include <memory>
#include <vector>

#include "core/string.h"
#include "sip/sip_hooks.h"

class BodyPart {
 public:
  String content_type;
  String content_id;
  String content_disposition;
  // A part holds either SDP objects or text.
  std::vector<std::shared_ptr<Sdp>> sdp;
  std::vector<String> text;

  static BodyPart from_text(const String& type, const String& text);
  // An SDP part; without an SDP reader installed the SDP stays as its text.
  static BodyPart from_sdp_text(const String& text);
  static BodyPart from_sdp(std::shared_ptr<Sdp> sdp);
};

extern const String media_application_sdp;  // "application/sdp"

// "type/subtype" of a Content-Type value: up to the first ";", lower case, trimmed.
String media_type_of(const String& content_type);

// Appends the parts that `body` holds under `content_type`. Multipart bodies are split
// at their boundary, which is returned in `boundary`.
void read_body_parts(const String& body, const String& content_type, String& boundary,
                     std::vector<BodyPart>& parts);

// The body of `parts` and its Content-Type, as sent. `secure` asks for the secure form
// of SDP; `port_sdp`, when not empty, replaces the text of the SDP. Two parts or more
// need a boundary: an empty `boundary` is drawn at random and kept.
void write_body_parts(const std::vector<BodyPart>& parts, bool secure, const String& port_sdp,
                      String& boundary, String& body, String& content_type);
