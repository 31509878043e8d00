// The control loop's receive path for SIP over UDP: read a datagram, frame it, post it to
// the service half; the service half's consumer drops what arrives.
#include <benchmark/benchmark.h>

#include "core/posting.h"
#include "core/udp_socket.h"
#include "sip/listening_ports.h"
#include "sip/sip_receive.h"

static void drop(const String&) {}

static void BM_SipUdpReceivePath(benchmark::State& state) {
  register_service_handler(tag_sip_received, drop);
  UdpSocket probe;
  if (!probe.open(0, any_ipv4)) return;
  int port = probe.port;
  probe.close();
  sip_udp_ports.apply(format("127.0.0.1:%d", port), String());
  UdpSocket* pbx = sip_udp_ports.by_port(port);
  UdpSocket phone;
  if (!pbx || !phone.open(0, parse_adr(String("127.0.0.1")))) return;
  String text("REGISTER sip:pbx.test SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:5062;branch=z9hG4bK1;rport\r\n"
              "From: <sip:1001@pbx.test>;tag=1\r\nTo: <sip:1001@pbx.test>\r\nCall-ID: bench\r\n"
              "CSeq: 1 REGISTER\r\nContact: <sip:1001@127.0.0.1:5062>\r\nExpires: 3600\r\nContent-Length: 0\r\n\r\n");
  Address to(parse_adr(String("127.0.0.1")), port);
  long handled = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < 64; i++) (void)phone.send_to(text, to);
    state.ResumeTiming();
    String got;
    Address from;
    while (pbx->receive(got, from)) {
      sip_udp_datagram(*pbx, got, from);
      handled++;
    }
    pbxsrv_soap();
  }
  state.SetItemsProcessed(handled);
  sip_udp_ports.close_all();
}
BENCHMARK(BM_SipUdpReceivePath)->Iterations(2000);

BENCHMARK_MAIN();
