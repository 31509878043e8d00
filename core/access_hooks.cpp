#include "core/access_hooks.h"

static AclCheck check_hook = nullptr;
static AclPenalty penalty_hook = nullptr;

void set_acl_hooks(AclCheck check, AclPenalty penalty) {
  check_hook = check;
  penalty_hook = penalty;
}

int acl_hook_check(const Address& source, int access_class) { return check_hook ? check_hook(source, access_class) : 1; }

void acl_hook_penalty(const Address& source, int access_class, int points, const char* tag) {
  if (penalty_hook) penalty_hook(source, access_class, points, tag);
}
