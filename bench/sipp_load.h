// sipp as the load generator of the SIP comparisons: pinned to one core, timed by the wall
// clock, with a hook that runs every few seconds while it works (memory samples).
#pragma once

#include <functional>
#include <string>
#include <vector>

struct SippLoad {
  std::string scenario;                 // a path
  int port = 0;                         // of the server on 127.0.0.1
  long calls = 0;
  int rate = 0;                         // new calls a second
  int limit = 0;                        // most calls open at once; 0: sipp's default
  std::vector<std::string> extra;       // further arguments, such as -inf
  int cpu = 1;
  int max_seconds = 600;                // killed after this
  int watch_pid = 0;                    // the server: sipp is stopped when it is gone
};

struct SippOutcome {
  std::string command;  // as one would type it
  int exit_code = -1;
  long successful = 0;
  long failed = 0;
  long retransmissions = 0;
  double seconds = 0;   // wall clock from start to exit
  bool server_gone = false;
  std::string output;   // the tail of what sipp wrote
  double per_second() const { return seconds > 0 ? successful / seconds : 0; }
};

// Runs sipp to its end in a temporary folder. `tick` runs every `tick_seconds` with the
// seconds since the start.
SippOutcome run_sipp_load(const SippLoad& load, int tick_seconds = 0,
                          const std::function<void(double)>& tick = nullptr);

// Restricts the calling thread (and what it starts from now on) to one core.
bool pin_to_cpu(int cpu);
