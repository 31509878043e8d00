// The control half of the registrar: who may register, for how long, and how many
// bindings; the table `registrations`. It answers the questions that the service half's
// registrations post. Control half only (ctrl_run_mutex).
#pragma once

#include "core/string.h"

// An account found from a URI's user and host: the domain row, the `users` row, and
// the row in the account's own table (named by `type`).
struct AccountRef {
  int domain = 0;
  int user = 0;
  String type;
  int row = 0;
  String name;
  bool found() const { return user != 0; }
};
AccountRef find_account(const String& user, const String& host);
int find_domain(const String& host);

// The account (its `users` row) logged in on a web connection, by the connection's socket
// key ("rest:..."); 0 for none. Filled in by the web layer; until then no connection
// has one.
using WebAccountLookup = int (*)(const String& socket_key);
void set_registrar_web_account(WebAccountLookup lookup);

// Registers the control-half handlers of the registrar's messages.
void registrar_register();
// Bindings whose `date` has passed are removed every 10 seconds on the control queue.
void expire_registrations();
void start_registration_expiry();
