// Runs sipp against the daemon and reads its statistics.
#pragma once

#include <string>
#include <vector>

struct SippResult {
  int exit_code = -1;
  long successful = 0;
  long failed = 0;
  std::string output;
};

// The totals of the last line of sipp's statistics file (-trace_stat), by column name.
struct SippTotals {
  long successful = 0;
  long failed = 0;
  long retransmissions = 0;
};
SippTotals read_sipp_totals(const std::string& stats_file);

bool sipp_available();
// A free UDP port on 127.0.0.1.
int free_udp_port();
// Runs a scenario (a file of tests/e2e/sipp, or an absolute path) against 127.0.0.1:port, `calls` calls at `rate`
// per second, with extra arguments; bounded in time.
SippResult run_sipp(const std::string& scenario, int port, int calls, int rate,
                    const std::vector<std::string>& extra = {});
