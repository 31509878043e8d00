// The log of the process: 24 categories with a level each. Test log_enabled before
// formatting anything: a message no one wants costs one load and one comparison.
#pragma once

#include "core/string.h"

enum LogCategory : int {
  LOG_GENERAL = 0, LOG_SIP = 1, LOG_MEDIA = 2, LOG_APP = 3, LOG_EMAIL = 4, LOG_WEBSERVER = 5,
  LOG_REGISTER = 6, LOG_SNMP = 7, LOG_TRUNK = 8, LOG_SOAP = 9, LOG_PROV = 10, LOG_WEBCLIENT = 11,
  LOG_PSTN = 12, LOG_TLS = 13, LOG_LDAP = 14, LOG_WATCH = 15, LOG_CONFIG = 16, LOG_ACME = 17,
  LOG_DNS = 18, LOG_BILL = 19, LOG_SCRIPT = 20, LOG_CSTA = 21, LOG_CRM = 22, LOG_RPS = 23,
};
constexpr int log_categories = 24;

extern int log_levels[log_categories];
extern bool log_on;

inline bool log_enabled(int category, int level) {
  if (!log_on) return false;
  if (category == LOG_WATCH) return true;
  return level <= log_levels[category];
}

void log_add_message_global(int category, int level, int domain, const String& message,
                            const String& detail = String());

// Test hook: every message added is also handed to this function.
using LogObserver = void (*)(int category, int level, const String& message);
void log_set_observer(LogObserver observer);
