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

#include "core/timeout.h"
#include "sip/dns_resolver.h"
#include "sip/interfaces.h"
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

// The body of the child, in the new namespace: 0 when every answer was right.
int run_child(const std::string& dir) {
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
  int failures = 0;
  if (!resolve("example.test", dns_naptr)) {
    int status = 0;
    failures = waitpid(server, &status, WNOHANG) == server && WEXITSTATUS(status) == exit_skip ? -1 : 1;
    if (failures < 0) return exit_skip;  // no dnsmasq on this machine
    fprintf(stderr, "no answer for the NAPTR\n");
  }
  failures += !expect_text("example.test", dns_naptr, "10 50 S SIP+D2U - _sip._udp.example.test");
  failures += !resolve("_sip._udp.example.test", dns_srv);
  failures += !expect_text("_sip._udp.example.test", dns_srv, "10 60 pbx1.example.test 5070");
  failures += !resolve("pbx1.example.test", dns_a);
  failures += !expect_text("pbx1.example.test", dns_a, "127.0.0.1");
  failures += !resolve("pbx1.example.test", dns_aaaa);
  failures += !expect_text("pbx1.example.test", dns_aaaa, "");
  failures += !resolve("nothere.test", dns_a);
  failures += !expect_text("nothere.test", dns_a, "");
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  dns_reset();
  return failures == 0 ? 0 : 1;
}

}  // namespace

TEST(DnsNamespaceTest, DnsmasqAnswersNaptrSrvAndAddresses) {
  TempDir dir;
  std::ofstream(dir.file("dnsmasq.conf")) << "no-resolv\nno-hosts\nlisten-address=127.0.0.1\nbind-interfaces\n"
                                             "local=/test/\nhost-record=pbx1.example.test,127.0.0.1\n"
                                             "srv-host=_sip._udp.example.test,pbx1.example.test,5070,10,60\n"
                                             "naptr-record=example.test,10,50,S,SIP+D2U,,_sip._udp.example.test\n"
                                             "pid-file=" + dir.file("dnsmasq.pid") + "\n";
  fflush(nullptr);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(run_child(dir.path()));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == exit_skip) GTEST_SKIP() << "network namespaces can't be made here, or dnsmasq is missing";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "see the lines of the child above";
}
