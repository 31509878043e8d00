// The settings on their hot path and on disk, and backup and restore of a large store.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "core/format.h"
#include "store/backup.h"
#include "store/names.h"
#include "store/registry.h"
#include "store/schema.h"
#include "store/settings.h"

namespace {

std::string make_temp_dir() {
  char pattern[] = "/tmp/exch-bench-XXXXXX";
  const char* made = mkdtemp(pattern);
  return made ? made : "/tmp";
}

void remove_dir(const std::string& path) {
  std::string command = "rm -rf " + path;
  if (system(command.c_str()) != 0) return;
}

}  // namespace

static void BM_CtrlReadRegistry(benchmark::State& state) {
  reset_registry();
  for (auto _ : state) benchmark::DoNotOptimize(ctrl_read_registry(reg_ip_http_port));
}
BENCHMARK(BM_CtrlReadRegistry);

static void BM_CtrlReadRegistryLongValue(benchmark::State& state) {
  reset_registry();
  for (auto _ : state) benchmark::DoNotOptimize(ctrl_read_registry(69));  // blacklist_user_agent
}
BENCHMARK(BM_CtrlReadRegistryLongValue);

static void BM_CtrlReadRegistryComputedCodecList(benchmark::State& state) {
  reset_registry();
  for (auto _ : state) benchmark::DoNotOptimize(ctrl_read_registry(reg_codec_preference));
}
BENCHMARK(BM_CtrlReadRegistryComputedCodecList);

static void BM_RegistryIndexByName(benchmark::State& state) {
  String name("notify_count");
  for (auto _ : state) benchmark::DoNotOptimize(registry_index(name));
}
BENCHMARK(BM_RegistryIndexByName);

// A persisted write: the whole document, written beside the file, flushed with its
// directory, and renamed over it.
static void BM_PersistedWriteWithFsync(benchmark::State& state) {
  std::string dir = make_temp_dir();
  char cwd[4096];
  if (!getcwd(cwd, sizeof cwd) || chdir(dir.c_str()) != 0) return;
  (void)load_settings(String("pbx.xml"));
  int i = 0;
  for (auto _ : state) ctrl_write_registry(77, format("name-%d", i++), true);
  if (chdir(cwd) != 0) return;
  remove_dir(dir);
  reset_registry();
}
BENCHMARK(BM_PersistedWriteWithFsync)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_SettingsDocument(benchmark::State& state) {
  reset_registry();
  for (auto _ : state) benchmark::DoNotOptimize(settings_document());
}
BENCHMARK(BM_SettingsDocument)->Unit(benchmark::kMicrosecond);

// Backup and restore of a store with 10,000 extensions.
static void BM_BackupAndRestore10000Extensions(benchmark::State& state) {
  std::string dir = make_temp_dir();
  char cwd[4096];
  if (!getcwd(cwd, sizeof cwd) || chdir(dir.c_str()) != 0) return;
  (void)load_settings(String("pbx.xml"));
  ctrl_write_registry(registry_index(String("max_tar")), String("0"), false);
  load_tables(String(), false, false);
  Table* ext = find_table(tbl_extensions);
  for (int i = 0; i < 10000; i++) {
    int row = ext->create_row();
    ext->set(row, col_password, format("password-%d", i));
    ext->set(row, String("first_name"), format("Name %d", i), true);
  }
  bool do_restore = state.range(0) == 1;
  String archive;
  make_backup(archive);
  for (auto _ : state) {
    if (do_restore) {
      benchmark::DoNotOptimize(restore(archive));
    } else {
      make_backup(archive);
    }
  }
  state.counters["archive_bytes"] = static_cast<double>(archive.length());
  state.counters["rows"] = ext->row_count();
  if (chdir(cwd) != 0) return;
  remove_dir(dir);
  reset_registry();
}
BENCHMARK(BM_BackupAndRestore10000Extensions)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK_MAIN();
