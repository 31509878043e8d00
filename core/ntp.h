// The answer to an NTP client, built from the wall clock.
#pragma once

#include <cstdint>

#include "core/string.h"

// A 48-byte reply to a request of at least 48 bytes in client mode, or empty. `client`
// is the 4 or 16 bytes of the requester's address; `wall_ms` milliseconds since 1970.
String ntp_reply(const String& request, uint64_t wall_ms, const String& client);
