// The values of the numbered settings: the control half's array with its file `pbx.xml`,
// and the service half's mirror, kept up to date by posted messages. The slots themselves
// (names, defaults, flags) are in store/registry.h.
//
// Threads: ctrl_read_registry from any thread but one holding srv_run_mutex; writes under
// ctrl_run_mutex; srv_read_registry under srv_run_mutex only.
#pragma once

#include <map>
#include <vector>

#include "core/string.h"
#include "store/registry.h"

// Tags of the messages that carry settings to the service half: a setting is a record
// `post_setting` holding `post_setting_name` and `post_setting_value`; a domain's log level
// is a record `post_domain_log_level` holding `post_setting_domain` and the value.
constexpr int post_setting = 60;
constexpr int post_setting_name = 85;
constexpr int post_setting_value = 159;
constexpr int post_domain_log_level = 61;
constexpr int post_setting_domain = 98;

String ctrl_read_registry(int index);
String srv_read_registry(int index);
// Stores and posts; no side effect, nothing written.
void ctrl_write_setting(int index, const String& value);
// Stores, runs the side effect of the index, writes the file if `persist`, posts.
void ctrl_write_registry(int index, const String& value, bool persist);
// A linear search of the names; registry_none when not found.
int registry_index(const String& name);
// The raw arrays, without the computed slot; empty outside 0 to 424.
const String& registry_name(int index);
const String& registry_value(int index);
// Posts every value, then "finished", then the `log_level` of each domain.
void registry_sync();

// The service half's view of the pseudo setting "finished" and of the domains' log levels.
bool srv_registry_finished();
String srv_domain_log_level(int domain);
// Registers the receivers of the messages above on the service half.
void register_settings_handlers();

// Side effects of writes that belong to higher subsystems (`sys_adr`, `ip_routing_list`,
// `acme_url`, `dns_server`, `tunnel_server`). The log, syslog, lock-level and table-persist
// effects are built in.
using SettingEffect = void (*)(int index, const String& old_value, const String& value);
void set_setting_effect(int index, SettingEffect effect);

// ---- The file ----

// What a pbx.xml text holds. `ok` is false for anything but a complete "pbx-config"
// document; `problems` lists what was passed over (duplicate elements, a cipher text that
// does not decode), each as a log line.
struct ParsedSettings {
  bool ok = false;
  std::vector<String> values;  // 425 values, defaults where the file has none
  String record_start, record_end, mailbox_call;
  bool move_records = false;  // the file held record_start or record_end
  std::vector<String> problems;
};
ParsedSettings parse_settings(const String& text);
// The whole document as it is written: root, then 425 children in index order.
String settings_document();
// The same for a set of 425 values, enciphered under the current cell key.
String settings_document(const std::vector<String>& values);
// The defaults of all slots, in index order.
std::vector<String> registry_defaults();

enum class SettingsLoad {
  loaded,         // the file was read
  first_start,    // no file and no data: defaults with a new secret, written at once
  defaults,       // a file that was no settings document, in a directory with no data
  fs_failed,      // "FATAL: File system access failed"
  unreadable,     // "FATAL: Cannot read initialization file"
};
// Fills the defaults and reads `file` (relative to the working directory), following the
// start-up algorithm; sets the cell key from `random` and the replication flag.
SettingsLoad load_settings(const String& file);
// Puts the values of a parsed document in place (a restore); the cell key follows.
void apply_parsed_settings(const ParsedSettings& parsed);
// Rewrites the file in one atomic, flushed step. False (logged) on failure; a passive
// failover side writes nothing and answers true.
bool save_settings();
const String& settings_file();

// The values held apart from the slots at load time.
const ParsedSettings& settings_extras();

// "audio_<language>" directories of `base` (empty: the working directory): languages with
// a non-empty "ringback.wav" and with a non-empty "bi_1.wav", each blank-separated.
void find_languages(const String& base, String& tones, String& audio);

// Fills every slot with its default (tests, and the first step of a load).
void reset_registry();

// Applies the settings that the log needs at start: file, length, duration (counted from
// now), days kept, the category levels and the syslog target.
void apply_log_settings();
