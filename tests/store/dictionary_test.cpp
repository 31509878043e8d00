#include "store/dictionary.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include "core/files.h"
#include "core/format.h"
#include "store/registry.h"
#include "store/settings.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

String record(const String& name, const String& content) {
  String r;
  r.append(static_cast<char>(name.length()));
  r.append(name);
  r.append(static_cast<char>(content.length() >> 16));
  r.append(static_cast<char>(content.length() >> 8));
  r.append(static_cast<char>(content.length()));
  r.append(content);
  return r;
}

String deflated(const String& body) {
  uLongf size = compressBound(static_cast<uLong>(body.length()));
  String out = String::repeat('\0', static_cast<int>(size));
  compress2(reinterpret_cast<Bytef*>(out.writable_data()), &size,
            reinterpret_cast<const Bytef*>(body.c_data()), static_cast<uLong>(body.length()), 9);
  return out.head(static_cast<int>(size));
}

// The file as the packer writes it: magic, then the body XORed by file offset.
String dictionary(const String& records, bool compressed) {
  String body = compressed ? deflated(records) : records;
  String out(compressed ? "QWD2" : "QWDT");
  for (int i = 0; i < body.length(); i++) {
    out.append(static_cast<char>(body.byte_at(i) ^ dictionary_scramble[(i + 4) % 100]));
  }
  return out;
}

String sample_records() {
  return record(String("admin/index.htm"), String("<html>index</html>")) +
         record(String("dict.json"),
                String("{\"en\":{\"login\":{\"user\":\"User\"}},\"de\":{\"login\":{\"user\":\"Benutzer\"}},"
                       "\"xx\":\"not an object\"}")) +
         record(String("empty"), String()) + record(String("big.bin"), String::repeat('z', 70000));
}

}  // namespace

TEST(DictionaryTest, BothFormsReadTheSameRecords) {
  for (bool compressed : {false, true}) {
    std::map<String, String> map;
    String error, listing;
    ASSERT_TRUE(parse_dictionary(dictionary(sample_records(), compressed), map, error, &listing)) << to_std(error);
    EXPECT_EQ(map.size(), 4u);
    EXPECT_EQ(map[String("admin/index.htm")], String("<html>index</html>"));
    EXPECT_EQ(map[String("big.bin")].length(), 70000);
    EXPECT_TRUE(map[String("empty")].empty());
    EXPECT_EQ(listing.line(0, false), String("0: admin/index.htm (18)"));
  }
}

TEST(DictionaryTest, HostileFilesAreRefusedWhole) {
  String good = dictionary(sample_records(), false);
  String packed = dictionary(sample_records(), true);
  String past_end = dictionary(String::bytes('\x01', 'a') + String::bytes('\x10', '\0', '\0') + String("abc"), false);
  struct Case {
    const char* what;
    String data;
  } cases[] = {
      {"empty", String()},
      {"bad magic", String("QWDX") + good.tail(4)},
      {"magic only, other case", String("qwdt")},
      {"length past the end", past_end},
      {"record cut in its header", good.head(4 + 17)},
      {"compressed garbage", String("QWD2") + String::repeat('\x55', 1000)},
      {"compressed cut short", packed.head(packed.length() / 2)},
  };
  for (const Case& c : cases) {
    std::map<String, String> map;
    map[String("kept")] = String("x");
    String error;
    EXPECT_FALSE(parse_dictionary(c.data, map, error)) << c.what;
    EXPECT_FALSE(error.empty()) << c.what;
    EXPECT_EQ(map.size(), 1u) << c.what;
  }
  // Every cut of a file either fails or gives a prefix of its records.
  for (const String& file : {good, packed}) {
    for (int n = 0; n < file.length(); n += (n < 200 ? 1 : 97)) {
      std::map<String, String> map;
      String error;
      if (parse_dictionary(file.head(n), map, error)) {
        EXPECT_LE(map.size(), 4u);
      }
    }
  }
}

TEST(DictionaryTest, ReadingTheFileLogsFailuresAndLoadsTranslations) {
  TempDir dir;
  String path = S(dir.file("exchsrv.dat"));
  {
    LogCapture log;
    EXPECT_FALSE(read_dictionary_from(path, false));
    EXPECT_TRUE(log.contains("Could not read dictionary"));
    EXPECT_EQ(dictionary_count(), 0);
  }
  ASSERT_TRUE(write_file(dictionary(sample_records(), true), path));
  ASSERT_TRUE(read_dictionary_from(path, false));
  EXPECT_EQ(dictionary_file(String("admin/index.htm")), String("<html>index</html>"));
  EXPECT_EQ(dictionary_file(String("missing")), String());
  String v1 = dictionary_version();
  EXPECT_FALSE(v1.empty());
  EXPECT_LE(v1.length(), 8);

  reset_registry();
  load_translations();
  EXPECT_EQ(translation(String("de"), String("login"), String("user")), String("Benutzer"));
  EXPECT_EQ(translation(String("en"), String("login"), String("none")), String());
  EXPECT_EQ(translation(String("fr"), String("login"), String("user")), String());
  EXPECT_EQ(ctrl_read_registry(reg_languages_web), String("de en"));

  ASSERT_TRUE(write_file(dictionary(sample_records() + record(String("x"), String("y")), false), path));
  ASSERT_TRUE(read_dictionary_from(path, false));
  EXPECT_NE(dictionary_version(), v1);
  reset_registry();
}
