#include "security/aes.h"

#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

bool aes_hardware_available() { return aes_ni_available(); }

Aes::~Aes() { clear(); }

void Aes::clear() {
  wipe(&portable_, sizeof portable_ > sizeof ni_ ? sizeof portable_ : sizeof ni_);
  rounds_ = 0;
  hardware_ = false;
}

bool Aes::set_key(const uint8_t* key, size_t length, AesEngine engine) {
  clear();
  bool use_hardware = engine != AesEngine::portable && aes_ni_available();
  if (engine == AesEngine::hardware && !use_hardware) return false;
  uint8_t bytes[aes_max_rounds + 1][16];
  int rounds = aes_expand_key(key, length, bytes);
  if (rounds == 0) return false;
  if (use_hardware)
    aes_ni_set_key(ni_, bytes, rounds);
  else
    aes_portable_set_key(portable_, bytes, rounds);
  wipe(bytes, sizeof bytes);
  rounds_ = rounds;
  hardware_ = use_hardware;
  return true;
}

bool Aes::set_key(const String& key, AesEngine engine) {
  return set_key(string_bytes(key), string_size(key), engine);
}

void Aes::encrypt_blocks(const uint8_t* in, uint8_t* out, size_t blocks) const {
  if (!ready())
    std::memset(out, 0, 16 * blocks);
  else if (hardware_)
    aes_ni_encrypt(ni_, in, out, blocks);
  else
    aes_portable_encrypt(portable_, in, out, blocks);
}

void Aes::decrypt_blocks(const uint8_t* in, uint8_t* out, size_t blocks) const {
  if (!ready())
    std::memset(out, 0, 16 * blocks);
  else if (hardware_)
    aes_ni_decrypt(ni_, in, out, blocks);
  else
    aes_portable_decrypt(portable_, in, out, blocks);
}

void Aes::ctr_blocks(uint8_t counter[16], const uint8_t* in, uint8_t* out, size_t blocks) const {
  if (!ready())
    std::memset(out, 0, 16 * blocks);
  else if (hardware_)
    aes_ni_ctr(ni_, counter, in, out, blocks);
  else
    aes_portable_ctr(portable_, counter, in, out, blocks);
}

void Aes::cbc_encrypt_blocks(uint8_t iv[16], const uint8_t* in, uint8_t* out,
                             size_t blocks) const {
  if (!ready())
    std::memset(out, 0, 16 * blocks);
  else if (hardware_)
    aes_ni_cbc_encrypt(ni_, iv, in, out, blocks);
  else
    aes_portable_cbc_encrypt(portable_, iv, in, out, blocks);
}

void Aes::cbc_decrypt_blocks(uint8_t iv[16], const uint8_t* in, uint8_t* out,
                             size_t blocks) const {
  if (!ready())
    std::memset(out, 0, 16 * blocks);
  else if (hardware_)
    aes_ni_cbc_decrypt(ni_, iv, in, out, blocks);
  else
    aes_portable_cbc_decrypt(portable_, iv, in, out, blocks);
}

// ---- counter mode ----

bool AesCtr::init(const uint8_t* key, size_t key_length, const uint8_t* iv, AesEngine engine) {
  if (!aes_.set_key(key, key_length, engine)) return false;
  set_iv(iv);
  return true;
}

bool AesCtr::init(const String& key, const String& iv, AesEngine engine) {
  if (iv.length() != 16) {
    aes_.clear();
    return false;
  }
  return init(string_bytes(key), string_size(key), string_bytes(iv), engine);
}

void AesCtr::set_iv(const uint8_t* iv) {
  std::memcpy(counter_, iv, 16);
  stream_used_ = 16;
}

void AesCtr::update(const uint8_t* in, uint8_t* out, size_t n) {
  while (n > 0 && stream_used_ < 16) {
    *out++ = *in++ ^ stream_[stream_used_++];
    n--;
  }
  if (n >= 16) {
    aes_.ctr_blocks(counter_, in, out, n / 16);
    in += n / 16 * 16;
    out += n / 16 * 16;
    n %= 16;
  }
  if (n > 0) {
    std::memset(stream_, 0, 16);
    aes_.ctr_blocks(counter_, stream_, stream_, 1);
    stream_used_ = 0;
    while (n-- > 0) *out++ = *in++ ^ stream_[stream_used_++];
  }
}

String AesCtr::update(const String& data) {
  String out;
  uint8_t* p = new_string(out, string_size(data));
  if (p) update(string_bytes(data), p, string_size(data));
  return out;
}

String aes_ctr(const String& key, const String& iv, const String& data) {
  AesCtr ctr;
  if (!ctr.init(key, iv)) return String();
  return ctr.update(data);
}

// ---- CBC ----

bool AesCbc::init(const uint8_t* key, size_t key_length, const uint8_t* iv, AesEngine engine) {
  if (!aes_.set_key(key, key_length, engine)) return false;
  set_iv(iv);
  return true;
}

bool AesCbc::init(const String& key, const String& iv, AesEngine engine) {
  if (iv.length() != 16) {
    aes_.clear();
    return false;
  }
  return init(string_bytes(key), string_size(key), string_bytes(iv), engine);
}

void AesCbc::set_iv(const uint8_t* iv) { std::memcpy(iv_, iv, 16); }

bool AesCbc::encrypt(const uint8_t* in, uint8_t* out, size_t n) {
  if (n % 16 != 0 || !aes_.ready()) return false;
  aes_.cbc_encrypt_blocks(iv_, in, out, n / 16);
  return true;
}

bool AesCbc::decrypt(const uint8_t* in, uint8_t* out, size_t n) {
  if (n % 16 != 0 || !aes_.ready()) return false;
  aes_.cbc_decrypt_blocks(iv_, in, out, n / 16);
  return true;
}

String AesCbc::encrypt(const String& data) {
  String out;
  if (data.length() % 16 != 0 || !aes_.ready()) return out;
  uint8_t* p = new_string(out, string_size(data));
  if (p && !encrypt(string_bytes(data), p, string_size(data))) return String();
  return out;
}

String AesCbc::decrypt(const String& data) {
  String out;
  if (data.length() % 16 != 0 || !aes_.ready()) return out;
  uint8_t* p = new_string(out, string_size(data));
  if (p && !decrypt(string_bytes(data), p, string_size(data))) return String();
  return out;
}

String aes_cbc_encrypt(const String& key, const String& iv, const String& data) {
  AesCbc cbc;
  if (!cbc.init(key, iv)) return String();
  return cbc.encrypt(data);
}

String aes_cbc_decrypt(const String& key, const String& iv, const String& data) {
  AesCbc cbc;
  if (!cbc.init(key, iv)) return String();
  return cbc.decrypt(data);
}
