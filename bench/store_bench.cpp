// The table store: cell reads, indexed searches among a million rows (against an indexed
// in-memory SQLite table, where present), appends of call records, and the start of a
// million call records from their journals.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/files.h"
#include "core/pool.h"
#include "core/format.h"
#include "store/journal.h"
#include "store/lazy_table.h"
#include "store/schema.h"
#include "store/table.h"
#include "store/table_files.h"

#if defined(EXCH_HAVE_SQLITE) && __has_include(<sqlite3.h>)
#include <sqlite3.h>
#define HAVE_SQLITE 1
#endif

namespace {

constexpr int million = 1000000;

// Where the files of the benchmarks go: a memory file system if there is one, so that the
// numbers show the store rather than the disk.
std::string bench_root() {
  const char* env = getenv("STORE_BENCH_DIR");
  std::string base = env ? env : (is_directory(String("/dev/shm")) ? "/dev/shm" : "/tmp");
  static std::string dir;
  if (dir.empty()) {
    dir = base + "/store-bench-" + std::to_string(getpid());
    make_path(String(dir.c_str()) + "/");
  }
  return dir;
}

void remove_root() {
  std::string cmd = "rm -rf " + bench_root();
  if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", bench_root().c_str());
}

std::unique_ptr<LazyTable> make_cdr(const std::string& dir) {
  auto t = std::make_unique<LazyTable>(String("cdr"));
  for (int i = 0; i < schema_table_count; i++) {
    if (String(schema_tables[i].name) != "cdr") continue;
    for (const SchemaColumn& c : schema_columns(schema_tables[i])) t->add_column(c.name, c.indexed);
  }
  make_path(String(dir.c_str()) + "/");
  t->load(String(dir.c_str()));
  return t;
}

// Cells of a plausible call record.
struct CdrValues {
  std::mt19937 rng{42};
  String call_id(int n) { return format("%08x%08x@pbx.example.test", n, static_cast<unsigned>(n * 2654435761u)); }
  String domain() { return format("d%d.example.test", static_cast<int>(rng() % 20)); }
  String number() { return format("%d", 100 + static_cast<int>(rng() % 2000)); }
  String day(int n) { return format("2026%02d%02d", 1 + n % 12, 1 + n % 28); }
};

int64_t resident_bytes() {
  String statm = read_file(String("/proc/self/statm"));
  return static_cast<int64_t>(statm.word(1, ' ').to_int64()) * sysconf(_SC_PAGESIZE);
}

// --- cell reads ---

struct DomainsFixture {
  std::unique_ptr<Table> table;
  std::vector<int> rows;
  int column = 0;
  DomainsFixture() {
    table = std::make_unique<Table>(String("domains"));
    table->set_persist(false);
    for (const SchemaColumn& c : schema_columns(schema_tables[0])) {
      table->add_column(c.name, c.indexed, c.encrypted);
    }
    std::mt19937 rng(1);
    for (int r = 1; r <= 10000; r++) {
      for (int k = 0; k < 12; k++) {
        table->set(r, static_cast<int>(rng() % 270), String(static_cast<int>(rng())));
      }
      table->set(r, 100, "x");
    }
    for (int i = 0; i < 4096; i++) rows.push_back(1 + static_cast<int>(rng() % 10000));
    column = 100;
  }
};

DomainsFixture& domains() {
  static DomainsFixture f;
  return f;
}

void BM_TableCellByIndex(benchmark::State& state) {
  DomainsFixture& f = domains();
  size_t i = 0;
  for (auto _ : state) {
    const String& v = f.table->cell(f.rows[i++ & 4095], f.column);
    benchmark::DoNotOptimize(v.length());
  }
}
BENCHMARK(BM_TableCellByIndex);

void BM_TableCellByName(benchmark::State& state) {
  DomainsFixture& f = domains();
  const String name = f.table->column_name(f.column);
  size_t i = 0;
  for (auto _ : state) {
    String v = f.table->get(f.rows[i++ & 4095], name);
    benchmark::DoNotOptimize(v.length());
  }
}
BENCHMARK(BM_TableCellByName);

// --- searches among a million rows ---

struct MillionFixture {
  std::unique_ptr<Table> table;
  std::vector<String> keys;
  MillionFixture() {
    table = std::make_unique<Table>(String("million"));
    table->set_persist(false);
    table->add_column(String("i"), true);
    table->add_column(String("d"), true);
    CdrValues v;
    for (int r = 1; r <= million; r++) {
      table->set(r, 0, v.call_id(r));
      table->set(r, 1, v.domain());
    }
    for (int i = 0; i < 4096; i++) keys.push_back(v.call_id(1 + static_cast<int>(v.rng() % million)));
  }
};

MillionFixture& million_rows() {
  static MillionFixture f;
  return f;
}

void BM_TableIndexedSearch1M(benchmark::State& state) {
  MillionFixture& f = million_rows();
  const String column("i");
  size_t i = 0;
  for (auto _ : state) {
    int r = f.table->find_first(column, f.keys[i++ & 4095]);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_TableIndexedSearch1M);

void BM_TableIndexedFindAll1M(benchmark::State& state) {
  MillionFixture& f = million_rows();
  const String column("i");
  size_t i = 0;
  for (auto _ : state) {
    RowSet rows = f.table->find_all(column, f.keys[i++ & 4095]);
    benchmark::DoNotOptimize(rows.first());
  }
}
BENCHMARK(BM_TableIndexedFindAll1M);

#ifdef HAVE_SQLITE
struct SqliteFixture {
  sqlite3* db = nullptr;
  sqlite3_stmt* query = nullptr;
  std::vector<std::string> keys;
  SqliteFixture() {
    sqlite3_open(":memory:", &db);
    sqlite3_exec(db, "CREATE TABLE cdr(id INTEGER PRIMARY KEY, i TEXT, d TEXT);", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert;
    sqlite3_prepare_v2(db, "INSERT INTO cdr(id, i, d) VALUES(?, ?, ?)", -1, &insert, nullptr);
    CdrValues v;
    for (int r = 1; r <= million; r++) {
      String id = v.call_id(r), d = v.domain();
      sqlite3_bind_int(insert, 1, r);
      sqlite3_bind_text(insert, 2, id.c_data(), id.length(), SQLITE_TRANSIENT);
      sqlite3_bind_text(insert, 3, d.c_data(), d.length(), SQLITE_TRANSIENT);
      sqlite3_step(insert);
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "CREATE INDEX cdr_i ON cdr(i); CREATE INDEX cdr_d ON cdr(d);", nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(db, "SELECT id FROM cdr WHERE i = ? ORDER BY id LIMIT 1", -1, &query, nullptr);
    for (int i = 0; i < 4096; i++) {
      String k = v.call_id(1 + static_cast<int>(v.rng() % million));
      keys.emplace_back(k.c_data(), k.length());
    }
  }
};

void BM_SqliteIndexedSearch1M(benchmark::State& state) {
  static SqliteFixture f;
  size_t i = 0;
  for (auto _ : state) {
    const std::string& k = f.keys[i++ & 4095];
    sqlite3_bind_text(f.query, 1, k.data(), static_cast<int>(k.size()), SQLITE_STATIC);
    int r = sqlite3_step(f.query) == SQLITE_ROW ? sqlite3_column_int(f.query, 0) : 0;
    sqlite3_reset(f.query);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_SqliteIndexedSearch1M);
#endif

// --- call records ---

void BM_LazyAppendCdrRow(benchmark::State& state) {
  std::string dir = bench_root() + "/append";
  auto cdr = make_cdr(dir);
  CdrValues v;
  int n = 0;
  std::vector<int> columns;
  for (const char* c : {"i", "d", "f", "t", "w", "r", "p", "t0", "t1", "t2", "y", "n"}) {
    columns.push_back(cdr->column_index(String(c)));
  }
  for (auto _ : state) {
    state.PauseTiming();
    n++;
    String cells[] = {v.call_id(n), v.domain(), v.number(), v.number(), "false", "", "",
                      "1763800000", "1763800005", "1763800065", v.day(n), "1"};
    state.ResumeTiming();
    int r = cdr->create_row();
    for (size_t k = 0; k < columns.size(); k++) cdr->set(r, columns[k], cells[k], k + 1 == columns.size());
  }
  state.counters["rows"] = cdr->row_count();
}
BENCHMARK(BM_LazyAppendCdrRow)->Iterations(20000)->Unit(benchmark::kMicrosecond);

// A million call records written through the journal code, as the writes of a running
// system would leave them (one "r", "c", "s" run per row, no compaction), then loaded.
void write_million_journal(const std::string& dir) {
  auto cdr = make_cdr(dir);  // for the column names
  CdrValues v;
  const char* const indexed[] = {"i", "d", "f", "t", "y", "n"};
  String bucket;
  int current = 0;
  make_path(String(dir.c_str()) + "/index/");
  auto flush = [&]() {
    if (!bucket.empty()) (void)write_file(bucket, String(format("%s/index/%d.bin", String(dir.c_str()), current)));
    bucket = String();
  };
  for (int r = 1; r <= million; r++) {
    if (r / LazyTable::bucket_rows != current) {
      flush();
      current = r / LazyTable::bucket_rows;
    }
    String cells[] = {v.call_id(r), v.domain(), v.number(), v.number(), v.day(r), "1"};
    journal_put_row(bucket, r);
    for (int k = 0; k < 6; k++) {
      journal_put_column(bucket, String(indexed[k]));
      journal_put_set(bucket, cells[k]);
    }
  }
  flush();
  (void)write_next_id(String(dir.c_str()), million + 1);
}

void BM_LazyLoadMillionCdr(benchmark::State& state) {
  std::string dir = bench_root() + "/million";
  write_million_journal(dir);
  int64_t before = resident_bytes();
  uint64_t taken_before = pool_counters().bytes_taken - pool_counters().bytes_given_back;
  int64_t used = 0;
  for (auto _ : state) {
    auto cdr = make_cdr(dir);
    used = resident_bytes() - before;
    state.counters["heap_MB"] =
        static_cast<double>(pool_counters().bytes_taken - pool_counters().bytes_given_back - taken_before) / 1e6;
    benchmark::DoNotOptimize(cdr->row_count());
    state.counters["rows"] = cdr->row_count();
    state.PauseTiming();
    cdr.reset();
    state.ResumeTiming();
  }
  state.counters["MB"] = static_cast<double>(used) / 1e6;
}
BENCHMARK(BM_LazyLoadMillionCdr)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_LazyIndexedSearchMillionCdr(benchmark::State& state) {
  std::string dir = bench_root() + "/million";
  if (!is_directory(String((dir + "/index").c_str()))) write_million_journal(dir);
  static auto cdr = make_cdr(dir);
  CdrValues v;
  std::vector<String> keys;
  for (int i = 0; i < 4096; i++) keys.push_back(v.call_id(1 + static_cast<int>(v.rng() % million)));
  const String column("i");
  size_t i = 0;
  for (auto _ : state) {
    int r = cdr->find_first(column, keys[i++ & 4095]);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_LazyIndexedSearchMillionCdr);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  remove_root();
  return 0;
}
