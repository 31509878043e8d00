#include "store/cell_cipher.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "core/codings.h"
#include "core/files.h"
#include "core/random.h"
#include "store/row_file.h"
#include "store/table.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

const String col_pin("pin");
const String col_note("note");

std::unique_ptr<Table> make_table(const std::string& dir, bool tlvb) {
  auto t = std::make_unique<Table>(String("secrets"));
  t->add_column(col_note);
  t->add_column(col_pin, false, true);
  t->set_tlvb(tlvb);
  t->load(S(dir));
  return t;
}

// The enciphered cell as stored in a row file of either form.
String stored_cell(const String& file) {
  String id, error;
  std::vector<RowRecord> records;
  EXPECT_EQ(decode_row_file(read_file(file), id, records, error), RowFileResult::row);
  for (const RowRecord& r : records) {
    if (r.name == col_pin) {
      EXPECT_TRUE(r.enciphered);
      return r.value;
    }
  }
  return String();
}

// openssl as the outside judge of the cipher: counter mode, key and first counter block.
String openssl_decrypt(const TempDir& dir, const String& key, const String& stored) {
  std::string in = dir.file("cipher.bin");
  EXPECT_TRUE(write_file(stored.tail(16), S(in)));
  std::string cmd = "openssl enc -d -aes-128-ctr -nopad -K " + to_std(hex_encode(key)) + " -iv " +
                    to_std(hex_encode(stored.head(16))) + " -in " + in + " -out " + dir.file("plain.bin");
  EXPECT_EQ(system(cmd.c_str()), 0);
  return read_file(S(dir.file("plain.bin")));
}

}  // namespace

TEST(CellCipherTest, PlainValueIsInNoFileAndOpensslReadsIt) {
  const String key("\x10\x21\x32\x43\x54\x65\x76\x87\x98\xa9\xba\xcb\xdc\xed\xfe\x0f");
  set_cell_key(key);
  const String plain("PIN-8472-very-secret-value-longer-than-a-block");
  for (bool tlvb : {false, true}) {
    TempDir dir, work;
    auto t = make_table(dir.path(), tlvb);
    t->set(1, col_note, "n");
    t->set(1, col_pin, plain, true);
    String file = S(dir.file("1.xml"));
    String data = read_file(file);
    EXPECT_FALSE(data.contains(plain));
    EXPECT_FALSE(data.contains(String("PIN-8472")));
    if (!tlvb) {
      EXPECT_TRUE(data.contains(String("encrypted=\"true\"")));
    }
    String first = stored_cell(file);
    ASSERT_EQ(first.length(), 16 + plain.length());
    EXPECT_EQ(openssl_decrypt(work, key, first), plain);

    // A second write of the same value has a new initial vector.
    t->set(1, col_pin, "other");
    t->set(1, col_pin, plain, true);
    String second = stored_cell(file);
    EXPECT_NE(first, second);
    EXPECT_NE(first.head(16), second.head(16));

    auto again = make_table(dir.path(), !tlvb);
    EXPECT_EQ(again->get(1, col_pin), plain);
    EXPECT_EQ(again->get(1, col_note), String("n"));
  }
}

TEST(CellCipherTest, KeyIsTheSettingMixedWithAConstant) {
  String a = random_string(16), b = random_string(16);
  set_cell_key_from_setting(base64_encode(a));
  String ka = cell_key();
  set_cell_key_from_setting(base64_encode(b));
  String kb = cell_key();
  ASSERT_EQ(ka.length(), 16);
  EXPECT_NE(ka, a);  // not the setting itself
  for (int i = 0; i < 16; i++) EXPECT_EQ(ka[i] ^ kb[i], a[i] ^ b[i]);
  set_cell_key_from_setting(String());
  EXPECT_EQ(cell_key().length(), 16);
  // Every printable constant byte: the key of an empty setting is that constant.
  for (int i = 0; i < 16; i++) EXPECT_TRUE(cell_key()[i] >= 33 && cell_key()[i] < 127);
}

TEST(CellCipherTest, ShortAndHandWrittenCells) {
  set_cell_key(String("0123456789abcdef"));
  TempDir dir;
  LogCapture log;
  const unsigned char short_cell[] = {'T', 'L', 'V', 'B', 0x80, 3, 'p', 'i', 'n', 0, 0, 0, 5, 1, 2, 3, 4, 5};
  ASSERT_TRUE(write_file(String(short_cell, sizeof(short_cell)), S(dir.file("1.xml"))));
  // An administrator's import script writes the PIN in plain text.
  ASSERT_TRUE(write_file("<row><pin>4711</pin><note>x</note></row>", S(dir.file("2.xml"))));
  auto t = make_table(dir.path(), false);
  EXPECT_TRUE(t->has_row(1));
  EXPECT_TRUE(t->get(1, col_pin).empty());
  EXPECT_TRUE(log.contains("shorter than its initial vector"));
  EXPECT_EQ(t->get(2, col_pin), String("4711"));
  t->write_row(2);  // no change, but the plain cell must not stay on disk
  EXPECT_FALSE(read_file(S(dir.file("2.xml"))).contains(String("4711")));
  auto again = make_table(dir.path(), false);
  EXPECT_EQ(again->get(2, col_pin), String("4711"));
  String empty;
  EXPECT_FALSE(decipher_cell(String("short"), empty));
  EXPECT_TRUE(decipher_cell(encipher_cell(String()), empty));
  EXPECT_TRUE(empty.empty());
}
