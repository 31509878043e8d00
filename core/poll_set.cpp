#include "core/poll_set.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

PollSet::~PollSet() {
  free(entries_);
  free(index_);
}

void PollSet::reset() {
  for (int i = 0; i < count_; i++)
    if (entries_[i].fd < index_size_) index_[entries_[i].fd] = -1;
  count_ = 0;
}

void PollSet::add(int fd, bool read, bool write) {
  if (fd < 0) return;
  short events = static_cast<short>((read ? POLLIN : 0) | (write ? POLLOUT : 0));
  if (fd >= index_size_) {
    int size = index_size_ < 2 ? 2 : index_size_;
    while (size <= fd) size *= 2;
    int* grown = static_cast<int*>(realloc(index_, sizeof(int) * static_cast<size_t>(size)));
    if (!grown) abort();
    for (int i = index_size_; i < size; i++) grown[i] = -1;
    index_ = grown;
    index_size_ = size;
  }
  if (index_[fd] >= 0) {
    entries_[index_[fd]].events |= events;
    return;
  }
  if (count_ == capacity_) {
    int size = capacity_ < 2 ? 2 : capacity_ * 2;
    auto* grown = static_cast<pollfd*>(realloc(entries_, sizeof(pollfd) * static_cast<size_t>(size)));
    if (!grown) abort();
    entries_ = grown;
    capacity_ = size;
  }
  entries_[count_] = {fd, events, 0};
  index_[fd] = count_++;
}

int PollSet::wait(int timeout_ms) {
  if (count_ == 0) {
    if (timeout_ms > 0) usleep(static_cast<useconds_t>(timeout_ms) * 1000);
    return 0;
  }
  for (int i = 0; i < count_; i++) entries_[i].revents = 0;
  return poll(entries_, static_cast<nfds_t>(count_), timeout_ms);
}

bool PollSet::readable(int fd) const {
  if (fd < 0 || fd >= index_size_ || index_[fd] < 0) return false;
  // A hang-up or error is a read that will tell the handler what happened.
  return entries_[index_[fd]].revents & (POLLIN | POLLHUP | POLLERR);
}

bool PollSet::writable(int fd) const {
  if (fd < 0 || fd >= index_size_ || index_[fd] < 0) return false;
  return entries_[index_[fd]].revents & (POLLOUT | POLLERR);
}
