#include "core/ntp_server.h"

#include "core/command_line.h"
#include "core/location_scope.h"
#include "core/ntp.h"
#include "core/statistics.h"
#include "core/tick.h"
#include "core/udp_socket.h"

namespace {

UdpSocket v4, v6;

void add(PollSet& set) {
  set.add(v4.fd, true, false);
  set.add(v6.fd, true, false);
}

void answer(UdpSocket& s, PollSet& set) {
  if (!set.readable(s.fd)) return;
  LocationScope scope("NTP server");
  String request;
  Address from;
  if (!s.receive(request, from)) return;
  usage_add(String("ntp"));
  String reply = ntp_reply(request, WallTime::now().ms, from.adr);
  if (!reply.empty()) s.send_to(reply, from);
}

void serve(PollSet& set, Tick) {
  answer(v4, set);
  answer(v6, set);
}

}  // namespace

void ntp_bind() {
  v4.close();
  v6.close();
  String setting = core_setting("ip_ntp_port");
  if (!setting.is_int()) return;
  int port = setting.to_int();
  if (startup_options.use_ipv4) (void)v4.open(port, any_ipv4);
  if (startup_options.use_ipv6) (void)v6.open(port, any_ipv6);
}

int ntp_port() { return v4.valid() ? v4.port : v6.valid() ? v6.port : 0; }

LoopParty ntp_party() { return LoopParty{40, add, serve}; }
