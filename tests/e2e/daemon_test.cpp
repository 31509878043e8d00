// The daemon's command line, detaching and respawning, driven through the real binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/e2e/daemon_runner.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

TEST(DaemonCommandLineTest, VersionAndErrors) {
  RunResult v = run_daemon({"--version"});
  EXPECT_EQ(v.exit_code, 0);
  EXPECT_EQ(v.err, "Version: 68.0.22 Qomra mini PBX (MIPS)\nDate: Sep  9 2022\n");

  for (auto args : std::vector<std::vector<std::string>>{{"--bogus"}, {"--dir"}, {"--no-daemon", "--log"}}) {
    RunResult r = run_daemon(args);
    EXPECT_EQ(r.exit_code, 1) << args.back();
    EXPECT_EQ(r.err.rfind("Error parsing " + args.back() + "\nusage: exchsrv\r\n", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("--http-port <n>: set http port\r\n"), std::string::npos);
    EXPECT_EQ(r.err.size() - r.err.rfind("--version: report version\r\n"),
              std::string("--version: report version\r\n").size());
  }
}

TEST(DaemonProcessTest, DetachesAndWritesPidFile) {
  TempDir dir;
  write_work_dir(dir.path());
  std::string pidfile = dir.file("pid");
  RunResult r = run_daemon({"--pidfile", pidfile, "--dir", dir.path()});
  EXPECT_EQ(r.exit_code, 0);
  std::string text = file_text(pidfile);
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.find('\n'), std::string::npos);
  pid_t pid = std::stoi(text);
  EXPECT_TRUE(process_alive(pid));
  kill(pid, SIGKILL);
  EXPECT_TRUE(eventually([&] { return !process_alive(pid); }, 5));
}

TEST(DaemonProcessTest, MissingDirectoryIsReportedAndStartUpGoesOn) {
  // The daemon stays in the directory it was started in: give it a working directory there.
  TempDir dir;
  write_work_dir(dir.path());
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  DaemonProcess d({"--no-daemon", "--dir", dir.file("missing")}, dir.file("err"));
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_TRUE(eventually([&] { return file_text(dir.file("err")).find("Starting up") != std::string::npos; }, 10));
  EXPECT_NE(file_text(dir.file("err")).find("Could not change directory to " + dir.file("missing")), std::string::npos);
  EXPECT_TRUE(d.alive());
}

TEST(DaemonProcessTest, RespawnRestartsAKilledServer) {
  TempDir dir;
  write_work_dir(dir.path());
  std::string pidfile = dir.file("pid");
  RunResult r = run_daemon({"--respawn", "--pidfile", pidfile, "--dir", dir.path()});
  ASSERT_EQ(r.exit_code, 0);
  pid_t respawner = std::stoi(file_text(pidfile));
  pid_t first = 0;
  ASSERT_TRUE(eventually([&] {
    auto c = children_of(respawner);
    if (!c.empty()) first = c[0];
    return first != 0;
  }, 10));
  kill(first, SIGKILL);
  pid_t second = 0;
  bool back = eventually([&] {
    auto c = children_of(respawner);
    if (!c.empty() && c[0] != first) second = c[0];
    return second != 0;
  }, 15);
  kill(respawner, SIGKILL);
  if (second) kill(second, SIGKILL);
  for (pid_t c : children_of(respawner)) kill(c, SIGKILL);
  EXPECT_TRUE(back) << "no new server after the first was killed";
}
