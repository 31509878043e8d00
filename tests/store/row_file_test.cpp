#include "store/row_file.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

std::vector<RowRecord> random_records(std::mt19937& rng) {
  std::vector<RowRecord> out;
  int n = 1 + static_cast<int>(rng() % 6);
  for (int i = 0; i < n; i++) {
    String value = hostile_value(rng);
    if (value.empty()) value = "v";
    out.push_back({String("c") + String(i), value, rng() % 4 == 0});
  }
  return out;
}

}  // namespace

// Both forms give back exactly what was written, whatever the bytes of the cells.
TEST(RowFileTest, BothFormsRoundTripHostileValues) {
  std::mt19937 rng(7);
  for (int round = 0; round < 300; round++) {
    std::vector<RowRecord> records = random_records(rng);
    String id = round % 3 ? String(static_cast<int>(rng())) : String();
    for (bool binary : {false, true}) {
      String data = binary ? encode_row_binary(id, records) : encode_row_xml(id, records);
      String got_id, error;
      std::vector<RowRecord> got;
      ASSERT_EQ(decode_row_file(data, got_id, got, error), RowFileResult::row) << to_std(error);
      EXPECT_EQ(got_id, id);
      ASSERT_EQ(got.size(), records.size());
      for (size_t i = 0; i < got.size(); i++) {
        EXPECT_EQ(got[i].name, records[i].name);
        EXPECT_EQ(got[i].value, records[i].value) << "round " << round << " binary " << binary;
        EXPECT_EQ(got[i].enciphered, records[i].enciphered);
      }
    }
  }
}

TEST(RowFileTest, XmlFormLayout) {
  String id = String::repeat('\x01', 60);  // base64 longer than 18 groups
  String data = encode_row_xml(id, {{"a", "x<y", false}, {"b", "\x01\x02", true}, {"c", "", false}});
  EXPECT_TRUE(data.starts_with("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<row>"));
  EXPECT_TRUE(data.contains(String("<a>x&lt;y</a>")));
  EXPECT_TRUE(data.contains(String("<b encrypted=\"true\">AQI=</b>")));
  EXPECT_FALSE(data.contains(String("<c>")));  // empty cells are left out
  int id_at = data.find(String("<_id>"));
  EXPECT_LT(id_at, data.find(String("<a>")));
  EXPECT_TRUE(data.contains(String("\r\n")));
  // 18 groups of four characters, then the line break.
  EXPECT_EQ(data.find(String("\r\n"), id_at) - (id_at + 5), 72);
}

TEST(RowFileTest, BinaryFormLayout) {
  String data = encode_row_binary("ID", {{"ab", "xyz", false}, {"k", "\x01", true}});
  const unsigned char expect[] = {'T', 'L', 'V', 'B', 0, 3, '_', 'i', 'd', 0, 0, 0, 2, 'I', 'D',
                                  0, 2, 'a', 'b', 0, 0, 0, 3, 'x', 'y', 'z',
                                  0x80, 1, 'k', 0, 0, 0, 1, 1};
  EXPECT_EQ(data, String(expect, sizeof(expect)));
}

// Cut anywhere, a binary row gives the records before the cut, never more, and says why.
TEST(RowFileTest, TruncatedBinaryRowsKeepWhatCameBefore) {
  String data = encode_row_binary("ID", {{"ab", "xyz", false}, {"k", String::repeat('q', 300), false}});
  for (int cut = 5; cut < data.length(); cut++) {
    String id, error;
    std::vector<RowRecord> got;
    RowFileResult r = decode_row_file(data.head(cut), id, got, error);
    bool whole_records = cut == 4 + 11 || cut == 4 + 11 + 11;  // after "_id", after "ab"
    if (whole_records) {
      EXPECT_EQ(r, RowFileResult::row) << cut;
    } else {
      EXPECT_EQ(r, RowFileResult::bad) << cut;
      EXPECT_FALSE(error.empty());
    }
    EXPECT_LE(got.size(), 2u);
    for (const RowRecord& rec : got) EXPECT_TRUE(rec.name == "ab" || rec.name == "k");
  }
}

TEST(RowFileTest, HostileInputs) {
  struct Case {
    const char* what;
    String data;
    RowFileResult result;
  };
  const unsigned char long_name[] = {'T', 'L', 'V', 'B', 0x7F, 0xFF, 'a'};
  const unsigned char long_value[] = {'T', 'L', 'V', 'B', 0, 1, 'a', 0xFF, 0xFF, 0xFF, 0xFF, 'x'};
  const Case cases[] = {
      {"empty", String(), RowFileResult::empty},
      {"wrong root", "<?xml version=\"1.0\"?>\r\n<rows><a>1</a></rows>", RowFileResult::bad},
      {"no xml", "hello", RowFileResult::bad},
      {"name past end", String(long_name, sizeof(long_name)), RowFileResult::bad},
      {"value past end", String(long_value, sizeof(long_value)), RowFileResult::bad},
      {"magic only", "TLVB", RowFileResult::row},
      {"unclosed", "<row><a>1</a><b>2", RowFileResult::row},
      {"deep", String("<row>") + String::repeat('<', 5000), RowFileResult::bad},
  };
  for (const Case& c : cases) {
    String id, error;
    std::vector<RowRecord> got;
    EXPECT_EQ(decode_row_file(c.data, id, got, error), c.result) << c.what;
  }
}
