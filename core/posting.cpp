#include "core/posting.h"

#include <atomic>
#include <deque>
#include <mutex>

#include "core/format.h"
#include "core/location_scope.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/tagged_text.h"
#include "core/timeout.h"

namespace {

struct PostQueue {
  std::mutex lock;  // never held while a handler runs
  std::deque<String> items;
  std::atomic<bool> pending{false};
  Timeout runner;
  PostedHandler handlers[256] = {};
};

PostQueue& to_service() {
  static PostQueue* q = new PostQueue;  // lives to the end of the process, threads use it
  return *q;
}
PostQueue& to_control() {
  static PostQueue* q = new PostQueue;
  return *q;
}

bool take(PostQueue& q, String& item) {
  std::lock_guard<std::mutex> g(q.lock);
  if (q.items.empty()) return false;
  item = static_cast<String&&>(q.items.front());
  q.items.pop_front();
  return true;
}

void put(PostQueue& q, const String& message) {
  std::lock_guard<std::mutex> g(q.lock);
  q.items.push_back(message);
  q.pending.store(true, std::memory_order_release);
}

}  // namespace

void register_service_handler(int tag, PostedHandler h) {
  if (tag >= 0 && tag < 256) to_service().handlers[tag] = h;
}
void register_control_handler(int tag, PostedHandler h) {
  if (tag >= 0 && tag < 256) to_control().handlers[tag] = h;
}

void dispatch_posted(const String& message, bool service) {
  PostQueue& q = service ? to_service() : to_control();
  TaggedText records(message);
  int tag;
  String value;
  while (!records.empty()) {
    if (!records.next(tag, value)) {
      if (log_enabled(LOG_SOAP, 2))
        log_add_message_global(LOG_SOAP, 2, 0, format("Posted message cut short after %d bytes", message.length() - records.length()));
      return;
    }
    if (q.handlers[tag]) {
      q.handlers[tag](value);
    } else if (log_enabled(LOG_SOAP, 4)) {
      log_add_message_global(LOG_SOAP, 4, 0, format("No handler for posted message %d", tag));
    }
  }
}

void pbxsrv_post(const String& message) { put(to_service(), message); }

void pbxsrv_flush() {
  PostQueue& q = to_service();
  if (q.pending.exchange(false, std::memory_order_acq_rel))
    q.runner.callback(service_queue, 0, callback_argument(pbxsrv_soap));
}

void pbxsrv_soap() {
  must_own(srv_run_mutex, "pbxsrv_soap", 1);
  String item;
  while (take(to_service(), item)) dispatch_posted(item, true);
}

void out_post(const String& message) {
  put(to_control(), message);
  out_flush();
}

void out_flush() {
  PostQueue& q = to_control();
  if (q.pending.exchange(false, std::memory_order_acq_rel))
    q.runner.callback(control_queue, 0, callback_argument(exchsrv_soap));
}

void exchsrv_soap() {
  must_own(ctrl_run_mutex, "exchsrv_soap", 1);
  LocationScope scope("SOAP processing");
  String item;
  while (take(to_control(), item)) dispatch_posted(item, false);
}
