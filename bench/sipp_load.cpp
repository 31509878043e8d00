#include "bench/sipp_load.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/e2e/daemon_runner.h"
#include "tests/e2e/sipp_runner.h"
#include "tests/support/test_support.h"

bool pin_to_cpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return sched_setaffinity(0, sizeof set, &set) == 0;
}

namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}


}  // namespace

SippOutcome run_sipp_load(const SippLoad& load, int tick_seconds, const std::function<void(double)>& tick) {
  SippOutcome out;
  TempDir dir;
  std::string stats = dir.file("stats.csv");
  std::vector<std::string> args = {"/usr/bin/sipp", "127.0.0.1:" + std::to_string(load.port), "-sf", load.scenario,
                                   "-m", std::to_string(load.calls), "-r", std::to_string(load.rate)};
  if (load.limit > 0) args.insert(args.end(), {"-l", std::to_string(load.limit)});
  args.insert(args.end(), {"-i", "127.0.0.1", "-p", std::to_string(free_udp_port()), "-nostdin", "-trace_stat",
                           "-fd", "1", "-stf", stats, "-timeout", std::to_string(load.max_seconds) + "s", "-timeout_error"});
  args.insert(args.end(), load.extra.begin(), load.extra.end());
  out.command = "taskset -c " + std::to_string(load.cpu);
  for (const std::string& a : args) out.command += " " + (a == stats ? std::string("stats.csv") : a);

  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::string log = dir.file("sipp.out");
  auto start = std::chrono::steady_clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
    if (chdir(dir.path().c_str()) != 0) _exit(126);
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(load.cpu, &set);
    (void)sched_setaffinity(0, sizeof set, &set);
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (pid < 0) return out;
  double next_tick = tick_seconds;
  int status = 0;
  long polls = 0;
  for (;;) {
    pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    double t = seconds_since(start);
    // A server that died leaves sipp retransmitting until its own time-out.
    bool gone = load.watch_pid > 0 && ++polls % 100 == 0 && !process_alive(load.watch_pid);
    if (gone) out.server_gone = true;
    if (gone || t > load.max_seconds + 30) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    if (tick && tick_seconds > 0 && t >= next_tick) {
      tick(t);
      next_tick += tick_seconds;
    }
    usleep(2000);
  }
  out.seconds = seconds_since(start);
  out.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  SippTotals totals = read_sipp_totals(stats);
  out.successful = totals.successful;
  out.failed = totals.failed;
  out.retransmissions = totals.retransmissions;
  std::ifstream f(log);
  std::stringstream all;
  all << f.rdbuf();
  out.output = all.str();
  if (out.output.size() > 2000) out.output = out.output.substr(out.output.size() - 2000);
  return out;
}
