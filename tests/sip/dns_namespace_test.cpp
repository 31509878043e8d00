// The resolver against a real DNS server: dnsmasq in a network namespace of its own, made
// by a child process of the test, so that port 53 on 127.0.0.1 is ours and nothing leaves
// the machine. Skipped where namespaces can't be made or dnsmasq isn't installed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "core/posting.h"
#include "core/timeout.h"
#include "sip/dns_resolver.h"
#include "sip/interfaces.h"
#include "sip/request_routing.h"
#include "sip/sip_send.h"
#include "sip/transaction.h"
#include "tests/support/test_support.h"

namespace {

constexpr int exit_skip = 77;

int answers = 0;
void on_answer() { answers++; }

bool loopback_up() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return false;
  ifreq r = {};
  snprintf(r.ifr_name, sizeof r.ifr_name, "lo");
  bool ok = ioctl(fd, SIOCGIFFLAGS, &r) == 0;
  r.ifr_flags = static_cast<short>(r.ifr_flags | IFF_UP);
  ok = ok && ioctl(fd, SIOCSIFFLAGS, &r) == 0;
  close(fd);
  return ok;
}

// Asks and serves the sockets and the retry timers until the callback ran; false after
// five seconds of the real clock.
bool resolve(const char* name, int type) {
  answers = 0;
  if (!request_dns(String(name), type, callback_argument(on_answer))) return false;
  for (int i = 0; i < 5000 && answers == 0; i++) {
    dns_serve_sockets();
    Tick now;
    uint64_t id;
    if (service_queue.delay(now, id, true) == 0) service_queue.next();
    if (answers == 0) usleep(1000);
  }
  return answers > 0;
}

bool expect_text(const char* name, int type, const char* want) {
  String out;
  if (!cache_lookup(String(name), type, out, true) || out != String(want)) {
    fprintf(stderr, "%s %s: got \"%s\", want \"%s\"\n", to_std(dns_type_word(type)).c_str(), name, to_std(out).c_str(), want);
    return false;
  }
  return true;
}

// Runs the service timers that are due and reads the DNS sockets.
void serve_once() {
  dns_serve_sockets();
  Tick now;
  uint64_t id;
  if (service_queue.delay(now, id, true) == 0) service_queue.next();
  exchsrv_soap();
}

int check_answers() {
  int failures = 0;
  failures += !resolve("example.test", dns_naptr);
  failures += !expect_text("example.test", dns_naptr, "10 50 S SIP+D2U - _sip._udp.example.test");
  failures += !resolve("_sip._udp.example.test", dns_srv);
  failures += !expect_text("_sip._udp.example.test", dns_srv, "10 60 pbx1.example.test 5070");
  failures += !resolve("pbx1.example.test", dns_a);
  failures += !expect_text("pbx1.example.test", dns_a, "127.0.0.1");
  failures += !resolve("pbx1.example.test", dns_aaaa);
  failures += !expect_text("pbx1.example.test", dns_aaaa, "");
  failures += !resolve("nothere.test", dns_a);
  failures += !expect_text("nothere.test", dns_a, "");
  return failures;
}

std::vector<SendOrder> sends;
std::vector<int> local_statuses;
void capture_send(const String& value) {
  SendOrder order;
  if (read_send_order(value, order)) sends.push_back(order);
}
bool capture_response(SipMessage& r) {
  local_statuses.push_back(r.status);
  return true;
}

void send_options(const char* uri, const char* call_id) {
  SipMessage m(String("OPTIONS"), NameAddr(String("<sip:pbx@pbx.test>;tag=ns")), NameAddr(format("<%s>", uri)),
               String(call_id), String());
  m.request_uri = String(uri);
  send_packet(m);
  exchsrv_soap();
}

// Serves until a send order or a local response shows up; false after five seconds.
bool wait_for_outcome() {
  for (int i = 0; i < 5000 && sends.empty() && local_statuses.empty(); i++) {
    serve_once();
    if (sends.empty() && local_statuses.empty()) usleep(1000);
  }
  return !sends.empty() || !local_statuses.empty();
}

int count_lines(const std::string& file, const std::string& text) {
  std::ifstream in(file);
  int n = 0;
  for (std::string line; std::getline(in, line);) n += line.find(text) != std::string::npos;
  return n;
}

// A request to a domain goes where its NAPTR, SRV and A records lead, in that order; a
// name that doesn't exist ends in the local 404 without retries, and the negative
// answers are kept, so that a second request within 10 s asks nothing.
int check_routing(const std::string& dir) {
  int failures = 0;
  LogCapture log;
  request_routing_register();
  register_control_handler(tag_sip_send, capture_send);
  routing_hooks = RoutingHooks();
  routing_hooks.dialog_response = capture_response;
  set_sip_resolver(dns_sip_resolver());
  send_options("sip:100@example.test", "ns-1");
  if (!wait_for_outcome() || sends.size() != 1 ||
      sends[0].destination != Address(parse_adr(String("127.0.0.1")), 5070)) {
    fprintf(stderr, "example.test was not sent to 127.0.0.1:5070\n");
    failures++;
  }
  std::vector<std::string> order;
  for (const std::string& l : log.lines()) {
    size_t at = l.find("Resolve ");
    if (at == std::string::npos) continue;
    std::string line = l.substr(l.find(": ", at) + 2);
    if (order.empty() || order.back() != line) order.push_back(line);
  }
  std::vector<std::string> want = {"url sip:100@example.test", "naptr example.test", "srv udp _sip._udp.example.test",
                                   "aaaa udp pbx1.example.test 5070", "a udp pbx1.example.test 5070",
                                   "udp 127.0.0.1 5070"};
  if (order != want) {
    fprintf(stderr, "resolution order:\n");
    for (const std::string& l : order) fprintf(stderr, "  %s\n", l.c_str());
    failures++;
  }
  clear_pending_packets();
  std::string queries = dir + "/queries.log";
  for (int round = 0; round < 2; round++) {
    sends.clear();
    local_statuses.clear();
    send_options("sip:100@nothere.test", round ? "ns-3" : "ns-2");
    if (!wait_for_outcome() || local_statuses != std::vector<int>{404} || !sends.empty()) {
      fprintf(stderr, "round %d: nothere.test gave no local 404\n", round);
      failures++;
    }
    // dnsmasq notes each query as it arrives; one NAPTR query in all means the second
    // round was answered from the cache.
    int asked = count_lines(queries, "query[NAPTR] nothere.test");
    if (asked != 1) {
      fprintf(stderr, "round %d: nothere.test NAPTR asked %d times\n", round, asked);
      failures++;
    }
  }
  clear_pending_packets();
  set_sip_resolver(SipResolver());
  return failures;
}

// The body of the child, in the new namespace: 0 when every check passed.
int run_child(const std::string& dir, int (*checks)(const std::string& dir)) {
  if (unshare(CLONE_NEWNET) != 0 || !loopback_up()) return exit_skip;
  pid_t server = fork();
  if (server == 0) {
    std::string conf = "--conf-file=" + dir + "/dnsmasq.conf";
    execlp("dnsmasq", "dnsmasq", conf.c_str(), "--keep-in-foreground", "--user=root", static_cast<char*>(nullptr));
    _exit(exit_skip);
  }
  if (server < 0) return 1;
  dns_reset();
  dns_set_hosts_path(String("/nonexistent/hosts"));
  set_dns_servers({parse_adr(String("127.0.0.1"))});
  dns_set_server_port(53);
  // The first answer tells whether the server runs at all.
  if (!resolve("pbx1.example.test", dns_a)) {
    int status = 0;
    bool missing = waitpid(server, &status, WNOHANG) == server && WEXITSTATUS(status) == exit_skip;
    if (missing) return exit_skip;  // no dnsmasq on this machine
    fprintf(stderr, "no answer from the server\n");
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    return 1;
  }
  int failures = checks(dir);
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  dns_reset();
  return failures == 0 ? 0 : 1;
}

// Writes the server's configuration and runs `checks` in a child in a namespace of its own.
int run_in_namespace(const TempDir& dir, int (*checks)(const std::string& dir)) {
  std::ofstream(dir.file("dnsmasq.conf")) << "no-resolv\nno-hosts\nlisten-address=127.0.0.1\nbind-interfaces\n"
                                             "local=/test/\nhost-record=pbx1.example.test,127.0.0.1\n"
                                             "srv-host=_sip._udp.example.test,pbx1.example.test,5070,10,60\n"
                                             "naptr-record=example.test,10,50,S,SIP+D2U,,_sip._udp.example.test\n"
                                             "log-queries\nlog-facility=" + dir.file("queries.log") + "\n"
                                             "pid-file=" + dir.file("dnsmasq.pid") + "\n";
  fflush(nullptr);
  pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) _exit(run_child(dir.path(), checks));
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return 1;
  return WEXITSTATUS(status);
}

}  // namespace

TEST(DnsNamespaceTest, DnsmasqAnswersNaptrSrvAndAddresses) {
  TempDir dir;
  int status = run_in_namespace(dir, [](const std::string&) { return check_answers(); });
  if (status == exit_skip) GTEST_SKIP() << "network namespaces can't be made here, or dnsmasq is missing";
  EXPECT_EQ(status, 0) << "see the lines of the child above";
}

TEST(DnsNamespaceTest, RequestsRoutedByNaptrSrvAndAddress) {
  TempDir dir;
  int status = run_in_namespace(dir, check_routing);
  if (status == exit_skip) GTEST_SKIP() << "network namespaces can't be made here, or dnsmasq is missing";
  EXPECT_EQ(status, 0) << "see the lines of the child above";
}
