#include "security/rc4.h"

#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

Rc4::~Rc4() { wipe(s_, sizeof s_); }

bool Rc4::init(const uint8_t* key, size_t length) {
  ready_ = false;
  i_ = j_ = 0;
  if (length == 0 || length > 256) return false;
  for (int i = 0; i < 256; i++) s_[i] = static_cast<uint8_t>(i);
  uint8_t j = 0;
  for (int i = 0; i < 256; i++) {
    j = static_cast<uint8_t>(j + s_[i] + key[i % length]);
    uint8_t t = s_[i];
    s_[i] = s_[j];
    s_[j] = t;
  }
  ready_ = true;
  return true;
}

bool Rc4::init(const String& key) { return init(string_bytes(key), string_size(key)); }

void Rc4::update(const uint8_t* in, uint8_t* out, size_t n) {
  if (!ready_) {
    if (n) std::memset(out, 0, n);
    return;
  }
  uint8_t i = i_, j = j_;
  for (size_t k = 0; k < n; k++) {
    i = static_cast<uint8_t>(i + 1);
    uint8_t si = s_[i];
    j = static_cast<uint8_t>(j + si);
    uint8_t sj = s_[j];
    s_[i] = sj;
    s_[j] = si;
    out[k] = in[k] ^ s_[static_cast<uint8_t>(si + sj)];
  }
  i_ = i;
  j_ = j;
}

String Rc4::update(const String& data) {
  String out;
  uint8_t* p = new_string(out, string_size(data));
  if (p) update(string_bytes(data), p, string_size(data));
  return out;
}

String rc4(const String& key, const String& data) {
  Rc4 r;
  if (!r.init(key)) return String();
  return r.update(data);
}
