#include "store/corrupt_pin.h"

#include <gtest/gtest.h>

#include "core/files.h"
#include "store/cell_cipher.h"
#include "store/names.h"
#include "store/table.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

std::unique_ptr<Table> extensions_in(const std::string& dir) {
  auto t = std::make_unique<Table>(tbl_extensions);
  t->add_column(col_password, false, true);
  t->add_column(col_mb_pin, false, true);
  t->load(S(dir));
  return t;
}

}  // namespace

// The 51% rule on 100 rows, with PINs written by hand that are not UTF-8.
TEST(CorruptPinTest, FiftyOnePercentInvalidStopsTheStart) {
  struct Case {
    int rows;
    int invalid;
    bool corrupt;
  };
  const Case cases[] = {{0, 0, false}, {100, 51, true}, {100, 50, false}, {1, 1, true},
                        {2, 1, false}, {100, 0, false}};
  for (const Case& c : cases) {
    TempDir dir;
    for (int r = 1; r <= c.rows; r++) {
      String pin = r <= c.invalid ? String("\xFF\xFE\x31") : (r % 2 ? String("1234") : String());
      String row = String("<row><mb_pin>") + pin + "</mb_pin></row>";
      ASSERT_TRUE(write_file(row, S(dir.file(std::to_string(r) + ".xml"))));
    }
    auto t = extensions_in(dir.path());
    PinCheck check = check_pins(*t);
    EXPECT_EQ(check.rows, c.rows);
    EXPECT_EQ(check.invalid, c.invalid);
    EXPECT_EQ(check.corrupt(), c.corrupt) << c.rows << " " << c.invalid;
  }
  EXPECT_EQ(corrupt_store_text,
            String("Database seems to be corrupt. Run PBX with option --ignore-corrupt to proceed anyway"));
}

// What the test is for: a store read under another key than it was written with.
TEST(CorruptPinTest, WrongKeyIsDetected) {
  TempDir dir;
  set_cell_key(String("right key 16 byt"));
  {
    auto t = extensions_in(dir.path());
    for (int r = 1; r <= 100; r++) t->set(r, col_mb_pin, String(1000 + r) + "000000", true);
  }
  EXPECT_FALSE(check_pins(*extensions_in(dir.path())).corrupt());
  set_cell_key(String("wrong key 16 byt"));
  EXPECT_TRUE(check_pins(*extensions_in(dir.path())).corrupt());
}
