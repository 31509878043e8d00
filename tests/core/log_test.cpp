#include "core/log.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "core/format.h"
#include "core/mutex.h"
#include "tests/support/test_support.h"

namespace {

std::atomic<uint64_t> fake_wall{0};
uint64_t fake_wall_ms() { return fake_wall.load(); }

// Milliseconds of a local time.
uint64_t local_ms(int year, int month, int day, int hour, int minute, int second) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  tm.tm_isdst = -1;
  return static_cast<uint64_t>(mktime(&tm)) * 1000;
}

std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> messages() {
  std::vector<std::string> out;
  for (const LogEntry& e : log_entries()) out.push_back(to_std(e.message));
  return out;
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_on = false;
    log_reset();
    log_on = true;
  }
  void TearDown() override {
    log_writer_stop();
    wall_set_source(nullptr);
    log_on = false;
    log_reset();
  }
};

}  // namespace

TEST_F(LogTest, EntryTextFormat) {
  LogEntry e;
  e.level = 5;
  e.time = WallTime(local_ms(2024, 6, 3, 7, 8, 9) + 456);
  e.message = "Call 17: ringing";
  EXPECT_EQ(to_std(log_entry_text(e)), "[5] 20240603070809: Call 17: ringing");
  e.detail = "INVITE sip:x SIP/2.0";
  EXPECT_EQ(to_std(log_entry_text(e)), "[5] 20240603070809: Call 17: ringing\nINVITE sip:x SIP/2.0");

  log_add_message_global(LOG_SIP, 3, 0, "now");
  auto entries = log_entries();
  ASSERT_EQ(entries.size(), 1u);
  std::regex form(R"(^\[3\] 20[0-9]{2}(0[1-9]|1[0-2])(0[1-9]|[12][0-9]|3[01])([01][0-9]|2[0-3])[0-5][0-9][0-5][0-9]: now$)");
  EXPECT_TRUE(std::regex_match(to_std(log_entry_text(entries[0])), form)) << to_std(log_entry_text(entries[0]));
}

TEST_F(LogTest, EnabledFollowsLevelsOnAndOff) {
  log_set_level(LOG_SIP, 4);
  EXPECT_TRUE(log_enabled(LOG_SIP, 4));
  EXPECT_FALSE(log_enabled(LOG_SIP, 5));
  log_set_level(LOG_SIP, String("TRUE"));
  EXPECT_EQ(log_get_level(LOG_SIP, 0), 5);
  log_set_level(LOG_SIP, String("bogus"));
  EXPECT_EQ(log_get_level(LOG_SIP, 0), 0);
  log_set_level(LOG_SIP, String("9"));
  EXPECT_TRUE(log_enabled(LOG_SIP, 9));
  for (int c = 0; c < log_categories; c++) log_set_level(c, 0);
  EXPECT_TRUE(log_enabled(LOG_WATCH, 9));  // the watch category always passes
  EXPECT_FALSE(log_enabled(LOG_APP, 1));
  log_on = false;
  EXPECT_FALSE(log_enabled(LOG_WATCH, 0));
  log_on = true;
  log_set_duration("3600", true);  // read at boot: stays off
  EXPECT_FALSE(log_enabled(LOG_WATCH, 0));
  log_set_duration("never", false);
  EXPECT_TRUE(log_enabled(LOG_WATCH, 0));
}

TEST_F(LogTest, CategoryNames) {
  EXPECT_STREQ(category_name(0), "GENERAL");
  EXPECT_STREQ(category_name(10), "PROV");
  EXPECT_STREQ(category_name(15), "PACKETS");
  EXPECT_STREQ(category_name(23), "");
  EXPECT_STREQ(category_name(24), "GENERAL");
  EXPECT_STREQ(category_name(-1), "GENERAL");
}

TEST_F(LogTest, RepeatFilter) {
  for (int i = 0; i < 3; i++) log_add_message_global(LOG_SIP, 5, 0, "same");
  log_add_message_global(LOG_SIP, 5, 0, "other");
  log_add_message_global(LOG_SIP, 5, 0, "other");
  log_add_message_global(LOG_SIP, 6, 0, "other");  // another level: not a repeat
  log_add_message_global(LOG_SIP, 6, 0, "");       // only flushes
  EXPECT_EQ(messages(), (std::vector<std::string>{"same", "Last message repeated 3 times", "other",
                                                  "Last message repeated 2 times", "other"}));
  auto entries = log_entries();
  EXPECT_EQ(entries[1].level, 5);
  EXPECT_EQ(entries[1].category, LOG_SIP);
  EXPECT_TRUE(entries[1].detail.empty());
  // The detail counts too.
  clear_log();
  log_add_message_global(LOG_SIP, 5, 0, "m", "d1");
  log_add_message_global(LOG_SIP, 5, 0, "m", "d2");
  EXPECT_EQ(log_entries().size(), 2u);
}

TEST_F(LogTest, RingLength) {
  log_set_length(3);
  for (int i = 0; i < 5; i++) log_add_message_global(LOG_APP, 1, 0, format("m%d", i));
  EXPECT_EQ(messages(), (std::vector<std::string>{"m2", "m3", "m4"}));
  log_set_length(0);
  EXPECT_EQ(log_entries_size(), 0);
  log_add_message_global(LOG_APP, 1, 0, "x");
  EXPECT_EQ(log_entries_size(), 0);
  log_set_length(-1);
  for (int i = 0; i < 500; i++) log_add_message_global(LOG_APP, 1, 0, format("n%d", i));
  EXPECT_EQ(log_entries_size(), 500);
  clear_log();
  EXPECT_EQ(log_entries_size(), 0);
}

TEST_F(LogTest, DurationRunsOutAndTurnsTheStoreOff) {
  fake_wall = local_ms(2024, 6, 10, 12, 0, 0);
  wall_set_source(fake_wall_ms);
  log_set_duration("3600", false);
  EXPECT_TRUE(log_enabled(LOG_APP, 1));
  log_add_message_global(LOG_APP, 1, 0, "a");
  log_add_message_global(LOG_APP, 1, 0, "a");
  fake_wall += 3600 * 1000;
  log_add_message_global(LOG_APP, 1, 0, "late");  // dropped; the repeat count is flushed
  EXPECT_EQ(messages(), (std::vector<std::string>{"a", "Last message repeated 2 times"}));
  EXPECT_FALSE(log_enabled(LOG_APP, 0));
  EXPECT_FALSE(log_enabled(LOG_WATCH, 0));
  log_set_duration("", false);
  EXPECT_TRUE(log_enabled(LOG_APP, 0));
}

TEST_F(LogTest, DomainStores) {
  EXPECT_FALSE(log_enabled(LOG_SIP, 1, 7));  // no store yet
  log_set_domain_level(7, "3");
  EXPECT_TRUE(log_enabled(LOG_SIP, 3, 7));
  EXPECT_FALSE(log_enabled(LOG_SIP, 4, 7));
  EXPECT_TRUE(log_enabled(LOG_WATCH, 9, 7));
  log_set_level(LOG_SIP, String("8"), 7);
  log_set_level(LOG_SIP, 2);
  EXPECT_EQ(log_get_level(LOG_SIP, 7), 8);
  EXPECT_EQ(log_get_level(LOG_SIP, 0), 2);
  log_add_message_domain(LOG_SIP, 3, 7, "for the tenant");
  log_add_message_domain(LOG_SIP, 3, 7, "for the tenant");
  log_add_message_domain(LOG_SIP, 3, 7, "next");
  ASSERT_EQ(log_entries(7).size(), 3u);
  EXPECT_EQ(to_std(log_entries(7)[1].message), "Last message repeated 2 times");
  EXPECT_EQ(log_entries_size(), 0);  // the global ring is apart
  log_set_length(1, 7);
  EXPECT_EQ(log_entries(7).size(), 1u);
  clear_log(7);
  EXPECT_EQ(log_entries(7).size(), 0u);
  log_delete_domain(7);
  EXPECT_FALSE(log_enabled(LOG_SIP, 1, 7));
}

TEST_F(LogTest, WatchCategoryIsWrittenWithAllLevelsZero) {
  for (int c = 0; c < log_categories; c++) log_set_level(c, 0);
  if (log_enabled(LOG_WATCH, 9)) log_add_message_global(LOG_WATCH, 9, 0, "watched");
  EXPECT_EQ(messages(), (std::vector<std::string>{"watched"}));
}

TEST_F(LogTest, FileRotatesAtMidnightAndOldFilesGo) {
  TempDir dir;
  fake_wall = local_ms(2024, 6, 10, 23, 59, 59);
  wall_set_source(fake_wall_ms);
  std::string base = dir.path() + "/log";
  std::ofstream(base + "2024-06-08.txt") << "old\n";   // log_keep (3) days before 06-11
  std::ofstream(base + "2024-06-07.txt") << "older\n";  // not this rotation's business
  set_log_file(String((base + "$.txt").c_str()));
  log_add_message_global(LOG_APP, 1, 0, "before midnight");
  log_writer_drain();
  EXPECT_EQ(read_all(base + "2024-06-10.txt"), "[1] 20240610235959: before midnight\n");
  fake_wall = local_ms(2024, 6, 11, 0, 0, 1);
  log_add_message_global(LOG_APP, 1, 0, "after midnight", "with detail");
  log_writer_drain();
  EXPECT_EQ(read_all(base + "2024-06-11.txt"), "[1] 20240611000001: after midnight\nwith detail\n");
  EXPECT_EQ(read_all(base + "2024-06-10.txt"), "[1] 20240610235959: before midnight\n");
  EXPECT_FALSE(std::filesystem::exists(base + "2024-06-08.txt"));
  EXPECT_TRUE(std::filesystem::exists(base + "2024-06-07.txt"));
}

TEST_F(LogTest, PlainFileNameAppends) {
  TempDir dir;
  std::string path = dir.file("exch.log");
  std::ofstream(path) << "kept\n";
  set_log_file(String(path.c_str()));
  log_add_message_global(LOG_APP, 2, 0, "one");
  log_add_message_global(LOG_APP, 2, 0, "two");
  log_writer_drain();
  std::string text = read_all(path);
  EXPECT_TRUE(std::regex_match(text, std::regex("kept\n\\[2\\] [0-9]{14}: one\n\\[2\\] [0-9]{14}: two\n"))) << text;
}

TEST_F(LogTest, UnwritableDirectoryIsRetriedAndNothingElseStops) {
  TempDir dir;
  std::string blocker = dir.file("not-a-dir");
  std::ofstream(blocker) << "x";
  set_log_file(String((blocker + "/log.txt").c_str()));  // parent is a file: ENOTDIR
  log_add_message_global(LOG_APP, 1, 0, "lost for the file");
  log_writer_drain();
  EXPECT_EQ(log_entries_size(), 1);  // the ring has it
  std::string good = dir.file("good.txt");
  set_log_file(String(good.c_str()));
  log_add_message_global(LOG_APP, 1, 0, "written");
  log_writer_drain();
  std::string text = read_all(good);
  EXPECT_TRUE(std::regex_match(text, std::regex("\\[1\\] [0-9]{14}: written\n"))) << text;
  EXPECT_EQ(log_entries_size(), 2);
}

TEST_F(LogTest, WriterThreadWritesTheFile) {
  TempDir dir;
  std::string path = dir.file("threaded.txt");
  set_log_file(String(path.c_str()));
  single_threaded = false;
  log_writer_start();
  log_add_message_global(LOG_APP, 1, 0, "via the thread");
  for (int i = 0; i < 500 && read_all(path).empty(); i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  log_writer_stop();
  single_threaded = true;
  EXPECT_NE(read_all(path).find("via the thread"), std::string::npos);
}

TEST_F(LogTest, SyslogPriorityAndTimeStamp) {
  int expected[] = {128, 129, 130, 131, 132, 133, 133, 134, 135, 135};
  for (int level = 0; level <= 9; level++) EXPECT_EQ(syslog_priority(level), expected[level]) << level;
  EXPECT_EQ(to_std(syslog_time_stamp(WallTime(local_ms(2024, 2, 5, 7, 8, 9)))), "Feb 05 07:08:09");
  EXPECT_EQ(to_std(syslog_time_stamp(WallTime(local_ms(2024, 12, 31, 23, 0, 0)))), "Dec 31 23:00:00");
  LogEntry e;
  e.level = 5;
  e.time = WallTime(local_ms(2024, 6, 1, 10, 20, 30));
  e.message = String::repeat('m', 2000);
  String d = syslog_datagram(e);
  EXPECT_EQ(d.length(), 1024);
  EXPECT_TRUE(d.starts_with("<133>Jun 01 10:20:30 "));
}

namespace {

struct UdpListener {
  int fd = -1;
  int port = 0;
  UdpListener() {
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
  }
  ~UdpListener() { close(fd); }
  std::string receive(int timeout_ms = 5000) {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return "";
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, n) : "";
  }
};

}  // namespace

TEST_F(LogTest, SyslogDatagramsReachAListener) {
  UdpListener listener;
  syslog_set_server(format("127.0.0.1:%d", listener.port));
  EXPECT_EQ(messages().back(), "syslog messages will be sent to 127.0.0.1:" + std::to_string(listener.port));
  log_add_message_global(LOG_SIP, 5, 0, "level five");
  log_add_message_global(LOG_SIP, 0, 0, "level zero", "the detail");
  log_writer_drain();
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  std::string first = listener.receive();  // the "will be sent" line itself
  EXPECT_EQ(first.rfind("<129>", 0), 0u) << first;
  std::string five = listener.receive();
  std::regex stamp("[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}");
  EXPECT_TRUE(std::regex_match(five, std::regex("<133>[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} " +
                                                std::string(host) + " level five ")))
      << five;
  std::string zero = listener.receive();
  EXPECT_TRUE(std::regex_match(zero, std::regex("<128>[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} " +
                                                std::string(host) + " level zero the detail")))
      << zero;
  log_set_level(LOG_APP, 7);
  syslog_set_server("");
  EXPECT_EQ(messages().back(), "syslog is disabled on the PBX");
  log_add_message_global(LOG_SIP, 5, 0, "not sent");
  log_writer_drain();
  EXPECT_EQ(listener.receive(200), "");
}

// Four threads log while a fifth changes levels and lengths, and the writer writes a file.
TEST_F(LogTest, ThreadsFourLogWhileLevelsChangeAndWriterRuns) {
  TempDir dir;
  std::string path = dir.file("tsan.txt");
  set_log_file(String(path.c_str()));
  single_threaded = false;
  log_writer_start();
  std::atomic<bool> done{false};
  std::thread changer([&] {
    int i = 0;
    while (!done.load()) {
      log_set_level(i % log_categories, i % 10);
      if (i % 50 == 0) log_set_length(i % 200);
      if (i % 77 == 0) log_set_domain_level(3, String(i % 10));
      i++;
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> loggers;
  for (int t = 0; t < 4; t++) {
    loggers.emplace_back([t] {
      for (int i = 0; i < 3000; i++) {
        int category = (t * 7 + i) % log_categories;
        if (log_enabled(category, i % 10))
          log_add_message_global(category, i % 10, 0, format("thread %d line %d", t, i / 3));
        if (log_enabled(category, 1, 3)) log_add_message_domain(category, 1, 3, format("dom %d", t));
      }
    });
  }
  for (auto& l : loggers) l.join();
  done = true;
  changer.join();
  log_writer_stop();
  single_threaded = true;
  EXPECT_NE(read_all(path).find("thread "), std::string::npos);
}
