// Hostile Authorization headers and address lists: the checks must end on any input and
// never admit a request without the password.
#include <cstddef>
#include <cstdint>

#include "core/address.h"
#include "sip/digest.h"
#include "sip/sip_message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16384) return 0;
  String input(reinterpret_cast<const char*>(data), static_cast<int>(size));
  int cut = input.find('\n');
  String header = cut < 0 ? input : input.head(cut);
  String rest = cut < 0 ? String() : input.tail(cut + 1);
  (void)digest_params(header);
  Credential credential{String("40"), String("a password nobody sends")};
  NonceStore nonces;
  nonces.adopt(String("0123456789abcdef0123456789abcdef"));
  if (check_digest(header, String("REGISTER"), String("sip:localhost"), String("localhost"), credential, nonces) ==
      digest_ok)
    __builtin_trap();
  SipMessage request(String("REGISTER sip:localhost SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.9:5060;branch=z9hG4bKf\r\n"
                            "From: <sip:40@localhost>;tag=f\r\nTo: <sip:40@localhost>\r\nCall-ID: fuzz\r\n"
                            "CSeq: 2 REGISTER\r\nAuthorization: ") +
                     header + String("\r\nContent-Length: 0\r\n\r\n"));
  AuthOutcome outcome = check_credentials(request, nonces, String("localhost"), {credential}, false);
  if (outcome.passed) __builtin_trap();
  (void)address_in_list(parse_adr(String("10.1.2.3")), rest);
  (void)address_in_list(parse_adr(String("2001:db8::1")), rest);
  return 0;
}
