// The NTP sockets of the control loop: bound when `ip_ntp_port` holds a number.
#pragma once

#include "core/server.h"

// Binds the sockets (IPv4 and IPv6 as enabled) and returns the party that serves them.
LoopParty ntp_party();
void ntp_bind();
int ntp_port();  // the bound port, 0 if none
