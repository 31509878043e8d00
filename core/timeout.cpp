#include "core/timeout.h"

#include <cstring>
#include <mutex>
#include <unordered_map>

#include "core/format.h"
#include "core/mutex.h"
#include "core/wakeup.h"

Scheduler control_queue;
Scheduler service_queue;
Scheduler rtp_queue;

// ---- statistics

namespace {

struct CallbackCounts {
  std::mutex lock;
  std::unordered_map<void*, int64_t> by_function;  // nullptr counts the objects with none
  std::unordered_map<void*, const char*> names;
};

CallbackCounts& counts() {
  static auto* c = new CallbackCounts();
  return *c;
}

std::atomic<int64_t> live_timeouts{0};

inline void count_change(void* removed, void* added) {
  if (removed == added) return;
  CallbackCounts& c = counts();
  std::lock_guard<std::mutex> g(c.lock);
  c.by_function[removed]--;
  c.by_function[added]++;
}

inline void count_add(void* added) {
  CallbackCounts& c = counts();
  std::lock_guard<std::mutex> g(c.lock);
  c.by_function[added]++;
}

inline void count_remove(void* removed) {
  CallbackCounts& c = counts();
  std::lock_guard<std::mutex> g(c.lock);
  c.by_function[removed]--;
}

const char* const known_names[] = {
    "call_port::cleanup_hangup", "http_request::remove_session", "http_request::remove_http",
    "http_request::resume", "http_request::websocket_refresh", "clear_http", "clear_sip_tcp",
    "bw_sip_udp_expires", "bw_sip_tcp_expires", "bw_http_expires", "notification_callback",
    "keep_alive_timer", "http_set_port", "domain_acme", "system_acme", "performance_probe",
    "route_pending_packet", "pending_packet_timeout", "execute_system_timeout",
    "webclient::close_connection", "webclient::timeout_connection", "resource_usage::do_tick",
    "resend_packet", "timeout_callback", "obj_callback_function", "remove_registration",
    "dns_resolver::unregister_entry", "dns_resolver::resend_request", "trunk::refresh_procedure",
    "soap_dns_result_available", "tls::session_delete", "call_port::ack_no_ok_timeout",
    "call_port::rtp_hangup", "call_port::abs_hangup", "call_port::erase_call_port",
    "call_port::send_rtcp_update", "call_port::next_rtp_batch", "call_port::restart_rtp_clock",
    "email_client::retry_sending"};

// The one lock of all schedulers, at level 0: a plain lock.
std::mutex scheduler_lock;
uint64_t next_sequence = 1;

}  // namespace

int64_t timeout_objects() { return live_timeouts.load(); }

std::vector<CallbackCount> callback_objects() {
  CallbackCounts& c = counts();
  std::lock_guard<std::mutex> g(c.lock);
  std::vector<CallbackCount> out;
  for (const auto& [fn, n] : c.by_function)
    if (n != 0 || fn == nullptr) out.push_back({fn, n});
  return out;
}

void callback_name_register(void* function, const char* name) {
  for (const char* known : known_names) {
    if (strcmp(known, name) == 0) {
      CallbackCounts& c = counts();
      std::lock_guard<std::mutex> g(c.lock);
      c.names[function] = known;
      return;
    }
  }
}

const char* callback_name(void* function) {
  if (!function) return "none";
  CallbackCounts& c = counts();
  std::lock_guard<std::mutex> g(c.lock);
  auto it = c.names.find(function);
  return it == c.names.end() ? "unknown" : it->second;
}

String callback_objects_text() {
  std::vector<std::pair<const char*, int64_t>> by_name;
  int64_t none = 0;
  for (const CallbackCount& cc : callback_objects()) {
    if (!cc.function) {
      none += cc.count;
      continue;
    }
    const char* name = callback_name(cc.function);
    bool found = false;
    for (auto& [n, total] : by_name) {
      if (strcmp(n, name) == 0) {
        total += cc.count;
        found = true;
      }
    }
    if (!found) by_name.push_back({name, cc.count});
  }
  String out = format("\"none\":%d", none);
  for (const auto& [n, total] : by_name) out += format(",\"%s\":%d", n, total);
  return out;
}

// ---- callback_argument

callback_argument::callback_argument() { count_add(nullptr); }

callback_argument::callback_argument(Fn1 f) { set_function(1, f); }
callback_argument::callback_argument(Fn2 f, const String& s1) : s1_(s1) {
  set_function(2, reinterpret_cast<Fn1>(f));
}
callback_argument::callback_argument(Fn3 f, int n) : n_(n) {
  set_function(3, reinterpret_cast<Fn1>(f));
}
callback_argument::callback_argument(Fn4 f, const String& s1, const String& s2) : s1_(s1), s2_(s2) {
  set_function(4, reinterpret_cast<Fn1>(f));
}
callback_argument::callback_argument(Fn5 f, const String& s1, int n) : n_(n), s1_(s1) {
  set_function(5, reinterpret_cast<Fn1>(f));
}
callback_argument::callback_argument(Fn6 f, const String& s1, const String& s2, const String& s3)
    : s1_(s1), s2_(s2), s3_(s3) {
  set_function(6, reinterpret_cast<Fn1>(f));
}
callback_argument::callback_argument(Fn7 f, CallbackObject object) : object_(std::move(object)) {
  set_function(7, reinterpret_cast<Fn1>(f));
}

callback_argument callback_argument::with_kind(int kind, Fn1 f) {
  callback_argument a;
  count_change(nullptr, reinterpret_cast<void*>(f));
  a.kind_ = kind;
  a.fn_ = f;
  return a;
}

void callback_argument::set_function(int kind, Fn1 f) {
  kind_ = f ? kind : 0;
  fn_ = f;
  count_add(function());
}

callback_argument::callback_argument(const callback_argument& o)
    : kind_(o.kind_), n_(o.n_), fn_(o.fn_), s1_(o.s1_), s2_(o.s2_), s3_(o.s3_), object_(o.object_) {
  count_add(function());
}

callback_argument::callback_argument(callback_argument&& o) noexcept
    : kind_(o.kind_), n_(o.n_), fn_(o.fn_), s1_(std::move(o.s1_)), s2_(std::move(o.s2_)),
      s3_(std::move(o.s3_)), object_(std::move(o.object_)) {
  // The function moves with the values: the new object counts for it, the old for none.
  o.kind_ = 0;
  o.n_ = 0;
  o.fn_ = nullptr;
  count_add(nullptr);
}

callback_argument& callback_argument::operator=(const callback_argument& o) {
  if (this == &o) return *this;
  count_change(function(), o.function());
  kind_ = o.kind_;
  n_ = o.n_;
  fn_ = o.fn_;
  s1_ = o.s1_;
  s2_ = o.s2_;
  s3_ = o.s3_;
  object_ = o.object_;
  return *this;
}

callback_argument& callback_argument::operator=(callback_argument&& o) noexcept {
  if (this == &o) return *this;
  void* mine = function();
  void* theirs = o.function();
  kind_ = o.kind_;
  n_ = o.n_;
  fn_ = o.fn_;
  s1_ = std::move(o.s1_);
  s2_ = std::move(o.s2_);
  s3_ = std::move(o.s3_);
  object_ = std::move(o.object_);
  o.kind_ = 0;
  o.n_ = 0;
  o.fn_ = nullptr;
  // This object goes from `mine` to `theirs`, the other from `theirs` to none.
  if (mine != nullptr || theirs != nullptr) {
    CallbackCounts& c = counts();
    std::lock_guard<std::mutex> g(c.lock);
    c.by_function[mine]--;
    c.by_function[nullptr]++;
  }
  return *this;
}

callback_argument::~callback_argument() { count_remove(function()); }

void callback_argument::clear() {
  count_change(function(), nullptr);
  kind_ = 0;
  n_ = 0;
  fn_ = nullptr;
  s1_.clear();
  s2_.clear();
  s3_.clear();
  object_.reset();
}

void callback_argument::run() const {
  if (!fn_) return;
  switch (kind_) {
    case 1: fn_(); break;
    case 2: reinterpret_cast<Fn2>(fn_)(s1_); break;
    case 3: reinterpret_cast<Fn3>(fn_)(n_); break;
    case 4: reinterpret_cast<Fn4>(fn_)(s1_, s2_); break;
    case 5: reinterpret_cast<Fn5>(fn_)(s1_, n_); break;
    case 6: reinterpret_cast<Fn6>(fn_)(s1_, s2_, s3_); break;
    case 7: reinterpret_cast<Fn7>(fn_)(object_); break;
    default: break;  // kind 0 and anything outside 1 to 7: nothing to run
  }
}

// ---- Timeout

Timeout::Timeout() { live_timeouts.fetch_add(1, std::memory_order_relaxed); }

Timeout::Timeout(const Timeout& o) : callback_argument() {
  live_timeouts.fetch_add(1, std::memory_order_relaxed);
  *this = o;
}

Timeout& Timeout::operator=(const Timeout& o) {
  if (this == &o) return *this;
  std::lock_guard<std::mutex> g(scheduler_lock);
  clear_locked();
  callback_argument::operator=(o);
  if (o.scheduler_) arm_locked(*o.scheduler_, Tick(o.scheduler_->heap_[o.place_].tick));
  return *this;
}

Timeout::~Timeout() {
  {
    std::lock_guard<std::mutex> g(scheduler_lock);
    if (scheduler_) scheduler_->erase_locked(place_);
  }
  live_timeouts.fetch_sub(1, std::memory_order_relaxed);
}

void Timeout::callback(Scheduler& scheduler, int64_t delay_ms, const callback_argument& argument) {
  Tick now = Tick::now();
  callback_at(scheduler, delay_ms > 0 ? now.plus_ms(delay_ms) : now, argument);
}

void Timeout::callback_at(Scheduler& scheduler, Tick tick, const callback_argument& argument) {
  std::lock_guard<std::mutex> g(scheduler_lock);
  if (scheduler_) scheduler_->erase_locked(place_);
  callback_argument::operator=(argument);
  arm_locked(scheduler, tick);
}

void Timeout::arm_locked(Scheduler& scheduler, Tick tick) {
  scheduler.insert_locked(this, tick);
  if (place_ == 0 && scheduler.wakeup_id_ != 0) wakeup_signal_id(scheduler.wakeup_id_);
}

void Timeout::clear() {
  std::lock_guard<std::mutex> g(scheduler_lock);
  clear_locked();
}

void Timeout::clear_locked() {
  if (scheduler_) scheduler_->erase_locked(place_);
  callback_argument::clear();
}

bool Timeout::armed() const {
  std::lock_guard<std::mutex> g(scheduler_lock);
  return scheduler_ != nullptr;
}

Tick Timeout::due() const {
  std::lock_guard<std::mutex> g(scheduler_lock);
  return scheduler_ ? Tick(scheduler_->heap_[place_].tick) : Tick();
}

int64_t Timeout::seconds_left(Tick now) const {
  std::lock_guard<std::mutex> g(scheduler_lock);
  if (!scheduler_) return 0;
  return (ms(Tick(scheduler_->heap_[place_].tick), now) + 500) / 1000;
}

int64_t Timeout::ms_left() const {
  std::lock_guard<std::mutex> g(scheduler_lock);
  if (!scheduler_) return 0;
  return ms(Tick(scheduler_->heap_[place_].tick), Tick::now());
}

String Timeout::due_text() const {
  std::lock_guard<std::mutex> g(scheduler_lock);
  if (!scheduler_) return String();
  return tick_hex(Tick(scheduler_->heap_[place_].tick));
}

// ---- Scheduler: a binary heap whose entries tell their timers where they are.

Scheduler::~Scheduler() {
  std::lock_guard<std::mutex> g(scheduler_lock);
  for (const Entry& e : heap_) e.timer->scheduler_ = nullptr;
  heap_.clear();
}

void Scheduler::insert_locked(Timeout* t, Tick tick) {
  t->scheduler_ = this;
  heap_.push_back(Entry{tick.ns, next_sequence++, t});
  t->place_ = heap_.size() - 1;
  sift_up(heap_.size() - 1);
}

void Scheduler::erase_locked(size_t place) {
  Timeout* t = heap_[place].timer;
  t->scheduler_ = nullptr;
  t->place_ = 0;
  size_t last = heap_.size() - 1;
  if (place != last) {
    put(place, heap_[last]);
    heap_.pop_back();
    if (place > 0 && heap_[place].before(heap_[(place - 1) / 2]))
      sift_up(place);
    else
      sift_down(place);
  } else {
    heap_.pop_back();
  }
}

void Scheduler::sift_up(size_t i) {
  Entry e = heap_[i];
  while (i > 0) {
    size_t parent = (i - 1) / 2;
    if (!e.before(heap_[parent])) break;
    put(i, heap_[parent]);
    i = parent;
  }
  put(i, e);
}

void Scheduler::sift_down(size_t i) {
  Entry e = heap_[i];
  size_t n = heap_.size();
  for (;;) {
    size_t child = 2 * i + 1;
    if (child >= n) break;
    if (child + 1 < n && heap_[child + 1].before(heap_[child])) child++;
    if (!heap_[child].before(e)) break;
    put(i, heap_[child]);
    i = child;
  }
  put(i, e);
}

int64_t Scheduler::delay(Tick& now, uint64_t& id, bool fresh) {
  if (fresh || !now.is_set()) now = Tick::now();
  std::lock_guard<std::mutex> g(scheduler_lock);
  if (heap_.empty()) {
    id = 0;
    return -1;
  }
  id = heap_[0].seq;
  int64_t d = ms(Tick(heap_[0].tick), now);
  return d < 0 ? 0 : d;
}

uint64_t Scheduler::wait_id() {
  std::lock_guard<std::mutex> g(scheduler_lock);
  return heap_.empty() ? 0 : heap_[0].seq;
}

bool Scheduler::next() {
  std::unique_lock<std::mutex> g(scheduler_lock);
  if (heap_.empty()) return false;
  Timeout* t = heap_[0].timer;
  // The timer is idle before its callback runs, so the callback may re-arm it.
  callback_argument copy(std::move(static_cast<callback_argument&>(*t)));
  erase_locked(0);
  g.unlock();
  copy.run();
  return true;
}

void Scheduler::register_wakeup(Wakeup& w) {
  int id = w.id();
  std::lock_guard<std::mutex> g(scheduler_lock);
  wakeup_id_ = id;
}

void Scheduler::unregister_wakeup() {
  std::lock_guard<std::mutex> g(scheduler_lock);
  wakeup_id_ = 0;
}

void Scheduler::trigger_wakeup() {
  std::lock_guard<std::mutex> g(scheduler_lock);
  if (wakeup_id_ != 0) wakeup_signal_id(wakeup_id_);
}

size_t Scheduler::size() {
  std::lock_guard<std::mutex> g(scheduler_lock);
  return heap_.size();
}

// ---- the serving pass

bool scheduler_wait(Scheduler& q, Mutex& run_lock, Wakeup& w, void (*flush)()) {
  run_lock.must_own("scheduler_wait", 1);
  if (flush) flush();
  // The Wakeup is registered before the delay is computed, so that an arming between the
  // two leaves a pending signal instead of being lost.
  q.register_wakeup(w);
  Tick now;
  uint64_t id = 0;
  int64_t d = q.delay(now, id, true);
  if (d != 0) {
    run_lock.unlock("scheduler_wait", 2);
    int r = w.wait(static_cast<uint32_t>(d));
    run_lock.lock("scheduler_wait", 3);
    q.unregister_wakeup();
    if (r != Wakeup::timed_out) return false;
  } else {
    q.unregister_wakeup();
  }
  return id != 0 && q.wait_id() == id;
}

bool scheduler_serve(Scheduler& q, Mutex& run_lock, Wakeup& w, void (*flush)()) {
  if (!scheduler_wait(q, run_lock, w, flush)) return false;
  return q.next();
}
