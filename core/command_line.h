// The command line of the daemon and the process-wide flags it sets.
#pragma once

#include <vector>

#include "core/string.h"

struct StartupOptions {
  bool daemon = true;
  bool respawn = false;
  bool use_ipv4 = true;
  bool use_ipv6 = true;
  bool core_dumps = false;
  bool check_corrupt = true;
  bool show_dict = false;
  bool log_location = false;
  int http_port = 0;
  int https_port = 0;
  int ldap_port = 0;
  int log_level = -1;           // --log: all categories after the settings; negative leaves them
  int log_memory = 0;           // KiB
  int log_time = 0;             // ms
  int profiling_threshold = 0;  // percent
  String config_file = "pbx.xml";
  String pid_file;
  String key_log_address;
  String cgi_path = "/tmp/cgi-srv";
  String admin_dir, user_dir, pnp_dir, js_dir, email_dir;
  String server_dir;
  String working_dir;  // the --dir that was changed into, if any
};

extern StartupOptions startup_options;
extern String program_name;

enum class CommandLineResult { run, version, error };

// Parses argv into `options`. On "--version" the version text and on a bad argument
// "Error parsing %s" and the usage text have been written to `err`; the caller exits
// with 0 or 1. "--dir" changes the working directory right away.
CommandLineResult parse_command_line(int argc, const char* const* argv, StartupOptions& options,
                                     String& err);
String usage_text();
String version_text();

// The arguments of the process that a respawner runs: every "--respawn" and
// "--no-daemon" left out, one "--no-daemon" added, and a relative program path
// replaced by `self_path`.
std::vector<String> respawn_arguments(int argc, const char* const* argv, const String& self_path);
