// A non-blocking UDP socket, served by poll in the thread that owns it.
#pragma once

#include <map>

#include "core/address.h"

class UdpSocket {
 public:
  UdpSocket() = default;
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;
  ~UdpSocket() { close(); }

  // Port 0 takes a free port, read back into `port`. The length of bind_adr (4 or 16)
  // picks the family. An IPv6 socket on the any-address takes IPv6 only, so that both
  // families can share a port number.
  [[nodiscard]] bool open(int port, const String& bind_adr);
  [[nodiscard]] bool open_broadcast(int port);
  [[nodiscard]] bool open_listen(int port);
  void close();
  bool valid() const { return fd >= 0; }

  void set_destination(const Address& a) { destination = a; }
  // sendto the destination (or `to`); true if the whole text went out. An empty text or
  // a port of 0 sends nothing.
  bool send(const String& text);
  bool send_to(const String& text, const Address& to);
  // One datagram of at most 65,536 bytes; on error or nothing to read both are empty.
  bool receive(String& text, Address& from);

  bool set_tos(const String& dscp);
  bool join_multicast(const String& group, const String& interface_adr);
  bool set_multicast_ttl(int ttl);

  // The local address to state towards `peer`: the bound address, or for a socket on an
  // any-address the address packets to `peer` leave from.
  Address local_for(const String& peer);

  bool ipv6 = false;
  int fd = -1;
  int port = 0;
  Address destination;
  Address local;

 private:
  std::map<String, String> local_by_peer_;
};

// The DSCP text of a TOS setting ("46", "cs5", "af41", "ef") as the TOS byte.
int dscp_value(const String& text);

// How a socket on an any-address finds its local address towards a peer; filled in by
// the interface code, which knows the routing list. Without it, the kernel is asked.
using LocalAddressLookup = String (*)(const String& peer);
void set_local_address_lookup(LocalAddressLookup lookup);
String local_address_towards(const String& peer);
// The address the kernel would send from towards `peer`, without the lookup hook.
String kernel_local_address(const String& peer);
