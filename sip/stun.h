// The STUN binding requests that reach SIP and media ports: answered at once with the
// address and port they came from.
#pragma once

#include "core/address.h"

// A datagram of at least 8 bytes whose first byte is 0 or 1.
bool looks_like_stun(const String& datagram);
// The Binding Response to a Binding Request (type 1, at least 20 bytes), or empty: the
// magic cookie, the request's transaction id and one MAPPED-ADDRESS of `from`.
String stun_binding_response(const String& request, const Address& from);
// A Binding Request with a random transaction id, for keep-alives.
String stun_binding_request();
