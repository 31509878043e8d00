#include "core/ntp.h"

#include <cstring>

static void put32(char* p, uint32_t v) {
  p[0] = static_cast<char>(v >> 24);
  p[1] = static_cast<char>(v >> 16);
  p[2] = static_cast<char>(v >> 8);
  p[3] = static_cast<char>(v);
}

String ntp_reply(const String& request, uint64_t wall_ms, const String& client) {
  if (request.length() < 48 || (request.byte_at(0) & 7) != 3) return String();
  char r[48];
  memset(r, 0, sizeof r);
  r[0] = 28;  // version 3, server mode
  r[1] = 2;   // stratum
  r[2] = 0;
  r[3] = static_cast<char>(238);
  if (client.length() == 4) memcpy(r + 12, client.c_data(), 4);
  else memcpy(r + 12, "IPv6", 4);
  // NTP counts from 1900: 0x83AA7E80 is the seconds from then to 1970.
  uint32_t seconds = static_cast<uint32_t>(wall_ms / 1000 + 0x83AA7E80u);
  uint32_t fraction = static_cast<uint32_t>((wall_ms % 1000) * 4294967u);
  put32(r + 32, seconds);
  put32(r + 36, fraction);
  put32(r + 40, seconds);
  put32(r + 44, fraction);
  return String(r, 48);
}
