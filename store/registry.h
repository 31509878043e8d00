// The numbered system settings as one table: index, name, default and flags of each of
// the 425 slots. Code addresses a setting by its index; the file, REST and the web pages
// by its name. The values themselves live in store/settings.h.
#pragma once

#include "core/string.h"

constexpr int registry_size = 425;
// The index that stands for "no such setting".
constexpr int registry_none = registry_size;

constexpr int registry_encrypted = 1;  // enciphered in pbx.xml, plain in memory
constexpr int registry_port = 2;       // a listening port (tests move these to free ports)

struct RegistrySlot {
  int index;
  const char* name;
  const char* default_value;
  int flags;
};
extern const RegistrySlot registry_slots[registry_size];

// Indices that code names directly.
enum RegistryIndex : int {
  reg_random = 0,
  reg_log_filename = 1,
  reg_log_length = 2,
  reg_log_duration = 3,
  reg_log_keep = 4,
  reg_log_event_first = 11,
  reg_log_event_last = 33,
  reg_sys_adr = 78,
  reg_ip_http_port = 82,
  reg_ip_https_port = 83,
  reg_ip_ldap_port = 92,
  reg_ip_routing_list = 95,
  reg_codec_preference = 182,
  reg_languages_web = 232,
  reg_languages_tones = 233,
  reg_languages_audio = 234,
  reg_ip_ntp_port = 257,
  reg_acme_url = 270,
  reg_syslog_server_ip = 321,
  reg_write_cobjs_to_fs = 323,
  reg_write_legs_to_fs = 324,
  reg_thread_level = 378,
  reg_dns_server = 405,
  reg_tunnel_server = 406,
  reg_replication_server = 419,
};

inline bool registry_is_encrypted(int index) {
  return index >= 0 && index < registry_size && (registry_slots[index].flags & registry_encrypted);
}
