// What the socket code asks the IP access control: negative for a blacklisted source,
// 0 for an unknown one, positive for a whitelisted one; and the penalty points charged
// to an unknown source. Filled in by the access control; until then everything passes.
#pragma once

#include "core/string.h"

using AclCheck = int (*)(const String& adr, int access_class);
using AclPenalty = void (*)(const String& adr, int access_class, int points, const char* tag);
void set_acl_hooks(AclCheck check, AclPenalty penalty);
int acl_check(const String& adr, int access_class);
void acl_penalty(const String& adr, int access_class, int points, const char* tag);
