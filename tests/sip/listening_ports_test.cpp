#include "sip/listening_ports.h"

#include <gtest/gtest.h>

#include "core/command_line.h"
#include "sip/interfaces.h"
#include "tests/support/test_support.h"

static int free_udp_port() {
  UdpSocket probe;
  return probe.open(0, any_ipv4) ? probe.port : 0;
}

TEST(ListeningPortsTest, PortListExpansion) {
  startup_options.use_ipv4 = startup_options.use_ipv6 = true;
  auto items = expand_port_list(String("5060 127.0.0.2:5070 [::1]:5071"), 5060, "SIP");
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(items[0].adr, any_ipv4);
  EXPECT_EQ(items[1].adr, any_ipv6);
  EXPECT_EQ(items[2].adr, parse_adr(String("127.0.0.2")));
  EXPECT_EQ(items[2].port, 5070);
  EXPECT_EQ(items[3].port, 5071);
  LogCapture log;
  items = expand_port_list(String("70000 0"), 5060, "SIP");
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(items[0].port, 5060);
  EXPECT_TRUE(log.contains("SIP: Port number 70000 is invalid, taking 5060 instead"));
  EXPECT_TRUE(log.contains("SIP: Port number 0 is invalid, taking 5060 instead"));
  startup_options.use_ipv6 = false;
  EXPECT_EQ(expand_port_list(String("5060"), 5060, "SIP").size(), 1u);
  startup_options.use_ipv6 = true;
}

TEST(ListeningPortsTest, BindsEachItemAndKeepsTheRestWhenOneFails) {
  int a = free_udp_port(), b = free_udp_port();
  UdpPortList list("SIP", 5060);
  LogCapture log;
  UdpSocket blocker;
  ASSERT_TRUE(blocker.open(b, parse_adr(String("127.0.0.1"))));
  list.apply(format("%d 127.0.0.1:%d", a, b), String("ef"));
  // The any-addresses of both families on a; b is taken already.
  EXPECT_EQ(list.sockets().size(), 2u);
  EXPECT_NE(list.by_port(a), nullptr);
  EXPECT_EQ(list.by_port(b), nullptr);
  EXPECT_TRUE(log.contains(to_std(format("Could not open UDP port %d for SIP", b))));
  UdpSocket* first = list.first_of_family(parse_adr(String("::1")));
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(first->ipv6);
  list.apply(String(), String());
  EXPECT_TRUE(list.sockets().empty());
}

TEST(InterfacesTest, RoutingListPicksTheLocalAddress) {
  init_ip();
  update_ip_routing_list(String("10.0.0.0/255.0.0.0/10.1.2.3 192.0.2.7"));
  EXPECT_EQ(get_ip_replacement(parse_adr(String("10.9.9.9")), String("x")), parse_adr(String("10.1.2.3")));
  // The catch-all entry answers everything else of IPv4.
  EXPECT_EQ(get_ip_replacement(parse_adr(String("8.8.8.8")), String("x")), parse_adr(String("192.0.2.7")));
  EXPECT_EQ(get_ip_replacement(parse_adr(String("::1")), String("x")), String("x"));
  EXPECT_EQ(get_ip_replacement(any_ipv4, String("x")), String("x"));
  update_ip_routing_list(String());
  EXPECT_EQ(get_ip_adr(parse_adr(String("127.0.0.1"))), parse_adr(String("127.0.0.1")));
  update_resolv_conf(String("search example.test\nnameserver 127.0.0.53\nnameserver bogus\n"));
  ASSERT_EQ(get_dns_servers().size(), 1u);
  EXPECT_EQ(get_default_domain(), String("example.test"));
}
