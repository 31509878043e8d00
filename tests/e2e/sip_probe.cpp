#include "tests/e2e/sip_probe.h"

#include <poll.h>

#include <cstdio>

#include "core/format.h"

bool readable(int fd, int ms) {
  pollfd p = {fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

String options_request(int port, const char* branch) {
  return format("OPTIONS sip:127.0.0.1:%d SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:9;branch=z9hG4bK%s;rport\r\n"
                "From: <sip:probe@127.0.0.1>;tag=p\r\nTo: <sip:127.0.0.1>\r\nCall-ID: %s@probe\r\n"
                "CSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n",
                port, branch, branch);
}

bool answers_options(int port) {
  UdpSocket probe;
  if (!probe.open(0, parse_adr(String("127.0.0.1")))) return false;
  for (int i = 0; i < 100; i++) {
    (void)probe.send_to(options_request(port, "ready"), Address(parse_adr(String("127.0.0.1")), port));
    if (readable(probe.fd, 100)) return true;
  }
  return false;
}

String receive_within(UdpSocket& socket, int ms) {
  String text;
  Address from;
  if (!readable(socket.fd, ms) || !socket.receive(text, from)) return String();
  return text;
}

int occurrences(const std::string& haystack, const std::string& text) {
  int n = 0;
  for (size_t at = haystack.find(text); at != std::string::npos; at = haystack.find(text, at + 1)) n++;
  return n;
}
