// Log lines of the SIP category. The text is put together only when its level is on:
// the per-packet lines sit at levels that a busy system has switched off.
#pragma once

#include "core/format.h"
#include "core/log.h"

inline void log_sip(int level, const String& text) {
  if (log_enabled(LOG_SIP, level)) log_add_message_global(LOG_SIP, level, 0, text);
}

template <class... A>
void log_sip(int level, const char* tmpl, const A&... args) {
  if (log_enabled(LOG_SIP, level)) log_add_message_global(LOG_SIP, level, 0, format(tmpl, args...));
}
