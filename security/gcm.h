// AES-GCM (SP 800-38D), the AEAD of the TLS suite TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256.
//
// Incremental use: set_key once; per message start(iv), add_aad(...)*, encrypt(...)* or
// decrypt(...)*, then finish(tag) or verify(tag). A decrypting caller that streams must not
// use the plaintext before verify() has said yes; open() does it the safe way round: it
// checks the tag over the ciphertext first and writes plaintext only when it holds.
// Tags of 4 to 16 bytes are accepted (NIST allows truncation); the IV may have any
// length from 1 byte, 12 bytes being the fast and usual case.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"
#include "security/aes.h"
#include "security/internal/ghash.h"

class AesGcm {
 public:
  static constexpr int tag_size = 16;

  AesGcm() = default;
  ~AesGcm();

  // False for a key other than 16 or 32 bytes (or `hardware` when absent).
  [[nodiscard]] bool set_key(const uint8_t* key, size_t length,
                             AesEngine engine = AesEngine::automatic);
  [[nodiscard]] bool set_key(const String& key, AesEngine engine = AesEngine::automatic);
  bool ready() const { return aes_.ready(); }
  bool hardware() const { return aes_.hardware(); }

  // False without a key or with an empty iv.
  [[nodiscard]] bool start(const uint8_t* iv, size_t iv_length);
  // All associated data comes before the first encrypt or decrypt.
  void add_aad(const uint8_t* data, size_t n);
  void encrypt(const uint8_t* in, uint8_t* out, size_t n);
  void decrypt(const uint8_t* in, uint8_t* out, size_t n);
  // Ends the message and writes the first tag_length (at most 16) bytes of the tag.
  void finish(uint8_t* tag, size_t tag_length);
  // Ends the message and compares in constant time; false for a length outside 4..16.
  [[nodiscard]] bool verify(const uint8_t* tag, size_t tag_length);

  // One message: the cipher text followed by a 16-byte tag. Empty on a bad iv or no key.
  String seal(const String& iv, const String& aad, const String& plain);
  // Takes the cipher text with its tag behind it; false, and `plain` empty, when the tag
  // does not hold, the input is shorter than the tag, or the iv or key is bad.
  [[nodiscard]] bool open(const String& iv, const String& aad, const String& sealed,
                          String& plain, int tag_length = tag_size);
  // Raw forms of the same.
  [[nodiscard]] bool seal(const uint8_t* iv, size_t iv_length, const uint8_t* aad,
                          size_t aad_length, const uint8_t* in, uint8_t* out, size_t n,
                          uint8_t* tag, size_t tag_length);
  [[nodiscard]] bool open(const uint8_t* iv, size_t iv_length, const uint8_t* aad,
                          size_t aad_length, const uint8_t* in, uint8_t* out, size_t n,
                          const uint8_t* tag, size_t tag_length);

 private:
  void flush_aad();
  void ctr(const uint8_t* in, uint8_t* out, size_t n);
  void hash_text(const uint8_t* data, size_t n);
  void compute_tag(uint8_t full[16]);

  Aes aes_;
  security_internal::GhashKey ghash_{};
  uint8_t j0_[16] = {};       // first counter block; E(j0) masks the tag
  uint8_t counter_[16] = {};  // next counter block of the cipher stream
  uint8_t stream_[16] = {};   // key stream of a partly used block
  uint64_t y_[2] = {};        // the running GHASH value
  uint8_t pending_[16] = {};  // bytes of a partial block waiting for GHASH
  uint64_t aad_length_ = 0;
  uint64_t text_length_ = 0;
  size_t crypt_position_ = 0;  // bytes of text processed, modulo 16, for the key stream
  bool in_text_ = false;
};

// One-shot forms: the sealed form is cipher text and a 16-byte tag.
String aes_gcm_seal(const String& key, const String& iv, const String& aad, const String& plain);
[[nodiscard]] bool aes_gcm_open(const String& key, const String& iv, const String& aad,
                                const String& sealed, String& plain);
