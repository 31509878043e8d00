// The two clocks of the process. Tick: signed nanoseconds of the monotonic clock, 0 meaning
// "not set". WallTime: unsigned milliseconds since the epoch. Both can be replaced by a
// source of the test's choosing, so that timers and daily log files can be tested without
// waiting.
#pragma once

#include <cstdint>

#include "core/string.h"

struct Tick {
  int64_t ns = 0;

  constexpr Tick() = default;
  constexpr explicit Tick(int64_t nanoseconds) : ns(nanoseconds) {}
  static Tick now();
  static constexpr Tick from_seconds(int64_t s) { return Tick(s * 1000000000); }
  static constexpr Tick from_ms(int64_t m) { return Tick(m * 1000000); }

  bool is_set() const { return ns != 0; }
  Tick plus_ms(int64_t m) const { return Tick(ns + m * 1000000); }
  bool operator==(const Tick& o) const = default;
  auto operator<=>(const Tick& o) const = default;
};

// Differences rounded to nearest.
inline int64_t ms(Tick a, Tick b) { return (a.ns - b.ns + 500000) / 1000000; }
inline int64_t sec(Tick a, Tick b) { return (a.ns - b.ns + 500000000) / 1000000000; }
inline int64_t us(Tick a, Tick b) { return (a.ns - b.ns + 500) / 1000; }

// The 8 bytes of the tick in hexadecimal, as in "tick: %s".
String tick_hex(Tick t);

// Reads the resolution of the clock; falls back to CLOCK_REALTIME for the whole process if
// the monotonic clock is not there. Logs "Scheduler precision is %d us" at level 8.
void measure_clock_precision();
// The clock's resolution in microseconds, at least 1 once measured.
int scheduler_precision();
// The clock id that Tick::now and every wait of the process use.
int tick_clock_id();

struct WallTime {
  uint64_t ms = 0;

  constexpr WallTime() = default;
  constexpr explicit WallTime(uint64_t milliseconds) : ms(milliseconds) {}
  static WallTime now();
  uint64_t seconds() const { return ms / 1000; }
  // "%d.%03d": seconds and milliseconds.
  String text() const;
  // The inverse of text(): split at ".".
  static WallTime parse(const String& text);
  bool operator==(const WallTime& o) const = default;
  auto operator<=>(const WallTime& o) const = default;
};

// Whole seconds from b to a, rounded down.
int64_t wall_seconds(WallTime a, WallTime b);

// Test hooks: replace the clocks; nullptr restores the real ones.
using TickSource = int64_t (*)();
using WallSource = uint64_t (*)();
void tick_set_source(TickSource source);
void wall_set_source(WallSource source);
