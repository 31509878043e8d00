// HMAC (RFC 2104) over MD5, SHA-1, SHA-256, SHA-384 and SHA-512.
//
// The key is folded into the inner and outer hash states once, by set_key; each message
// then starts from copies of them, so a per-packet MAC (SRTP, TLS records) costs only the
// compressions of the message itself plus one for the outer hash.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"
#include "security/md5.h"
#include "security/sha1.h"
#include "security/sha256.h"
#include "security/sha512.h"

template <class H>
class Hmac {
 public:
  static constexpr int digest_size = H::digest_size;

  Hmac() { set_key(nullptr, 0); }
  explicit Hmac(const String& key) { set_key(key); }
  Hmac(const uint8_t* key, size_t n) { set_key(key, n); }
  ~Hmac();

  // Any key length is valid (RFC 2104): longer than a block is hashed first.
  void set_key(const uint8_t* key, size_t n);
  void set_key(const String& key);

  // Incremental form: init, update..., final. set_key leaves the object initialised.
  void init() { running_ = inner_; }
  void update(const uint8_t* data, size_t n) { running_.update(data, n); }
  void update(const String& data) { running_.update(data); }
  void final(uint8_t* out);
  String final();

  // One message in one call; leaves the incremental state alone.
  void mac(const uint8_t* data, size_t n, uint8_t* out) const;
  String mac(const String& data) const;

 private:
  H inner_;    // after the key XOR ipad block
  H outer_;    // after the key XOR opad block
  H running_;  // the message in progress
};

extern template class Hmac<Md5>;
extern template class Hmac<Sha1>;
extern template class Hmac<Sha256>;
extern template class Hmac<Sha384>;
extern template class Hmac<Sha512>;

using HmacMd5 = Hmac<Md5>;
using HmacSha1 = Hmac<Sha1>;
using HmacSha256 = Hmac<Sha256>;
using HmacSha384 = Hmac<Sha384>;
using HmacSha512 = Hmac<Sha512>;

String hmac_md5(const String& key, const String& data);
String hmac_sha1(const String& key, const String& data);
String hmac_sha256(const String& key, const String& data);
String hmac_sha384(const String& key, const String& data);
String hmac_sha512(const String& key, const String& data);
