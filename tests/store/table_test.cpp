#include "store/table.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "core/files.h"
#include "store/cell_cipher.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

const String col_name("name");
const String col_a("a");
const String col_b("b");
const String col_secret("secret");

std::unique_ptr<Table> make_table(const std::string& dir, bool tlvb = false) {
  auto t = std::make_unique<Table>(String("things"));
  t->add_column(col_name, true);
  t->add_column(col_a);
  t->add_column(col_b, true);
  t->add_column(col_secret, false, true);
  t->set_tlvb(tlvb);
  t->load(S(dir));
  return t;
}

String path_of(const TempDir& d, const char* file) { return S(d.file(file)); }

}  // namespace

TEST(TableTest, CellsRowsAndIds) {
  TempDir dir;
  auto t = make_table(dir.path());
  EXPECT_EQ(t->row_count(), 0);
  int r1 = t->create_row(true);
  int r2 = t->create_row(true);
  EXPECT_EQ(r1, 1);
  EXPECT_EQ(r2, 2);
  t->set(r1, col_name, "alice", true);
  t->set(r2, col_a, "x");
  EXPECT_EQ(t->get(r1, col_name), String("alice"));
  EXPECT_EQ(t->get(r2, 1), String("x"));
  EXPECT_TRUE(t->get(r1, String("nope")).empty());
  EXPECT_TRUE(t->get(99, col_name).empty());
  EXPECT_TRUE(t->get(0, col_name).empty());
  EXPECT_EQ(read_file(path_of(dir, "index.txt")), String("3"));
  EXPECT_TRUE(file_nonempty(path_of(dir, "1.xml")));
  auto cells = t->cells(r1);
  ASSERT_EQ(cells.size(), 1u);
  EXPECT_EQ(cells[col_name], String("alice"));
  EXPECT_TRUE(t->check_indices());
}

TEST(TableTest, EdgeCasesOfSet) {
  TempDir dir;
  LogCapture log;
  auto t = make_table(dir.path());
  t->set(0, col_name, "x", true);
  EXPECT_EQ(t->row_count(), 0);
  EXPECT_TRUE(log.contains("Writing to row 0 in table things"));

  // Creating by writing raises next_id.
  t->set(10, col_name, "ten", true);
  EXPECT_EQ(t->next_id(), 11);
  EXPECT_EQ(t->find_first(col_b, ""), 10);  // entered under the empty value of other indices

  // The same value leaves the row clean: no file is written.
  ASSERT_TRUE(remove_file(path_of(dir, "10.xml")));
  t->set(10, col_name, "ten", true);
  EXPECT_EQ(file_size(path_of(dir, "10.xml")), -1);

  // A deleted row comes back under its own id.
  t->delete_row(10);
  EXPECT_FALSE(t->has_row(10));
  t->set(10, col_a, "again", true);
  EXPECT_TRUE(t->has_row(10));
  EXPECT_TRUE(t->get(10, col_name).empty());

  // Without create_on_write a missing row is refused.
  t->set_create_on_write(false);
  t->set(20, col_a, "x", true);
  EXPECT_FALSE(t->has_row(20));
  EXPECT_TRUE(log.contains("Writing to row 20 which does not exist in table things, ignoring request"));
  EXPECT_TRUE(t->check_indices());
}

TEST(TableTest, BlocksAndIterationSkipGaps) {
  TempDir dir;
  auto t = make_table(dir.path());
  t->set_persist(false);
  for (int r = 1; r <= 3000; r++) t->set(r, col_a, String(r));
  for (int r = 1024; r < 2048; r++) t->delete_row(r, false);  // block 1 loses all its rows
  EXPECT_EQ(t->row_count(), 3000 - 1024);
  EXPECT_EQ(t->next(1023), 2048);
  EXPECT_EQ(t->prev(2048), 1023);
  int n = 0;
  for (int r = t->first(); r > 0; r = t->next(r)) n++;
  EXPECT_EQ(n, t->row_count());
  EXPECT_EQ(t->last(), 3000);
  t->delete_row(3000, false);
  EXPECT_EQ(t->last(), 2999);
}

TEST(TableTest, DeletingRowsDuringAWalk) {
  TempDir dir;
  auto t = make_table(dir.path());
  for (int r = 1; r <= 50; r++) t->set(r, col_b, r % 2 ? "odd" : "even", true);
  int walked = 0;
  for (int r : t->find_all(col_b, "odd")) {
    walked++;
    t->delete_row(r);
    t->delete_row(r + 2);  // a later member of the walked set
  }
  EXPECT_EQ(walked, 25);
  EXPECT_EQ(t->count(col_b, "odd"), 0);
  EXPECT_EQ(t->count(col_b, "even"), 25);
  EXPECT_TRUE(t->check_indices());
}

// Every search form against a brute-force answer, over indexed and plain columns.
TEST(TableTest, SearchesAgreeWithAScan) {
  TempDir dir;
  auto t = make_table(dir.path());
  t->set_persist(false);
  std::mt19937 rng(3);
  const char* values[] = {"", "p", "q", "r"};
  for (int r = 1; r <= 400; r++) {
    for (const String* c : {&col_name, &col_a, &col_b}) t->set(r, *c, values[rng() % 4]);
  }
  for (int r = 1; r <= 400; r += 7) t->delete_row(r, false);
  auto brute = [&](std::vector<std::pair<String, String>> conds) {
    RowSet out;
    for (int r = t->first(); r > 0; r = t->next(r)) {
      bool ok = true;
      for (auto& [c, v] : conds) ok = ok && t->get(r, c) == v;
      if (ok) out.add(r);
    }
    return out;
  };
  for (const char* v1 : values) {
    for (const char* v2 : values) {
      for (const String* c1 : {&col_name, &col_a}) {
        RowSet want1 = brute({{*c1, v1}});
        EXPECT_EQ(t->find_all(*c1, v1), want1);
        EXPECT_EQ(t->count(*c1, v1), want1.size());
        EXPECT_EQ(t->find_first(*c1, v1), want1.empty() ? 0 : want1.first());
        RowSet want2 = brute({{*c1, v1}, {col_b, v2}});
        EXPECT_EQ(t->find_all(*c1, v1, col_b, v2), want2);
        EXPECT_EQ(t->count(*c1, v1, col_b, v2), want2.size());
        RowSet want3 = brute({{col_name, v1}, {col_a, v2}, {col_b, v1}});
        EXPECT_EQ(t->find_all(col_name, v1, col_a, v2, col_b, v1), want3);
        EXPECT_EQ(t->find_first(col_name, v1, col_a, v2, col_b, v1, col_secret, ""),
                  want3.empty() ? 0 : want3.first());
      }
    }
  }
  EXPECT_EQ(t->find_first(String("nope"), ""), 0);
  EXPECT_TRUE(t->find_all(col_a, "p", String("nope"), "p").empty());

  // Neighbours with the same cells.
  int row = t->find_first(col_name, "p", col_a, "q");
  ASSERT_GT(row, 0);
  RowSet same = brute({{col_name, "p"}, {col_a, "q"}});
  EXPECT_EQ(t->next_same(row, col_name, col_a), same.next(row) < 0 ? 0 : same.next(row));
  EXPECT_EQ(t->prev_same(same.last(), col_name, col_a), same.prev(same.last()) < 0 ? 0 : same.prev(same.last()));
  RowSet same_a = brute({{col_a, t->get(row, col_a)}});
  EXPECT_EQ(t->next_same(row, col_a), same_a.next(row) < 0 ? 0 : same_a.next(row));
  EXPECT_EQ(t->prev_same(row, col_a), same_a.prev(row) < 0 ? 0 : same_a.prev(row));
}

// Random rows with hostile cells survive a reload in either form and after switching form.
TEST(TableTest, RowsSurviveReloadInBothFormsAndAcrossForms) {
  set_cell_key(String("0123456789abcdef"));
  for (bool first_tlvb : {false, true}) {
    TempDir dir;
    std::mt19937 rng(first_tlvb ? 11 : 12);
    std::map<int, std::map<String, String>> want;
    {
      auto t = make_table(dir.path(), first_tlvb);
      for (int i = 0; i < 60; i++) {
        int r = 1 + static_cast<int>(rng() % 40);
        for (const String* c : {&col_name, &col_a, &col_b, &col_secret}) {
          String v = hostile_value(rng);
          t->set(r, *c, v);
          if (v.empty()) want[r].erase(*c); else want[r][*c] = v;
        }
        t->write_row(r);
      }
    }
    for (bool second_tlvb : {first_tlvb, !first_tlvb}) {
      auto t = make_table(dir.path(), second_tlvb);
      ASSERT_EQ(t->row_count(), static_cast<int>(want.size()));
      for (auto& [r, cells] : want) EXPECT_EQ(t->cells(r), cells) << r;
      EXPECT_TRUE(t->check_indices());
      // Rewrite every row in the other form for the next round.
      for (auto& [r, cells] : want) {
        t->set(r, col_a, "changed");
        t->write_row(r);
        t->set(r, col_a, cells.count(col_a) ? cells[col_a] : String(), true);
      }
    }
  }
}

TEST(TableTest, BadFilesAndNamesAreLoggedAndPassedOver) {
  TempDir dir;
  LogCapture log;
  String d = S(dir.path());
  const char* names[] = {"0.xml", "-3.xml", "007.xml", "a.xml", "5.xml.tmp"};
  for (const char* n : names) ASSERT_TRUE(write_file("<row><a>x</a></row>", d + "/" + n));
  mkdir((dir.path() + "/6.xml").c_str(), 0755);
  ASSERT_TRUE(write_file("<?xml version=\"1.0\"?><rows><a>1</a></rows>", d + "/8.xml"));
  const unsigned char cut[] = {'T', 'L', 'V', 'B', 0, 1, 'a', 0, 0, 0, 1, 'y', 0, 1, 'b', 0, 0, 9};
  ASSERT_TRUE(write_file(String(cut, sizeof(cut)), d + "/9.xml"));
  ASSERT_TRUE(write_file("<row><a>good</a><gone>old</gone></row>", d + "/12.xml"));
  auto t = make_table(dir.path());
  EXPECT_EQ(t->all_rows().to_vector(), (std::vector<int>{8, 9, 12}));
  EXPECT_TRUE(t->cells(8).empty());
  EXPECT_EQ(t->get(9, col_a), String("y"));
  EXPECT_EQ(t->get(12, col_a), String("good"));
  EXPECT_EQ(file_size(d + "/5.xml.tmp"), -1);  // a left-over of an interrupted rewrite
  EXPECT_TRUE(log.contains("Passing over 007.xml in table things"));
  EXPECT_TRUE(log.contains("Passing over 6.xml in table things"));
  EXPECT_TRUE(log.contains("root element"));
  EXPECT_TRUE(log.contains("runs past the end"));
  EXPECT_EQ(t->next_id(), 13);
  // A column that left the schema vanishes at the row's next write.
  t->set(12, col_a, "new", true);
  EXPECT_FALSE(read_file(d + "/12.xml").contains(String("gone")));
}

TEST(TableTest, IndexFileValues) {
  struct Case {
    const char* text;
    int next_id;
  };
  const Case cases[] = {{"abc", 1}, {"-5", 1}, {"", 1}, {"17\r\n", 17}, {"2147483647", 2147483647}};
  for (const Case& c : cases) {
    TempDir dir;
    ASSERT_TRUE(write_file(String(c.text), S(dir.file("index.txt"))));
    auto t = make_table(dir.path());
    EXPECT_EQ(t->next_id(), c.next_id) << c.text;
    int r = t->create_row(true);
    EXPECT_EQ(r, c.next_id);
    if (c.next_id == 2147483647) {
      LogCapture log;
      EXPECT_EQ(t->create_row(true), 0);  // the id range is used up
      EXPECT_TRUE(log.contains("has no free row id"));
    }
  }
}

TEST(TableTest, ObserversAndStats) {
  TempDir dir;
  auto t = make_table(dir.path());
  static int calls;
  calls = 0;
  t->on_change = [](Table&, int) { calls++; };
  t->set(1, col_name, "a", true, true);
  t->set(2, col_name, "a", true, false);
  t->set(3, col_name, "b", true, true);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(t->stats(), String("{\"idx\":4,\"size\":3,\"col\":4,\"lookup\":{\"name\":2,\"b\":1}}"));
  EXPECT_TRUE(t->is_encrypted(col_secret));
  EXPECT_FALSE(t->is_encrypted(col_a));
}

TEST(TableTest, ClearRemovesRowsWithTheirFiles) {
  TempDir dir;
  auto t = make_table(dir.path());
  for (int r = 1; r <= 5; r++) t->set(r, col_a, "x", true);
  t->clear();
  EXPECT_EQ(t->row_count(), 0);
  for (int r = 1; r <= 5; r++) EXPECT_EQ(file_size(S(dir.file(std::to_string(r) + ".xml"))), -1);
}
