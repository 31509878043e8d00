// IP access control: which source may talk to the system, per class of traffic. Manual
// prefix entries come from the table `accesslist`; automatic entries are made at run time
// (registrations, trunks, web logins allow; penalties and connection floods block) and
// expire. Everything here belongs to the control half: each call needs ctrl_run_mutex,
// and the timers run on the control queue.
#pragma once

#include <cstdint>
#include <vector>

#include "core/address.h"
#include "core/string.h"
#include "core/tick.h"

// The classes of traffic; the words "udp", "tcp", "http" in the JSON outputs.
constexpr int acl_class_udp = 1;  // SIP over UDP
constexpr int acl_class_tcp = 2;  // SIP over TCP and TLS
constexpr int acl_class_http = 3;  // web, REST and provisioning

// An address as bytes with the bit count that counts: 32 or 128 bits are the address
// alone, 48 or 144 bits address and port.
struct AclKey {
  uint8_t bytes[18] = {};
  uint8_t length = 0;  // 4 or 16
  uint8_t bits = 0;
  uint16_t port = 0;

  bool operator==(const AclKey& o) const;
};

// A row of `accesslist`: the address text, the prefix length (a number or a dotted
// mask), white or black, a comment.
struct AclRow {
  int id = 0;
  String adr;
  String mask;
  String type;
  String comment;
};

// Replaces all manual entries. A row with an address that can't be read or a prefix
// length outside the fixed lists isn't loaded. Returns the number loaded.
int acl_load_manual(const std::vector<AclRow>& rows);

// Loads the manual entries from the table `accesslist`, and again whenever a row of it
// is written with notification. Returns the number loaded.
int acl_load_accesslist();

// Negative for a blacklisted source, 0 for an unknown one, positive for a whitelisted one.
int acl_check(const Address& address, int access_class);
// Adds or refreshes an automatic entry; `seconds` 0 lasts until it is removed.
void acl_allow(const Address& address, int bits, bool white, int access_class, int seconds,
               const String& comment);
// A failure of weight `points`; `label` is "SIP", "HTTP" or "PROV". For "SIP", `text` is
// the request, which names the blacklist entry.
void acl_penalty(Tick time, const Address& address, int points, int access_class, const String& label,
                 const String& text);
// A new TCP or TLS connection (classes 2 and 3), and its end.
void acl_connection(const Address& address, int access_class, int count);
void acl_forget_connection(const Address& address, int access_class);
// Removes an automatic entry of the address with its port, else of the address alone.
bool acl_remove(const Address& address, int access_class);
// Blocks an unknown address for `blacklist_expires` seconds and sends the mail.
void blacklist_address(const Address& address, int access_class, const String& comment);

// The JSON array of the web page, and the object of counts of the status page.
void acl_json(String& out);
void acl_status(String& out);

// The service half's reports (a failed digest answer, a registration), as messages to
// the control half, where acl_register has installed their handlers. The *_message
// forms give the message without posting it.
void acl_post_penalty(const Address& address, int points, int access_class, const String& label, const String& text);
void acl_post_allow(const Address& address, int bits, bool white, int access_class, int seconds, const String& comment);
String acl_penalty_message(const Address& address, int points, int access_class, const String& label, const String& text);
String acl_allow_message(const Address& address, int bits, bool white, int access_class, int seconds, const String& comment);
enum AclPostTag { tag_acl_penalty = 150, tag_acl_allow = 151 };

// The mail of a blacklisting: template name (`email_blacklist_ip`), subject, text.
using AclMail = void (*)(const String& template_name, const String& subject, const String& text);
void set_acl_mail(AclMail mail);

// Fills the hooks that the socket code calls, and names the timer callbacks.
void acl_register();
// Forgets every entry, count and penalty; for tests.
void acl_reset();
// Runs the expiry of automatic entries now rather than from the timer; for tests.
void acl_expire_now();
