// Record texts as a DNS server may send them, and ENUM expressions: the resolver lines
// they become must be bounded and the matcher must end.
#include <cstddef>
#include <cstdint>

#include "sip/dns_lines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 8192) return 0;
  String records(reinterpret_cast<const char*>(data), static_cast<int>(size));
  for (const char* wanted : {"", "udp", "tcp", "tls"}) {
    if (naptr_lines(records, String(wanted), false, String("+4930123@pbx.test")).size() > 4 * 65536) __builtin_trap();
  }
  (void)naptr_lines(records, String(), true, String("+4930123"));
  int names = 0;
  (void)srv_lines(records, String("udp"), true, true, names);
  (void)naptr_apply_regexp(records, String("+4930123456"));
  return 0;
}
