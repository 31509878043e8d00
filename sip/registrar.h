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

// What later subsystems add to a registration; each hook may stay empty.
struct RegistrarHooks {
  // Provisioning: whether a user part of 12 hexadecimal characters is the MAC of a device
  // it knows, and the note of such a device's registration (MAC, user agent, source),
  // which also starts its provisioning check.
  bool (*known_device)(const String& mac) = nullptr;
  void (*device_registered)(const String& mac, const String& user_agent, const String& source) = nullptr;
  // Star codes: the `tuser` text for a From user that starts with a star (the code and
  // the account), or empty when it names no code of the domain.
  String (*star_code)(int domain, const String& from_user, int to_user) = nullptr;
  // Presence: "REGISTER" true for an account's first binding, false for a removed one.
  void (*presence)(int user, bool registered) = nullptr;
  // After the answer: a new "message-summary" or "dialog" subscription (its row) wants
  // its first NOTIFY; an "as-feature-event" body is applied to the account.
  void (*subscription_started)(int row) = nullptr;
  void (*feature_event)(int user, const String& body) = nullptr;
};
extern RegistrarHooks registrar_hooks;

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
