// A real soft phone registers over TCP with an extension and its password, stays
// connected while it is quiet, and its binding goes when it quits.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/e2e/daemon_runner.h"
#include "tests/e2e/sip_probe.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

namespace {

}  // namespace

TEST(BaresipTest, RegistersOverTcpAndUnregistersOnQuit) {
  if (access("/usr/bin/baresip", X_OK) != 0) GTEST_SKIP() << "baresip is not installed";
  TempDir dir;
  WorkDirOptions o;
  o.ports = {"ip_sip_tcp_port"};
  WorkDir work = write_work_dir(dir.path(), o);
  std::string err = dir.file("daemon.err");
  DaemonProcess daemon({"--no-daemon", "--dir", dir.path(), "--log", "9"}, err);
  ASSERT_TRUE(eventually([&] { return file_text(err).find("Working Directory is") != std::string::npos; }, 10));

  std::string phone = dir.file("phone");
  mkdir(phone.c_str(), 0700);
  write_text(phone + "/accounts", "<sip:40@localhost;transport=tcp>;auth_pass=secret40;outbound=\"sip:127.0.0.1:" +
                                 std::to_string(work.port("ip_sip_tcp_port")) + ";transport=tcp\";regint=60\n");
  write_text(phone + "/config", "poll_method epoll\nsip_listen 127.0.0.1:0\nmodule_path /usr/lib/baresip/modules\n"
                           "module account.so\n");
  std::string out = phone + "/out.txt";
  pid_t pid = fork();
  if (pid == 0) {
    FILE* f = freopen(out.c_str(), "w", stdout);
    (void)f;
    dup2(1, 2);
    alarm(30);
    // Longer than the idle limit of a fresh SIP connection (8 s): the binding must keep it open.
    execl("/usr/bin/baresip", "baresip", "-f", phone.c_str(), "-t", "11", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  std::string said = file_text(out);
  EXPECT_NE(said.find("200 Ok"), std::string::npos) << said;
  EXPECT_NE(said.find("[1 binding]"), std::string::npos) << said;
  EXPECT_TRUE(eventually([&] { return file_text(err).find("Account 40 is removing a registration") != std::string::npos; }, 10))
      << file_text(err);
  std::string log = file_text(err);
  EXPECT_EQ(occurrences(log, "Account 40 is registering a new contact from 127.0.0.1:"), 1) << log;
  // The phone's one connection closed only when it quit, after its binding went.
  EXPECT_TRUE(eventually([&] { return occurrences(file_text(err), "Connection from 127.0.0.1:") > 0; }, 10));
  log = file_text(err);
  size_t removed = log.find("Account 40 is removing a registration"), closed = log.find("Connection from 127.0.0.1:");
  EXPECT_EQ(occurrences(log, "Connection from 127.0.0.1:"), 1) << log;
  EXPECT_LT(removed, closed) << log;
}
