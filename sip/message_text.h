// The last step before a serialised message goes out: the socket is known now, so the
// "{x-pre-...}" placeholders get their values and the Content-Length is computed.
#pragma once

#include "core/string.h"
#include "core/tagged_text.h"

// The local end a message leaves from, read from its text form: "192.0.2.1:5060",
// "[2001:db8::1]:5060", or an address without a port.
struct LocalEnd {
  String ip;  // without brackets
  int port = 0;
  bool ipv6 = false;
};
LocalEnd parse_local_end(const String& text);

// Replaces every placeholder in `text`; a "{" that opens none of them stays.
String insert_replacement(const String& text, const LocalEnd& address, const String& media_port,
                          const String& transport);

// The bytes to send for a serialised message. `cseq_method`, if given, receives the
// method that the message carries for the log.
String message_text(const TaggedText& message, const LocalEnd& address, const String& media_port,
                    const String& transport, String* cseq_method = nullptr);

// The address map of "ip_replacement_list" is read at its first use; tests start over
// with this, while no message is being sent.
void reset_ip_replacement_map();
