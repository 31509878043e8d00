// The daemon: command line, detaching and respawning, then the start-up sequence.
#include <unistd.h>

#include <cstdio>

#include "core/command_line.h"
#include "core/process.h"

static void write_stderr(const String& text) {
  if (!text.empty()) {
    ssize_t n = write(2, text.c_data(), static_cast<size_t>(text.length()));
    (void)n;
  }
}

int main(int argc, char** argv) {
  String err;
  CommandLineResult result = parse_command_line(argc, argv, startup_options, err);
  write_stderr(err);
  if (result == CommandLineResult::version) return 0;
  if (result == CommandLineResult::error) return 1;

  if (startup_options.daemon) detach_process(startup_options);
  else write_stderr(String("Starting up\n"));
  if (startup_options.respawn)
    respawn_forever(respawn_arguments(argc, argv, self_executable()));

  seed_c_random();
  ignore_signals();
  set_resource_limits(startup_options.core_dumps);
  if (startup_options.use_ipv6 && !ipv6_available()) startup_options.use_ipv6 = false;

  // The server loop is not built yet: the daemon stays up, doing nothing, until it is
  // stopped.
  for (;;) pause();
}
