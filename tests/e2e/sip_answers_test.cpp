// What a scripted peer behind a NAT gets from the daemon for requests outside any dialog:
// every answer goes back to the packet's real source with "received" and "rport".
#include <gtest/gtest.h>

#include <memory>

#include "core/format.h"
#include "tests/e2e/daemon_runner.h"
#include "tests/e2e/sip_probe.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

namespace {

class SipAnswersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WorkDirOptions o;
    o.ports = {"ip_sip_udp_port"};
    o.settings["out_of_dialog_options"] = "true";
    work_ = write_work_dir(dir_.path(), o);
    port_ = work_.port("ip_sip_udp_port");
    daemon_ = std::make_unique<DaemonProcess>(
        std::vector<std::string>{"--no-daemon", "--dir", dir_.path(), "--log", "9"}, dir_.file("err"));
    ASSERT_TRUE(answers_options(port_)) << "the daemon did not answer on port " << port_;
    ASSERT_TRUE(peer_.open(0, parse_adr(String("127.0.0.1"))));
  }

  // A request whose Via names a private address and port that the daemon can't reach.
  String request(const char* method, const char* call_id, const char* extra = "") {
    return format("%s sip:%d@127.0.0.1 SIP/2.0\r\nVia: SIP/2.0/UDP 10.9.8.7:5099;branch=z9hG4bK-%s;rport\r\n"
                  "From: <sip:40@localhost>;tag=nat\r\nTo: <sip:41@localhost>\r\nCall-ID: %s\r\n"
                  "CSeq: 7 %s\r\nMax-Forwards: 70\r\n%sContent-Length: 0\r\n\r\n",
                  method, port_, call_id, call_id, method, extra);
  }

  String ask(const String& text, int ms = 5000) {
    EXPECT_TRUE(peer_.send_to(text, Address(parse_adr(String("127.0.0.1")), port_)));
    return receive_within(peer_, ms);
  }

  TempDir dir_;
  WorkDir work_;
  int port_ = 0;
  std::unique_ptr<DaemonProcess> daemon_;
  UdpSocket peer_;
};

}  // namespace

TEST_F(SipAnswersTest, OutOfDialogRequests) {
  struct Case {
    const char* method;
    const char* extra;
    const char* first_line;
  } cases[] = {
      {"OPTIONS", "", "SIP/2.0 200 Ok\r\n"},
      {"BYE", "", "SIP/2.0 481 Call/Transaction Does Not Exist\r\n"},
      {"FOOBAR", "", "SIP/2.0 501 Not Supported\r\n"},
      {"PING", "", "SIP/2.0 200 Keep Alive\r\n"},
      {"NOTIFY", "Event: keep-alive\r\n", "SIP/2.0 200 Keep Alive\r\n"},
      {"INVITE", "", "SIP/2.0 400 Bad Request\r\n"},
      {"REGISTER", "Contact: <sip:40@10.9.8.7>\r\nContact: <sip:40@10.9.8.8>\r\n", "SIP/2.0 500 Expecting One Contact\r\n"},
  };
  String via_back = format("Via: SIP/2.0/UDP 10.9.8.7:5099;branch=z9hG4bK-%%s;rport=%d;received=127.0.0.1\r\n", peer_.port);
  int n = 0;
  for (const Case& c : cases) {
    std::string call_id = "ood-" + std::to_string(n++);
    String answer = ask(request(c.method, call_id.c_str(), c.extra));
    ASSERT_TRUE(answer.starts_with(String(c.first_line))) << c.method << ":\n" << to_std(answer);
    EXPECT_TRUE(answer.contains(format(to_std(via_back).c_str(), call_id.c_str()))) << to_std(answer);
    if (String(c.method) == "OPTIONS") {
      EXPECT_TRUE(answer.contains(String("Allow: INVITE, ACK, CANCEL, BYE, REFER, PRACK, INFO, UPDATE\r\n")));
      EXPECT_TRUE(answer.contains(String("To: <sip:41@localhost>;tag="))) << to_std(answer);
    }
  }
}

// The same request twice gets the same answer twice, the second from the transaction's memory.
TEST_F(SipAnswersTest, RepeatedOptionsGetTheStoredAnswer) {
  String text = request("OPTIONS", "twice");
  String first = ask(text), second = ask(text);
  ASSERT_TRUE(first.starts_with(String("SIP/2.0 200 Ok\r\n"))) << to_std(first);
  EXPECT_EQ(first, second);
  std::string log;
  for (int i = 0; i < 50 && occurrences(log, "Message repetition, packet dropped") == 0; i++) {
    usleep(100000);
    log = file_text(dir_.file("err"));
  }
  EXPECT_EQ(occurrences(log, "Message repetition, packet dropped"), 1);
}

// A known scanner is not answered at all, so that it learns nothing about the host.
TEST_F(SipAnswersTest, ScannerGetsSilence) {
  String answer = ask(request("OPTIONS", "scan", "User-Agent: friendly-scanner\r\n"), 1000);
  EXPECT_TRUE(answer.empty()) << to_std(answer);
  std::string log = file_text(dir_.file("err"));
  EXPECT_EQ(occurrences(log, "Traffic from 127.0.0.1:" + std::to_string(peer_.port) +
                                 " ignored because of user-agent friendly-scanner"),
            1)
      << log;
}
