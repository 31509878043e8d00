#include <gtest/gtest.h>
#include <poll.h>

#include "core/address.h"
#include "core/tcp_socket.h"
#include "core/udp_socket.h"
#include "tests/support/test_support.h"

TEST(AddressTest, TextForms) {
  struct Case {
    const char* text;
    const char* canonical;
  } cases[] = {
      {"192.168.1.2", "192.168.1.2"},
      {"2001:db8::1", "2001:db8::1"},
      {"[2001:DB8:0:0:0:0:0:1]", "2001:db8::1"},
      {"::", "::"},
      {"::1", "::1"},
      {"fe80::", "fe80::"},
      {"2001:db8:0:1:0:0:0:1", "2001:db8:0:1::1"},
      {"2001:0:1:2:3:4:5:6", "2001:0:1:2:3:4:5:6"},  // a single zero group stays
      {"::ffff:1.2.3.4", "::ffff:102:304"},
  };
  for (const auto& c : cases) EXPECT_EQ(adr_text(parse_adr(String(c.text))), String(c.canonical)) << c.text;
  EXPECT_EQ(parse_adr(String("::ffff:1.2.3.4")).length(), 16);
  const char* bad[] = {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "host.example", "[::1", "1::2::3", "01.2.3.4x"};
  for (const char* b : bad) EXPECT_TRUE(parse_adr(String(b)).empty()) << b;

  EXPECT_EQ(adr_text(String()), String("0.0.0.0"));
  EXPECT_EQ(adr_text(String("abc")), String("0.0.0.0"));
  EXPECT_EQ(adr_text(parse_adr(String("::1")), true), String("[::1]"));
  EXPECT_EQ(address_text(Address(parse_adr(String("10.0.0.1")), 5060)), String("10.0.0.1:5060"));
  EXPECT_EQ(address_text(Address(parse_adr(String("::1")), 5061)), String("[::1]:5061"));
  EXPECT_EQ(transport_address_text(String("udp"), Address(parse_adr(String("::1")), 1)), String("udp:[::1]:1"));
  String keep;
  EXPECT_EQ(format("from %s", address_slot(Address(parse_adr(String("1.2.3.4")), 9), keep)), String("from 1.2.3.4:9"));
}

TEST(AddressTest, HostAndPortParts) {
  struct Case {
    const char* text;
    const char* host;
    const char* port;
  } cases[] = {{"[2001:db8::1]:5061", "2001:db8::1", "5061"}, {"[::1]", "::1", ""},
               {"pbx.example:5070", "pbx.example", "5070"},  {"pbx.example", "pbx.example", ""},
               {"2001:db8::1", "2001:db8::1", ""},          {"1.2.3.4:", "1.2.3.4", ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(host_part(String(c.text)), String(c.host)) << c.text;
    EXPECT_EQ(port_part(String(c.text)), String(c.port)) << c.text;
  }
  Address a = parse_address(String("127.0.0.2:15070"), 5060);
  EXPECT_EQ(a.port, 15070);
  EXPECT_EQ(parse_address(String("127.0.0.2"), 5060).port, 5060);
}

TEST(AddressTest, DscpTexts) {
  struct Case {
    const char* text;
    int value;
  } cases[] = {{"cs5", 160}, {"af41", 136}, {"ef", 184}, {"300", 224}, {"xx", 0}, {"46", 46}, {"-4", 0}, {"", 0}};
  for (const auto& c : cases) EXPECT_EQ(dscp_value(String(c.text)), c.value) << c.text;
}

static bool wait_readable(int fd) {
  pollfd p = {fd, POLLIN, 0};
  return poll(&p, 1, 2000) == 1;
}

TEST(SocketTest, UdpBothFamiliesShareAPort) {
  UdpSocket v4, v6, client;
  ASSERT_TRUE(v4.open(0, any_ipv4));
  ASSERT_TRUE(v6.open(v4.port, any_ipv6)) << "the IPv6 any-socket must not take the IPv4 port";
  ASSERT_TRUE(client.open(0, parse_adr(String("127.0.0.1"))));
  ASSERT_TRUE(client.send_to(String("hello"), Address(parse_adr(String("127.0.0.1")), v4.port)));
  ASSERT_TRUE(wait_readable(v4.fd));
  String text;
  Address from;
  ASSERT_TRUE(v4.receive(text, from));
  EXPECT_EQ(text, String("hello"));
  EXPECT_EQ(from.port, client.port);
  EXPECT_FALSE(v4.receive(text, from));  // nothing left: no error, no log
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(v4.local_for(parse_adr(String("127.0.0.1"))).adr, parse_adr(String("127.0.0.1")));
  EXPECT_FALSE(client.send_to(String(), Address(parse_adr(String("127.0.0.1")), v4.port)));
  EXPECT_FALSE(client.send_to(String("x"), Address(parse_adr(String("127.0.0.1")), 0)));
  LogCapture log;
  UdpSocket bad;
  EXPECT_FALSE(bad.open(70000, any_ipv4));
  EXPECT_TRUE(log.contains("UDP: Illegal port number"));
  UdpSocket taken;
  EXPECT_FALSE(taken.open(v4.port, any_ipv4));
  EXPECT_TRUE(log.contains("UDP (IPv4): bind() to port"));
}

TEST(SocketTest, TcpQueueFlushesWhenWritable) {
  TcpSocket listener;
  ASSERT_TRUE(listener.listen(0, parse_adr(String("127.0.0.1"))));
  ASSERT_GT(listener.port(), 0);
  TcpSocket client;
  ASSERT_TRUE(client.connect(Address(parse_adr(String("127.0.0.1")), listener.port())));
  ASSERT_TRUE(wait_readable(listener.fd()));
  TcpSocket server;
  ASSERT_TRUE(server.accept(listener));
  EXPECT_EQ(server.peer().adr, parse_adr(String("127.0.0.1")));
  String big = String::repeat('s', 300000);  // more than the kernel takes at once
  ASSERT_TRUE(server.send(big));
  String got;
  for (int i = 0; i < 1000 && got.length() < big.length(); i++) {
    if (wait_readable(client.fd())) got.append(client.receive());
    server.send(String());  // writable: flush what is queued
  }
  EXPECT_EQ(got, big);
  EXPECT_FALSE(server.pending_output());
  TcpSocket copy = server;
  server.close();
  EXPECT_FALSE(copy.valid());
  LogCapture log;
  EXPECT_FALSE(copy.send(String("x")));
  EXPECT_TRUE(log.contains("Could not send via TCP: 1 bytes to"));
}
