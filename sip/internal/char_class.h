// Byte classes of SIP text, as one table of bit masks built at compile time.
#pragma once

#include <cstdint>

enum SipCharClass : uint8_t {
  cc_alnum = 1,
  cc_unreserved = 2,
  cc_user = 4,
  cc_uri_param = 8,
  cc_uri_header = 16,
  cc_token = 32,
  cc_host = 64,
  cc_quoted = 128,
};

struct SipCharTable {
  uint8_t bits[256];
};

constexpr SipCharTable make_sip_char_table() {
  SipCharTable t{};
  auto add = [&t](const char* members, uint8_t mask) {
    for (const char* p = members; *p; p++) t.bits[static_cast<uint8_t>(*p)] |= mask;
  };
  const char* alnum = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  add(alnum, cc_alnum | cc_unreserved | cc_user | cc_uri_param | cc_uri_header | cc_token | cc_host);
  add("-_.!~*'()", cc_unreserved | cc_user | cc_uri_param | cc_uri_header);
  add("&=+$,;?/", cc_user);
  add("[]/:&+$", cc_uri_param);
  add("[]/?:+$", cc_uri_header);
  add("-.!%*_+`'~", cc_token);
  add(".-", cc_host);
  add("\t !#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[]^_`abcdefghijklmnopqrstuvwxyz{|}~",
      cc_quoted);
  return t;
}

inline constexpr SipCharTable sip_char_table = make_sip_char_table();

inline bool sip_char_in(char c, uint8_t mask) {
  return (sip_char_table.bits[static_cast<uint8_t>(c)] & mask) != 0;
}
