// Digest authentication with MD5, both sides: checking the Authorization of a request
// against the credentials of an account, and answering a challenge of a peer.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "core/string.h"
#include "sip/credential.h"

class SipMessage;


// The nonces handed out to one registration: nonce to the cnonce and nc seen with it.
class NonceStore {
 public:
  static constexpr int limit = 256;
  struct Entry {
    String cnonce;  // empty until the first use with qop
    String nc;
    uint64_t order = 0;
  };
  // A new nonce of 32 hexadecimal characters from the kernel's random source; the oldest
  // go first when the store is full.
  String issue();
  Entry* find(const String& nonce);
  // Takes a nonce made elsewhere (tests use the published examples).
  void adopt(const String& nonce) { entries_[nonce] = Entry{String(), String(), ++counter_}; }
  void remove(const String& nonce) { entries_.erase(nonce); }
  bool known(const String& nonce) const { return entries_.count(nonce) != 0; }
  int size() const { return static_cast<int>(entries_.size()); }

 private:
  std::map<String, Entry> entries_;
  uint64_t counter_ = 0;
};

// The parameters of a Digest header ("Digest a=b, c=\"d\""), names lower-cased.
std::map<String, String> digest_params(const String& header);

enum DigestResult {
  digest_ok,
  digest_wrong_user,   // not this credential's user
  digest_unknown_nonce,
  digest_mismatch,     // a known nonce, a wrong answer
  digest_bad,          // missing fields
};

// One Authorization header against one credential, for a request of `method` whose
// request URI is `request_uri`.
DigestResult check_digest(const String& authorization, const String& method, const String& request_uri,
                          const String& realm, const Credential& credential, NonceStore& nonces);

// The outcome of checking a request: passed, or the answer to send.
struct AuthOutcome {
  bool passed = false;
  int status = 0;              // 401 or 403 when not passed
  String www_authenticate;     // a new challenge, or empty
  String warning;              // "399 <realm> Password does not match", or empty
  String username;             // of the Authorization that passed
  bool by_address = false;     // passed because the source is in `auth_adr`
};

// Whether `adr` (address bytes) is in a list of addresses with optional masks, separated
// by blanks or commas: "10.0.0.1 192.168.1.0/24 172.16.0.0/255.255.0.0 2001:db8::/32".
// Entries that can't be read match nothing.
bool address_in_list(const String& adr, const String& list);

// A request whose transport has authenticated it passes. A non-empty `auth_adr` decides
// alone: the source in the list passes, any other gets 403. Otherwise every
// Authorization header of `request` against every credential; on failure the answer to
// send. `allow_empty` passes an empty password at once.
AuthOutcome check_credentials(const SipMessage& request, NonceStore& nonces, const String& realm,
                              const std::vector<Credential>& credentials, bool allow_empty,
                              const String& auth_adr = String());

// The value of an Authorization (or Proxy-Authorization) header answering `challenge`
// (the text of a WWW-Authenticate or Proxy-Authenticate header).
String answer_challenge_header(const String& challenge, const String& method, const String& uri,
                               const Credential& credential, const String& default_realm);
