// The receiver of syslog from devices (phones): each datagram on the SYSLOG port is stored
// in the list of every user registered from the sender's address. The registrar fills the
// map of addresses as phones register and go; until it exists, a stand-in look-up can be set.
#pragma once

#include <cstdint>
#include <vector>

#include "core/string.h"
#include "core/tick.h"

struct DeviceSyslogEntry {
  WallTime time;
  int level = 0;
  int facility = 0;
  String text;
};

// The map from device address text to user row ids.
void device_syslog_register(const String& address, int user);
void device_syslog_unregister(const String& address, int user);
void device_syslog_forget_address(const String& address);
// A stand-in for the map: when set, it gives the users of an address instead.
using DeviceSyslogLookup = std::vector<int> (*)(const String& address);
void device_syslog_set_lookup(DeviceSyslogLookup lookup);

// `syslog_max_size` (default 100): the length a user's list is cut to at its next message.
void device_syslog_set_max_size(int n);

// One datagram from `address`. It must start with "<", one to three digits and ">" and carry
// at least one byte after it; the number is facility * 8 + level, and a facility of 24 or
// above is dropped, as is a datagram from an address that has no users. True if stored.
bool device_syslog_receive(const String& datagram, const String& address);

std::vector<DeviceSyslogEntry> device_syslog_entries(int user);
// The user's list as a JSON array of {"time","level","facility","msg"}.
String device_syslog_json(int user);
// "\"messages\":%d,\"users\":%d" for the summary.
String device_syslog_summary();
void device_syslog_clear();
