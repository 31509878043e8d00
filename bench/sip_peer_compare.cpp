// The daemon and kamailio side by side under the same sipp load over loopback: OPTIONS
// rates, a memory soak of the daemon, and registrar throughput (new bindings and
// refreshes). Each server runs pinned to core 0, sipp to core 1. Not a test: run by hand,
// see bench/README.md.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench/sip_peers.h"
#include "bench/sipp_load.h"
#include "tests/e2e/sipp_runner.h"
#include "tests/support/test_support.h"

namespace {

const int server_cpu = 0;
const int sipp_cpu = 1;
// Refreshes a call of the refresh scenario makes after its first binding.
const int refreshes_per_call = 20;

struct Options {
  bool options = true, soak = true, registrar = true;
  std::vector<int> rates = {1000, 2000, 3000, 4000, 5000, 6000, 8000, 10000,
                            15000, 20000, 25000, 30000, 35000, 40000};
  int step_seconds = 10;
  int daemon_step_seconds = 40;
  int soak_seconds = 120;
  int soak_rate = 2000;
  int users = 10000;
  // sipp's -l in the registrar runs: more calls at once lose datagrams to bursts, and a
  // retransmission stalls its call for 500 ms, which makes short runs noisy.
  int open_calls = 50;
  // Bindings refreshed. The daemon keeps each transaction about 14 kB for 32 s and ends
  // itself at its data limit of 2 GB; 10,000 admissions with 20 refreshes each within
  // that time took it past the limit.
  int refresh_users = 4000;
};

std::string scenario(const std::string& relative) { return source_dir() + "/" + relative; }

std::string load_average() {
  std::ifstream f("/proc/loadavg");
  std::string a, b, c;
  f >> a >> b >> c;
  return a + " " + b + " " + c;
}

void print_run(const PeerServer& server, const char* what, const SippOutcome& r) {
  printf("  %-8s %-22s %9.0f/s  ok %ld  failed %ld  retrans %ld  %.2f s  exit %d\n",
         server.name(), what, r.per_second(),
         r.successful, r.failed, r.retransmissions, r.seconds, r.exit_code);
  if (r.server_gone) {
    std::string how = server.end_note();
    printf("  %-8s ENDED during the run%s%s; sipp was stopped\n", server.name(), how.empty() ? "" : ": ",
           how.c_str());
  }
  if (r.exit_code != 0 && r.failed == 0 && r.successful == 0 && !r.server_gone) printf("%s\n", r.output.c_str());
}

// The highest step of the ladder that sipp kept up with and that saw no failure.
struct OptionsResult {
  int sustained_rate = 0;
  double sustained_per_second = 0;
  double best_per_second = 0;
  int top_rate = 0;  // the last step tried
};

// Each step runs against a fresh server, so that what one step leaves in memory does not
// weigh on the next.
template <class Start>
OptionsResult options_ladder(Start start, int step_seconds, const Options& o, std::string& command) {
  OptionsResult out;
  for (int rate : o.rates) {
    std::unique_ptr<PeerServer> server = start();
    if (!server->answering() || !server->settled()) {
      printf("  %s did not answer or stayed busy on port %d\n", server->name(), server->port());
      break;
    }
    SippLoad load;
    load.scenario = scenario("tests/e2e/sipp/options.xml");
    load.port = server->port();
    load.rate = rate;
    load.calls = static_cast<long>(rate) * step_seconds;
    load.cpu = sipp_cpu;
    load.watch_pid = server->pid();
    SippOutcome r = run_sipp_load(load);
    command = r.command;
    std::string what = "OPTIONS at " + std::to_string(rate) + "/s";
    print_run(*server, what.c_str(), r);
    out.top_rate = rate;
    if (r.per_second() > out.best_per_second) out.best_per_second = r.per_second();
    // Kept up: every call done, none failed, and not much later than the rate allows.
    bool kept_up = r.failed == 0 && r.successful == load.calls && r.seconds <= step_seconds * 1.1 + 0.5;
    if (!kept_up) break;
    out.sustained_rate = rate;
    out.sustained_per_second = r.per_second();
  }
  return out;
}

void run_options(const Options& o) {
  printf("\n== OPTIONS over UDP: a ladder of fixed rates, a fresh server for each step; the highest\n"
         "   step with every call answered, no failure and no lag is the sustained rate. exchsrv\n"
         "   steps last %d s (its transaction memory fills for 32 s before it is steady),\n"
         "   kamailio's %d s (it answers statelessly)\n", o.daemon_step_seconds, o.step_seconds);
  std::string command;
  OptionsResult d = options_ladder([] { return std::make_unique<DaemonPeer>(peer_users(2), server_cpu); },
                                   o.daemon_step_seconds, o, command);
  OptionsResult k = options_ladder([] { return std::make_unique<KamailioPeer>("secret", server_cpu); },
                                   o.step_seconds, o, command);
  printf("  sipp (last step): %s\n", command.c_str());
  printf("  sustained: exchsrv %d/s (%.0f/s measured), kamailio %d/s (%.0f/s measured)%s\n", d.sustained_rate,
         d.sustained_per_second, k.sustained_rate, k.sustained_per_second,
         k.sustained_rate == o.rates.back() ? "; kamailio reached the top of the ladder" : "");
  printf("  best step: exchsrv %.0f/s, kamailio %.0f/s\n", d.best_per_second, k.best_per_second);
  if (k.sustained_rate > 0)
    printf("  exchsrv / kamailio (sustained): %.0f%% (target 70%%)\n", 100.0 * d.sustained_rate / k.sustained_rate);
}

void run_soak(const Options& o) {
  printf("\n== Soak: OPTIONS at %d/s for %d s against exchsrv, resident memory every 5 s\n", o.soak_rate,
         o.soak_seconds);
  DaemonPeer daemon(peer_users(2), server_cpu);
  if (!daemon.answering() || !daemon.settled()) {
    printf("  the daemon did not answer on port %d\n", daemon.port());
    return;
  }
  struct Sample {
    int at;
    long kb;
  };
  std::vector<Sample> samples = {{0, daemon.resident_kb()}};
  SippLoad load;
  load.scenario = scenario("tests/e2e/sipp/options.xml");
  load.port = daemon.port();
  load.rate = o.soak_rate;
  load.calls = static_cast<long>(o.soak_rate) * o.soak_seconds;
  load.cpu = sipp_cpu;
  load.max_seconds = o.soak_seconds + 60;
  load.watch_pid = daemon.pid();
  SippOutcome r = run_sipp_load(load, 5, [&](double t) { samples.push_back({static_cast<int>(t + 0.5), daemon.resident_kb()}); });
  samples.push_back({static_cast<int>(r.seconds + 0.5), daemon.resident_kb()});
  printf("  sipp: %s\n", r.command.c_str());
  print_run(daemon, "OPTIONS soak", r);
  printf("  VmRSS (kB) by second:");
  for (size_t i = 0; i < samples.size(); i++) printf("%s %d:%ld", i % 8 == 0 ? "\n   " : "", samples[i].at, samples[i].kb);
  printf("\n");
  // Transactions are remembered 32 s, so the memory should stop growing once the first
  // ones are forgotten.
  long low = -1, high = -1, at_40 = -1;
  for (const Sample& s : samples) {
    if (s.at < 40) continue;
    if (at_40 < 0) at_40 = s.kb;
    if (low < 0 || s.kb < low) low = s.kb;
    if (s.kb > high) high = s.kb;
  }
  if (at_40 < 0 || o.soak_seconds < 50) {
    printf("  too short to judge the memory after 40 s\n");
  } else {
    bool flat = high - low <= at_40 / 50;  // within 2%
    printf("  after 40 s: %ld..%ld kB, spread %ld kB (%.1f%%): %s\n", low, high, high - low,
           100.0 * (high - low) / at_40, flat ? "flat" : "NOT flat");
  }
  printf("  failures: %ld%s\n", r.failed, r.failed == 0 && r.successful == load.calls ? " (every call answered)" : "");
}

struct RegistrarResult {
  double new_per_second = 0, rebind_seconds = 0, refresh_per_second = 0;
  long failed = 0;
};

// The daemon remembers every transaction for 32 s; a run that starts sooner than that
// after the last one pays for what the last one left behind.
void forget_transactions(const DaemonPeer* daemon) {
  if (daemon) sleep(33);
}

RegistrarResult registrar_runs(PeerServer& server, DaemonPeer* daemon, const std::string& users_file,
                               const Options& o, std::vector<std::string>& commands) {
  RegistrarResult out;
  SippLoad load;
  load.port = server.port();
  load.calls = o.users;
  load.rate = 100000;
  load.limit = o.open_calls;
  load.cpu = sipp_cpu;
  load.extra = {"-inf", users_file};
  load.watch_pid = server.pid();
  load.scenario = scenario("tests/e2e/sipp/register.xml");
  SippOutcome fresh = run_sipp_load(load);
  print_run(server, "new bindings", fresh);
  out.new_per_second = fresh.per_second();
  out.failed += fresh.failed;
  commands[0] = fresh.command;
  if (fresh.server_gone) return out;
  if (daemon) {
    printf("  %-8s VmRSS %ld kB\n", server.name(), daemon->resident_kb());
    int rows = 0;
    for (int i = 0; i < 300 && rows < o.users; i++) {
      rows = daemon->registration_rows();
      if (rows < o.users) usleep(100000);
    }
    printf("  %-8s registrations table: %d rows for %d users\n", server.name(), rows, o.users);
  }
  // The same challenge and admission again, on bindings that exist now: the part of the
  // refresh run below that is not a refresh.
  load.calls = std::min(o.refresh_users, o.users);
  forget_transactions(daemon);
  SippOutcome again = run_sipp_load(load);
  print_run(server, "re-admission", again);
  if (daemon) printf("  %-8s VmRSS %ld kB\n", server.name(), daemon->resident_kb());
  out.rebind_seconds = again.seconds;
  out.failed += again.failed;
  if (again.server_gone) return out;
  load.scenario = scenario("bench/sipp/register_refresh.xml");
  forget_transactions(daemon);
  SippOutcome refresh = run_sipp_load(load);
  std::string what = "admission+" + std::to_string(refreshes_per_call) + " refreshes";
  print_run(server, what.c_str(), refresh);
  out.failed += refresh.failed;
  commands[1] = refresh.command;
  double span = refresh.seconds - again.seconds;
  if (span > 0 && !refresh.server_gone)
    out.refresh_per_second = static_cast<double>(refresh.successful) * refreshes_per_call / span;
  if (daemon)
    printf("  %-8s registrations table: %d rows; VmRSS %ld kB\n", server.name(), daemon->registration_rows(),
           daemon->resident_kb());
  return out;
}

void run_registrar(const Options& o) {
  printf("\n== Registrar over UDP: %d users, sipp -l %d open calls at a time\n"
         "   new binding: REGISTER, 401, REGISTER with Authorization, 200\n"
         "   refresh: REGISTER with Authorization on the same Call-ID (nonce reused), 200;\n"
         "   refreshes/s = %d refreshes x %d users / (time of admission+refreshes - time of re-admission)\n"
         "   kamailio keeps bindings in memory only (usrloc db_mode 0); exchsrv writes each to its\n"
         "   registrations table. exchsrv's runs start 33 s apart, after its transaction memory\n"
         "   (32 s) has emptied\n",
         o.users, o.open_calls, refreshes_per_call, std::min(o.refresh_users, o.users));
  TempDir dir;
  std::vector<PeerUser> users = peer_users(o.users);
  std::string users_file = dir.file("users.csv");
  if (!write_injection_file(users_file, users)) {
    printf("  could not write %s\n", users_file.c_str());
    return;
  }
  std::vector<std::string> commands = {"", ""};
  RegistrarResult d, k;
  {
    DaemonPeer daemon(users, server_cpu);
    if (!daemon.answering(60) || !daemon.settled()) {
      printf("  the daemon did not answer on port %d\n", daemon.port());
      return;
    }
    d = registrar_runs(daemon, &daemon, users_file, o, commands);
  }
  {
    KamailioPeer kamailio("secret", server_cpu);
    if (!kamailio.answering() || !kamailio.settled()) {
      printf("  kamailio did not answer on port %d\n", kamailio.port());
      return;
    }
    k = registrar_runs(kamailio, nullptr, users_file, o, commands);
  }
  printf("  sipp (new bindings): %s\n", commands[0].c_str());
  printf("  sipp (refreshes):    %s\n", commands[1].c_str());
  printf("  new bindings/s: exchsrv %.0f, kamailio %.0f: %.0f%% (target 40%%)\n", d.new_per_second,
         k.new_per_second, k.new_per_second > 0 ? 100 * d.new_per_second / k.new_per_second : 0);
  printf("  refreshes/s:    exchsrv %.0f, kamailio %.0f: %.0f%% (target 60%%)\n", d.refresh_per_second,
         k.refresh_per_second, k.refresh_per_second > 0 ? 100 * d.refresh_per_second / k.refresh_per_second : 0);
  printf("  failed calls: exchsrv %ld, kamailio %ld\n", d.failed, k.failed);
}

std::vector<int> parse_rates(const char* text) {
  std::vector<int> out;
  std::stringstream s(text);
  std::string cell;
  while (std::getline(s, cell, ','))
    if (std::atoi(cell.c_str()) > 0) out.push_back(std::atoi(cell.c_str()));
  return out;
}

void usage() {
  fprintf(stderr,
          "usage: sip_peer_compare [--only options|soak|registrar] [--rates R1,R2,...] [--step-seconds N]\n"
          "                        [--daemon-step-seconds N] [--refresh-users N]\n"
          "                        [--soak-seconds N] [--soak-rate N] [--users N] [--open-calls N]\n");
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    if (!v) {
      usage();
      return 2;
    }
    i++;
    if (a == "--only") {
      o.options = !strcmp(v, "options");
      o.soak = !strcmp(v, "soak");
      o.registrar = !strcmp(v, "registrar");
    } else if (a == "--rates") {
      o.rates = parse_rates(v);
    } else if (a == "--step-seconds") {
      o.step_seconds = std::atoi(v);
    } else if (a == "--daemon-step-seconds") {
      o.daemon_step_seconds = std::atoi(v);
    } else if (a == "--soak-seconds") {
      o.soak_seconds = std::atoi(v);
    } else if (a == "--soak-rate") {
      o.soak_rate = std::atoi(v);
    } else if (a == "--refresh-users") {
      o.refresh_users = std::atoi(v);
    } else if (a == "--users") {
      o.users = std::atoi(v);
    } else if (a == "--open-calls") {
      o.open_calls = std::atoi(v);
    } else {
      usage();
      return 2;
    }
  }
  if (!sipp_available()) {
    fprintf(stderr, "sipp is not installed (scripts/deps.sh bench)\n");
    return 1;
  }
  if (!KamailioPeer::available()) {
    fprintf(stderr, "kamailio is not installed (scripts/deps.sh bench)\n");
    return 1;
  }
  if (sysconf(_SC_NPROCESSORS_ONLN) < 2) fprintf(stderr, "warning: one core only; the server and sipp share it\n");
  setvbuf(stdout, nullptr, _IOLBF, 0);
  printf("servers on core %d, sipp on core %d; load average %s\n", server_cpu, sipp_cpu, load_average().c_str());
  pin_to_cpu(sipp_cpu);
  if (o.options) run_options(o);
  if (o.soak) run_soak(o);
  if (o.registrar) run_registrar(o);
  printf("\nload average at the end %s\n", load_average().c_str());
  return 0;
}
