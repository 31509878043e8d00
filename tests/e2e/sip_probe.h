// Small tools of the SIP end-to-end tests: a scripted peer's requests and reads, and the
// daemon's log as it wrote it to its standard error.
#pragma once

#include <string>

#include "core/string.h"
#include "core/udp_socket.h"

// True if `fd` has something to read within `ms`.
bool readable(int fd, int ms);
// An OPTIONS to the daemon's UDP port from a peer that says it is at 127.0.0.1:9.
String options_request(int port, const char* branch);
// Waits until the daemon answers an OPTIONS on `port` (about ten seconds at most).
bool answers_options(int port);
// The next datagram on `socket` within `ms`, or an empty text.
String receive_within(UdpSocket& socket, int ms);
// How often `text` occurs in `haystack`.
int occurrences(const std::string& haystack, const std::string& text);
