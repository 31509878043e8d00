#include "sip/sip_receive.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <vector>

#include "core/posting.h"
#include "core/udp_socket.h"
#include "sip/listening_ports.h"
#include "sip/stun.h"
#include "tests/support/test_support.h"

TEST(SipFrameTest, CutsOneMessage) {
  struct Case {
    const char* text;
    bool strict;
    int taken;
    const char* message;
  } cases[] = {
      {"OPTIONS sip:a SIP/2.0\r\nContent-Length: 0\r\n\r\n", true, 44, "OPTIONS sip:a SIP/2.0\r\nContent-Length: 0\r\n\r\n"},
      {"\r\n\r\nX\r\nl: 3\r\n\r\nabcdef", true, 18, "X\r\nl: 3\r\n\r\nabc"},
      {"X\nContent-Length: 2\n\nabc", true, 23, "X\nContent-Length: 2\n\nab"},
      {"X\r\n\r\nbody", true, 5, "X\r\n\r\n"},        // no length: none, strictly
      {"X\r\n\r\nbody", false, 9, "X\r\n\r\nbody"},   // else the rest
      {"X\r\nContent-Length: 10\r\n\r\nshort", true, 0, ""},
      {"X\r\nContent-Length: -1\r\n\r\n", true, 0, ""},
      {"X\r\nContent-Length: 99999999999\r\n\r\n", true, 0, ""},
      {"X\r\nContent-Length: 1x\r\n\r\nab", true, 0, ""},
      {"no end of headers\r\n", true, 0, ""},
      {"", true, 0, ""},
  };
  for (const auto& c : cases) {
    String message;
    EXPECT_EQ(sip_frame(String(c.text), c.strict, message), c.taken) << c.text;
    EXPECT_EQ(message, String(c.message)) << c.text;
  }
}

TEST(StunTest, BindingResponseCarriesTheSender) {
  String request = stun_binding_request();
  ASSERT_EQ(request.length(), 20);
  EXPECT_TRUE(looks_like_stun(request));
  Address from(parse_adr(String("192.0.2.1")), 0x1234);
  String r = stun_binding_response(request, from);
  ASSERT_EQ(r.length(), 32);
  EXPECT_EQ(r.head(2), String::bytes(1, 1));
  EXPECT_EQ(r.substr(8, 12), request.substr(8, 12));
  EXPECT_EQ(r.substr(24, 8), String::bytes(0, 1, 0x12, 0x34) + String::bytes(static_cast<char>(192), 0, 2, 1));
  EXPECT_EQ(stun_binding_response(request, Address(parse_adr(String("::1")), 5)).length(), 44);
  EXPECT_TRUE(stun_binding_response(request.head(19), from).empty());
  EXPECT_TRUE(stun_binding_response(String::bytes(1, 1, 0, 0) + request.tail(4), from).empty());
}

static std::vector<ReceivedPacket> received;
static void on_received(const String& value) {
  ReceivedPacket p;
  if (read_received_packet(value, p)) received.push_back(p);
}

static bool wait_readable(int fd) {
  pollfd p = {fd, POLLIN, 0};
  return poll(&p, 1, 2000) == 1;
}

// A datagram on a SIP port reaches the service half as a posted packet; STUN is
// answered on the spot; garbage is logged in hexadecimal and goes nowhere.
TEST(SipReceiveTest, DatagramsOfTheSipPort) {
  register_service_handler(tag_sip_received, on_received);
  pbxsrv_soap();  // what earlier tests left posted
  received.clear();
  UdpSocket probe;
  ASSERT_TRUE(probe.open(0, any_ipv4));
  int port = probe.port;
  probe.close();
  sip_udp_ports.apply(format("127.0.0.1:%d", port), String());
  ASSERT_EQ(sip_udp_ports.sockets().size(), 1u);
  UdpSocket phone;
  ASSERT_TRUE(phone.open(0, parse_adr(String("127.0.0.1"))));
  Address pbx(parse_adr(String("127.0.0.1")), port);
  LoopParty party = sip_udp_party();
  auto pass = [&] {
    PollSet set;
    party.add(set);
    if (set.wait(2000) > 0) party.serve(set, Tick::now());
  };
  LogCapture log;
  ASSERT_TRUE(phone.send_to(String("OPTIONS sip:x SIP/2.0\r\nContent-Length: 0\r\n\r\n"), pbx));
  pass();
  pbxsrv_soap();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].socket_key, format("udp:%d", port));
  EXPECT_EQ(received[0].source.port, phone.port);
  EXPECT_EQ(received[0].transport, String("udp"));
  EXPECT_TRUE(received[0].text.starts_with(String("OPTIONS")));

  ASSERT_TRUE(phone.send_to(stun_binding_request(), pbx));
  pass();
  ASSERT_TRUE(wait_readable(phone.fd));
  String answer;
  Address from;
  ASSERT_TRUE(phone.receive(answer, from));
  EXPECT_EQ(answer.substr(26, 2), String::bytes(static_cast<char>(phone.port >> 8), static_cast<char>(phone.port & 255)));

  const String hostile[] = {String("abcd"), String("\0INVITE", 7), String::repeat('A', 65507),
                            String("INVITE sip:x SIP/2.0\r\nContent-Length: 500\r\n\r\nshort")};
  for (const String& h : hostile) {
    ASSERT_TRUE(phone.send_to(h, pbx));
    pass();
  }
  pbxsrv_soap();
  EXPECT_EQ(received.size(), 1u);
  EXPECT_TRUE(log.contains("Illegal pdu(127.0.0.1:"));
  EXPECT_TRUE(log.contains("=65507): 414141"));
  sip_udp_ports.close_all();
}
