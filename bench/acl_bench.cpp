// acl_check with 1,000 manual and 100,000 automatic entries: the cost that every
// received UDP datagram pays.
#include <benchmark/benchmark.h>

#include <vector>

#include "core/address.h"
#include "sip/access_control.h"

namespace {

String v4(uint32_t v) {
  return String::bytes(static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v));
}

void fill() {
  acl_reset();
  std::vector<AclRow> rows;
  const char* const masks[] = {"32", "24", "16", "28"};
  for (int i = 0; i < 1000; i++) {
    uint32_t adr = 0x0a000000u + (static_cast<uint32_t>(i) << 8);  // 10.x.y.0
    rows.push_back({i + 1, adr_text(v4(adr)), masks[i % 4], i % 3 ? "white" : "black", "bench"});
  }
  (void)acl_load_manual(rows);
  for (uint32_t i = 0; i < 100000; i++) {
    Address a(v4(0xc0000000u + i), 5060);  // 192.0.x.y
    if (i % 2) acl_allow(a, 48, true, acl_class_udp, 3600, String("reg"));
    else acl_allow(a, 32, false, acl_class_udp, 3600, String("black"));
  }
}

// The three outcomes: a manual hit, an automatic hit, and an unknown source that
// walks all maps.
void BM_AclCheck(benchmark::State& state) {
  fill();
  std::vector<Address> probes;
  for (uint32_t i = 0; i < 1024; i++) {
    switch (state.range(0)) {
      case 0: probes.emplace_back(v4(0x0a000000u + ((i % 1000) << 8)), 5060); break;
      case 1: probes.emplace_back(v4(0xc0000000u + i * 97), 5060); break;
      default: probes.emplace_back(v4(0xcb007100u + i), 5060); break;
    }
  }
  size_t n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(acl_check(probes[n++ & 1023], acl_class_udp));
  }
  acl_reset();
}
BENCHMARK(BM_AclCheck)->Arg(0)->Arg(1)->Arg(2)->ArgNames({"manual_auto_unknown"});

}  // namespace

BENCHMARK_MAIN();
