#include "tests/e2e/daemon_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/support/test_support.h"

std::string daemon_binary() { return binary_dir() + "/exchsrv/exchsrv"; }

static std::vector<char*> argv_of(const std::vector<std::string>& args, std::vector<std::string>& keep) {
  keep.clear();
  keep.push_back(daemon_binary());
  keep.insert(keep.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& s : keep) argv.push_back(s.data());
  argv.push_back(nullptr);
  return argv;
}

RunResult run_daemon(const std::vector<std::string>& args, int seconds) {
  RunResult r;
  int fds[2];
  if (pipe(fds) != 0) return r;
  std::vector<std::string> keep;
  auto argv = argv_of(args, keep);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 2);
    close(fds[0]);
    close(fds[1]);
    alarm(static_cast<unsigned>(seconds));
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) r.err.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}

DaemonProcess::DaemonProcess(const std::vector<std::string>& args, const std::string& err_file) {
  std::vector<std::string> keep;
  auto argv = argv_of(args, keep);
  pid_ = fork();
  if (pid_ == 0) {
    int fd = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) dup2(fd, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
}

DaemonProcess::~DaemonProcess() { stop(); }

bool DaemonProcess::alive() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

void DaemonProcess::stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

bool process_alive(pid_t pid) {
  if (pid <= 0 || kill(pid, 0) != 0) return false;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  size_t close_paren = line.rfind(')');
  return close_paren != std::string::npos && line.size() > close_paren + 2 && line[close_paren + 2] != 'Z';
}

std::vector<pid_t> children_of(pid_t pid) {
  std::vector<pid_t> out;
  std::ifstream f("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  pid_t c;
  while (f >> c) out.push_back(c);
  return out;
}
