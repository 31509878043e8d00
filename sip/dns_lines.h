// The resolver lines that NAPTR and SRV records turn into, for the transaction layer's
// list of lines ("srv udp _sip._udp.host", "a udp host 5060", "url sip:...", ...). Pure
// functions over the record texts of the DNS cache; the caller puts the lines in front
// of its list, in order.
#pragma once

#include <vector>

#include "core/string.h"

// The lines of the NAPTR records of a host (the cache text, one record a line). `wanted`
// is "udp", "tcp", "tls" or empty. For an ENUM look-up `enum_subject` is the text that
// the regular expressions are applied to (the user and host of the URI).
std::vector<String> naptr_lines(const String& records, const String& wanted, bool is_enum,
                                const String& enum_subject);

// The lines when a host has no NAPTR record: address lines with the given port (0: the
// default of the transport), then the SRV lines of the wanted transport, or of all three.
std::vector<String> naptr_fallback_lines(const String& host, const String& wanted, int port);

// The lines of the SRV records (priority weight host port) of a name, in the order of a
// weighted draw. A target that is an address gives one line "transport adr port";
// a name gives "aaaa" and "a" lines as the families are on, and counts in `names`.
std::vector<String> srv_lines(const String& records, const String& transport, bool ipv4, bool ipv6,
                              int& names);

// An ENUM regular expression of NAPTR ("!pattern!replacement!flags", any delimiter,
// POSIX extended syntax, \1 to \9 in the replacement) applied to `subject`; empty when
// the expression is malformed or doesn't match.
String naptr_apply_regexp(const String& regexp, const String& subject);
