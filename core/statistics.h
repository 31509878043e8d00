// The process's own statistics: the resource_usage series with their 5-second tick, the
// CPU probe, and "stats.json". Control half only (ctrl_run_mutex).
#pragma once

#include "core/resource_usage.h"

extern ResourceUsage resource_usage;

// Counts events of a series; the first call starts the tick.
void usage_add(const String& name, int64_t n = 1);
void usage_sample(const String& name, int64_t value);

// Running totals of calls, carried in "stats.json".
extern int64_t calls_attempted;
extern int64_t calls_completed;
extern int64_t calls_duration;

// The CPU probe: every 3 seconds; every 120 samples the series get a value and the file
// is written. Armed by run_server.
void performance_probe();
bool profiling_on();

void load_stats_file();
void save_stats_file();
