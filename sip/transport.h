// The transports a SIP message travels over, and their words in Via and placeholders.
#pragma once

#include <cstdint>

#include "core/string.h"

enum class Transport : uint8_t { udp, tcp, tls };

extern const String transport_udp;  // "udp"
extern const String transport_tcp;  // "tcp"
extern const String transport_tls;  // "tls"

const String& transport_word(Transport t);
