// Time series of the day: 240 buckets of 360 seconds per named series, for the statistics
// of the REST side and for "stats.json", which carries them over a restart.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>

#include "core/string.h"

class Json;

enum class SeriesKind {
  sample,      // the last value of the bucket (memory)
  sample_max,  // the highest value of the bucket (calls, legs, registrations)
  counter,     // a running count per bucket
  rate,        // events per tick, the highest rate of the bucket
};

constexpr int usage_buckets = 240;
constexpr int usage_bucket_seconds = 360;

class UsageSeries {
 public:
  explicit UsageSeries(SeriesKind kind = SeriesKind::rate) : kind_(kind) {}
  // Moves the newest bucket on, marking every skipped slot invalid, and touching at most
  // all slots once: a jump of more than 240 buckets starts 240 behind the new one.
  void move_to(int64_t bucket);
  void add(int64_t bucket, int64_t n);
  void sample(int64_t bucket, int64_t value);
  // A tick of `elapsed_ms`: a rate's pending events become its value if higher.
  void tick(int64_t bucket, int64_t elapsed_ms);

  SeriesKind kind() const { return kind_; }
  int64_t total() const { return total_; }
  int64_t newest() const { return newest_; }
  // The slots oldest first, 0 for an invalid slot.
  std::vector<int64_t> values() const;
  void restore(const std::vector<int64_t>& oldest_first, int64_t newest_bucket);

 private:
  SeriesKind kind_;
  int64_t slots_[usage_buckets] = {};
  std::bitset<usage_buckets> valid_;
  bool started_ = false;
  int64_t newest_ = 0;
  int64_t total_ = 0;
  int64_t pending_ = 0;
};

class ResourceUsage {
 public:
  // Bucket number of a moment: rounded seconds since the first sample, over 360.
  int64_t bucket_of(uint64_t wall_ms);
  void add(const String& name, int64_t n, uint64_t wall_ms);
  void sample(const String& name, int64_t value, uint64_t wall_ms);
  void tick(uint64_t wall_ms, int64_t elapsed_ms);
  const UsageSeries* find(const String& name) const;

  // The "stats.json" document, with the totals given.
  String stats_json(uint64_t wall_ms, int64_t calls_attempted, int64_t calls_completed,
                    int64_t duration) const;
  // Takes the series of a saved document back if it is less than a day old; the totals
  // are given back in any case.
  void restore(const Json& saved, uint64_t wall_ms, int64_t& calls_attempted,
               int64_t& calls_completed, int64_t& duration);

 private:
  UsageSeries& series(const String& name);
  std::map<String, UsageSeries> series_;
  uint64_t first_ms_ = 0;
};

// The kind of a series by its name, and its key in "stats.json" (empty: not saved).
SeriesKind series_kind(const String& name);
String series_key(const String& name);
