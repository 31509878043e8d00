#include "core/device_syslog.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

class DeviceSyslogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    device_syslog_clear();
    device_syslog_set_lookup(nullptr);
    device_syslog_set_max_size(100);
    device_syslog_register("192.0.2.10", 41);
  }
  void TearDown() override {
    device_syslog_clear();
    device_syslog_set_lookup(nullptr);
    device_syslog_set_max_size(100);
  }
};

}  // namespace

TEST_F(DeviceSyslogTest, KnownAddressStoresLevelFacilityAndText) {
  EXPECT_TRUE(device_syslog_receive("<14>hello", "192.0.2.10"));
  auto list = device_syslog_entries(41);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].level, 6);
  EXPECT_EQ(list[0].facility, 1);
  EXPECT_EQ(list[0].text, String("hello"));
  EXPECT_TRUE(device_syslog_receive("<0>x", "192.0.2.10"));
  EXPECT_TRUE(device_syslog_receive("<191>last facility", "192.0.2.10"));
  list = device_syslog_entries(41);
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[2].facility, 23);
  EXPECT_EQ(list[2].level, 7);
  String json = device_syslog_json(41);
  EXPECT_TRUE(json.starts_with("[{\"time\":")) << to_std(json);
  EXPECT_GE(json.find("\"level\":6,\"facility\":1,\"msg\":\"hello\"}"), 0) << to_std(json);
  EXPECT_EQ(device_syslog_summary(), String("\"messages\":3,\"users\":1"));
}

TEST_F(DeviceSyslogTest, BadDatagramsAreDropped) {
  const char* bad[] = {"<>x", "<1234>x", "<14>", "<192>x", "14>x", "<1x>y", "<", "", "<1>", "<123>"};
  for (const char* d : bad) EXPECT_FALSE(device_syslog_receive(d, "192.0.2.10")) << d;
  String garbage = String::repeat('A', 2048);
  EXPECT_FALSE(device_syslog_receive(garbage, "192.0.2.10"));
  EXPECT_TRUE(device_syslog_entries(41).empty());
  // A well-formed 2 KiB datagram is kept whole.
  String big = String("<13>") + String::repeat('b', 2044);
  EXPECT_TRUE(device_syslog_receive(big, "192.0.2.10"));
  ASSERT_EQ(device_syslog_entries(41).size(), 1u);
  EXPECT_EQ(device_syslog_entries(41)[0].text.length(), 2044);
  // Minimal lengths: 4 bytes for one digit, 5 for two, 6 for three.
  EXPECT_TRUE(device_syslog_receive("<1>a", "192.0.2.10"));
  EXPECT_TRUE(device_syslog_receive("<12>a", "192.0.2.10"));
  EXPECT_TRUE(device_syslog_receive("<123>a", "192.0.2.10"));
}

TEST_F(DeviceSyslogTest, UnknownAddressIsDroppedAndAllUsersOfAnAddressGetIt) {
  EXPECT_FALSE(device_syslog_receive("<14>hello", "198.51.100.1"));
  device_syslog_register("192.0.2.10", 42);
  EXPECT_TRUE(device_syslog_receive("<14>both", "192.0.2.10"));
  EXPECT_EQ(device_syslog_entries(41).size(), 1u);
  EXPECT_EQ(device_syslog_entries(42).size(), 1u);
  device_syslog_unregister("192.0.2.10", 41);
  device_syslog_unregister("192.0.2.10", 42);
  EXPECT_FALSE(device_syslog_receive("<14>gone", "192.0.2.10"));
}

TEST_F(DeviceSyslogTest, StandInLookupReplacesTheMap) {
  device_syslog_set_lookup([](const String& address) {
    return address == "203.0.113.5" ? std::vector<int>{7} : std::vector<int>{};
  });
  EXPECT_TRUE(device_syslog_receive("<14>via lookup", "203.0.113.5"));
  EXPECT_FALSE(device_syslog_receive("<14>map is not used", "192.0.2.10"));
  EXPECT_EQ(device_syslog_entries(7).size(), 1u);
}

TEST_F(DeviceSyslogTest, LowerMaxSizeShrinksAtTheNextMessage) {
  for (int i = 0; i < 10; i++) device_syslog_receive("<14>m", "192.0.2.10");
  EXPECT_EQ(device_syslog_entries(41).size(), 10u);
  device_syslog_set_max_size(3);
  EXPECT_EQ(device_syslog_entries(41).size(), 10u);
  device_syslog_receive("<14>newest", "192.0.2.10");
  auto list = device_syslog_entries(41);
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list.back().text, String("newest"));
}
