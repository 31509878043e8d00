#include "sip/interfaces.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "core/address.h"
#include "core/command_line.h"
#include "core/files.h"
#include "core/format.h"
#include "core/log.h"
#include "core/server.h"
#include "core/udp_socket.h"

namespace {

struct Route {
  String network;
  String mask;
  String local;
};

std::mutex lock;  // the interface data: maps, routing list, cache, public address, DNS list
std::vector<InterfaceInfo> interfaces;
std::set<String> macs;
std::vector<Route> routes;
std::map<String, String> cache;
std::vector<String> dns_servers;
String default_domain;
String public_ip;
const String public_ip_file("publicip.txt");

void log_text(int level, const String& text) {
  if (log_enabled(LOG_GENERAL, level)) log_add_message_global(LOG_GENERAL, level, 0, text);
}

String masked(const String& adr, const String& mask) {
  if (adr.length() != mask.length()) return String();
  String out = adr;
  char* p = out.writable_data();
  for (int i = 0; i < out.length(); i++) p[i] = static_cast<char>(p[i] & mask.at(i));
  return out;
}

bool is_private(const String& adr) {
  if (adr.length() != 4) return false;
  unsigned a = adr.byte_at(0), b = adr.byte_at(1);
  return a == 10 || (a == 172 && b >= 16 && b <= 31) || (a == 192 && b == 168);
}

String public_adr_locked() {
  if (!public_ip.empty()) return public_ip;
  return parse_adr(read_file(public_ip_file, true).trim());
}

void add_route(const String& network, const String& mask, const String& local) {
  if (local.empty() || is_any_adr(local)) return;
  routes.push_back({masked(network, mask), mask, local});
}

void read_routing_list_locked(const String& text) {
  routes.clear();
  cache.clear();
  for (const String& item : text.to_lower().split(' ')) {
    if (item == "private") {
      for (const InterfaceInfo& i : interfaces)
        if (is_private(i.adr) && !i.mask.empty()) add_route(i.adr, i.mask, i.adr);
    } else if (item == "public") {
      add_route(any_ipv4, any_ipv4, public_adr_locked());
    } else {
      std::vector<String> parts = item.split('/');
      if (parts.size() == 3) {
        String local = parts[2] == "public" ? public_adr_locked() : parse_adr(parts[2]);
        add_route(parse_adr(parts[0]), parse_adr(parts[1]), local);
      } else if (!parts.empty()) {
        add_route(any_ipv4, any_ipv4, parse_adr(parts[0]));
      }
    }
  }
}

String route_for_locked(const String& peer) {
  auto hit = cache.find(peer);
  if (hit != cache.end()) return hit->second;
  for (const Route& r : routes) {
    if (r.network.length() == peer.length() && masked(peer, r.mask) == r.network && !r.local.empty()) {
      cache[peer] = r.local;
      return r.local;
    }
  }
  return String();
}

void read_resolv_conf_locked(const String& text) {
  String rest = text;
  while (!rest.empty()) {
    String line = rest.next_line(false).trim();
    String key = line.word(0, ' ');
    if (key == "nameserver") {
      String adr = parse_adr(line.word(1, ' '));
      if (!adr.empty()) dns_servers.push_back(adr);
    } else if (key == "search" || key == "domain") {
      default_domain = line.word(1, ' ');
    }
  }
}

bool ignored_mac(const unsigned char* m) {
  static const unsigned char prefixes[][3] = {{0, 0, 0}, {0x00, 0x1A, 0x1B}, {0x00, 0x2A, 0x2B}};
  for (const auto& p : prefixes)
    if (m[0] == p[0] && m[1] == p[1] && m[2] == p[2]) return true;
  return false;
}

}  // namespace

void init_ip() {
  String dev = read_file(String("/proc/net/dev"), true);
  std::vector<String> names;
  while (!dev.empty()) {
    String line = dev.next_line(false);
    int colon = line.find(':');
    if (colon > 0) names.push_back(line.head(colon).trim());
  }
  std::vector<InterfaceInfo> found;
  std::set<String> found_macs;
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (const String& name : names) {
    if (fd < 0 || name.length() >= IFNAMSIZ) continue;
    ifreq r;
    memset(&r, 0, sizeof r);
    memcpy(r.ifr_name, name.c_data(), static_cast<size_t>(name.length()));
    if (ioctl(fd, SIOCGIFHWADDR, &r) == 0) {
      const unsigned char* m = reinterpret_cast<const unsigned char*>(r.ifr_hwaddr.sa_data);
      if (!ignored_mac(m)) found_macs.insert(hex(String(reinterpret_cast<const char*>(m), 6), true));
    }
    if (ioctl(fd, SIOCGIFADDR, &r) != 0) continue;
    String adr = Address::from_sockaddr(&r.ifr_addr, sizeof(sockaddr_in)).adr;
    if (ioctl(fd, SIOCGIFNETMASK, &r) != 0) continue;
    String mask = Address::from_sockaddr(&r.ifr_netmask, sizeof(sockaddr_in)).adr;
    found.push_back({name, adr, mask});
    log_text(5, format("Found Interface %s with IP %s/%s", name, adr_text(adr), adr_text(mask)));
  }
  if (fd >= 0) close(fd);
  String resolv = read_file(String("/etc/resolv.conf"), true);
  String routing = core_setting("ip_routing_list");
  std::lock_guard<std::mutex> g(lock);
  interfaces = found;
  macs = found_macs;
  read_routing_list_locked(routing);
  dns_servers.clear();
  read_resolv_conf_locked(resolv);
  if (dns_servers.empty()) {
    if (startup_options.use_ipv6) dns_servers.push_back(parse_adr(String("FF02::1:3")));
    if (startup_options.use_ipv4) dns_servers.push_back(parse_adr(String("224.0.0.252")));
  }
}

std::vector<InterfaceInfo> get_system_ip_addresses() {
  std::lock_guard<std::mutex> g(lock);
  return interfaces;
}

String get_mac_info() {
  std::lock_guard<std::mutex> g(lock);
  String out;
  for (const String& m : macs) {
    if (!out.empty()) out.append(' ');
    out.append(m);
  }
  return out;
}

String get_default_domain() {
  std::lock_guard<std::mutex> g(lock);
  return default_domain;
}

std::vector<String> get_dns_servers() {
  std::lock_guard<std::mutex> g(lock);
  return dns_servers;
}

void set_dns_servers(const std::vector<String>& list) {
  std::lock_guard<std::mutex> g(lock);
  dns_servers = list;
}

void add_dns_server(const String& adr) {
  log_text(5, format("Adding DNS server %s to the dns server list", adr_text(adr)));
  std::lock_guard<std::mutex> g(lock);
  for (const String& s : dns_servers)
    if (s == adr) return;
  dns_servers.push_back(adr);
}

void reset_ip_adr_cache() {
  std::lock_guard<std::mutex> g(lock);
  cache.clear();
}

String get_ip_adr(const String& peer) {
  {
    std::lock_guard<std::mutex> g(lock);
    String hit = route_for_locked(peer);
    if (!hit.empty()) return hit;
  }
  // The socket calls run without the lock.
  String out = kernel_local_address(peer);
  if (!out.empty()) {
    std::lock_guard<std::mutex> g(lock);
    cache[peer] = out;
  }
  return out;
}

String get_ip_replacement(const String& peer, const String& fallback) {
  if (peer.empty() || is_any_adr(peer)) return fallback;
  std::lock_guard<std::mutex> g(lock);
  String hit = route_for_locked(peer);
  return hit.empty() ? fallback : hit;
}

void set_public_ip(const String& adr) {
  String routing = core_setting("ip_routing_list");
  std::lock_guard<std::mutex> g(lock);
  if (adr != public_ip) {
    public_ip = adr;
    (void)write_file_atomic(adr_text(adr), public_ip_file);
  }
  read_routing_list_locked(routing);
}

String get_public_ip() {
  std::lock_guard<std::mutex> g(lock);
  return public_adr_locked();
}

void update_ip_routing_list(const String& text) {
  std::lock_guard<std::mutex> g(lock);
  read_routing_list_locked(text);
}

void update_resolv_conf(const String& text) {
  std::lock_guard<std::mutex> g(lock);
  dns_servers.clear();
  read_resolv_conf_locked(text);
}
