#include "sip/transport.h"

const String transport_udp("udp");
const String transport_tcp("tcp");
const String transport_tls("tls");

const String& transport_word(Transport t) {
  switch (t) {
    case Transport::tcp: return transport_tcp;
    case Transport::tls: return transport_tls;
    default: return transport_udp;
  }
}
