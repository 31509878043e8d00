// Feeds arbitrary bytes to the readers of the store's files: a row file of either form
// and a bucket journal.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/string.h"
#include "store/journal.h"
#include "store/row_file.h"

namespace {
struct Sink : JournalSink {
  int64_t seen = 0;
  void on_row(int64_t row) override { seen += row; }
  void on_set(int64_t row, const String& column, const String& value) override {
    seen += row + column.length() + value.length();
  }
  void on_delete(int64_t row) override { seen -= row; }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  String in(reinterpret_cast<const char*>(data), static_cast<int>(size));
  String id, error;
  std::vector<RowRecord> records;
  decode_row_file(in, id, records, error);
  Sink sink;
  JournalReplay r = replay_journal(in, sink);
  if (r.consumed > in.length()) __builtin_trap();
  return 0;
}
