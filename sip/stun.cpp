#include "sip/stun.h"

#include "core/random.h"

bool looks_like_stun(const String& d) { return d.length() >= 8 && d.byte_at(0) < 2; }

String stun_binding_response(const String& request, const Address& from) {
  if (request.length() < 20 || request.byte_at(0) != 0 || request.byte_at(1) != 1) return String();
  int family = from.adr.length() == 4 ? 1 : from.adr.length() == 16 ? 2 : 0;
  if (family == 0) return String();
  int value_length = 4 + from.adr.length();
  String r = String::bytes(0x01, 0x01, 0, static_cast<char>(4 + value_length));
  r.append(String::bytes(0x21, 0x12, static_cast<char>(0xA4), 0x42));
  r.append(request.substr(8, 12));  // transaction id
  r.append(String::bytes(0x00, 0x01, 0, static_cast<char>(value_length)));  // MAPPED-ADDRESS
  r.append(String::bytes(0, static_cast<char>(family), static_cast<char>(from.port >> 8),
                         static_cast<char>(from.port & 0xFF)));
  r.append(from.adr);
  return r;
}

String stun_binding_request() {
  String r = String::bytes(0x00, 0x01, 0, 0);
  r.append(String::bytes(0x21, 0x12, static_cast<char>(0xA4), 0x42));
  r.append(random_string(12));
  return r;
}
