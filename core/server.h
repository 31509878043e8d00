// The threads of the process and the server loop of the control half. Higher subsystems
// take part through the hooks below, registered by the daemon before run_server.
#pragma once

#include "core/poll_set.h"
#include "core/string.h"
#include "core/tick.h"
#include "core/timeout.h"

// The points of the start-up sequence that later subsystems fill, in the order they run.
enum class StartStage {
  load_store,       // settings and the table store
  sanity_check,     // repair of the store
  load_scripts,
  apply_overrides,  // command-line overrides of settings
  after_store,      // time zones, saved statistics, recordings
  services,         // interfaces, codecs, certificates, pushing settings to the service half
  before_threads,   // inside run_server, before the threads start
  after_threads,    // trunks, under ctrl_run_mutex
  bind_ports,       // HTTP, SNMP, SYSLOG, TFTP, SIP
  count
};
void register_start_step(StartStage stage, void (*step)());
void run_start_steps(StartStage stage);

// A party of a poll loop: adds its descriptors before the wait and serves the ready
// ones after it. The control loop serves its parties in ascending `order`.
struct LoopParty {
  int order;
  void (*add)(PollSet& set);
  void (*serve)(PollSet& set, Tick now);
};
void register_control_party(const LoopParty& party);
void register_sip_thread_party(const LoopParty& party);  // DNS sockets, on run_pbxsrv_sip
void register_rtp_thread_party(const LoopParty& party);  // media sockets, on run_pbxsrv_rtp

// Steps of the timed checks, run in registration order.
void register_keep_alive_step(void (*step)());   // every 15 seconds of the wall clock
void register_midnight_step(void (*step)());     // each quarter of an hour

// The settings as the control half sees them; filled in by the settings subsystem.
using SettingReader = String (*)(const char* name);
void set_setting_reader(SettingReader reader);
String core_setting(const char* name);

// The reason and location of the previous stop, from "reboot.txt" (which is then removed).
void read_reboot_reason(String& reason, String& location);
// Hook for the start notice; the mail subsystem sends it.
using StartNotice = void (*)(const String& reason, const String& location);
void set_start_notice(StartNotice notice);

// Starts the threads and runs the loop for ever.
[[noreturn]] void run_server();

// The pieces of run_server, for tests that run the process's machinery in-process.
void server_start_threads();
void server_stop_threads();
// One pass of the control loop; the caller holds ctrl_run_mutex. `wait_ms` is the poll
// time-out (10,000 in the daemon).
void server_loop_pass(PollSet& set, int wait_ms);
// The CPU load of the RTP thread in hundredths of a percent, averaged.
int rtp_cpu_load();

// A job for the file thread, which runs without any run lock.
void file_thread_post(const callback_argument& job);
