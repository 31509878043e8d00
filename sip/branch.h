// Identifiers derived from a request, so that a retransmission or a CANCEL of it gets
// the same ones again without any stored state.
#pragma once

#include "core/string.h"

class SipMessage;

// ";branch=z9hG4bK-" and a hash over Call-ID, the top Via's branch, CSeq number and method.
String make_via_suffix(const SipMessage& request);
// Sets `request.via_suffix`.
void set_via_suffix(SipMessage& request);

// The tag of a locally answered request: 10 hexadecimal digits over request URI and
// Call-ID. Stored into the request's To when it has no tag yet; returns the To tag.
String set_local_tag(SipMessage& request);
