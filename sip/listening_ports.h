// Port lists of the settings and the UDP sockets bound from them. A list holds
// blank-separated items: a bare port binds every enabled family's any-address, and
// "address:port" binds that address.
#pragma once

#include <memory>
#include <vector>

#include "core/udp_socket.h"

struct PortItem {
  String adr;  // 4 or 16 bytes
  int port;
};

// Expands a port list. A port outside 1..65535 is replaced by `default_port` with the
// log line "<name>: Port number %d is invalid, taking %d instead".
std::vector<PortItem> expand_port_list(const String& text, int default_port, const char* name);

// The UDP sockets of one service (SIP, TFTP, SNMP, SYSLOG), rebuilt whole when the
// setting changes. Owned by the control loop.
class UdpPortList {
 public:
  UdpPortList(const char* name, int default_port) : name_(name), default_port_(default_port) {}
  // Binds `setting` unless it is the text applied last. SIP sockets on IPv4 also join
  // the SIP discovery group.
  void apply(const String& setting, const String& tos);
  void close_all();
  const std::vector<std::unique_ptr<UdpSocket>>& sockets() const { return sockets_; }
  UdpSocket* by_port(int port) const;
  // The first socket of the family of `adr` (4 or 16 bytes).
  UdpSocket* first_of_family(const String& adr) const;

 private:
  const char* name_;
  int default_port_;
  bool applied_ = false;
  String applied_text_;
  std::vector<std::unique_ptr<UdpSocket>> sockets_;
};

extern UdpPortList sip_udp_ports;
// Applies `ip_sip_udp_port` and `tos_sip`; the start step of the SIP ports.
void bind_sip_udp_ports();
