#include "tests/e2e/sipp_runner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "core/udp_socket.h"
#include "tests/support/test_support.h"

SippTotals read_sipp_totals(const std::string& stats_file) {
  // The last line holds the totals; the columns are named in the first.
  SippTotals out;
  std::ifstream f(stats_file);
  std::string header, line, last;
  std::getline(f, header);
  while (std::getline(f, line))
    if (!line.empty()) last = line;
  std::vector<std::string> names, values;
  std::stringstream hs(header), vs(last);
  std::string cell;
  while (std::getline(hs, cell, ';')) names.push_back(cell);
  while (std::getline(vs, cell, ';')) values.push_back(cell);
  for (size_t i = 0; i < names.size() && i < values.size(); i++) {
    long v = std::atol(values[i].c_str());
    if (names[i] == "SuccessfulCall(C)") out.successful = v;
    if (names[i] == "FailedCall(C)") out.failed = v;
    if (names[i] == "Retransmissions(C)") out.retransmissions = v;
  }
  return out;
}

bool sipp_available() { return access("/usr/bin/sipp", X_OK) == 0; }

int free_udp_port() {
  UdpSocket probe;
  return probe.open(0, parse_adr(String("127.0.0.1"))) ? probe.port : 0;
}

SippResult run_sipp(const std::string& scenario, int port, int calls, int rate, const std::vector<std::string>& extra) {
  SippResult r;
  TempDir dir;
  std::string stats = dir.file("stats.csv");
  std::vector<std::string> args = {"/usr/bin/sipp", "127.0.0.1:" + std::to_string(port),
                                   "-sf", scenario[0] == '/' ? scenario : source_dir() + "/tests/e2e/sipp/" + scenario,
                                   "-m", std::to_string(calls), "-r", std::to_string(rate),
                                   "-i", "127.0.0.1", "-p", std::to_string(free_udp_port()),
                                   "-nostdin", "-trace_stat", "-stf", stats, "-timeout", "60s",
                                   "-timeout_error"};
  args.insert(args.end(), extra.begin(), extra.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int pipefd[2];
  if (pipe(pipefd) != 0) return r;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(pipefd[1], 1);
    dup2(pipefd[1], 2);
    close(pipefd[0]);
    if (chdir(dir.path().c_str()) != 0) _exit(126);
    alarm(120);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipefd[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(pipefd[0], buf, sizeof buf)) > 0) r.output.append(buf, static_cast<size_t>(n));
  close(pipefd[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  SippTotals totals = read_sipp_totals(stats);
  r.successful = totals.successful;
  r.failed = totals.failed;
  return r;
}
