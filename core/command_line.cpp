#include "core/command_line.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/format.h"
#include "core/log.h"
#include "core/version.h"

StartupOptions startup_options;
String program_name;

namespace {

enum class Kind { number, text, flag };

struct OptionRow {
  const char* name;
  Kind kind;
  const char* usage;  // the line of the usage text
};

// The usage text lists the options in this order.
const OptionRow option_rows[] = {
    {"--http-port", Kind::number, "--http-port <n>: set http port"},
    {"--https-port", Kind::number, "--https-port <n>: set https port"},
    {"--ldap-port", Kind::number, "--ldap-port <n>: set ldap port"},
    {"--admin-dir", Kind::text, "--admin-dir <dir>: set directory for admin web files"},
    {"--user-dir", Kind::text, "--user-dir <dir>: set directory for user web files"},
    {"--pnp-dir", Kind::text, "--pnp-dir <dir>: set directory for provisioning templates"},
    {"--js-dir", Kind::text, "--js-dir <dir>: set directory for script files"},
    {"--email-dir", Kind::text, "--email-dir <dir>: set directory for email templates"},
    {"--log", Kind::number, "--log <n>: set log level of all categories"},
    {"--config", Kind::text, "--config <f>: set name of configuration file"},
    {"--pidfile", Kind::text, "--pidfile <f>: write process id to file"},
    {"--key-log-address", Kind::text, "--key-log-address <ip:port>: send TLS keys to address"},
    {"--log-memory", Kind::number, "--log-memory <n>: log memory use above n KB"},
    {"--log-time", Kind::number, "--log-time <n>: log run time above n ms"},
    {"--log-location", Kind::text, "--log-location <true/false>: record location for crash reports"},
    {"--cgi-path", Kind::text, "--cgi-path <path>: set path of cgi socket"},
    {"--dir", Kind::text, "--dir <dir>: set root directory"},
    {"--serverdir", Kind::text, "--serverdir <dir>: set server instance directory"},
    {"--no-daemon", Kind::flag, "--no-daemon: stay on the terminal"},
    {"--respawn", Kind::flag, "--respawn: restart after exit"},
    {"--flash", Kind::flag, "--flash: ignored"},
    {"--core", Kind::flag, "--core: allow core dumps"},
    {"--ipv4", Kind::text, "--ipv4 <true/false>: use IPv4"},
    {"--ipv6", Kind::text, "--ipv6 <true/false>: use IPv6"},
    {"--profiling-threshold", Kind::number, "--profiling-threshold <n>: set cpu load for profiling"},
    {"--show-dict", Kind::flag, "--show-dict: print the dictionary"},
    {"--ignore-corrupt", Kind::flag, "--ignore-corrupt: skip the database corruption test"},
    {"--version", Kind::flag, "--version: report version"},
};

bool is_true(const String& v) { return v.to_lower() == "true"; }

void apply(StartupOptions& o, const String& name, const String& value, String& err) {
  int n = value.to_int();
  if (name == "--http-port") o.http_port = n;
  else if (name == "--https-port") o.https_port = n;
  else if (name == "--ldap-port") o.ldap_port = n;
  else if (name == "--admin-dir") o.admin_dir = value;
  else if (name == "--user-dir") o.user_dir = value;
  else if (name == "--pnp-dir") o.pnp_dir = value;
  else if (name == "--js-dir") o.js_dir = value;
  else if (name == "--email-dir") o.email_dir = value;
  else if (name == "--log") o.log_level = n;
  else if (name == "--config") o.config_file = value;
  else if (name == "--pidfile") o.pid_file = value;
  else if (name == "--key-log-address") o.key_log_address = value;
  else if (name == "--log-memory") o.log_memory = n;
  else if (name == "--log-time") o.log_time = n;
  else if (name == "--log-location") o.log_location = is_true(value);
  else if (name == "--cgi-path") o.cgi_path = value;
  else if (name == "--serverdir") o.server_dir = value.ends_with(String("/")) ? value : value + "/";
  else if (name == "--no-daemon") o.daemon = false;
  else if (name == "--respawn") o.respawn = true;
  else if (name == "--core") o.core_dumps = true;
  else if (name == "--ipv4") o.use_ipv4 = is_true(value);
  else if (name == "--ipv6") o.use_ipv6 = is_true(value);
  else if (name == "--profiling-threshold") o.profiling_threshold = n;
  else if (name == "--show-dict") o.show_dict = true;
  else if (name == "--ignore-corrupt") o.check_corrupt = false;
  else if (name == "--dir") {
    if (chdir((value + str_nul).c_data()) == 0) {
      o.working_dir = value;
    } else {
      String text = format("Could not change directory to %s", value);
      // The log is not on yet at this point, so the terminal gets it too.
      err.append(text);
      err.append('\n');
      if (log_enabled(LOG_GENERAL, 1)) log_add_message_global(LOG_GENERAL, 1, 0, text);
    }
  }
}

}  // namespace

String usage_text() {
  String u("usage: exchsrv\r\n");
  for (const OptionRow& row : option_rows) {
    u.append(row.usage);
    u.append(str_crlf);
  }
  return u;
}

String version_text() {
  return format("Version: %s %s\nDate: %s\n", exch_version, exch_product, exch_build_date);
}

CommandLineResult parse_command_line(int argc, const char* const* argv, StartupOptions& options,
                                     String& err) {
  if (argc > 0) program_name = String(argv[0]);
  for (int i = 1; i < argc; i++) {
    String arg(argv[i]);
    if (arg == "--") continue;
    if (arg == "--version") {
      err.append(version_text());
      return CommandLineResult::version;
    }
    const OptionRow* row = nullptr;
    for (const OptionRow& r : option_rows)
      if (arg == r.name) row = &r;
    if (!row || (row->kind != Kind::flag && i + 1 >= argc)) {
      err.append(format("Error parsing %s\n", arg));
      err.append(usage_text());
      return CommandLineResult::error;
    }
    String value = row->kind == Kind::flag ? String() : String(argv[++i]);
    apply(options, arg, value, err);
  }
  return CommandLineResult::run;
}

std::vector<String> respawn_arguments(int argc, const char* const* argv, const String& self_path) {
  std::vector<String> out;
  for (int i = 0; i < argc; i++) {
    String arg(argv[i]);
    if (i > 0 && (arg == "--respawn" || arg == "--no-daemon")) continue;
    if (i == 0 && !arg.starts_with(String("/")) && !self_path.empty()) arg = self_path;
    out.push_back(arg);
  }
  out.push_back(String("--no-daemon"));
  return out;
}
