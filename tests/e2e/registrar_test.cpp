// The registrar through the daemon, from a scripted phone over UDP: hostile Authorization
// headers, the limits on a subscription's expiry, and the blacklisting of a source that
// keeps guessing passwords.
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "core/format.h"
#include "core/udp_socket.h"
#include "security/md5.h"
#include "store/names.h"
#include "store/schema.h"
#include "store/table.h"
#include "tests/e2e/daemon_runner.h"
#include "tests/e2e/sip_probe.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

namespace {

// Polls the daemon's log for a text, for at most `seconds`.
bool log_shows(const std::string& path, const std::string& text, int seconds = 10) {
  for (int i = 0; i < seconds * 10; i++) {
    if (file_text(path).find(text) != std::string::npos) return true;
    usleep(100000);
  }
  return false;
}

String md5_hex(const String& s) { return hex(md5(s)); }

// The first quoted value of `name` in a challenge.
String challenge_value(const String& challenge, const char* name) {
  String key = format("%s=\"", name);
  int at = challenge.find(key);
  if (at < 0) return String();
  int start = at + key.length();
  int end = challenge.find('"', start);
  return end < 0 ? String() : challenge.substr(start, end - start);
}

// A phone on one loopback address: it sends requests to the daemon and reads the final
// answers, skipping provisional ones.
class Phone {
 public:
  Phone(const char* ip, int pbx_port) : ip_(ip), pbx_(parse_adr(String("127.0.0.1")), pbx_port) {
    opened_ = socket_.open(0, parse_adr(String(ip)));
  }
  bool opened() const { return opened_; }
  int port() const { return socket_.port; }
  const char* ip() const { return ip_; }

  bool send(const String& text) { return socket_.send_to(text, pbx_); }

  // The next final answer, or empty text when none comes within the bound.
  String answer(int ms = 5000) {
    for (;;) {
      if (!readable(socket_.fd, ms)) return String();
      String text;
      Address from;
      if (!socket_.receive(text, from)) return String();
      if (!text.starts_with(String("SIP/2.0 1"))) return text;
    }
  }
  // Whether anything at all is waiting to be read now.
  bool anything_waiting() { return readable(socket_.fd, 0); }

  // A request from this phone for extension `user`. `extra` holds whole header lines.
  String request(const char* method, const String& call_id, int cseq, const char* user, const String& extra,
                 const char* expires = "3600", const char* event = nullptr) const {
    String uri = request_uri(method, user);
    return format("%s %s SIP/2.0\r\nVia: SIP/2.0/UDP %s:%d;branch=z9hG4bK%s-%d;rport\r\n"
                  "From: <sip:%s@localhost>;tag=t%s\r\nTo: <sip:%s@localhost>\r\nCall-ID: %s\r\nCSeq: %d %s\r\n"
                  "Contact: <sip:%s@%s:%d>\r\n%sExpires: %s\r\n%sMax-Forwards: 70\r\nContent-Length: 0\r\n\r\n",
                  String(method), uri, String(ip_), socket_.port, call_id, cseq, String(user), call_id, String(user),
                  call_id, cseq, String(method), String(user), String(ip_), socket_.port,
                  event ? format("Event: %s\r\n", String(event)) : String(), String(expires), extra);
  }

  static String request_uri(const char* method, const char* user) {
    return String(method) == "REGISTER" ? String("sip:localhost") : format("sip:%s@localhost", String(user));
  }

 private:
  const char* ip_;
  UdpSocket socket_;
  Address pbx_;
  bool opened_ = false;
};

// The Authorization line of a digest answer without qop.
String authorization(const char* method, const char* user, const char* password, const String& nonce,
                     const String& uri_in_header, const String& uri_in_hash) {
  String ha1 = md5_hex(format("%s:localhost:%s", String(user), String(password)));
  String ha2 = md5_hex(format("%s:%s", String(method), uri_in_hash));
  return format("Authorization: Digest username=\"%s\",realm=\"localhost\",nonce=\"%s\",uri=\"%s\",response=\"%s\","
                "algorithm=MD5\r\n",
                String(user), nonce, uri_in_header, md5_hex(format("%s:%s:%s", ha1, nonce, ha2)));
}

// The rows of a table in the daemon's directory: one file each.
int row_files(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (!d) return 0;
  int n = 0;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    size_t dot = name.find(".xml");
    if (dot != std::string::npos && dot > 0 && dot + 4 == name.size() &&
        name.find_first_not_of("0123456789") == dot)
      n++;
  }
  closedir(d);
  return n;
}


class RegistrarWireTest : public ::testing::Test {
 protected:
  // `before_start` may add rows to the directory the daemon will load.
  void start(std::map<std::string, std::string> settings = {}, const std::function<void()>& before_start = nullptr) {
    WorkDirOptions o;
    o.ports = {"ip_sip_udp_port"};
    o.settings = settings;
    o.settings["out_of_dialog_options"] = "true";
    work_ = write_work_dir(dir_.path(), o);
    if (before_start) before_start();
    port_ = work_.port("ip_sip_udp_port");
    log_ = dir_.file("daemon.err");
    daemon_ = std::make_unique<DaemonProcess>(std::vector<std::string>{"--no-daemon", "--dir", dir_.path(), "--log", "9"},
                                              log_);
    Phone probe("127.0.0.1", port_);
    ASSERT_TRUE(probe.opened());
    bool up = false;
    for (int i = 0; i < 100 && !up; i++) {
      ASSERT_TRUE(probe.send(options("ready")));
      up = !probe.answer(100).empty();
    }
    ASSERT_TRUE(up) << "the daemon did not answer on port " << port_;
  }

  String options(const char* branch) const {
    return format("OPTIONS sip:127.0.0.1:%d SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:9;branch=z9hG4bK%s;rport\r\n"
                  "From: <sip:probe@127.0.0.1>;tag=p\r\nTo: <sip:127.0.0.1>\r\nCall-ID: %s@probe\r\n"
                  "CSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n",
                  port_, String(branch), String(branch));
  }

  // Sends the request without credentials and returns the nonce of the challenge.
  String challenge(Phone& phone, const char* method, const String& call_id, const char* user,
                   const char* event = nullptr) {
    EXPECT_TRUE(phone.send(phone.request(method, call_id, 1, user, String(), "3600", event)));
    String got = phone.answer();
    EXPECT_TRUE(got.starts_with(String("SIP/2.0 401 Authentication Required"))) << to_std(got);
    String nonce = challenge_value(header_value(got, String("WWW-Authenticate")), "nonce");
    EXPECT_EQ(nonce.length(), 32) << to_std(got);
    return nonce;
  }

  // Challenge, then the same request with the right password; the final answer.
  String admitted(Phone& phone, const String& call_id, const char* user, const char* password,
                  const std::function<String(String)>& edit = nullptr, const char* expires = "3600") {
    String nonce = challenge(phone, "REGISTER", call_id, user);
    String uri("sip:localhost");
    String text = phone.request("REGISTER", call_id, 2, user, authorization("REGISTER", user, password, nonce, uri, uri),
                                expires);
    if (edit) text = edit(text);
    EXPECT_TRUE(phone.send(text));
    return phone.answer();
  }

  // Waits until the table `registrations` has `rows` rows on disk.
  bool bindings_become(int rows) {
    for (int i = 0; i < 100; i++) {
      if (row_files(dir_.file("registrations")) == rows) return true;
      usleep(100000);
    }
    return false;
  }

  TempDir dir_;
  WorkDir work_;
  int port_ = 0;
  std::string log_;
  std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace

// Every variant follows a fresh challenge on its own Call-ID, from the whitelisted
// address, so that no penalty gets in the way.
TEST_F(RegistrarWireTest, HostileAuthorizationsOnTheWire) {
  start();
  Phone phone("127.0.0.1", port_);
  ASSERT_TRUE(phone.opened());
  const String uri("sip:localhost");
  String garbage("Authorization: Digest ");
  for (int i = 0; garbage.length() < 5120; i++)
    garbage.append(i % 3 == 0 ? String("nonce=\"\\") : i % 3 == 1 ? String(",=,\"uri") : String("\xff\xfe qop=auth,"));
  garbage.append("\r\n");
  struct Case {
    const char* name;
    std::function<String(const String& nonce)> headers;
    const char* expires;
    const char* status;        // the start of the status line
    bool challenge;            // a new WWW-Authenticate
    bool warning;              // "399 localhost Password does not match"
  } cases[] = {
      {"no nonce",
       [&](const String&) {
         return String("Authorization: Digest username=\"40\",realm=\"localhost\",uri=\"sip:localhost\","
                       "response=\"0123456789abcdef0123456789abcdef\"\r\n");
       },
       "3600", "SIP/2.0 401 Authentication Required", true, false},
      {"unknown nonce", [&](const String&) { return authorization("REGISTER", "40", "secret40", String::repeat('a', 32), uri, uri); },
       "3600", "SIP/2.0 401 Authentication Required", true, false},
      {"other user's name and password",
       [&](const String& n) { return authorization("REGISTER", "41", "secret41", n, uri, uri); }, "3600",
       "SIP/2.0 401 Authentication Required", true, false},
      {"wrong password", [&](const String& n) { return authorization("REGISTER", "40", "guess", n, uri, uri); },
       "3600", "SIP/2.0 401 Authentication Required", false, true},
      {"qop without nc",
       [&](const String& n) {
         return format("Authorization: Digest username=\"40\",realm=\"localhost\",nonce=\"%s\",uri=\"sip:localhost\","
                       "qop=auth,cnonce=\"abc\",response=\"0123456789abcdef0123456789abcdef\"\r\n",
                       n);
       },
       "3600", "SIP/2.0 401 Authentication Required", true, false},
      // A known nonce without a good answer is a wrong password.
      {"no response, unterminated quote",
       [&](const String& n) { return format("Authorization: Digest username=\"40\",nonce=\"%s\",uri=\"sip:loc\r\n", n); },
       "3600", "SIP/2.0 401 Authentication Required", false, true},
      {"5 KiB of garbage", [&](const String&) { return garbage; }, "3600", "SIP/2.0 401 Authentication Required",
       true, false},
      {"empty uri", [&](const String& n) { return authorization("REGISTER", "40", "secret40", n, String(), uri); },
       "3600", "SIP/2.0 200 Ok", false, false},
      {"two headers, the second right",
       [&](const String& n) {
         return authorization("REGISTER", "40", "guess", n, uri, uri) +
                authorization("REGISTER", "40", "secret40", n, uri, uri);
       },
       "3600", "SIP/2.0 200 Ok", false, false},
      {"expiry that isn't a number",
       [&](const String& n) { return authorization("REGISTER", "40", "secret40", n, uri, uri); }, "abc",
       "SIP/2.0 400 Bad Request", false, false},
  };
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    String call_id = format("hostile%d", index++);
    String nonce = challenge(phone, "REGISTER", call_id, "40");
    ASSERT_TRUE(phone.send(phone.request("REGISTER", call_id, 2, "40", c.headers(nonce), c.expires)));
    String got = phone.answer();
    EXPECT_TRUE(got.starts_with(String(c.status))) << to_std(got.head(200));
    EXPECT_EQ(!header_value(got, String("WWW-Authenticate")).empty(), c.challenge) << to_std(got.head(400));
    EXPECT_EQ(header_value(got, String("Warning")) == "399 localhost Password does not match", c.warning)
        << to_std(got.head(400));
  }
  EXPECT_TRUE(log_shows(log_, "Registration: Cannot handle expiration abc"));
  ASSERT_TRUE(daemon_->alive());
  ASSERT_TRUE(phone.send(options("after")));
  EXPECT_FALSE(phone.answer().empty()) << "the daemon stopped answering";
}

// What a subscription is given is fixed by its event, not by what it asks for: mailbox
// subscriptions five times the bounds of a binding, dialog subscriptions `sub_expires`.
TEST_F(RegistrarWireTest, SubscriptionsGetTheirEventsExpiry) {
  start({{"min_expires", "30"}, {"max_expires", "360"}, {"sub_expires", "600"}});
  Phone phone("127.0.0.1", port_);
  ASSERT_TRUE(phone.opened());
  struct Case {
    const char* event;
    const char* asked;
    int given;
  } cases[] = {
      {"message-summary", "60", 150},
      {"message-summary", "100000", 1800},
      {"message-summary", "900", 900},
      {"dialog", "60", 600},
  };
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.event) + " " + c.asked);
    String call_id = format("sub%d", index++);
    String nonce = challenge(phone, "SUBSCRIBE", call_id, "40", c.event);
    String uri = Phone::request_uri("SUBSCRIBE", "40");
    ASSERT_TRUE(phone.send(phone.request("SUBSCRIBE", call_id, 2, "40",
                                         authorization("SUBSCRIBE", "40", "secret40", nonce, uri, uri), c.asked, c.event)));
    String got = phone.answer();
    ASSERT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);
    // Answers are spread by up to two seconds either way.
    int expires = header_value(got, String("Expires")).to_int();
    EXPECT_GE(expires, c.given - 2) << to_std(got);
    EXPECT_LE(expires, c.given + 2) << to_std(got);
  }
}

// Ten failed REGISTERs within the period blacklist an unknown source (each costs 16 of
// the 160 points): nine leave it alone, the tenth is still answered and tips the balance,
// and from then on the source hears nothing, not even with the right password. The
// whitelisted address can fail as often as it likes and still register afterwards.
TEST_F(RegistrarWireTest, PasswordGuessersAreBlacklistedUnlessWhitelisted) {
  // A long period, so that a slow machine doesn't let the points expire between packets.
  start({{"blacklist_period", "600000"}});
  const String uri("sip:localhost");
  Phone friendly("127.0.0.1", port_);
  ASSERT_TRUE(friendly.opened());

  Phone guesser("127.0.0.9", port_);
  ASSERT_TRUE(guesser.opened());
  String nonce = challenge(guesser, "REGISTER", String("guess"), "40");
  for (int cseq = 2; cseq <= 10; cseq++) {
    SCOPED_TRACE(cseq);
    ASSERT_TRUE(guesser.send(guesser.request("REGISTER", String("guess"), cseq, "40",
                                             authorization("REGISTER", "40", "guess", nonce, uri, uri))));
    String got = guesser.answer();
    EXPECT_TRUE(got.starts_with(String("SIP/2.0 401"))) << to_std(got);
    EXPECT_EQ(header_value(got, String("Warning")), String("399 localhost Password does not match"));
  }
  EXPECT_TRUE(log_shows(log_, "Address 127.0.0.9 has been blacklisted"));
  ASSERT_TRUE(guesser.send(guesser.request("REGISTER", String("guess"), 11, "40",
                                           authorization("REGISTER", "40", "secret40", nonce, uri, uri))));
  // The whitelisted probe sent afterwards is read after it by the same loop and answered
  // on the same path, so once the probe's answer is in, any answer to the guesser would
  // be too.
  ASSERT_TRUE(friendly.send(options("probe")));
  EXPECT_FALSE(friendly.answer().empty());
  EXPECT_FALSE(guesser.anything_waiting()) << "a blacklisted source was answered";

  String call_id("whitelisted");
  nonce = challenge(friendly, "REGISTER", call_id, "40");
  for (int cseq = 2; cseq <= 31; cseq++) {
    SCOPED_TRACE(cseq);
    ASSERT_TRUE(friendly.send(friendly.request("REGISTER", call_id, cseq, "40",
                                               authorization("REGISTER", "40", "guess", nonce, uri, uri))));
    EXPECT_TRUE(friendly.answer().starts_with(String("SIP/2.0 401")));
  }
  ASSERT_TRUE(friendly.send(friendly.request("REGISTER", call_id, 32, "40",
                                             authorization("REGISTER", "40", "secret40", nonce, uri, uri))));
  String got = friendly.answer();
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);
  EXPECT_EQ(file_text(log_).find("Address 127.0.0.1 has been blacklisted"), std::string::npos);
}

// Three bindings of one account, then a lone star with Expires 0, authenticated like any
// REGISTER, removes them all.
TEST_F(RegistrarWireTest, StarClearsEveryBinding) {
  start();
  std::vector<std::unique_ptr<Phone>> phones;
  for (int i = 0; i < 3; i++) {
    phones.push_back(std::make_unique<Phone>("127.0.0.1", port_));
    ASSERT_TRUE(phones.back()->opened());
    String got = admitted(*phones.back(), format("bind%d", i), "40", "secret40");
    ASSERT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);
  }
  ASSERT_TRUE(bindings_become(3));
  Phone clearer("127.0.0.1", port_);
  ASSERT_TRUE(clearer.opened());
  String got = admitted(clearer, String("clear"), "40", "secret40", [](String text) {
    int at = text.find(String("Contact: "));
    int end = text.find(String("\r\n"), at);
    return text.head(at) + "Contact: *" + text.tail(end);
  }, "0");
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);
  EXPECT_TRUE(bindings_become(0));
  EXPECT_TRUE(log_shows(log_, "Account 40 requested clearing of registration database"));
}

// With one binding allowed, a second contact is refused, while the first one's refreshes
// and a REGISTER that names another account in From are answered as they should be.
TEST_F(RegistrarWireTest, OneBindingAllowed) {
  start({{"max_regs", "1"}});
  Phone first("127.0.0.1", port_), second("127.0.0.1", port_), other("127.0.0.1", port_);
  ASSERT_TRUE(first.opened() && second.opened() && other.opened());
  String got = admitted(first, String("first"), "40", "secret40");
  ASSERT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);
  got = admitted(second, String("second"), "40", "secret40");
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 403 Too Many Registrations"))) << to_std(got);
  for (int cseq = 3; cseq <= 5; cseq++) {
    ASSERT_TRUE(first.send(first.request("REGISTER", String("first"), cseq, "40", String())));
    got = first.answer();
    EXPECT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << cseq << to_std(got);
  }
  // Only a dialog subscription may name another account in From than in To.
  got = admitted(other, String("other"), "40", "secret40", [](String text) {
    return text.replace_all(String("From: <sip:40@"), String("From: <sip:41@"));
  });
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 403 Forbidden"))) << to_std(got);
  EXPECT_TRUE(bindings_become(1));
}

// What a binding is given: the bounds of `min_expires` and `max_expires`, and behind a
// NAT (the Via names another port than the packet came from) `nat_udp`. Answers are
// spread by up to two seconds either way.
TEST_F(RegistrarWireTest, BindingExpiries) {
  start({{"min_expires", "30"}, {"max_expires", "360"}, {"nat_udp", "40"}});
  struct Case {
    const char* name;
    const char* asked;
    bool behind_nat;
    int given;
  } cases[] = {
      {"within the bounds", "300", false, 300},
      {"above the maximum", "3600", false, 360},
      {"below the minimum", "10", false, 30},
      {"behind a NAT", "3600", true, 40},
  };
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Phone phone("127.0.0.1", port_);
    ASSERT_TRUE(phone.opened());
    int real_port = phone.port();
    String got = admitted(phone, format("exp%d", index++), "40", "secret40", [&](String text) {
      if (!c.behind_nat) return text;
      return text.replace_all(format("UDP 127.0.0.1:%d;", real_port), String("UDP 192.0.2.1:5999;"));
    }, c.asked);
    ASSERT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);
    String contact = header_value(got, String("Contact"));
    int expires = contact.tail(contact.find(String("expires=")) + 8).to_int();
    EXPECT_GE(expires, c.given - 2) << to_std(got);
    EXPECT_LE(expires, c.given + 2) << to_std(got);
  }
}

// A provisioned phone may register for each account it serves with its MAC and its own
// password; a host that names no domain gets 404 and the hint about the only domain.
TEST_F(RegistrarWireTest, DevicePasswordsAndUnknownDomains) {
  start({}, [this] {
    auto users = open_table(dir_.path(), tbl_users);
    int account = users->find_first(col_alias, String("40"));
    ASSERT_NE(account, 0);
    auto macs = open_table(dir_.path(), tbl_macs);
    int row = macs->create_row();
    macs->set(row, col_adr, String("0004F2ABCDEF"));
    macs->set(row, col_user, format("99 %d", account));
    macs->set(row, col_pass, String("devicepass"), true);
  });
  Phone phone("127.0.0.1", port_);
  ASSERT_TRUE(phone.opened());
  String nonce = challenge(phone, "REGISTER", String("device"), "40");
  String uri("sip:localhost");
  String auth = authorization("REGISTER", "0004F2ABCDEF", "devicepass", nonce, uri, uri);
  ASSERT_TRUE(phone.send(phone.request("REGISTER", String("device"), 2, "40", auth)));
  String got = phone.answer();
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);

  String text = phone.request("REGISTER", String("elsewhere"), 1, "40", String());
  text.replace_all(String("To: <sip:40@localhost>"), String("To: <sip:40@pbx.example>"));
  ASSERT_TRUE(phone.send(text));
  got = phone.answer();
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 404 Not Found"))) << to_std(got);
  EXPECT_EQ(header_value(got, String("Retry-After")), String("3600"));
  // Clearing the bindings of an account that doesn't exist has nothing to clear.
  text = phone.request("REGISTER", String("nobody"), 1, "1999", String(), "0");
  text.replace_all(format("Contact: <sip:1999@127.0.0.1:%d>", phone.port()), String("Contact: *"));
  ASSERT_TRUE(phone.send(text));
  got = phone.answer();
  EXPECT_TRUE(got.starts_with(String("SIP/2.0 200 Ok"))) << to_std(got);
  EXPECT_TRUE(log_shows(log_, "You have only one domain and the domain pbx.example cannot be found, "
                              "consider using \"localhost\" as the domain name"));
}
