#include "core/udp_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/log.h"

namespace {

LocalAddressLookup lookup_hook = nullptr;

void log_text(int level, const String& text) {
  if (log_enabled(LOG_GENERAL, level)) log_add_message_global(LOG_GENERAL, level, 0, text);
}

const char* family_tag(bool v6) { return v6 ? "UDP (IPv6)" : "UDP (IPv4)"; }

}  // namespace

void set_local_address_lookup(LocalAddressLookup lookup) { lookup_hook = lookup; }

String kernel_local_address(const String& peer) {
  Address probe(peer, 5060);
  sockaddr_storage sa;
  socklen_t len;
  if (!probe.to_sockaddr(sa, len)) return String();
  int fd = socket(sa.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return String();
  String out;
  // Connecting a datagram socket sends nothing; it only makes the kernel pick a route.
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), len) == 0) {
    sockaddr_storage mine;
    socklen_t mine_len = sizeof mine;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&mine), &mine_len) == 0)
      out = Address::from_sockaddr(reinterpret_cast<sockaddr*>(&mine), mine_len).adr;
  }
  ::close(fd);
  return out;
}

String local_address_towards(const String& peer) {
  return lookup_hook ? lookup_hook(peer) : kernel_local_address(peer);
}

bool UdpSocket::open(int want_port, const String& bind_adr) {
  close();
  if (want_port < 0 || want_port > 65535) {
    log_text(1, String("UDP: Illegal port number"));
    return false;
  }
  ipv6 = bind_adr.length() == 16;
  fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    const char* why = errno == ENFILE ? " (ENFILE)" : errno == EMFILE ? " (EMFILE)" : errno == ENOMEM ? " (ENOMEM)" : "";
    log_text(1, ipv6 ? String("UDP (IPv6): Could not open socket")
                     : format("UDP (IPv4): Could not open socket%s", why));
    return false;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  if (ipv6 && is_any_adr(bind_adr)) {
    int one = 1;
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
  }
  Address a(bind_adr.length() == 4 || bind_adr.length() == 16 ? bind_adr : any_ipv4, want_port);
  sockaddr_storage sa;
  socklen_t len;
  a.to_sockaddr(sa, len);
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0) {
    int e = errno;
    if (is_any_adr(a.adr))
      log_text(1, ipv6 ? format("UDP (IPv6): bind() to port %d failed (errno=%d)", want_port, e)
                       : format("UDP (IPv4): bind() to port %d failed", want_port));
    else
      log_text(1, ipv6 ? format("UDP (IPv6): bind() to port %s:%d failed (errno=%d)", adr_text(a.adr), want_port, e)
                       : format("UDP (IPv4): bind() to port %s:%d failed", adr_text(a.adr), want_port));
    close();
    return false;
  }
  sockaddr_storage bound;
  socklen_t bound_len = sizeof bound;
  getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &bound_len);
  local = Address::from_sockaddr(reinterpret_cast<sockaddr*>(&bound), bound_len);
  port = local.port;
  log_text(5, format("%s: Opening socket on %s:%d", family_tag(ipv6), adr_text(local.adr), port));
  return true;
}

bool UdpSocket::open_broadcast(int want_port) {
  if (!open(want_port, any_ipv4)) return false;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
  return true;
}

bool UdpSocket::open_listen(int want_port) {
  close();
  fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  Address a(any_ipv4, want_port);
  sockaddr_storage sa;
  socklen_t len;
  a.to_sockaddr(sa, len);
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0) {
    close();
    return false;
  }
  port = want_port;
  local = a;
  return true;
}

void UdpSocket::close() {
  if (fd >= 0) ::close(fd);
  fd = -1;
  local_by_peer_.clear();
}

bool UdpSocket::send(const String& text) { return send_to(text, destination); }

bool UdpSocket::send_to(const String& text, const Address& to) {
  if (fd < 0 || text.empty() || to.port == 0) return false;
  sockaddr_storage sa;
  socklen_t len;
  if (!to.to_sockaddr(sa, len)) return false;
  ssize_t n = sendto(fd, text.c_data(), static_cast<size_t>(text.length()), MSG_DONTWAIT | MSG_NOSIGNAL,
                     reinterpret_cast<sockaddr*>(&sa), len);
  return n == text.length();
}

bool UdpSocket::receive(String& text, Address& from) {
  text = String();
  from = Address();
  if (fd < 0) return false;
  char buf[65536];
  sockaddr_storage sa;
  socklen_t len = sizeof sa;
  ssize_t n = recvfrom(fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sa), &len);
  if (n < 0) {
    int e = errno;
    if (e == EAGAIN || e == EWOULDBLOCK) return false;
    String where = address_text(local);
    const char* name = e == EBADF ? "EBADF" : e == ENOTCONN ? "ENOTCONN" : e == ENOTSOCK ? "ENOTSOCK"
                     : e == EINTR ? "EINTR" : e == EFAULT ? "EFAULT" : e == EINVAL ? "EINVAL"
                     : e == ENOENT ? "ENOENT" : nullptr;
    if (e == ECONNREFUSED) log_text(5, format("UDP: recvfrom returns ECONNREFUSED %s", where));
    else if (name) log_text(5, format("UDP: recvfrom %s returns %s", where, name));
    else log_text(5, format("UDP: recvfrom %s returns error %d", where, e));
    return false;
  }
  from = Address::from_sockaddr(reinterpret_cast<sockaddr*>(&sa), len);
  if (from.empty()) {
    log_text(5, format("UDP: from size = %d", static_cast<int>(len)));
    return false;
  }
  text = String(buf, static_cast<int>(n));
  return true;
}

int dscp_value(const String& text) {
  String t = text.trim().to_lower();
  int v = 0;
  if (t.is_int()) v = t.to_int();
  else if (t.length() == 3 && t.starts_with(String("cs")) && t.at(2) >= '0' && t.at(2) <= '9') v = (t.at(2) - '0') * 32;
  else if (t.length() == 4 && t.starts_with(String("af")) && t.substr(2, 2).is_int()) v = (4 * (t.at(2) - '0') + (t.at(3) - '0')) * 8;
  else if (t == "ef") v = 184;
  return v < 0 ? 0 : v > 224 ? 224 : v;
}

bool UdpSocket::set_tos(const String& dscp) {
  int tos = dscp_value(dscp);
  if (fd < 0 || ipv6) return fd >= 0;
  if (setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) != 0) {
    log_text(4, String("UDP: TOS could not be set"));
    return false;
  }
  return true;
}

bool UdpSocket::join_multicast(const String& group, const String& interface_adr) {
  String g = parse_adr(group);
  if (fd < 0 || ipv6 || g.length() != 4) return false;
  ip_mreq m;
  memset(&m, 0, sizeof m);
  memcpy(&m.imr_multiaddr, g.c_data(), 4);
  if (interface_adr.length() == 4) {
    memcpy(&m.imr_interface, interface_adr.c_data(), 4);
    log_text(5, format("Join multicast group on address %s", adr_text(interface_adr)));
  }
  if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) != 0) {
    log_text(4, format("Could not join multicast group %s", group));
    return false;
  }
  log_text(5, format("Joined multicast group %s", group));
  return true;
}

bool UdpSocket::set_multicast_ttl(int ttl) {
  if (fd < 0) return false;
  unsigned char t = static_cast<unsigned char>(ttl);
  int hops = ttl;
  return ipv6 ? setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops) == 0
              : setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &t, sizeof t) == 0;
}

Address UdpSocket::local_for(const String& peer) {
  if (!is_any_adr(local.adr)) return local;
  auto found = local_by_peer_.find(peer);
  if (found != local_by_peer_.end()) return Address(found->second, port);
  String adr = local_address_towards(peer);
  if (!adr.empty()) local_by_peer_[peer] = adr;
  return Address(adr, port);
}
