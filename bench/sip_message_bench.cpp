// Parsing a REGISTER and reading the fields a registrar needs first, against sofia-sip
// when it is installed; serialising a 200 response to it.
#include <benchmark/benchmark.h>

#include <string>

#include "core/pool.h"
#include "sip/message_text.h"
#include "sip/sip_message.h"

#if __has_include(<sofia-sip/sip.h>)
#include <sofia-sip/msg.h>
#include <sofia-sip/sip.h>
#include <sofia-sip/sip_header.h>
#include <sofia-sip/sip_protos.h>
#define HAVE_SOFIA 1
#endif

// Pool blocks in use: every String buffer and, outside sanitizer builds, every operator
// new comes from the pools, so this counts what a parse allocates.
static long blocks_in_use() {
  long n = 0;
  for (int c = 0; c < pool_classes; c++) {
    uint64_t total, free_now;
    pool_class_counts(c, total, free_now);
    n += static_cast<long>(total - free_now);
  }
  return n;
}

namespace {

const char register_text[] =
    "REGISTER sip:pbx.example.com;transport=udp SIP/2.0\r\n"
    "Via: SIP/2.0/UDP 192.168.178.33:5060;branch=z9hG4bK-524287-1---8e3f1d2a7b6c5d4e;rport\r\n"
    "Max-Forwards: 70\r\n"
    "Contact: <sip:1001@192.168.178.33:5060;rinstance=a1b2c3d4e5f60718;transport=udp>;+sip.instance=\"<urn:uuid:00000000-0000-1000-8000-000a95a0e128>\";reg-id=1;expires=3600\r\n"
    "To: \"Alice Example\" <sip:1001@pbx.example.com;transport=udp>\r\n"
    "From: \"Alice Example\" <sip:1001@pbx.example.com;transport=udp>;tag=8f2a6c1d\r\n"
    "Call-ID: MzY4NjQ1ZGQ3YjI5YzE0ZTk1NzI0NmEyMTFjNGVlMTg.\r\n"
    "CSeq: 2 REGISTER\r\n"
    "Expires: 3600\r\n"
    "Allow: INVITE, ACK, CANCEL, BYE, NOTIFY, REFER, MESSAGE, OPTIONS, INFO, SUBSCRIBE\r\n"
    "Supported: replaces, norefersub, timer, outbound, path\r\n"
    "User-Agent: Example Softphone 5.1.2\r\n"
    "Authorization: Digest username=\"1001\",realm=\"pbx.example.com\",nonce=\"1f2e3d4c5b6a79880011\",uri=\"sip:pbx.example.com;transport=udp\",response=\"0a4d6a1cadbbdb033a11e0251c1c129c\",algorithm=MD5\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

void BM_ParseRegister(benchmark::State& state) {
  String text(register_text);
  long allocations = 0;
  {
    long before = blocks_in_use();
    SipMessage m(text);
    (void)m.from.uri().user();
    (void)param_value(m.via[0], "branch", ';');
    (void)m.contact[0].uri().host();
    allocations = blocks_in_use() - before;
  }
  for (auto _ : state) {
    SipMessage m(text);
    benchmark::DoNotOptimize(m.from.uri().user().length());
    benchmark::DoNotOptimize(param_value(m.via[0], "branch", ';').length());
    benchmark::DoNotOptimize(m.cseq);
    benchmark::DoNotOptimize(m.contact[0].uri().host().length());
    benchmark::DoNotOptimize(m.contact[0].uri().port().length());
  }
  state.counters["bytes"] = static_cast<double>(text.length());
  state.counters["blocks_per_parse"] = static_cast<double>(allocations);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParseRegister);

#ifdef HAVE_SOFIA
void BM_ParseRegisterSofia(benchmark::State& state) {
  std::string text(register_text);
  msg_mclass_t const* mc = sip_default_mclass();
  for (auto _ : state) {
    msg_t* msg = msg_make(mc, 0, text.data(), text.size());
    sip_t* sip = sip_object(msg);
    benchmark::DoNotOptimize(sip->sip_from->a_url->url_user);
    benchmark::DoNotOptimize(sip->sip_via->v_branch);
    benchmark::DoNotOptimize(sip->sip_cseq->cs_seq);
    benchmark::DoNotOptimize(sip->sip_contact->m_url->url_host);
    benchmark::DoNotOptimize(sip->sip_contact->m_url->url_port);
    msg_destroy(msg);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParseRegisterSofia);
#endif

SipMessage ok_response() {
  SipMessage request{String(register_text)};
  SipMessage r(200, "OK", request);
  r.to.set_tag("a6c85cf9e2");
  r.contact.push_back(request.contact[0]);
  r.add_header("Date", "Sun, 22 Nov 2026 22:00:00 GMT");
  r.expires = "3600";
  return r;
}

void BM_SerialiseOkToRegister(benchmark::State& state) {
  SipMessage r = ok_response();
  for (auto _ : state) {
    TaggedText t = r.serialise(Transport::udp);
    benchmark::DoNotOptimize(t.length());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SerialiseOkToRegister);

void BM_SerialiseAndSendOkToRegister(benchmark::State& state) {
  SipMessage r = ok_response();
  LocalEnd local = parse_local_end("192.168.178.1:5060");
  String transport("udp");
  for (auto _ : state) {
    String text = message_text(r.serialise(Transport::udp), local, String(), transport);
    benchmark::DoNotOptimize(text.length());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SerialiseAndSendOkToRegister);

}  // namespace

BENCHMARK_MAIN();
