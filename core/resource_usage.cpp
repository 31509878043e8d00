#include "core/resource_usage.h"

#include "core/format.h"
#include "core/json.h"
#include "core/tick.h"

namespace {

struct SeriesRow {
  const char* name;
  const char* key;
  SeriesKind kind;
};

const SeriesRow series_rows[] = {
    {"cpu_max", "cmax", SeriesKind::sample},
    {"cpu_avg", "cavg", SeriesKind::sample},
    {"memory_all", "mem", SeriesKind::sample},
    {"memory_javascript", "mjs", SeriesKind::sample},
    {"calls_global", "calls", SeriesKind::sample_max},
    {"legs_global", "legs", SeriesKind::sample_max},
    {"registrations_global", "regs", SeriesKind::sample_max},
    {"subscriptions_global", "subs", SeriesKind::sample_max},
    {"reg_add_global", "radd", SeriesKind::counter},
    {"reg_sub_global", "rsub", SeriesKind::counter},
    {"sip_all", "sipall", SeriesKind::rate},
    {"sip_udp", "sipudp", SeriesKind::rate},
    {"sip_tcp", "siptcp", SeriesKind::rate},
    {"sip_tls", "siptls", SeriesKind::rate},
    {"http_all", "httpall", SeriesKind::rate},
    {"http_tcp", "httptcp", SeriesKind::rate},
    {"http_tls", "httptls", SeriesKind::rate},
    {"tcp_syn", "tcpsyn", SeriesKind::rate},
    {"tftp", "tftp", SeriesKind::rate},
    {"snmp", "snmp", SeriesKind::rate},
    {"ntp", "ntp", SeriesKind::rate},
    {"ftp", "ftp", SeriesKind::rate},
    {"csta", "csta", SeriesKind::rate},
    {"ldap", "ldap", SeriesKind::rate},
    {"ldaps", "ldaps", SeriesKind::rate},
};

const SeriesRow* row_of(const String& name) {
  for (const SeriesRow& r : series_rows)
    if (name == r.name) return &r;
  return nullptr;
}

int slot_of(int64_t bucket) { return static_cast<int>(((bucket % usage_buckets) + usage_buckets) % usage_buckets); }

}  // namespace

SeriesKind series_kind(const String& name) {
  const SeriesRow* r = row_of(name);
  return r ? r->kind : SeriesKind::rate;
}

String series_key(const String& name) {
  const SeriesRow* r = row_of(name);
  return r ? String(r->key) : String();
}

void UsageSeries::move_to(int64_t bucket) {
  if (!started_) {
    started_ = true;
    newest_ = bucket;
    valid_.reset();
    slots_[slot_of(bucket)] = 0;
    valid_.set(slot_of(bucket));
    return;
  }
  if (bucket <= newest_) return;
  int64_t from = newest_ + 1;
  if (bucket - from >= usage_buckets) from = bucket - usage_buckets + 1;
  for (int64_t b = from; b <= bucket; b++) {
    int s = slot_of(b);
    // The old value of a reused slot is folded into the running total first.
    if (valid_.test(s) && kind_ == SeriesKind::counter) total_ += slots_[s];
    slots_[s] = 0;
    valid_.reset(s);
  }
  valid_.set(slot_of(bucket));
  newest_ = bucket;
}

void UsageSeries::add(int64_t bucket, int64_t n) {
  move_to(bucket);
  if (kind_ == SeriesKind::rate) pending_ += n;
  else slots_[slot_of(newest_)] += n;
}

void UsageSeries::sample(int64_t bucket, int64_t value) {
  move_to(bucket);
  int64_t& slot = slots_[slot_of(newest_)];
  if (kind_ != SeriesKind::sample_max || value > slot) slot = value;
}

void UsageSeries::tick(int64_t bucket, int64_t elapsed_ms) {
  if (kind_ != SeriesKind::rate) return;
  move_to(bucket);
  int64_t rate = (pending_ * elapsed_ms + 2500) / 5000;
  int64_t& slot = slots_[slot_of(newest_)];
  if (rate > slot) slot = rate;
  pending_ = 0;
}

std::vector<int64_t> UsageSeries::values() const {
  std::vector<int64_t> out(usage_buckets, 0);
  if (!started_) return out;
  for (int i = 0; i < usage_buckets; i++) {
    int s = slot_of(newest_ - (usage_buckets - 1) + i);
    out[static_cast<size_t>(i)] = valid_.test(s) ? slots_[s] : 0;
  }
  return out;
}

void UsageSeries::restore(const std::vector<int64_t>& oldest_first, int64_t newest_bucket) {
  move_to(newest_bucket);
  int n = static_cast<int>(oldest_first.size());
  if (n > usage_buckets) n = usage_buckets;
  for (int i = 0; i < n; i++) {
    int64_t b = newest_bucket - (n - 1 - i);
    int s = slot_of(b);
    slots_[s] = oldest_first[static_cast<size_t>(oldest_first.size()) - static_cast<size_t>(n) + static_cast<size_t>(i)];
    valid_.set(s);
  }
}

int64_t ResourceUsage::bucket_of(uint64_t wall_ms) {
  if (first_ms_ == 0) first_ms_ = wall_ms;
  int64_t ms_since = static_cast<int64_t>(wall_ms) - static_cast<int64_t>(first_ms_);
  int64_t seconds = ms_since >= 0 ? (ms_since + 500) / 1000 : -((-ms_since + 500) / 1000);
  // Moments before the first sample (a saved file's) count backwards, wrapping the slots.
  return seconds >= 0 ? seconds / usage_bucket_seconds : -((-seconds + usage_bucket_seconds - 1) / usage_bucket_seconds);
}

UsageSeries& ResourceUsage::series(const String& name) {
  auto found = series_.find(name);
  if (found != series_.end()) return found->second;
  return series_.emplace(name, UsageSeries(series_kind(name))).first->second;
}

void ResourceUsage::add(const String& name, int64_t n, uint64_t wall_ms) {
  int64_t b = bucket_of(wall_ms);
  series(name).add(b, n);
}

void ResourceUsage::sample(const String& name, int64_t value, uint64_t wall_ms) {
  int64_t b = bucket_of(wall_ms);
  series(name).sample(b, value);
}

void ResourceUsage::tick(uint64_t wall_ms, int64_t elapsed_ms) {
  int64_t b = bucket_of(wall_ms);
  for (auto& [name, s] : series_) s.tick(b, elapsed_ms);
}

const UsageSeries* ResourceUsage::find(const String& name) const {
  auto found = series_.find(name);
  return found == series_.end() ? nullptr : &found->second;
}

String ResourceUsage::stats_json(uint64_t wall_ms, int64_t calls_attempted, int64_t calls_completed,
                                 int64_t duration) const {
  String out = format("{\"time\":\"%d.%03d\"", static_cast<int64_t>(wall_ms / 1000), static_cast<int>(wall_ms % 1000));
  for (const SeriesRow& row : series_rows) {
    auto found = series_.find(String(row.name));
    std::vector<int64_t> values =
        found == series_.end() ? std::vector<int64_t>(usage_buckets, 0) : found->second.values();
    out.append(format(",\"%s\":[", row.key));
    for (size_t i = 0; i < values.size(); i++) {
      if (i) out.append(',');
      out.append(String(static_cast<long>(values[i])));
    }
    out.append(']');
  }
  out.append(format(",\"catt\":%d,\"ccom\":%d,\"duration\":%d}", calls_attempted, calls_completed, duration));
  return out;
}

void ResourceUsage::restore(const Json& saved, uint64_t wall_ms, int64_t& calls_attempted,
                            int64_t& calls_completed, int64_t& duration) {
  calls_attempted += saved.get_int64(String("catt"));
  calls_completed += saved.get_int64(String("ccom"));
  duration += saved.get_int64(String("duration"));
  WallTime saved_at = WallTime::parse(saved.get_string(String("time")));
  if (saved_at.ms == 0 || saved_at.ms > wall_ms) return;
  uint64_t age_ms = wall_ms - saved_at.ms;
  if (age_ms / 1000 >= 86401) return;
  int64_t newest = bucket_of(wall_ms - age_ms);
  for (const SeriesRow& row : series_rows) {
    const Json& list = saved.get_array(String(row.key));
    if (list.size() == 0) continue;
    std::vector<int64_t> values;
    for (int i = 0; i < list.size(); i++) values.push_back(static_cast<int64_t>(list[i].as_number()));
    series(String(row.name)).restore(values, newest);
  }
}
