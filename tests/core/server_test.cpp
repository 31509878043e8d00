#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "core/files.h"
#include "core/mutex.h"
#include "core/ntp_server.h"
#include "core/posting.h"
#include "core/server.h"
#include "core/tagged_text.h"
#include "core/udp_socket.h"
#include "core/wakeup.h"
#include "tests/support/test_support.h"

namespace {

constexpr int echo_tag = 200;
constexpr int back_tag = 201;
std::mutex seen_lock;
std::vector<String> seen;
std::atomic<int> seen_count{0};

void echo_on_service_side(const String& value) {
  must_own(srv_run_mutex, "echo_on_service_side", 1);
  TaggedText back;
  (void)back.add(back_tag, value);
  out_post(back.text());
}

void record_on_control_side(const String& value) {
  must_own(ctrl_run_mutex, "record_on_control_side", 1);
  std::lock_guard<std::mutex> g(seen_lock);
  seen.push_back(value);
  seen_count++;
}

}  // namespace

// Messages posted from several threads towards the service half come back to the
// control half intact and, per sender, in order.
TEST(ServerThreadsTest, PostedMessagesCrossBothWaysInOrder) {
  register_service_handler(echo_tag, echo_on_service_side);
  register_control_handler(back_tag, record_on_control_side);
  server_start_threads();
  constexpr int senders = 4, per_sender = 500;
  std::vector<std::thread> threads;
  for (int s = 0; s < senders; s++) {
    threads.emplace_back([s] {
      for (int i = 0; i < per_sender; i++) {
        TaggedText m;
        (void)m.add(echo_tag, format("%d:%d:%s", s, i, String::repeat('p', i % 300)));
        pbxsrv_post(m.text());
        if (i % 50 == 0) pbxsrv_flush();
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 0; i < 2000 && seen_count.load() < senders * per_sender; i++) {
    pbxsrv_flush();
    usleep(5000);
  }
  server_stop_threads();
  single_threaded.store(true);
  ASSERT_EQ(seen.size(), static_cast<size_t>(senders * per_sender));
  std::vector<int> next(senders, 0);
  for (const String& v : seen) {
    int s = v.word(0, ':').to_int();
    int i = v.word(1, ':').to_int();
    ASSERT_EQ(i, next[s]) << "out of order from sender " << s;
    next[s]++;
    EXPECT_EQ(v.word(2, ':').length(), i % 300);
  }
}

TEST(ServerTest, UnknownAndTruncatedPostedItemsAreRefused) {
  LogCapture log;
  dispatch_posted(String("\x09\x00\x00\x02" "ok", 6), true);
  EXPECT_TRUE(log.contains("No handler for posted message 9"));
  dispatch_posted(String("\x09\x00\x00\x40" "short", 9), false);
  EXPECT_TRUE(log.contains("Posted message cut short"));
}

TEST(ServerTest, NtpRequestGetsAReplyThroughTheLoop) {
  set_setting_reader([](const char* name) { return String(name) == "ip_ntp_port" ? String("0") : String(); });
  ntp_bind();
  ASSERT_GT(ntp_port(), 0);
  std::vector<LoopParty> parties = {ntp_party()};
  UdpSocket client;
  ASSERT_TRUE(client.open(0, parse_adr(String("127.0.0.1"))));
  String request = String::repeat(0, 48);
  request.set_byte(0, 0x23);  // version 4, client mode
  ASSERT_TRUE(client.send_to(request, Address(parse_adr(String("127.0.0.1")), ntp_port())));
  PollSet set;
  for (int i = 0; i < 50; i++) {
    set.reset();
    parties[0].add(set);
    if (set.wait(100) > 0) {
      parties[0].serve(set, Tick::now());
      break;
    }
  }
  pollfd p = {client.fd, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 2000), 1);
  String reply;
  Address from;
  ASSERT_TRUE(client.receive(reply, from));
  EXPECT_EQ(reply.length(), 48);
  EXPECT_EQ(reply.byte_at(0), 28);
  EXPECT_EQ(reply.substr(12, 4), String::bytes(127, 0, 0, 1));
  set_setting_reader(nullptr);
  ntp_bind();
  EXPECT_EQ(ntp_port(), 0);
}

TEST(ServerTest, RebootReasonFromThePreviousRun) {
  TempDir dir;
  char old[1024];
  ASSERT_NE(getcwd(old, sizeof old), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  struct Case {
    const char* file;
    const char* reason;
    const char* location;
  } cases[] = {
      {nullptr, "unknown", ""},
      {"\x01garbage{{", "unknown", ""},
      {"{\"reason\":\"crash\",\"location\":\"SIP UDP\"}", "crash", "SIP UDP"},
      {"{\"reason\":\"reboot\"}", "reboot", ""},
      {"[1,2]", "unknown", ""},
  };
  for (const auto& c : cases) {
    if (c.file) {
      ASSERT_TRUE(write_file(String(c.file), String("reboot.txt")));
    }
    String reason, location;
    read_reboot_reason(reason, location);
    EXPECT_EQ(reason, String(c.reason));
    EXPECT_EQ(location, String(c.location));
    EXPECT_EQ(file_size(String("reboot.txt")), -1);  // read once, then gone
  }
  ASSERT_EQ(chdir(old), 0);
}
