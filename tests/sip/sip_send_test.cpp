#include "sip/sip_send.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "core/posting.h"
#include "core/udp_socket.h"
#include "sip/listening_ports.h"
#include "sip/sip_message.h"
#include "tests/support/test_support.h"

// A response posted by the service half leaves through the SIP UDP socket it names, with
// the placeholders of its Via and Contact filled in for that socket.
TEST(SipSendTest, OrderByKeyLeavesThroughThatSocket) {
  sip_send_register();
  UdpSocket probe;
  ASSERT_TRUE(probe.open(0, any_ipv4));
  int port = probe.port;
  probe.close();
  sip_udp_ports.apply(format("127.0.0.1:%d", port), String());
  UdpSocket phone;
  ASSERT_TRUE(phone.open(0, parse_adr(String("127.0.0.1"))));
  SipMessage request(String("REGISTER sip:pbx.test SIP/2.0\r\n"
                            "Via: SIP/2.0/UDP 127.0.0.1:5062;branch=z9hG4bK1;rport\r\n"
                            "From: <sip:1001@pbx.test>;tag=a\r\nTo: <sip:1001@pbx.test>\r\n"
                            "Call-ID: c1\r\nCSeq: 1 REGISTER\r\nContent-Length: 0\r\n\r\n"));
  SipMessage ok(200, String("OK"), request);
  SendOrder order;
  order.socket_key = format("udp:%d", port);
  order.message = ok.serialise(Transport::udp);
  order.destination = Address(parse_adr(String("127.0.0.1")), phone.port);
  order.transport = String("udp");
  post_send_order(order);
  exchsrv_soap();
  pollfd p = {phone.fd, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 2000), 1);
  String text;
  Address from;
  ASSERT_TRUE(phone.receive(text, from));
  EXPECT_EQ(from.port, port);
  EXPECT_TRUE(text.starts_with(String("SIP/2.0 200 OK\r\n")));
  EXPECT_FALSE(text.contains(String("{x-pre")));
  EXPECT_TRUE(text.contains(String("Content-Length: 0")));

  LogCapture log;
  order.socket_key = String("udp:1");
  EXPECT_FALSE(execute_send_order(order));
  order.socket_key = String("tcp:99999");
  EXPECT_FALSE(execute_send_order(order));
  EXPECT_TRUE(log.contains("connection gone"));
  sip_udp_ports.close_all();
}
