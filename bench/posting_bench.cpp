// Round trip of a posted message from the control half to the service half and back,
// through the real threads and queues.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "core/mutex.h"
#include "core/posting.h"
#include "core/server.h"
#include "core/tagged_text.h"
#include "core/tick.h"
#include "core/wakeup.h"

static Wakeup returned;

static void echo(const String& value) {
  TaggedText back;
  (void)back.add(2, value);
  out_post(back.text());
}

static void arrived(const String&) { returned.signal(); }

static void BM_PostRoundTrip(benchmark::State& state) {
  register_service_handler(1, echo);
  register_control_handler(2, arrived);
  server_start_threads();
  TaggedText m;
  (void)m.add(1, String("ping"));
  std::vector<int64_t> samples;
  for (auto _ : state) {
    Tick start = Tick::now();
    pbxsrv_post(m.text());
    pbxsrv_flush();
    returned.wait(1000);
    samples.push_back(Tick::now().ns - start.ns);
  }
  server_stop_threads();
  single_threaded.store(true);
  std::sort(samples.begin(), samples.end());
  state.counters["p50_us"] = samples[samples.size() / 2] / 1000.0;
  state.counters["p99_us"] = samples[samples.size() * 99 / 100] / 1000.0;
}
BENCHMARK(BM_PostRoundTrip)->Iterations(20000)->UseRealTime();

BENCHMARK_MAIN();
