// The daemon: command line, detaching and respawning, the start-up sequence, and the
// wiring of every subsystem into the hooks of the server loop.
#include <unistd.h>

#include <cstdio>

#include "core/command_line.h"
#include "core/format.h"
#include "core/log.h"
#include "core/ntp_server.h"
#include "core/process.h"
#include "core/server.h"
#include "core/statistics.h"
#include "core/tcp_server.h"
#include "core/tick.h"
#include "core/udp_socket.h"
#include "sip/access_control.h"
#include "sip/domain_names.h"
#include "sip/dns_resolver.h"
#include "sip/interfaces.h"
#include "sip/listening_ports.h"
#include "sip/registrar.h"
#include "sip/registration.h"
#include "sip/request_routing.h"
#include "sip/sip_receive.h"
#include "sip/sip_send.h"
#include "sip/sip_hooks.h"
#include "sip/sip_tcp.h"
#include "store/dictionary.h"
#include "store/first_start.h"
#include "store/registry.h"
#include "store/schema.h"
#include "store/settings.h"

static void write_stderr(const String& text) {
  if (!text.empty()) {
    ssize_t n = write(2, text.c_data(), static_cast<size_t>(text.length()));
    (void)n;
  }
}

static void log_line(int level, const String& text) {
  if (log_enabled(LOG_GENERAL, level)) log_add_message_global(LOG_GENERAL, level, 0, text);
}

static void apply_log_override() {
  if (startup_options.log_level < 0) return;
  for (int c = 0; c < log_categories; c++) log_set_level(c, startup_options.log_level);
}

static String read_setting_by_name(const char* name) {
  return ctrl_read_registry(registry_index(String(name)));
}

// The message layer runs in the service half and reads that half's mirror.
static String read_service_setting(const String& name) { return srv_read_registry(registry_index(name)); }

[[noreturn]] static void fatal(const char* text) {
  write_stderr(String(text));
  _exit(1);
}

// Dictionary, settings and tables; a first start also makes the administrator and a domain.
static void load_store() {
  read_dictionary(startup_options.show_dict);
  SettingsLoad loaded = load_settings(startup_options.config_file);
  if (loaded == SettingsLoad::fs_failed) fatal("FATAL: File system access failed\n");
  if (loaded == SettingsLoad::unreadable) fatal("FATAL: Cannot read initialization file\n");
  apply_log_settings();
  load_tables(String(), ctrl_read_registry(reg_write_cobjs_to_fs) == str_true,
              ctrl_read_registry(reg_write_legs_to_fs) == str_true);
  load_translations();
  if (loaded == SettingsLoad::loaded) return;
  String password = create_first_start_data();
  if (password.empty()) return;
  log_line(0, format("Created the administrator \"%s\"; the password is in %s", first_admin_name,
                     admin_password_file));
  if (!startup_options.daemon) {
    write_stderr(format("Administrator \"%s\", password %s (also in %s; change it after the first login)\n",
                        first_admin_name, password, admin_password_file));
  }
}

static void apply_port_overrides() {
  if (startup_options.http_port) ctrl_write_setting(reg_ip_http_port, String(startup_options.http_port));
  if (startup_options.https_port) ctrl_write_setting(reg_ip_https_port, String(startup_options.https_port));
  if (startup_options.ldap_port) ctrl_write_setting(reg_ip_ldap_port, String(startup_options.ldap_port));
}

static void register_subsystems() {
  set_setting_reader(read_setting_by_name);
  sip_hooks.setting = read_service_setting;
  register_settings_handlers();
  register_start_step(StartStage::load_store, load_store);
  register_start_step(StartStage::apply_overrides, apply_log_override);
  register_start_step(StartStage::apply_overrides, apply_port_overrides);
  register_start_step(StartStage::services, registry_sync);
  register_start_step(StartStage::after_store, load_stats_file);
  register_start_step(StartStage::before_threads, ntp_bind);
  register_control_party(ntp_party());
  register_start_step(StartStage::services, init_ip);
  acl_register();
  domain_names_register();
  register_start_step(StartStage::after_store, [] { (void)acl_load_accesslist(); });
  dns_register();
  set_local_address_lookup(get_ip_adr);
  register_start_step(StartStage::bind_ports, bind_sip_udp_ports);
  register_control_party(sip_udp_party());
  sip_tcp_register();
  sip_send_register();
  request_routing_register();
  registration_register();
  registrar_register();
  register_start_step(StartStage::after_threads, start_registration_expiry);
  register_start_step(StartStage::bind_ports, bind_sip_tcp_ports);
  register_control_party(tcp_connection_party());
  register_control_party(tcp_listener_party());
}

int main(int argc, char** argv) {
  String err;
  CommandLineResult result = parse_command_line(argc, argv, startup_options, err);
  write_stderr(err);
  if (result == CommandLineResult::version) return 0;
  if (result == CommandLineResult::error) return 1;

  if (startup_options.daemon) detach_process(startup_options);
  else write_stderr(String("Starting up\n"));
  if (startup_options.respawn) respawn_forever(respawn_arguments(argc, argv, self_executable()));

  seed_c_random();
  system_log_open();
  system_log_notice(String("Starting up"));
  measure_clock_precision();
  ignore_signals();
  set_resource_limits(startup_options.core_dumps);
  if (startup_options.use_ipv6 && !ipv6_available()) startup_options.use_ipv6 = false;

  register_subsystems();
  log_on = true;
  if (!startup_options.daemon) log_to_terminal(true);

  Tick load_start = Tick::now();
  run_start_steps(StartStage::load_store);
  run_start_steps(StartStage::sanity_check);
  run_start_steps(StartStage::load_scripts);
  run_start_steps(StartStage::apply_overrides);
  log_line(1, String("Starting up version 68.0.22"));
  int64_t took = sec(Tick::now(), load_start);
  if (took >= 10) log_line(1, format("Starting up took %s seconds", String(static_cast<int>(took))));
  run_start_steps(StartStage::after_store);
  run_start_steps(StartStage::services);
  log_line(8, format("Scheduler precision is %d us", scheduler_precision()));
  char cwd[1024];
  if (getcwd(cwd, sizeof cwd)) log_line(5, format("Working Directory is %s", cwd));
  run_server();
}
