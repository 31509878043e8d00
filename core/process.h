// Process life: detaching, respawning, signals and resource limits.
#pragma once

#include "core/command_line.h"

// Detaches from the terminal: the parent writes the child's pid to the pid file, if
// one was named, and leaves; the child goes on with descriptors 0, 1 and 2 on
// /dev/null. Exits with 2 if fork fails.
void detach_process(const StartupOptions& options);

// Runs the process again and again with `arguments`, waiting 5 seconds after each end.
// Returns only in a child whose exec failed, which then goes on as the server.
void respawn_forever(const std::vector<String>& arguments);

// The path of the running executable, from /proc/self/exe.
String self_executable();

void ignore_signals();
// Stack and data-segment limits are left alone in sanitizer builds, which need more.
void set_resource_limits(bool core_dumps);
// Seeds the C library's generator, which serves only what is not secret.
void seed_c_random();
// Whether an IPv6 UDP socket can be bound on this host.
bool ipv6_available();
