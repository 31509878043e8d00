#include "store/store_mode.h"

#include <gtest/gtest.h>

#include <ctime>

#include "core/codings.h"
#include "core/files.h"
#include "store/lazy_table.h"
#include "store/table.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

struct Change {
  String table;
  int row;
  std::map<String, String> cells;
  String id;
};
std::vector<Change> changes;

void record_change(const String& table, int row, const std::map<String, String>& cells, const String& id) {
  changes.push_back({table, row, cells, id});
}

// Restores the process-wide switches whatever the test does.
struct ModeGuard {
  ~ModeGuard() {
    store_replication = false;
    store_replication_hook = nullptr;
    store_passive = false;
  }
};

}  // namespace

TEST(StoreModeTest, ObjectIdsCountUpUnderTheTime) {
  String a = new_object_id();
  String b = new_object_id();
  ASSERT_EQ(a.length(), 12);
  ASSERT_EQ(b.length(), 12);
  uint32_t seconds = (a.byte_at(0) << 24) | (a.byte_at(1) << 16) | (a.byte_at(2) << 8) | a.byte_at(3);
  EXPECT_LE(std::labs(static_cast<long>(seconds) - static_cast<long>(time(nullptr))), 2);
  uint32_t ca = (a.byte_at(9) << 16) | (a.byte_at(10) << 8) | a.byte_at(11);
  uint32_t cb = (b.byte_at(9) << 16) | (b.byte_at(10) << 8) | b.byte_at(11);
  EXPECT_EQ(cb, (ca + 1) & 0xFFFFFF);
  EXPECT_NE(a.substr(4, 5), b.substr(4, 5));  // fresh random bytes per id
}

TEST(StoreModeTest, ReplicationGivesRowsAnIdAndReportsWrites) {
  ModeGuard guard;
  TempDir dir;
  changes.clear();
  store_replication = true;
  store_replication_hook = record_change;
  Table t(String("things"));
  t.add_column(String("name"), true);
  t.load(S(dir.path()));
  t.set(1, String("name"), "a", true);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].table, String("things"));
  EXPECT_EQ(changes[0].row, 1);
  EXPECT_EQ(changes[0].cells[String("name")], String("a"));
  ASSERT_EQ(changes[0].id.length(), 12);
  EXPECT_EQ(t.find_key(changes[0].id), 1);
  String data = read_file(S(dir.file("1.xml")));
  EXPECT_LT(data.find(String("<_id>")), data.find(String("<name>")));
  EXPECT_TRUE(data.contains(base64_encode(changes[0].id)));

  Table again(String("things"));
  again.add_column(String("name"), true);
  again.load(S(dir.path()));
  EXPECT_EQ(again.row_key(1), changes[0].id);
  EXPECT_EQ(again.find_key(changes[0].id), 1);
}

TEST(StoreModeTest, PassiveSideNeitherLoadsNorWrites) {
  ModeGuard guard;
  TempDir dir;
  ASSERT_TRUE(write_file("<row><name>x</name></row>", S(dir.file("1.xml"))));
  store_passive = true;
  Table t(String("things"));
  t.add_column(String("name"), true);
  t.load(S(dir.path()));
  EXPECT_EQ(t.row_count(), 0);
  t.set(2, String("name"), "y", true);
  EXPECT_EQ(file_size(S(dir.file("2.xml"))), -1);
  EXPECT_EQ(file_size(S(dir.file("index.txt"))), -1);

  TempDir lazy_dir;
  LazyTable l(String("log"));
  l.add_column(String("k"), true);
  l.load(S(lazy_dir.path()));
  int r = l.create_row();
  l.set(r, String("k"), "v", true);
  l.delete_row(r);
  EXPECT_TRUE(list_directory(S(lazy_dir.path())).empty());
}

TEST(StoreModeTest, LazyRowKeysSurviveJournalAndRebuild) {
  TempDir dir;
  auto open = [&]() {
    auto t = std::make_unique<LazyTable>(String("log"));
    t->add_column(String("k"), true);
    t->load(S(dir.path()));
    return t;
  };
  {
    auto t = open();
    int r = t->create_row();
    t->set(r, String("_id"), "OBJECTID0001");
    t->set(r, String("k"), "v", true);
  }
  EXPECT_EQ(open()->get(1, String("_id")), String("OBJECTID0001"));
  ASSERT_EQ(system(("rm -rf " + dir.path() + "/index").c_str()), 0);
  auto rebuilt = open();
  EXPECT_EQ(rebuilt->get(1, String("_id")), String("OBJECTID0001"));
  EXPECT_EQ(rebuilt->get(1, String("k")), String("v"));
  auto replayed = open();
  EXPECT_EQ(replayed->get(1, String("_id")), String("OBJECTID0001"));
}
