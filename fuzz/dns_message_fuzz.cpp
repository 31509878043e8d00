// Hostile DNS answers: the reader must stay inside the datagram and end on any input.
#include <cstddef>
#include <cstdint>

#include "sip/dns_message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  String pdu(reinterpret_cast<const char*>(data), static_cast<int>(size));
  DnsAnswer a;
  if (dns_decode_answer(pdu, a)) {
    for (const DnsRecord& r : a.records)
      if (r.text.length() > 65536) __builtin_trap();
  }
  return 0;
}
