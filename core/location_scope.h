// Marks a named piece of work on the stack, so that the memory it added and the time it
// ran can be reported, and a crash can name the work it interrupted.
#pragma once

#include <cstdint>
#include <map>

#include "core/string.h"

class LocationScope {
 public:
  explicit LocationScope(const char* name, const String& detail = String());
  ~LocationScope();
  LocationScope(const LocationScope&) = delete;
  LocationScope& operator=(const LocationScope&) = delete;

 private:
  const char* name_;
  String detail_;
  int64_t bytes_at_entry_;
  int64_t ns_at_entry_;
};

// The name of the last location entered by any thread.
String last_location();
// Per-location totals of added bytes, kept while counting is on (from the REST side).
void set_location_counting(bool on);
std::map<String, int64_t> location_totals();
