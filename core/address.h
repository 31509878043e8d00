// A socket address as a plain value: raw address bytes in network order and a port.
// Four bytes are IPv4, sixteen IPv6, none no address; callers test the family by the
// length alone.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "core/format.h"
#include "core/string.h"

struct Address {
  String adr;
  int port = 0;

  Address() = default;
  Address(const String& a, int p) : adr(a), port(p) {}

  bool empty() const { return adr.empty(); }
  bool is_ipv6() const { return adr.length() == 16; }
  bool operator==(const Address& o) const { return port == o.port && adr == o.adr; }
  bool operator!=(const Address& o) const { return !(*this == o); }

  // For the system calls; false if the address has neither 4 nor 16 bytes.
  bool to_sockaddr(sockaddr_storage& out, socklen_t& length) const;
  static Address from_sockaddr(const sockaddr* a, socklen_t length);
};

extern const String any_ipv4;  // 4 zero bytes
extern const String any_ipv6;  // 16 zero bytes
bool is_any_adr(const String& adr);

// "%d.%d.%d.%d", or IPv6 in lower-case groups with the longest run of zero groups
// written "::" (in brackets if asked); any other length prints as "0.0.0.0".
String adr_text(const String& adr, bool brackets = false);
String address_text(const Address& a);  // "host:port", "[v6]:port"
String transport_address_text(const String& transport, const Address& a);
// A dotted quad or IPv6 text, brackets allowed; anything else gives an empty String.
String parse_adr(const String& text);
// The host and the port of "host:port", "[v6]:port", "host" or "v6".
String host_part(const String& text);
String port_part(const String& text);
// Both parts at once: parse_adr(host_part) and the port, or `default_port` without one.
Address parse_address(const String& text, int default_port);

// The address as a format slot: %s writes its text.
FormatSlot address_slot(const Address& a, String& keep);
