// Json parse speed (issue 5): a 1 MB document of REST-like objects, against nlohmann-json
// (Debian nlohmann-json3-dev, "scripts/deps.sh bench") in the same run when it is there.
// Target: at least 1.5 times nlohmann's speed.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "core/json.h"

#if __has_include(<nlohmann/json.hpp>)
#include <nlohmann/json.hpp>
#define EXCH_HAVE_NLOHMANN 1
#endif

namespace {

// About 1 MB: an array of account-like objects as the REST API sends and receives them.
const std::string& rest_document() {
  static const std::string doc = [] {
    std::string out = "[";
    char item[1024];
    for (int i = 0; out.size() < (1 << 20); i++) {
      snprintf(item, sizeof item,
               "%s{\"id\":\"%d\",\"domain\":\"pbx%d.example.com\",\"type\":\"extension\","
               "\"name\":\"User %d\",\"first_name\":\"Given%d\",\"last_name\":\"Family\","
               "\"email\":\"user%d@example.com\",\"extension\":\"%d\",\"alias\":[\"%d\",\"u%d\"],"
               "\"active\":%s,\"dnd\":false,\"created\":%d,\"balance\":%d.%02d,"
               "\"settings\":{\"language\":\"en\",\"timezone\":\"Europe/Berlin\","
               "\"mailbox\":{\"enabled\":true,\"pin\":\"%04d\",\"greeting\":null}},"
               "\"note\":\"line one\\nline \\\"two\\\" caf\\u00e9\"}",
               i ? "," : "", 1000 + i, i % 7, i, i, i, 100 + i, 100 + i, i, i % 3 ? "true" : "false",
               1690000000 + i * 37, i * 3, i % 100, i % 10000);
      out += item;
    }
    out += "]";
    return out;
  }();
  return doc;
}

// One request body of the REST API, for the cost of a call on a small document.
const char small_document[] =
    "{\"name\":\"Alice\",\"extension\":\"201\",\"email\":\"alice@example.com\","
    "\"permissions\":[\"call\",\"park\"],\"mailbox\":{\"enabled\":true,\"pin\":\"1234\"},"
    "\"limit\":25}";

void BM_ExchJsonParseSmall(benchmark::State& state) {
  String text(small_document);
  for (auto _ : state) {
    Json j(text);
    benchmark::DoNotOptimize(j);
  }
}
BENCHMARK(BM_ExchJsonParseSmall);

void BM_ExchJsonParse(benchmark::State& state) {
  String text(rest_document().data(), static_cast<int>(rest_document().size()));
  for (auto _ : state) {
    Json j(text);
    benchmark::DoNotOptimize(j);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(rest_document().size()));
}
BENCHMARK(BM_ExchJsonParse)->Unit(benchmark::kMillisecond);

void BM_ExchJsonParseAndRead(benchmark::State& state) {
  String text(rest_document().data(), static_cast<int>(rest_document().size()));
  for (auto _ : state) {
    Json j(text);
    int64_t sum = 0;
    for (const Json& e : j.elements()) {
      sum += e.get_string("name").length() + e.get_int64("created");
      sum += e.get_object("settings").get_object("mailbox").get_bool("enabled");
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(rest_document().size()));
}
BENCHMARK(BM_ExchJsonParseAndRead)->Unit(benchmark::kMillisecond);

void BM_ExchJsonWrite(benchmark::State& state) {
  Json j(String(rest_document().data(), static_cast<int>(rest_document().size())));
  for (auto _ : state) {
    String out = j.to_string();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(rest_document().size()));
}
BENCHMARK(BM_ExchJsonWrite)->Unit(benchmark::kMillisecond);

#ifdef EXCH_HAVE_NLOHMANN
void BM_NlohmannParseSmall(benchmark::State& state) {
  std::string text(small_document);
  for (auto _ : state) {
    nlohmann::json j = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(j);
  }
}
BENCHMARK(BM_NlohmannParseSmall);

void BM_NlohmannParse(benchmark::State& state) {
  const std::string& text = rest_document();
  for (auto _ : state) {
    nlohmann::json j = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(j);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_NlohmannParse)->Unit(benchmark::kMillisecond);

void BM_NlohmannParseAndRead(benchmark::State& state) {
  const std::string& text = rest_document();
  for (auto _ : state) {
    nlohmann::json j = nlohmann::json::parse(text);
    int64_t sum = 0;
    for (const auto& e : j) {
      sum += e["name"].get_ref<const std::string&>().size() + e["created"].get<int64_t>();
      sum += e["settings"]["mailbox"]["enabled"].get<bool>();
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_NlohmannParseAndRead)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
