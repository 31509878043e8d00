// What the message layer needs from layers above it, filled in at start-up by the
// service half: settings from its mirror of the registry, the SDP reader and writer,
// and the pass-through SDP that a call port keeps. Every hook may be left empty; the
// message layer then keeps SDP as text and reads settings as empty.
#pragma once

#include <memory>

#include "core/string.h"

class Sdp;

struct SipHooks {
  // The current text of a setting by name ("short_header", "ip_replacement_list",
  // "port_bind4", "port_bind6").
  String (*setting)(const String& name) = nullptr;
  // Parses SDP text into an object; nullptr keeps the text as it is.
  std::shared_ptr<Sdp> (*parse_sdp)(const String& text) = nullptr;
  // Writes an SDP object, in its secure form when `secure`.
  String (*write_sdp)(const Sdp& sdp, bool secure) = nullptr;
  // The stored SDP that the call port `port_index` sends in place of the message's own
  // (a bundled or fixed pass-through), or empty text.
  String (*port_sdp)(int port_index) = nullptr;
};

extern SipHooks sip_hooks;

String sip_setting(const String& name);
