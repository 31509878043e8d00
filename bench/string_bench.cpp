// String copies and substrings against std::string, the pool against malloc, format
// against snprintf, and the JSON escape's throughput.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/format.h"
#include "core/pool.h"
#include "core/string.h"

static void BM_StringCopy(benchmark::State& state) {
  String s = String::repeat('x', static_cast<int>(state.range(0)));
  for (auto _ : state) {
    String c = s;
    benchmark::DoNotOptimize(c);
  }
}
BENCHMARK(BM_StringCopy)->Arg(16)->Arg(256)->Arg(4096);

static void BM_StdStringCopy(benchmark::State& state) {
  std::string s(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    std::string c = s;
    benchmark::DoNotOptimize(c);
  }
}
BENCHMARK(BM_StdStringCopy)->Arg(16)->Arg(256)->Arg(4096);

// std::string on the C library's allocator, as it would be without our pools.
template <class T>
struct MallocAllocator {
  using value_type = T;
  MallocAllocator() = default;
  template <class U>
  MallocAllocator(const MallocAllocator<U>&) {}
  T* allocate(size_t n) { return static_cast<T*>(malloc(n * sizeof(T))); }
  void deallocate(T* p, size_t) { free(p); }
  bool operator==(const MallocAllocator&) const { return true; }
};
using MallocString = std::basic_string<char, std::char_traits<char>, MallocAllocator<char>>;

static void BM_StdStringMallocCopy(benchmark::State& state) {
  MallocString s(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    MallocString c = s;
    benchmark::DoNotOptimize(c);
  }
}
BENCHMARK(BM_StdStringMallocCopy)->Arg(16)->Arg(256)->Arg(4096);

static void BM_StdStringMallocSubstr(benchmark::State& state) {
  MallocString s(static_cast<size_t>(state.range(0)) + 8, 'x');
  for (auto _ : state) {
    MallocString c = s.substr(4, static_cast<size_t>(state.range(0)));
    benchmark::DoNotOptimize(c);
  }
}
BENCHMARK(BM_StdStringMallocSubstr)->Arg(16)->Arg(256)->Arg(4096);

static void BM_StringSubstr(benchmark::State& state) {
  String s = String::repeat('x', static_cast<int>(state.range(0)) + 8);
  for (auto _ : state) {
    String c = s.substr(4, static_cast<int>(state.range(0)));
    benchmark::DoNotOptimize(c);
  }
}
BENCHMARK(BM_StringSubstr)->Arg(16)->Arg(256)->Arg(4096);

static void BM_StdStringSubstr(benchmark::State& state) {
  std::string s(static_cast<size_t>(state.range(0)) + 8, 'x');
  for (auto _ : state) {
    std::string c = s.substr(4, static_cast<size_t>(state.range(0)));
    benchmark::DoNotOptimize(c);
  }
}
BENCHMARK(BM_StdStringSubstr)->Arg(16)->Arg(256)->Arg(4096);

static void BM_PoolMallocFree(benchmark::State& state) {
  size_t n = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p = pool_malloc(n);
    benchmark::DoNotOptimize(p);
    pool_free(p);
  }
}
BENCHMARK(BM_PoolMallocFree)->Arg(24)->Arg(200)->Arg(3000);

static void BM_MallocFree(benchmark::State& state) {
  size_t n = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p = malloc(n);
    benchmark::DoNotOptimize(p);
    free(p);
  }
}
BENCHMARK(BM_MallocFree)->Arg(24)->Arg(200)->Arg(3000);

static void BM_FormatLogLine(benchmark::State& state) {
  String user("alice"), addr("192.168.1.20"), agent("Desk Phone 3.1");
  for (auto _ : state) {
    String s = format("Registration of %s from %s (%s) for %d seconds, attempt %d", user, addr, agent,
                      3600, 2);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_FormatLogLine);

static void BM_SnprintfLogLine(benchmark::State& state) {
  const char *user = "alice", *addr = "192.168.1.20", *agent = "Desk Phone 3.1";
  for (auto _ : state) {
    char buf[256];
    int n = snprintf(buf, sizeof buf, "Registration of %s from %s (%s) for %d seconds, attempt %d", user,
                     addr, agent, 3600, 2);
    std::string s(buf, static_cast<size_t>(n));
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_SnprintfLogLine);

static void BM_JsonEscape1KiB(benchmark::State& state) {
  String unit("Grüße aus Köln, \"quoted\" \\ tab\t € 😀 plain ascii text here. ");
  String text;
  while (text.length() < 1024) text.append(unit);
  text = text.head(1024);
  while (!text.is_utf8()) text = text.head(text.length() - 1);
  for (auto _ : state) {
    String s = format("%j", text);
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.length());
}
BENCHMARK(BM_JsonEscape1KiB);

BENCHMARK_MAIN();
