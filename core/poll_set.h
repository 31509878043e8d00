// The descriptors of one pass of a server loop, for poll(2), with a map from descriptor
// to its place so that the readiness tests after the wait are one look-up each.
#pragma once

#include <poll.h>

class PollSet {
 public:
  PollSet() = default;
  PollSet(const PollSet&) = delete;
  PollSet& operator=(const PollSet&) = delete;
  ~PollSet();

  // Keeps the capacity; empties the set and the map.
  void reset();
  // A negative descriptor is ignored; a descriptor added twice gets both interests.
  void add(int fd, bool read, bool write);
  // poll(2) on the set; an empty set sleeps for the time-out instead and returns 0.
  int wait(int timeout_ms);
  bool readable(int fd) const;
  bool writable(int fd) const;
  int size() const { return count_; }

 private:
  pollfd* entries_ = nullptr;
  int count_ = 0;
  int capacity_ = 0;
  int* index_ = nullptr;  // descriptor -> place in entries_, -1 where absent
  int index_size_ = 0;
};
