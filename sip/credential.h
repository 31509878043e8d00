// A user name and password: what an account accepts, or what a request of ours answers a
// challenge with.
#pragma once

#include "core/string.h"

struct Credential {
  String user;
  String password;
};
