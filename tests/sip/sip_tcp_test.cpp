#include "sip/sip_tcp.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <vector>

#include "core/posting.h"
#include "core/tcp_server.h"
#include "core/udp_socket.h"
#include "sip/sip_receive.h"
#include "sip/stun.h"
#include "tests/support/test_support.h"

namespace {

std::vector<ReceivedPacket> packets;
void on_packet(const String& value) {
  ReceivedPacket p;
  if (read_received_packet(value, p)) packets.push_back(p);
}

class SipTcpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    register_service_handler(tag_sip_received, on_packet);
    pbxsrv_soap();  // what an earlier test left in the queue
    packets.clear();
    sip_tcp_register();
    TcpSocket probe;
    ASSERT_TRUE(probe.listen(0, parse_adr(String("127.0.0.1"))));
    port_ = probe.port();
    probe.close();
    apply_tcp_listeners(ListenerKind::sip, false, format("127.0.0.1:%d", port_), 80);
    ASSERT_EQ(tcp_listener_port(ListenerKind::sip, false, false), port_);
    ASSERT_TRUE(phone_.connect(Address(parse_adr(String("127.0.0.1")), port_), false));
    pass();
    ASSERT_EQ(tcp_connection_count(), 1);
  }
  void TearDown() override { tcp_server_reset(); }

  // One pass of the loop over the TCP parties, then the service half's queue.
  void pass() {
    PollSet set;
    LoopParty parties[] = {tcp_connection_party(), tcp_listener_party()};
    for (auto& p : parties) p.add(set);
    if (set.wait(500) > 0)
      for (auto& p : parties) p.serve(set, Tick::now());
    pbxsrv_soap();
  }
  void send(const String& text) {
    ASSERT_TRUE(phone_.send(text));
    usleep(2000);
    pass();
  }

  int port_ = 0;
  TcpSocket phone_;
};

}  // namespace

TEST_F(SipTcpTest, RequestWrittenByteByByteIsPostedOnce) {
  String request("OPTIONS sip:pbx SIP/2.0\r\nContent-Length: 5\r\n\r\nhello");
  for (int i = 0; i < request.length(); i++) send(request.substr(i, 1));
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].text, request);
  EXPECT_TRUE(packets[0].socket_key.starts_with(String("tcp:")));
  EXPECT_EQ(packets[0].transport, String("tcp"));
}

TEST_F(SipTcpTest, KeepAlivesAndStunFramesAreNotPosted) {
  send(String("\r\n\r\n"));
  String stun = stun_binding_request();
  send(stun.head(7));
  send(stun.tail(7));
  send(String("INVITE sip:x SIP/2.0\r\nl: 6\r\n\r\n12"));  // the body comes in three reads
  send(String("34"));
  EXPECT_TRUE(packets.empty());
  send(String("56"));
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_TRUE(packets[0].text.ends_with(String("123456")));
  pollfd p = {phone_.fd(), POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 100), 0) << "a keep-alive gets no answer";
}

TEST_F(SipTcpTest, EndlessHeadersCloseTheConnection) {
  LogCapture log;
  for (int i = 0; i < 7; i++) send(String::repeat('A', 10000));
  for (int i = 0; i < 5 && tcp_connection_count() > 0; i++) pass();
  EXPECT_EQ(tcp_connection_count(), 0);
  // The service half hears of the close as an empty packet on the connection's key.
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_TRUE(packets[0].text.empty());
}
