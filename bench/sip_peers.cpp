#include "bench/sip_peers.h"

#include <dirent.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "bench/sipp_load.h"
#include "core/format.h"
#include "core/udp_socket.h"
#include "tests/e2e/daemon_runner.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

namespace {

const char* const kamailio_binary = "/usr/sbin/kamailio";

// Runs `start` with this thread on `cpu` alone, so that what it forks stays there, and
// then gives the thread back every core it had.
template <class F>
void on_cpu(int cpu, F start) {
  cpu_set_t saved;
  sched_getaffinity(0, sizeof saved, &saved);
  pin_to_cpu(cpu);
  start();
  sched_setaffinity(0, sizeof saved, &saved);
}

std::string kamailio_config(int port, const std::string& password) {
  std::string p = std::to_string(port);
  return "#!KAMAILIO\n"
         "debug=0\nlog_stderror=no\nfork=yes\nchildren=2\ntcp_children=2\n"
         "listen=udp:127.0.0.1:" + p + "\nlisten=tcp:127.0.0.1:" + p + "\n"
         "mpath=\"/usr/lib/x86_64-linux-gnu/kamailio/modules/\"\n"
         "loadmodule \"tm.so\"\nloadmodule \"sl.so\"\nloadmodule \"pv.so\"\nloadmodule \"maxfwd.so\"\n"
         "loadmodule \"textops.so\"\nloadmodule \"siputils.so\"\nloadmodule \"xlog.so\"\n"
         "loadmodule \"usrloc.so\"\nloadmodule \"registrar.so\"\nloadmodule \"auth.so\"\n"
         "modparam(\"usrloc\", \"db_mode\", 0)\n"
         "modparam(\"registrar\", \"max_contacts\", 5)\n"
         "request_route {\n"
         "  if (!mf_process_maxfwd_header(\"10\")) { sl_send_reply(\"483\",\"Too Many Hops\"); exit; }\n"
         "  if (is_method(\"REGISTER\")) {\n"
         "    if (!pv_www_authenticate(\"$td\", \"" + password + "\", \"0\")) { www_challenge(\"$td\", \"0\"); exit; }\n"
         "    if (!save(\"location\")) sl_reply_error();\n"
         "    exit;\n"
         "  }\n"
         "  if (is_method(\"OPTIONS\")) { sl_send_reply(\"200\",\"Ok\"); exit; }\n"
         "  sl_send_reply(\"501\",\"Not Implemented\");\n"
         "}\n";
}

}  // namespace

std::vector<PeerUser> peer_users(int count) {
  std::vector<PeerUser> users;
  for (int i = 0; i < count; i++) users.push_back({std::to_string(100000 + i), "secret"});
  return users;
}

bool write_injection_file(const std::string& path, const std::vector<PeerUser>& users) {
  std::string text = "SEQUENTIAL\n";
  for (const PeerUser& u : users)
    text += u.number + ";[authentication username=" + u.number + " password=" + u.password + "]\n";
  return write_text(path, text);
}

bool PeerServer::answering(int seconds) const {
  UdpSocket probe;
  if (!probe.open(0, parse_adr(String("127.0.0.1")))) return false;
  Address to(parse_adr(String("127.0.0.1")), port_);
  for (int i = 0; i < seconds * 10; i++) {
    String request = format("OPTIONS sip:127.0.0.1:%d SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:%d;branch=z9hG4bKready%d;rport\r\n"
                            "From: <sip:probe@127.0.0.1>;tag=p\r\nTo: <sip:127.0.0.1>\r\nCall-ID: ready%d@probe\r\n"
                            "CSeq: 1 OPTIONS\r\nMax-Forwards: 70\r\nContent-Length: 0\r\n\r\n",
                            port_, probe.port, i, i);
    (void)probe.send_to(request, to);
    pollfd p = {probe.fd, POLLIN, 0};
    if (poll(&p, 1, 100) == 1) return true;
  }
  return false;
}

namespace {

// User and system time of all threads of a process, in clock ticks.
long cpu_ticks(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(f, line);
  size_t close_paren = line.rfind(')');
  if (close_paren == std::string::npos) return -1;
  std::istringstream rest(line.substr(close_paren + 2));
  std::string field;
  long utime = 0, stime = 0;
  // Fields 3 to 13 come before utime (14) and stime (15).
  for (int i = 3; i <= 15 && rest >> field; i++) {
    if (i == 14) utime = std::atol(field.c_str());
    if (i == 15) stime = std::atol(field.c_str());
  }
  return utime + stime;
}

}  // namespace

bool PeerServer::settled(int seconds) const {
  long ticks_per_second = sysconf(_SC_CLK_TCK);
  long before = cpu_ticks(pid_);
  for (int i = 0; i < seconds * 2; i++) {
    usleep(500000);
    long now = cpu_ticks(pid_);
    if (now < 0) return false;
    if ((now - before) * 20 < ticks_per_second / 2) return true;
    before = now;
  }
  return false;
}

long PeerServer::resident_kb() const {
  std::ifstream f("/proc/" + std::to_string(pid_) + "/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return -1;
}

std::string PeerServer::end_note() const {
  std::ifstream f("/proc/" + std::to_string(pid_) + "/stat");
  std::string line;
  std::getline(f, line);
  size_t close_paren = line.rfind(')');
  if (close_paren == std::string::npos || line.size() < close_paren + 3 || line[close_paren + 2] != 'Z') return {};
  // The last field is the status that waitpid would return.
  int status = std::atoi(line.c_str() + line.find_last_of(' ') + 1);
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "exit " + std::to_string(WEXITSTATUS(status));
}

DaemonPeer::DaemonPeer(const std::vector<PeerUser>& users, int cpu) : dir_(std::make_unique<TempDir>()) {
  WorkDirOptions o;
  o.ports = {"ip_sip_udp_port"};
  o.settings["out_of_dialog_options"] = "true";
  o.extensions.clear();
  for (const PeerUser& u : users) o.extensions.push_back({u.number, u.password});
  WorkDir work = write_work_dir(dir_->path(), o);
  port_ = work.port("ip_sip_udp_port");
  on_cpu(cpu, [&] {
    process_ = std::make_unique<DaemonProcess>(std::vector<std::string>{"--no-daemon", "--dir", dir_->path()},
                                               dir_->file("err"));
  });
  pid_ = process_->pid();
}

DaemonPeer::~DaemonPeer() { process_.reset(); }

const std::string& DaemonPeer::dir() const { return dir_->path(); }

int DaemonPeer::registration_rows() const {
  int rows = 0;
  DIR* d = opendir((dir_->path() + "/registrations").c_str());
  if (!d) return 0;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n.size() > 4 && n.compare(n.size() - 4, 4, ".xml") == 0 && n.find_first_not_of("0123456789") == n.size() - 4)
      rows++;
  }
  closedir(d);
  return rows;
}

bool KamailioPeer::available() { return access(kamailio_binary, X_OK) == 0; }

KamailioPeer::KamailioPeer(const std::string& password, int cpu) : dir_(std::make_unique<TempDir>()) {
  port_ = free_port();
  std::string config = dir_->file("kamailio.cfg"), pid_file = dir_->file("kamailio.pid");
  if (!write_text(config, kamailio_config(port_, password))) return;
  on_cpu(cpu, [&] {
    pid_t starter = fork();
    if (starter == 0) {
      freopen("/dev/null", "w", stdout);
      freopen(dir_->file("kamailio.err").c_str(), "w", stderr);
      execl(kamailio_binary, kamailio_binary, "-f", config.c_str(), "-P", pid_file.c_str(), "-w",
            dir_->path().c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    // kamailio goes to the background itself; the process started here returns at once.
    if (starter > 0) waitpid(starter, nullptr, 0);
  });
  for (int i = 0; i < 100 && pid_ <= 0; i++) {
    std::ifstream f(pid_file);
    if (!(f >> pid_)) pid_ = -1;
    if (pid_ <= 0) usleep(50000);
  }
}

KamailioPeer::~KamailioPeer() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  for (int i = 0; i < 100 && kill(pid_, 0) == 0; i++) usleep(50000);
}
