#include "core/log.h"

#include <cstdio>

int log_levels[log_categories] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
                                  5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
bool log_on = false;
static LogObserver observer = nullptr;

void log_set_observer(LogObserver o) { observer = o; }

void log_add_message_global(int category, int level, int domain, const String& message,
                            const String& detail) {
  if (observer) {
    observer(category, level, message);
    return;
  }
  if (!log_on) return;
  fprintf(stderr, "[%d] %.*s\n", level, message.length(), message.c_data());
}
