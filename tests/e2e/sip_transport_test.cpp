// SIP through the real daemon: its ports, STUN, TCP framing, and out-of-dialog answers
// to sipp, with and without lost packets.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "core/format.h"
#include "core/tcp_socket.h"
#include "core/udp_socket.h"
#include "tests/e2e/daemon_runner.h"
#include "tests/e2e/sip_probe.h"
#include "tests/e2e/sipp_runner.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

namespace {

class SipDaemonTest : public ::testing::Test {
 protected:
  void start(const std::string& udp_setting = std::string()) {
    WorkDirOptions o;
    o.ports = {"ip_sip_tcp_port"};
    if (udp_setting.empty()) o.ports.push_back("ip_sip_udp_port");
    else o.settings["ip_sip_udp_port"] = udp_setting;
    o.settings["out_of_dialog_options"] = "true";
    work_ = write_work_dir(dir_.path(), o);
    udp_port_ = udp_setting.empty() ? work_.port("ip_sip_udp_port") : atoi(udp_setting.c_str());
    tcp_port_ = work_.port("ip_sip_tcp_port");
    daemon_ = std::make_unique<DaemonProcess>(std::vector<std::string>{"--no-daemon", "--dir", dir_.path()},
                                              dir_.file("err"));
    ASSERT_TRUE(answers_options(udp_port_)) << "the daemon did not answer on port " << udp_port_;
  }

  TempDir dir_;
  WorkDir work_;
  int udp_port_ = 0, tcp_port_ = 0;
  std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace

TEST_F(SipDaemonTest, OptionsAnsweredToSipp) {
  start();
  if (!sipp_available()) GTEST_SKIP() << "sipp is not installed";
  SippResult r = run_sipp("options.xml", udp_port_, 50, 25);
  EXPECT_EQ(r.successful, 50) << r.output;
  EXPECT_EQ(r.failed, 0);
}

// 30% of the answers are lost on the way: sipp retransmits, and every retransmission is
// answered from the transaction memory.
TEST_F(SipDaemonTest, LostAnswersAreRepeatedFromMemory) {
  start();
  if (!sipp_available()) GTEST_SKIP() << "sipp is not installed";
  SippResult r = run_sipp("options_lossy.xml", udp_port_, 100, 50);
  EXPECT_EQ(r.successful, 100) << r.output;
  EXPECT_EQ(r.failed, 0);
}

TEST_F(SipDaemonTest, StunBindingOnTheSipPort) {
  start();
  UdpSocket client;
  ASSERT_TRUE(client.open(0, parse_adr(String("127.0.0.1"))));
  String request = String::bytes(0, 1, 0, 0) + String::bytes(0x21, 0x12, static_cast<char>(0xA4), 0x42) +
                   String("transaction1");
  ASSERT_TRUE(client.send_to(request, Address(parse_adr(String("127.0.0.1")), udp_port_)));
  ASSERT_TRUE(readable(client.fd, 5000));
  String answer;
  Address from;
  ASSERT_TRUE(client.receive(answer, from));
  ASSERT_GE(answer.length(), 32);
  EXPECT_EQ(answer.head(2), String::bytes(1, 1));
  EXPECT_EQ(answer.substr(8, 12), String("transaction1"));
  EXPECT_EQ((answer.byte_at(26) << 8) | answer.byte_at(27), client.port);
}

TEST_F(SipDaemonTest, TcpFramingKeepAliveAndOversize) {
  start();
  TcpSocket phone;
  ASSERT_TRUE(phone.connect(Address(parse_adr(String("127.0.0.1")), tcp_port_), false));
  // A keep-alive gets no answer; a request written a byte at a time is answered once.
  ASSERT_TRUE(phone.send(String("\r\n\r\n")));
  String request = options_request(tcp_port_, "tcp1");
  request.replace_all(String("SIP/2.0/UDP"), String("SIP/2.0/TCP"));
  for (int i = 0; i < request.length(); i++) ASSERT_TRUE(phone.send(request.substr(i, 1)));
  String got;
  for (int i = 0; i < 50 && !got.contains(String("\r\n\r\n")); i++)
    if (readable(phone.fd(), 100)) got.append(phone.receive());
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 200 Ok\r\n"))) << to_std(got);
  EXPECT_EQ(got.find(String("SIP/2.0 200"), 1), -1) << "answered more than once";

  // 70,000 bytes without the end of the headers close the connection.
  TcpSocket flood;
  ASSERT_TRUE(flood.connect(Address(parse_adr(String("127.0.0.1")), tcp_port_), false));
  for (int i = 0; i < 7; i++) (void)flood.send(String::repeat('A', 10000));
  bool closed = false;
  for (int i = 0; i < 50 && !closed; i++) {
    (void)flood.send(String());
    if (readable(flood.fd(), 100)) closed = flood.receive().empty() && !flood.would_block();
  }
  EXPECT_TRUE(closed);
}

TEST_F(SipDaemonTest, PortListBindsEachFamilyAndAddress) {
  int a = free_port(), b = free_port();
  start(to_std(format("%d 127.0.0.2:%d", a, b)));
  FILE* ss = popen("ss -ulpn 2>/dev/null", "r");
  ASSERT_NE(ss, nullptr);
  std::string out;
  char line[512];
  while (fgets(line, sizeof line, ss)) out += line;
  pclose(ss);
  if (out.empty()) GTEST_SKIP() << "ss is not available";
  EXPECT_NE(out.find("0.0.0.0:" + std::to_string(a) + " "), std::string::npos) << out;
  EXPECT_NE(out.find("[::]:" + std::to_string(a) + " "), std::string::npos) << out;
  EXPECT_NE(out.find("127.0.0.2:" + std::to_string(b) + " "), std::string::npos) << out;
}

// A thousand extensions register with digest authentication through sipp, 500 a second.
TEST(RegistrarDaemonTest, ExtensionsRegisterWithDigest) {
  if (!sipp_available()) GTEST_SKIP() << "sipp is not installed";
  TempDir dir;
  WorkDirOptions o;
  o.ports = {"ip_sip_udp_port"};
  o.settings["out_of_dialog_options"] = "true";
  o.extensions.clear();
  std::string users = "SEQUENTIAL\n";
  for (int i = 0; i < 1000; i++) {
    std::string number = std::to_string(2000 + i), password = "pw" + std::to_string(i * 7919);
    o.extensions.push_back({number, password});
    users += number + ";[authentication username=" + number + " password=" + password + "]\n";
  }
  WorkDir work = write_work_dir(dir.path(), o);
  std::string users_file = dir.file("users.csv");
  FILE* f = fopen(users_file.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs(users.c_str(), f);
  fclose(f);
  DaemonProcess daemon({"--no-daemon", "--dir", dir.path()}, dir.file("err"));
  int port = work.port("ip_sip_udp_port");
  ASSERT_TRUE(answers_options(port));
  SippResult r = run_sipp("register.xml", port, 1000, 500, {"-inf", users_file});
  EXPECT_EQ(r.successful, 1000) << r.output;
  EXPECT_EQ(r.failed, 0);
  // Every binding is a row of the registrations table, one file each.
  int rows = 0;
  for (int i = 0; i < 50 && rows < 1000; i++) {
    usleep(100000);
    FILE* ls = popen(("ls " + dir.path() + "/registrations | grep -c '^[0-9]*\\.xml$'").c_str(), "r");
    char line[64] = {0};
    if (ls && fgets(line, sizeof line, ls)) rows = atoi(line);
    if (ls) pclose(ls);
  }
  EXPECT_EQ(rows, 1000);
}

// A source that sends REGISTERs fast is blacklisted and then hears nothing, while the
// whitelisted loopback address goes on being answered.
TEST_F(SipDaemonTest, FloodingSourceIsBlacklistedWhitelistedKeepsWorking) {
  start();
  Address pbx(parse_adr(String("127.0.0.1")), udp_port_);
  UdpSocket attacker;
  ASSERT_TRUE(attacker.open(0, parse_adr(String("127.0.0.9"))));
  for (int i = 0; i < 15; i++) {
    String reg = format("REGISTER sip:localhost SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.9:%d;branch=z9hG4bKf%d\r\n"
                        "From: <sip:40@localhost>;tag=f\r\nTo: <sip:40@localhost>\r\nCall-ID: flood%d\r\n"
                        "CSeq: 1 REGISTER\r\nContact: <sip:40@127.0.0.9:%d>\r\nContent-Length: 0\r\n\r\n",
                        attacker.port, i, i, attacker.port);
    ASSERT_TRUE(attacker.send_to(reg, pbx));
  }
  usleep(300000);
  String drained;
  Address from;
  while (readable(attacker.fd, 50)) (void)attacker.receive(drained, from);
  ASSERT_TRUE(attacker.send_to(options_request(udp_port_, "after"), pbx));
  EXPECT_FALSE(readable(attacker.fd, 1000)) << "a blacklisted source was answered";

  UdpSocket friendly;
  ASSERT_TRUE(friendly.open(0, parse_adr(String("127.0.0.1"))));
  ASSERT_TRUE(friendly.send_to(options_request(udp_port_, "friend"), pbx));
  EXPECT_TRUE(readable(friendly.fd, 5000));
}

// Each binding is refreshed 20 times: the control half hears of the new contact once per
// user, and the refreshes are answered by the service half alone.
TEST(RegistrarDaemonTest, RefreshesStayInTheServiceHalf) {
  if (!sipp_available()) GTEST_SKIP() << "sipp is not installed";
  TempDir dir;
  WorkDirOptions o;
  o.ports = {"ip_sip_udp_port"};
  o.settings["out_of_dialog_options"] = "true";
  o.extensions.clear();
  std::string users = "SEQUENTIAL\n";
  for (int i = 0; i < 30; i++) {
    std::string number = std::to_string(3000 + i), password = "rp" + std::to_string(i);
    o.extensions.push_back({number, password});
    users += number + ";[authentication username=" + number + " password=" + password + "]\n";
  }
  WorkDir work = write_work_dir(dir.path(), o);
  FILE* f = fopen(dir.file("users.csv").c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs(users.c_str(), f);
  fclose(f);
  // The scenario: challenge, admission, then 20 refreshes with rising CSeq.
  std::string head = "REGISTER sip:localhost SIP/2.0\nVia: SIP/2.0/[transport] [local_ip]:[local_port];branch=[branch];rport\n"
                     "From: <sip:[field0]@localhost>;tag=[call_number]\nTo: <sip:[field0]@localhost>\nCall-ID: [call_id]\n";
  std::string tail = "Contact: <sip:[field0]@[local_ip]:[local_port]>\nExpires: 3600\nMax-Forwards: 70\nContent-Length: 0\n\n";
  std::string xml = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\" ?>\n<scenario name=\"refresh\">\n";
  xml += "<send retrans=\"500\"><![CDATA[\n" + head + "CSeq: 1 REGISTER\n" + tail + "]]></send>\n";
  xml += "<recv response=\"401\" auth=\"true\"/>\n";
  xml += "<send retrans=\"500\"><![CDATA[\n" + head + "CSeq: 2 REGISTER\n[field1]\n" + tail + "]]></send>\n";
  xml += "<recv response=\"200\"/>\n";
  for (int i = 0; i < 20; i++) {
    xml += "<send retrans=\"500\"><![CDATA[\n" + head + "CSeq: " + std::to_string(3 + i) + " REGISTER\n" + tail +
           "]]></send>\n<recv response=\"200\"/>\n";
  }
  xml += "</scenario>\n";
  std::string scenario = dir.file("refresh.xml");
  FILE* s = fopen(scenario.c_str(), "w");
  ASSERT_NE(s, nullptr);
  fputs(xml.c_str(), s);
  fclose(s);
  std::string err = dir.file("daemon.err");
  DaemonProcess daemon({"--no-daemon", "--dir", dir.path(), "--log", "9"}, err);
  int port = work.port("ip_sip_udp_port");
  ASSERT_TRUE(answers_options(port));
  SippResult r = run_sipp(scenario, port, 30, 30, {"-inf", dir.file("users.csv")});
  EXPECT_EQ(r.successful, 30) << r.output;
  EXPECT_EQ(r.failed, 0);
  usleep(300000);
  std::string log;
  {
    FILE* e = fopen(err.c_str(), "r");
    ASSERT_NE(e, nullptr);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, e)) > 0) log.append(buf, n);
    fclose(e);
  }
  int news = 0;
  for (size_t at = log.find("is registering a new contact"); at != std::string::npos;
       at = log.find("is registering a new contact", at + 1))
    news++;
  EXPECT_EQ(news, 30);
  int requests = 0;
  for (size_t at = log.find("Registration request for "); at != std::string::npos;
       at = log.find("Registration request for ", at + 1))
    requests++;
  EXPECT_EQ(requests, 30) << "refreshes reached the control half";
}

namespace {

// A SUBSCRIBE that is challenged, answered with credentials, and then expects the final
// status given.
std::string subscribe_scenario(const std::string& event, int expires, const std::string& final_status) {
  std::string head = "SUBSCRIBE sip:[field0]@localhost SIP/2.0\nVia: SIP/2.0/[transport] [local_ip]:[local_port];branch=[branch];rport\n"
                     "From: <sip:[field0]@localhost>;tag=[call_number]\nTo: <sip:[field0]@localhost>\nCall-ID: [call_id]\n";
  std::string tail = "Event: " + event + "\nExpires: " + std::to_string(expires) +
                     "\nContact: <sip:[field0]@[local_ip]:[local_port]>\nMax-Forwards: 70\nContent-Length: 0\n\n";
  std::string xml = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\" ?>\n<scenario name=\"subscribe\">\n";
  xml += "<send retrans=\"500\"><![CDATA[\n" + head + "CSeq: 1 SUBSCRIBE\n" + tail + "]]></send>\n";
  xml += "<recv response=\"401\" auth=\"true\"/>\n";
  xml += "<send retrans=\"500\"><![CDATA[\n" + head + "CSeq: 2 SUBSCRIBE\n[field1]\n" + tail + "]]></send>\n";
  xml += "<recv response=\"" + final_status + "\"/>\n";
  xml += "</scenario>\n";
  return xml;
}

}  // namespace

TEST(RegistrarDaemonTest, SubscriptionWithAnUnknownEventGets489) {
  if (!sipp_available()) GTEST_SKIP() << "sipp is not installed";
  TempDir dir;
  WorkDirOptions o;
  o.ports = {"ip_sip_udp_port"};
  o.settings["out_of_dialog_options"] = "true";
  WorkDir work = write_work_dir(dir.path(), o);
  FILE* f = fopen(dir.file("users.csv").c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs("SEQUENTIAL\n40;[authentication username=40 password=secret40]\n", f);
  fclose(f);
  DaemonProcess daemon({"--no-daemon", "--dir", dir.path()}, dir.file("err"));
  int port = work.port("ip_sip_udp_port");
  ASSERT_TRUE(answers_options(port));
  struct Case {
    std::string event;
    int expires;
    std::string status;
  } cases[] = {{"foo", 600, "489"}, {"message-summary", 60, "200"}};
  for (const Case& c : cases) {
    std::string scenario = dir.file("sub-" + c.event + ".xml");
    FILE* s = fopen(scenario.c_str(), "w");
    ASSERT_NE(s, nullptr);
    fputs(subscribe_scenario(c.event, c.expires, c.status).c_str(), s);
    fclose(s);
    SippResult r = run_sipp(scenario, port, 1, 1, {"-inf", dir.file("users.csv")});
    EXPECT_EQ(r.successful, 1) << c.event << "\n" << r.output;
  }
}
