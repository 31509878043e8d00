// The DNS client of the service half: requests with retries, a cache with TTL and
// negative answers, "/etc/hosts", CNAME, and the sorting of NAPTR and SRV lines.
//
// Requests and their retry timers live on the service queue (srv_run_mutex); the two
// sockets are served on run_pbxsrv_sip. The tables have their own mutex, and the
// callbacks of a request run without it, so that a callback may look in the cache and
// ask again.
#pragma once

#include <vector>

#include "core/address.h"
#include "core/string.h"
#include "core/timeout.h"
#include "sip/dns_message.h"
#include "sip/transaction.h"

// Asks for `name` (a name without a dot gets the default domain). `callback` runs once
// the answer is in the cache, or after the last retry with an empty entry in its place.
// False if nothing was sent (empty name, no server, a name that can't be encoded).
bool request_dns(const String& name, int type, const callback_argument& callback);

// True if "/etc/hosts" or the cache can answer, an empty `out` meaning a negative answer.
// A and AAAA look in the hosts file first. A miss follows a cached CNAME once. With
// `all` false only the first line of the text is given.
bool cache_lookup(const String& name, int type, String& out, bool all);

// Stores a record text for `ttl` seconds (at least 1). A key that holds a text gets the
// new one as a further line; `replace` puts the new text in place of the old instead.
void add_cache(const String& name, const String& value, int ttl, int type, bool replace);

// A datagram from one of the DNS sockets.
void on_pdu_available(const String& text, const Address& from);

// The cache as items of a JSON list for the status page.
void json_stringify(String& out);

// Lines whose first two words are numbers, in ascending order of their key (see the
// source); with `weights` (SRV) the second word is drawn against a random number.
std::vector<String> dns_sort_lines(const String& text, bool weights);

// The address look-ups of the resolver lines of the transaction layer, over this cache.
// A name that can't be asked for (no server) gets a negative entry and its retry at
// once, so that the line is dropped rather than left waiting.
SipResolver dns_sip_resolver();

// Registers the socket party on run_pbxsrv_sip, the opening of the sockets before the
// threads start, the resolver of the transaction layer, and the callback names.
void dns_register();
void dns_open_sockets();
// Closes the sockets, stops every timer and empties the tables; for tests and shutdown.
void dns_reset();

// Test hooks: the port of the servers (53), the hosts file ("/etc/hosts").
void dns_set_server_port(int port);
void dns_set_hosts_path(const String& path);
// The retry intervals in milliseconds, the n-th after the n-th send; the last gives up.
extern const int dns_retry_ms[7];
// Live requests, for tests.
int dns_pending_count();
// One pass of the socket party without a poll: reads what is waiting on the sockets.
void dns_serve_sockets();
// The ports the sockets got, 0 for one that isn't open.
int dns_socket_port(bool ipv6);
