#include "security/gcm.h"

#include "security/constant_time.h"
#include "security/internal/bytes.h"
#include "security/internal/string_bytes.h"

using namespace security_internal;

namespace {

// GCM counts with inc32: only the last four bytes of the counter block step, wrapping
// without a carry into the rest. The engines step all 16 bytes, so each run is cut where
// the low word would wrap and the first 12 bytes are put back.
void ctr_blocks_inc32(const Aes& aes, uint8_t counter[16], const uint8_t* in, uint8_t* out,
                      size_t blocks) {
  while (blocks > 0) {
    uint64_t room = uint64_t{0x100000000} - load32_be(counter + 12);
    size_t n = blocks < room ? blocks : static_cast<size_t>(room);
    uint8_t prefix[12];
    std::memcpy(prefix, counter, 12);
    aes.ctr_blocks(counter, in, out, n);
    std::memcpy(counter, prefix, 12);
    in += 16 * n;
    out += 16 * n;
    blocks -= n;
  }
}

void inc32(uint8_t block[16]) { store32_be(block + 12, load32_be(block + 12) + 1); }

}  // namespace

AesGcm::~AesGcm() {
  wipe(&ghash_, sizeof ghash_);
  wipe(j0_, sizeof j0_);
  wipe(counter_, sizeof counter_);
  wipe(stream_, sizeof stream_);
  wipe(y_, sizeof y_);
  wipe(pending_, sizeof pending_);
}

bool AesGcm::set_key(const uint8_t* key, size_t length, AesEngine engine) {
  if (!aes_.set_key(key, length, engine)) return false;
  uint8_t h[16] = {};
  aes_.encrypt_blocks(h, h, 1);
  // The carry-less multiply instruction goes with the AES instructions; a caller who
  // asked for the portable engine gets a portable GHASH too.
  ghash_set_key(ghash_, h, aes_.hardware());
  wipe(h, sizeof h);
  return true;
}

bool AesGcm::set_key(const String& key, AesEngine engine) {
  return set_key(string_bytes(key), string_size(key), engine);
}

bool AesGcm::start(const uint8_t* iv, size_t iv_length) {
  if (!ready() || iv_length == 0) return false;
  y_[0] = y_[1] = 0;
  if (iv_length == 12) {
    std::memcpy(j0_, iv, 12);
    store32_be(j0_ + 12, 1);
  } else {
    // J0 = GHASH(IV, zero padding, 64 zero bits, bit length of IV)
    ghash_blocks(ghash_, y_, iv, iv_length / 16);
    uint8_t block[16] = {};
    if (iv_length % 16) {
      std::memcpy(block, iv + iv_length / 16 * 16, iv_length % 16);
      ghash_blocks(ghash_, y_, block, 1);
      std::memset(block, 0, 16);
    }
    store64_be(block + 8, static_cast<uint64_t>(iv_length) * 8);
    ghash_blocks(ghash_, y_, block, 1);
    ghash_store(y_, j0_);
    y_[0] = y_[1] = 0;
  }
  std::memcpy(counter_, j0_, 16);
  inc32(counter_);
  aad_length_ = text_length_ = 0;
  crypt_position_ = 0;
  in_text_ = false;
  return true;
}

void AesGcm::add_aad(const uint8_t* data, size_t n) {
  if (in_text_ || n == 0) return;
  size_t used = aad_length_ % 16;
  aad_length_ += n;
  if (used) {
    size_t take = 16 - used < n ? 16 - used : n;
    std::memcpy(pending_ + used, data, take);
    data += take;
    n -= take;
    if (used + take < 16) return;
    ghash_blocks(ghash_, y_, pending_, 1);
  }
  ghash_blocks(ghash_, y_, data, n / 16);
  if (n % 16) std::memcpy(pending_, data + n / 16 * 16, n % 16);
}

void AesGcm::flush_aad() {
  if (in_text_) return;
  size_t used = aad_length_ % 16;
  if (used) {
    std::memset(pending_ + used, 0, 16 - used);
    ghash_blocks(ghash_, y_, pending_, 1);
  }
  in_text_ = true;
}

void AesGcm::hash_text(const uint8_t* data, size_t n) {
  if (n == 0) return;
  size_t used = text_length_ % 16;
  text_length_ += n;
  if (used) {
    size_t take = 16 - used < n ? 16 - used : n;
    std::memcpy(pending_ + used, data, take);
    data += take;
    n -= take;
    if (used + take < 16) return;
    ghash_blocks(ghash_, y_, pending_, 1);
  }
  ghash_blocks(ghash_, y_, data, n / 16);
  if (n % 16) std::memcpy(pending_, data + n / 16 * 16, n % 16);
}

void AesGcm::ctr(const uint8_t* in, uint8_t* out, size_t n) {
  while (n > 0 && crypt_position_ != 0) {
    *out++ = *in++ ^ stream_[crypt_position_];
    crypt_position_ = (crypt_position_ + 1) % 16;
    n--;
  }
  if (n >= 16) {
    ctr_blocks_inc32(aes_, counter_, in, out, n / 16);
    in += n / 16 * 16;
    out += n / 16 * 16;
    n %= 16;
  }
  if (n > 0) {
    std::memset(stream_, 0, 16);
    ctr_blocks_inc32(aes_, counter_, stream_, stream_, 1);
    for (size_t i = 0; i < n; i++) out[i] = in[i] ^ stream_[i];
    crypt_position_ = n;
  }
}

void AesGcm::encrypt(const uint8_t* in, uint8_t* out, size_t n) {
  if (n == 0) return;
  flush_aad();
  ctr(in, out, n);
  hash_text(out, n);
}

void AesGcm::decrypt(const uint8_t* in, uint8_t* out, size_t n) {
  if (n == 0) return;
  flush_aad();
  hash_text(in, n);
  ctr(in, out, n);
}

void AesGcm::compute_tag(uint8_t full[16]) {
  flush_aad();
  size_t used = text_length_ % 16;
  if (used) {
    std::memset(pending_ + used, 0, 16 - used);
    ghash_blocks(ghash_, y_, pending_, 1);
  }
  uint8_t lengths[16];
  store64_be(lengths, aad_length_ * 8);
  store64_be(lengths + 8, text_length_ * 8);
  ghash_blocks(ghash_, y_, lengths, 1);
  uint8_t mask[16];
  aes_.encrypt_blocks(j0_, mask, 1);
  ghash_store(y_, full);
  xor_bytes(full, full, mask, 16);
  wipe(mask, sizeof mask);
}

void AesGcm::finish(uint8_t* tag, size_t tag_length) {
  uint8_t full[16];
  compute_tag(full);
  std::memcpy(tag, full, tag_length < 16 ? tag_length : 16);
}

bool AesGcm::verify(const uint8_t* tag, size_t tag_length) {
  uint8_t full[16];
  compute_tag(full);
  if (tag_length < 4 || tag_length > 16) return false;
  return constant_time_equal(full, tag, tag_length);
}

bool AesGcm::seal(const uint8_t* iv, size_t iv_length, const uint8_t* aad, size_t aad_length,
                  const uint8_t* in, uint8_t* out, size_t n, uint8_t* tag, size_t tag_length) {
  if (!start(iv, iv_length)) return false;
  add_aad(aad, aad_length);
  encrypt(in, out, n);
  finish(tag, tag_length);
  return true;
}

bool AesGcm::open(const uint8_t* iv, size_t iv_length, const uint8_t* aad, size_t aad_length,
                  const uint8_t* in, uint8_t* out, size_t n, const uint8_t* tag,
                  size_t tag_length) {
  if (!start(iv, iv_length)) return false;
  add_aad(aad, aad_length);
  flush_aad();
  hash_text(in, n);
  if (!verify(tag, tag_length)) return false;
  std::memcpy(counter_, j0_, 16);
  inc32(counter_);
  crypt_position_ = 0;
  ctr(in, out, n);
  return true;
}

String AesGcm::seal(const String& iv, const String& aad, const String& plain) {
  String out;
  size_t n = string_size(plain);
  uint8_t* p = new_string(out, n + tag_size);
  if (!seal(string_bytes(iv), string_size(iv), string_bytes(aad), string_size(aad),
            string_bytes(plain), p, n, p + n, tag_size))
    return String();
  return out;
}

bool AesGcm::open(const String& iv, const String& aad, const String& sealed, String& plain,
                  int tag_length) {
  plain = String();
  if (tag_length < 4 || tag_length > 16 || sealed.length() < tag_length) return false;
  size_t n = string_size(sealed) - static_cast<size_t>(tag_length);
  const uint8_t* in = string_bytes(sealed);
  String out;
  uint8_t* p = new_string(out, n);
  if (!open(string_bytes(iv), string_size(iv), string_bytes(aad), string_size(aad), in, p, n,
            in + n, static_cast<size_t>(tag_length)))
    return false;
  plain = out;
  return true;
}

String aes_gcm_seal(const String& key, const String& iv, const String& aad, const String& plain) {
  AesGcm gcm;
  if (!gcm.set_key(key)) return String();
  return gcm.seal(iv, aad, plain);
}

bool aes_gcm_open(const String& key, const String& iv, const String& aad, const String& sealed,
                  String& plain) {
  AesGcm gcm;
  if (!gcm.set_key(key)) {
    plain = String();
    return false;
  }
  return gcm.open(iv, aad, sealed, plain);
}
