#include "core/tcp_server.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <vector>

#include "core/access_hooks.h"
#include "tests/support/test_support.h"

namespace {

String threads_setting("2");
String setting(const char* name) {
  if (String(name) == "http_threads") return threads_setting;
  if (String(name) == "max_tcp_keep") return String("1000");
  return String();
}

int listen_port() {
  TcpSocket probe;
  if (!probe.listen(0, parse_adr(String("127.0.0.1")))) return 0;
  int port = probe.port();
  probe.close();
  return port;
}

void run_due_timers() {
  Tick now;
  uint64_t id;
  while (control_queue.delay(now, id, true) == 0) control_queue.next();
}

void pass() {
  run_due_timers();
  PollSet set;
  LoopParty parties[] = {tcp_connection_party(), tcp_listener_party()};
  for (auto& p : parties) p.add(set);
  if (set.wait(300) > 0)
    for (auto& p : parties) p.serve(set, Tick::now());
}

bool closed_by_peer(TcpSocket& s) {
  pollfd p = {s.fd(), POLLIN, 0};
  if (poll(&p, 1, 1000) != 1) return false;
  return s.receive().empty() && !s.would_block();
}

}  // namespace

TEST(TcpServerTest, ConnectionLimitClosesTheExtraOneWithoutANumber) {
  tcp_server_reset();  // numbers count from 1 again
  set_setting_reader(setting);
  int port = listen_port();
  apply_tcp_listeners(ListenerKind::web, false, format("127.0.0.1:%d", port), 80);
  LogCapture log;
  Address to(parse_adr(String("127.0.0.1")), port);
  TcpSocket a, b, c;
  ASSERT_TRUE(a.connect(to, false));
  pass();
  ASSERT_TRUE(b.connect(to, false));
  pass();
  EXPECT_EQ(tcp_connection_count(), 2);
  EXPECT_NE(tcp_connection(1), nullptr);
  EXPECT_NE(tcp_connection(2), nullptr);
  ASSERT_TRUE(c.connect(to, false));
  pass();
  EXPECT_TRUE(closed_by_peer(c));
  EXPECT_TRUE(log.contains("Current number of requests 2 has reached maximum 2, connections not accepted"));
  tcp_close(2);
  pass();
  EXPECT_EQ(tcp_connection_count(), 1);
  TcpSocket d;
  ASSERT_TRUE(d.connect(to, false));
  pass();
  EXPECT_NE(tcp_connection(3), nullptr) << "the refused connection took no number";
  tcp_server_reset();
  set_setting_reader(nullptr);
}

TEST(TcpServerTest, BlacklistedPeerIsKeptUnreadForAShrinkingTime) {
  set_setting_reader(setting);
  set_acl_hooks([](const Address&, int) { return -1; }, nullptr);
  threads_setting = String("1000");
  int port = listen_port();
  apply_tcp_listeners(ListenerKind::sip, false, format("127.0.0.1:%d", port), 80);
  LogCapture log;
  TcpSocket a;
  ASSERT_TRUE(a.connect(Address(parse_adr(String("127.0.0.1")), port), false));
  pass();
  // 1000 ms times (1000 - 0) / 1000: kept a second, never read.
  EXPECT_TRUE(log.contains("Accept connection from blacklisted address 127.0.0.1:"));
  EXPECT_TRUE(log.contains(" for 1000 ms"));
  EXPECT_EQ(tcp_connection_count(), 1);
  threads_setting = String("1001");
  tcp_server_reset();
  apply_tcp_listeners(ListenerKind::sip, false, format("127.0.0.1:%d", port), 80);
  // The fuller the table, the shorter the wait.
  threads_setting = String("2");
  TcpSocket b, c;
  ASSERT_TRUE(b.connect(Address(parse_adr(String("127.0.0.1")), port), false));
  pass();
  ASSERT_TRUE(c.connect(Address(parse_adr(String("127.0.0.1")), port), false));
  pass();
  EXPECT_TRUE(log.contains(" for 500 ms"));
  set_acl_hooks(nullptr, nullptr);
  tcp_server_reset();
  set_setting_reader(nullptr);
  threads_setting = String("2");
}
