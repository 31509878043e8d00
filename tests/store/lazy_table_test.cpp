#include "store/lazy_table.h"

#include <gtest/gtest.h>

#include <random>

#include "core/files.h"
#include "store/journal.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

const String col_k("k");
const String col_d("d");
const String col_body("body");

std::unique_ptr<LazyTable> make_lazy(const std::string& dir) {
  auto t = std::make_unique<LazyTable>(String("log"));
  t->add_column(col_k, true);
  t->add_column(col_d, true);
  t->add_column(col_body);
  t->load(S(dir));
  return t;
}

// Everything a start must give back: ids, indexed cells, the plain cells from the files.
struct Snapshot {
  std::vector<int> ids;
  std::map<int, std::vector<String>> cells;
  String stats;
  bool operator==(const Snapshot& o) const { return ids == o.ids && cells == o.cells && stats == o.stats; }
};

Snapshot snapshot(const LazyTable& t) {
  Snapshot s;
  s.ids = t.all_rows().to_vector();
  for (int r : s.ids) s.cells[r] = {t.get(r, col_k), t.get(r, col_d), t.get(r, col_body)};
  s.stats = t.stats();
  return s;
}

}  // namespace

TEST(LazyTableTest, RowsIndicesAndFiles) {
  TempDir dir;
  LogCapture log;
  auto t = make_lazy(dir.path());
  int r1 = t->create_row();
  t->set(r1, col_k, "a");
  t->set(r1, col_body, "text", true);
  int r2 = t->create_row();
  t->set(r2, col_k, "a");
  t->set(r2, col_d, "x", true);
  EXPECT_EQ(t->find_all(col_k, "a").to_vector(), (std::vector<int>{1, 2}));
  EXPECT_EQ(t->find_first(col_k, "a", col_d, "x"), 2);
  EXPECT_EQ(t->count(col_d, ""), 1);
  EXPECT_EQ(t->get(r1, col_body), String("text"));
  EXPECT_TRUE(read_file(S(dir.file("1.xml"))).starts_with("TLVB"));
  EXPECT_EQ(read_file(S(dir.file("index.txt"))), String("3"));
  EXPECT_TRUE(t->get(99, col_k).empty());
  t->set(99, col_k, "ignored", true);
  EXPECT_FALSE(t->has_row(99));

  // No index, no search.
  EXPECT_TRUE(t->find_all(col_body, "text").empty());
  EXPECT_TRUE(log.contains("Search in log for body text is not implemented (set index)"));
  EXPECT_EQ(t->find_first(col_k, "a", col_body, "text"), 0);
  EXPECT_TRUE(log.contains("Search in log for k a body is not implemented (set index)"));

  t->delete_row(r1);
  EXPECT_FALSE(t->has_row(r1));
  EXPECT_EQ(file_size(S(dir.file("1.xml"))), -1);
  EXPECT_EQ(t->stats(), String("{\"idx\":3,\"size\":1,\"col\":3,\"lookup\":{\"k\":1,\"d\":1}}"));

  auto again = make_lazy(dir.path());
  EXPECT_EQ(snapshot(*again), snapshot(*t));
}

// A file missing under a row leaves its plain cells empty; the indexed ones stay.
TEST(LazyTableTest, MissingRowFile) {
  TempDir dir;
  auto t = make_lazy(dir.path());
  int r = t->create_row();
  t->set(r, col_k, "a");
  t->set(r, col_body, "b", true);
  int other = t->create_row(true);
  ASSERT_TRUE(remove_file(S(dir.file("1.xml"))));
  auto again = make_lazy(dir.path());
  EXPECT_EQ(again->get(r, col_k), String("a"));
  EXPECT_TRUE(again->get(r, col_body).empty());
  EXPECT_TRUE(again->has_row(other));
}

// Rebuilding from the row files gives what the journals gave.
TEST(LazyTableTest, RemovedJournalDirectoryIsRebuiltToTheSameState) {
  TempDir dir;
  LogCapture log;
  std::mt19937 rng(5);
  auto t = make_lazy(dir.path());
  for (int i = 0; i < 2300; i++) {  // more than one bucket
    int r = t->create_row();
    t->set(r, col_k, String(static_cast<int>(rng() % 50)));
    t->set(r, col_d, rng() % 3 ? String("d") : String());
    t->set(r, col_body, hostile_value(rng), true);
  }
  for (int r = 1; r <= 2300; r += 3) t->delete_row(r);
  Snapshot before = snapshot(*t);
  std::string index = dir.path() + "/index";
  ASSERT_EQ(system(("rm -rf " + index).c_str()), 0);
  auto rebuilt = make_lazy(dir.path());
  EXPECT_TRUE(log.contains("Rebuilding index for table log"));
  EXPECT_TRUE(log.contains("Found 1533 files for table log"));
  EXPECT_EQ(snapshot(*rebuilt), before);
  EXPECT_TRUE(is_directory(S(index)));
  auto replayed = make_lazy(dir.path());
  EXPECT_EQ(snapshot(*replayed), before);
}

// Many writes to one bucket make it compact itself; the compacted file reads back the same.
TEST(LazyTableTest, CompactionKeepsTheState) {
  TempDir dir;
  auto t = make_lazy(dir.path());
  int r = t->create_row(true);
  int other = t->create_row(true);
  String journal = S(dir.file("index/0.bin"));
  int64_t largest = 0;
  for (int i = 0; i < 3 * 4096 + 10; i++) {
    t->set(r, col_k, String(i), i % 1000 == 0);
    largest = std::max(largest, file_size(journal));
  }
  t->write_row(r);
  EXPECT_LT(file_size(journal), largest);  // it was compacted on the way
  EXPECT_EQ(read_file(journal).head(t->compacted_journal(0).length()).length(),
            t->compacted_journal(0).length());
  auto again = make_lazy(dir.path());
  EXPECT_EQ(again->get(r, col_k), String(3 * 4096 + 9));
  EXPECT_TRUE(again->has_row(other));
  // The bucket's last row gone: its journal goes too.
  again->delete_row(r);
  again->delete_row(other);
  EXPECT_EQ(file_size(journal), -1);
  auto empty = make_lazy(dir.path());
  EXPECT_EQ(empty->row_count(), 0);
}

// Cut a journal at every byte: the replay keeps the complete commands before the cut, and
// what is appended after the restart reads back too.
TEST(LazyTableTest, JournalCutAtEveryOffset) {
  TempDir dir;
  String journal_file;
  String full;
  std::map<int, String> final_k;
  {
    auto t = make_lazy(dir.path());
    for (int i = 0; i < 6; i++) {
      int r = t->create_row();
      t->set(r, col_k, String("key") + String(i));
      t->set(r, col_d, i % 2 ? "odd" : "even", true);
    }
    t->delete_row(3);
    t->set(4, col_k, "changed", true);
    journal_file = S(dir.file("index/0.bin"));
    for (int r = 1; r <= 6; r++) final_k[r] = t->get(r, col_k);
    full = read_file(journal_file);
  }
  ASSERT_GT(full.length(), 40);
  // The state after each whole command, from the journal reader itself.
  struct Replay : JournalSink {
    std::map<int64_t, std::map<String, String>> rows;
    void on_row(int64_t r) override { rows[r]; }
    void on_set(int64_t r, const String& c, const String& v) override { rows[r][c] = v; }
    void on_delete(int64_t r) override { rows.erase(r); }
  };
  for (int cut = 0; cut <= full.length(); cut++) {
    TempDir copy;
    ASSERT_EQ(system(("cp -r " + dir.path() + "/. " + copy.path()).c_str()), 0);
    ASSERT_TRUE(write_file_atomic(full.head(cut), S(copy.file("index/0.bin"))));
    Replay expect;
    JournalReplay result = replay_journal(full.head(cut), expect);
    auto t = make_lazy(copy.path());
    for (auto& [r, cells] : expect.rows) {
      int row = static_cast<int>(r);
      if (r == result.last_row) {
        // The row named last may have lost its file write to the cut: its file decides.
        bool has_file = file_size(S(copy.file(std::to_string(row) + ".xml"))) > 0;
        EXPECT_EQ(t->get(row, col_k), has_file ? final_k[row] : cells[col_k]) << cut;
        continue;
      }
      EXPECT_TRUE(t->has_row(row)) << cut;
      EXPECT_EQ(t->get(row, col_k), cells[col_k]) << cut;
    }
    EXPECT_LE(t->row_count(), static_cast<int>(expect.rows.size())) << cut;
    if (t->row_count() > 0) {
      EXPECT_EQ(read_file(S(copy.file("index/0.bin"))).length() >= result.consumed, true);
    }
    // Appending after the restart stays readable.
    int r = t->create_row();
    ASSERT_GT(r, 0);
    t->set(r, col_k, "after", true);
    auto again = make_lazy(copy.path());
    EXPECT_EQ(again->get(r, col_k), String("after")) << cut;
    EXPECT_EQ(again->row_count(), t->row_count()) << cut;
  }
}

TEST(LazyTableTest, HostileJournals) {
  struct Case {
    const char* what;
    String data;
    int rows;
    const char* log;
  };
  String unknown;
  journal_put_row(unknown, 1);
  unknown.append('z');
  journal_put_row(unknown, 2);
  String huge_count;
  journal_put_column(huge_count, col_k);
  journal_put_value(huge_count, "v");
  huge_count.append(String("i\xFF\xFF\xFF\xFF", 5));
  String foreign;
  journal_put_row(foreign, 5000);  // belongs to bucket 2, not 0
  journal_put_row(foreign, 0);
  journal_put_row(foreign, 7);
  const Case cases[] = {
      {"unknown command", unknown, 1, "unknown command"},
      {"count 0xFFFFFFFF", huge_count, 0, "cut at offset"},
      {"rows outside the bucket", foreign, 1, "outside its bucket"},
  };
  for (const Case& c : cases) {
    TempDir dir;
    LogCapture log;
    ASSERT_TRUE(write_file(c.data, S(dir.file("index/0.bin"))));
    ASSERT_TRUE(write_file(String("TLVB"), S(dir.file("1.xml"))));
    ASSERT_TRUE(write_file(String("TLVB"), S(dir.file("7.xml"))));
    auto t = make_lazy(dir.path());
    EXPECT_EQ(t->row_count(), c.rows) << c.what;
    EXPECT_TRUE(log.contains(c.log)) << c.what;
    EXPECT_GT(t->next_id(), t->last());
  }
}
