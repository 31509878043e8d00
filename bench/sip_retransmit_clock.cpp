// When does a request to a silent UDP peer go out again, by the wall clock? The service
// queue is served here as the daemon's timer thread serves it (scheduler_wait on the real
// clock); each send order is carried out over a real UDP socket towards a socket that
// answers nothing, and a second thread notes when each datagram of the Call-ID arrives.
// Printed against the intended times. Run by hand; takes about 32 s.
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/format.h"
#include "core/mutex.h"
#include "core/posting.h"
#include "core/timeout.h"
#include "core/udp_socket.h"
#include "core/wakeup.h"
#include "sip/message_text.h"
#include "sip/request_routing.h"
#include "sip/sip_hooks.h"
#include "sip/sip_message.h"
#include "sip/sip_send.h"
#include "sip/transaction.h"

namespace {

using Clock = std::chrono::steady_clock;
Clock::time_point start;
UdpSocket sender;
double timeout_ms = -1;  // when the local 408 came back

double now_ms() { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); }

String no_setting(const String&) { return String(); }

void carry_out(const String& value) {
  SendOrder order;
  if (!read_send_order(value, order)) return;
  LocalEnd end;
  end.ip = String("127.0.0.1");
  end.port = sender.port;
  (void)sender.send_to(message_text(order.message, end, String(), order.transport), order.destination);
}

bool note_timeout(SipMessage& response) {
  if (response.status == 408) timeout_ms = now_ms();
  return true;
}

}  // namespace

int main() {
  UdpSocket silent;
  if (!sender.open(0, parse_adr(String("127.0.0.1"))) || !silent.open(0, parse_adr(String("127.0.0.1")))) {
    fprintf(stderr, "no loopback sockets\n");
    return 1;
  }
  sip_hooks.setting = no_setting;
  request_routing_register();
  routing_hooks.dialog_response = note_timeout;
  register_control_handler(tag_sip_send, carry_out);

  // Arrival times at the silent peer by Call-ID.
  std::mutex arrivals_lock;
  std::map<std::string, std::vector<double>> arrivals;
  std::atomic<bool> done{false};
  std::thread peer([&] {
    while (!done.load()) {
      pollfd p = {silent.fd, POLLIN, 0};
      if (poll(&p, 1, 50) != 1) continue;
      String text;
      Address from;
      while (silent.receive(text, from) && !text.empty()) {
        double at = now_ms();
        SipMessage got(text);
        std::lock_guard<std::mutex> g(arrivals_lock);
        arrivals[std::string(got.call_id.c_data(), got.call_id.length())].push_back(at);
      }
    }
  });

  const String call_id("retransmit-clock");
  SipMessage m(String("OPTIONS"), NameAddr(String("<sip:pbx@127.0.0.1>;tag=rc")),
               NameAddr(String("<sip:peer@127.0.0.1>")), call_id, String());
  m.request_uri = format("sip:peer@127.0.0.1:%d", silent.port);
  Wakeup w;
  srv_run_mutex.lock("sip_retransmit_clock", 1);
  start = Clock::now();
  send_packet(m);
  exchsrv_soap();
  // The transaction ends with the local 408, after which the queue has nothing left.
  while (timeout_ms < 0 && now_ms() < 40000) {
    if (scheduler_wait(service_queue, srv_run_mutex, w, nullptr)) {
      service_queue.next();
      exchsrv_soap();
    }
  }
  srv_run_mutex.unlock("sip_retransmit_clock", 2);
  usleep(100000);
  done.store(true);
  peer.join();

  const double expected[] = {0, 500, 1500, 3500, 7500, 11500, 15500, 19500, 23500, 27500, 31500};
  const std::vector<double>& got = arrivals[std::string(call_id.c_data(), call_id.length())];
  printf("OPTIONS to a silent UDP peer on 127.0.0.1:%d, arrival times of Call-ID %s\n", silent.port, "retransmit-clock");
  printf("  %-3s %10s %10s %8s\n", "#", "expected", "arrived", "late");
  size_t rows = got.size() > std::size(expected) ? got.size() : std::size(expected);
  double worst = 0;
  for (size_t i = 0; i < rows; i++) {
    std::string e = i < std::size(expected) ? std::to_string(static_cast<int>(expected[i])) + " ms" : "-";
    if (i < got.size() && i < std::size(expected)) {
      double late = got[i] - expected[i];
      if (late > worst || -late > worst) worst = late < 0 ? -late : late;
      printf("  %-3zu %10s %7.1f ms %+6.1f ms\n", i + 1, e.c_str(), got[i], late);
    } else if (i < got.size()) {
      printf("  %-3zu %10s %7.1f ms   (extra)\n", i + 1, e.c_str(), got[i]);
    } else {
      printf("  %-3zu %10s %10s   (missing)\n", i + 1, e.c_str(), "-");
    }
  }
  printf("  sends: %zu of %zu expected; largest deviation %.1f ms\n", got.size(), std::size(expected), worst);
  if (timeout_ms >= 0) printf("  local 408 at %.1f ms (expected 32000 ms)\n", timeout_ms);
  else printf("  no local 408\n");
  printf("  other Call-IDs seen: %zu\n", arrivals.size() - 1);
  return got.size() == std::size(expected) ? 0 : 1;
}
