#include "core/access_hooks.h"

static AclCheck check_hook = nullptr;
static AclPenalty penalty_hook = nullptr;

void set_acl_hooks(AclCheck check, AclPenalty penalty) {
  check_hook = check;
  penalty_hook = penalty;
}

int acl_check(const String& adr, int access_class) { return check_hook ? check_hook(adr, access_class) : 1; }

void acl_penalty(const String& adr, int access_class, int points, const char* tag) {
  if (penalty_hook) penalty_hook(adr, access_class, points, tag);
}
