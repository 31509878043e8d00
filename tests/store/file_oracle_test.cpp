// The row files and journals read by an outside program written from the formats alone,
// compared with what the store holds in memory.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <set>
#include <sstream>

#include "core/codings.h"
#include "core/string.h"
#include "store/cell_cipher.h"
#include "store/lazy_table.h"
#include "store/table.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

std::vector<std::string> run_reader(const std::string& kind, const std::string& dir) {
  std::string cmd = "/usr/bin/python3 " + source_dir() + "/tests/store/store_reader.py " + kind + " " + dir;
  FILE* p = popen(cmd.c_str(), "r");
  std::string out;
  char buf[65536];
  size_t n;
  while (p && (n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  EXPECT_EQ(p ? pclose(p) : -1, 0) << cmd;
  std::vector<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string hex_of(const String& v) { return to_std(hex_encode(v)); }

}  // namespace

TEST(FileOracleTest, RowFilesOfBothFormsAgreeWithMemory) {
  set_cell_key(String("oracle key 16 by"));
  for (bool tlvb : {false, true}) {
    TempDir dir;
    Table t(String("mixed"));
    t.add_column(String("name"), true);
    t.add_column(String("check-sync"));
    t.add_column(String("pin"), false, true);
    t.add_column(String("note"));
    t.set_tlvb(tlvb);
    t.load(S(dir.path()));
    std::mt19937 rng(tlvb ? 1 : 2);
    for (int i = 0; i < 80; i++) {
      int r = 1 + static_cast<int>(rng() % 30);
      for (int c = 0; c < t.column_count(); c++) t.set(r, c, hostile_value(rng));
      if (rng() % 4 == 0) t.set(r, String("_id"), random_text(12));
      t.write_row(r);
    }
    std::set<std::string> got_plain;
    int enciphered = 0;
    for (const std::string& line : run_reader("rows", dir.path())) {
      std::istringstream in(line);
      std::string row, column, hex, flag;
      in >> row >> column >> hex >> flag;
      if (column.empty()) continue;
      String value = hex_decode(S(hex));
      if (flag == "1") {
        String plain;
        ASSERT_TRUE(decipher_cell(value, plain));
        value = plain;
        enciphered++;
      }
      got_plain.insert(row + " " + column + " " + hex_of(value));
    }
    std::set<std::string> want;
    for (int r = t.first(); r > 0; r = t.next(r)) {
      for (auto& [column, value] : t.cells(r)) want.insert(std::to_string(r) + " " + to_std(column) + " " + hex_of(value));
      if (!t.row_key(r).empty()) want.insert(std::to_string(r) + " _id " + hex_of(t.row_key(r)));
    }
    EXPECT_EQ(got_plain, want) << "tlvb " << tlvb;
    EXPECT_GT(enciphered, 0);
  }
}

TEST(FileOracleTest, JournalsAgreeWithTheIndices) {
  TempDir dir;
  LazyTable t(String("calls"));
  t.add_column(String("i"), true);
  t.add_column(String("d"), true);
  t.add_column(String("body"));
  t.load(S(dir.path()));
  std::mt19937 rng(9);
  for (int n = 0; n < 2100; n++) {
    int r = t.create_row();
    t.set(r, String("i"), hostile_value(rng).head(100));
    t.set(r, String("d"), String(static_cast<int>(rng() % 5)));
    t.set(r, String("body"), String("b"), true);
  }
  for (int r = 1; r < 2100; r += 5) t.delete_row(r);
  for (int r = 2; r < 2100; r += 7) t.set(r, String("d"), "moved", true);
  std::set<std::string> got;
  // An indexed cell that was never set is empty without a journal entry; compare the rest.
  for (const std::string& line : run_reader("journal", dir.path())) {
    if (line.back() != ' ') got.insert(line);
  }
  std::set<std::string> want;
  for (int r : t.all_rows()) {
    want.insert(std::to_string(r));
    for (int c : {0, 1}) {
      if (!t.get(r, c).empty()) want.insert(std::to_string(r) + " " + to_std(t.column_name(c)) + " " + hex_of(t.get(r, c)));
    }
  }
  EXPECT_EQ(got, want);
}
