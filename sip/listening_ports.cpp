#include "sip/listening_ports.h"

#include <cstring>

#include "core/command_line.h"
#include "core/format.h"
#include "core/log.h"
#include "core/server.h"

UdpPortList sip_udp_ports("SIP", 5060);

namespace {

const String sip_discovery_group("224.0.1.75");

void log_text(int level, const String& text) {
  if (log_enabled(LOG_GENERAL, level)) log_add_message_global(LOG_GENERAL, level, 0, text);
}

int checked_port(const String& text, int default_port, const char* name) {
  int port = text.to_int();
  if (port < 1 || port > 65535) {
    log_text(1, format("%s: Port number %d is invalid, taking %d instead", name, port, default_port));
    return default_port;
  }
  return port;
}

}  // namespace

std::vector<PortItem> expand_port_list(const String& text, int default_port, const char* name) {
  std::vector<PortItem> out;
  for (const String& item : text.split(' ')) {
    String port_text = port_part(item);
    if (port_text.empty() && !item.contains(':') && !item.contains('.')) {
      int port = checked_port(item, default_port, name);
      if (startup_options.use_ipv4) out.push_back({any_ipv4, port});
      if (startup_options.use_ipv6) out.push_back({any_ipv6, port});
      continue;
    }
    String adr = parse_adr(host_part(item));
    if (adr.empty()) {
      log_text(1, format("%s: Cannot use address %s", name, item));
      continue;
    }
    out.push_back({adr, port_text.empty() ? default_port : checked_port(port_text, default_port, name)});
  }
  return out;
}

void UdpPortList::close_all() {
  sockets_.clear();
  applied_ = false;
  applied_text_ = String();
}

void UdpPortList::apply(const String& setting, const String& tos) {
  if (applied_ && setting == applied_text_) return;
  sockets_.clear();
  applied_ = true;
  applied_text_ = setting;
  for (const PortItem& item : expand_port_list(setting, default_port_, name_)) {
    auto s = std::make_unique<UdpSocket>();
    if (!s->open(item.port, item.adr)) {
      log_text(1, format("Could not open UDP port %d for %s", item.port, name_));
      continue;
    }
    (void)s->set_tos(tos);
    if (strcmp(name_, "SIP") == 0 && item.adr.length() == 4)
      (void)s->join_multicast(sip_discovery_group, is_any_adr(item.adr) ? String() : item.adr);
    sockets_.push_back(std::move(s));
  }
}

UdpSocket* UdpPortList::by_port(int port) const {
  for (const auto& s : sockets_)
    if (s->port == port) return s.get();
  return nullptr;
}

UdpSocket* UdpPortList::first_of_family(const String& adr) const {
  for (const auto& s : sockets_)
    if (s->ipv6 == (adr.length() == 16)) return s.get();
  return nullptr;
}

void bind_sip_udp_ports() {
  String setting = core_setting("ip_sip_udp_port");
  sip_udp_ports.apply(setting, core_setting("tos_sip"));
}
