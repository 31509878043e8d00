// What the socket code asks the IP access control: negative for a blacklisted source,
// 0 for an unknown one, positive for a whitelisted one; and the penalty points charged
// to an unknown source. Filled in by the access control; until then everything passes.
#pragma once

#include "core/address.h"

// The source's port counts: a phone's binding whitelists its address and port, and
// penalties are kept per address and port.
using AclCheck = int (*)(const Address& source, int access_class);
using AclPenalty = void (*)(const Address& source, int access_class, int points, const char* tag);
void set_acl_hooks(AclCheck check, AclPenalty penalty);
int acl_hook_check(const Address& source, int access_class);
void acl_hook_penalty(const Address& source, int access_class, int points, const char* tag);
