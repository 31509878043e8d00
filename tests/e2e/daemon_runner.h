// Starts the daemon binary of this build for end-to-end tests and collects what it says.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

std::string daemon_binary();

struct RunResult {
  int exit_code = -1;
  std::string err;  // what the process wrote on standard error
};
// Runs the daemon to its end (at most `seconds`, then it is killed).
RunResult run_daemon(const std::vector<std::string>& args, int seconds = 20);

// Starts the daemon in the background with standard error into a file; the process is
// killed when the object dies.
class DaemonProcess {
 public:
  DaemonProcess(const std::vector<std::string>& args, const std::string& err_file);
  ~DaemonProcess();
  pid_t pid() const { return pid_; }
  bool alive() const;
  void stop();

 private:
  pid_t pid_ = -1;
};

bool process_alive(pid_t pid);
// The children of a process, from /proc.
std::vector<pid_t> children_of(pid_t pid);
