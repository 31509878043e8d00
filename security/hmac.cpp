#include "security/hmac.h"

#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

template <class H>
Hmac<H>::~Hmac() {
  wipe(&inner_, sizeof inner_);
  wipe(&outer_, sizeof outer_);
  wipe(&running_, sizeof running_);
}

template <class H>
void Hmac<H>::set_key(const uint8_t* key, size_t n) {
  uint8_t block[H::block_size] = {};
  if (n > static_cast<size_t>(H::block_size)) {
    H h;
    h.update(key, n);
    h.final(block);
  } else if (n > 0) {
    std::memcpy(block, key, n);
  }
  for (auto& b : block) b ^= 0x36;
  inner_.init();
  inner_.update(block, sizeof block);
  for (auto& b : block) b ^= 0x36 ^ 0x5c;
  outer_.init();
  outer_.update(block, sizeof block);
  wipe(block, sizeof block);
  running_ = inner_;
}

template <class H>
void Hmac<H>::set_key(const String& key) {
  set_key(string_bytes(key), string_size(key));
}

template <class H>
void Hmac<H>::final(uint8_t* out) {
  uint8_t inner_digest[H::digest_size];
  running_.final(inner_digest);
  running_ = outer_;
  running_.update(inner_digest, sizeof inner_digest);
  running_.final(out);
  wipe(inner_digest, sizeof inner_digest);
  running_ = inner_;
}

template <class H>
String Hmac<H>::final() {
  uint8_t out[H::digest_size];
  final(out);
  return String(out, H::digest_size);
}

template <class H>
void Hmac<H>::mac(const uint8_t* data, size_t n, uint8_t* out) const {
  uint8_t inner_digest[H::digest_size];
  H h = inner_;
  h.update(data, n);
  h.final(inner_digest);
  h = outer_;
  h.update(inner_digest, sizeof inner_digest);
  h.final(out);
}

template <class H>
String Hmac<H>::mac(const String& data) const {
  uint8_t out[H::digest_size];
  mac(string_bytes(data), string_size(data), out);
  return String(out, H::digest_size);
}

template class Hmac<Md5>;
template class Hmac<Sha1>;
template class Hmac<Sha256>;
template class Hmac<Sha384>;
template class Hmac<Sha512>;

String hmac_md5(const String& key, const String& data) { return HmacMd5(key).mac(data); }
String hmac_sha1(const String& key, const String& data) { return HmacSha1(key).mac(data); }
String hmac_sha256(const String& key, const String& data) { return HmacSha256(key).mac(data); }
String hmac_sha384(const String& key, const String& data) { return HmacSha384(key).mac(data); }
String hmac_sha512(const String& key, const String& data) { return HmacSha512(key).mac(data); }
