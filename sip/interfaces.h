// The host's interfaces and addresses: interface discovery, the routing list that picks
// the local address to state towards a peer, the public address, and the DNS servers
// of the system.
#pragma once

#include <vector>

#include "core/string.h"

struct InterfaceInfo {
  String name;
  String adr;   // 4 or 16 bytes
  String mask;
};

// Reads the interfaces, their MAC and IPv4 addresses, the routing list and
// /etc/resolv.conf. Called at start.
void init_ip();
std::vector<InterfaceInfo> get_system_ip_addresses();
String get_mac_info();  // upper-case hexadecimal MACs separated by blanks
String get_default_domain();
std::vector<String> get_dns_servers();
void set_dns_servers(const std::vector<String>& list);
void add_dns_server(const String& adr);
void reset_ip_adr_cache();

// The local address that packets to `peer` leave from.
String get_ip_adr(const String& peer);
// The routing list's address for `peer`, else `fallback`.
String get_ip_replacement(const String& peer, const String& fallback);
void set_public_ip(const String& adr);
String get_public_ip();
// Clears the list and the cache and reads `text` (the setting ip_routing_list) again.
void update_ip_routing_list(const String& text);
// For tests: the resolver configuration to read instead of /etc/resolv.conf.
void update_resolv_conf(const String& text);
