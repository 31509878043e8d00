// AES-128 and AES-256 (FIPS 197) with the modes the system uses: the block cipher itself,
// counter mode (SP 800-38A; the table store's cell cipher, SRTP), CBC without padding
// (TLS records pad themselves). GCM is in gcm.h.
//
// Two engines: the processor's AES instructions where present, chosen at run time, and a
// portable bitsliced one without tables, so that neither leaks key or data through cache
// timing. Keys other than 16 or 32 bytes are refused: set_key and init return false, and
// the one-shot forms return an empty String.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/string.h"
#include "security/internal/aes_ni.h"
#include "security/internal/aes_portable.h"

enum class AesEngine { automatic, portable, hardware };

// True when this processor has AES instructions that the build can use.
bool aes_hardware_available();

class Aes {
 public:
  static constexpr int block_size = 16;

  Aes() = default;
  Aes(const Aes&) = default;
  Aes& operator=(const Aes&) = default;
  ~Aes();

  // False for a key of another length than 16 or 32 bytes, or when `hardware` is asked
  // for and not present; the object then holds no key.
  [[nodiscard]] bool set_key(const uint8_t* key, size_t length,
                             AesEngine engine = AesEngine::automatic);
  [[nodiscard]] bool set_key(const String& key, AesEngine engine = AesEngine::automatic);
  void clear();

  bool ready() const { return rounds_ != 0; }
  bool hardware() const { return hardware_; }
  int key_bits() const { return rounds_ == 14 ? 256 : rounds_ == 10 ? 128 : 0; }

  // Whole blocks; in and out may be the same buffer. Without a key the output is zeros.
  void encrypt_blocks(const uint8_t* in, uint8_t* out, size_t blocks) const;
  void decrypt_blocks(const uint8_t* in, uint8_t* out, size_t blocks) const;
  // Counter mode: `counter` is the 16-byte big-endian counter block, advanced per block.
  void ctr_blocks(uint8_t counter[16], const uint8_t* in, uint8_t* out, size_t blocks) const;
  // CBC: `iv` is the chaining value, left as the last cipher block for the next call.
  void cbc_encrypt_blocks(uint8_t iv[16], const uint8_t* in, uint8_t* out, size_t blocks) const;
  void cbc_decrypt_blocks(uint8_t iv[16], const uint8_t* in, uint8_t* out, size_t blocks) const;

 private:
  int rounds_ = 0;
  bool hardware_ = false;
  union {
    security_internal::AesPortableKey portable_;
    security_internal::AesNiKey ni_;
  };
};

// Counter mode as a stream: update may be called with any lengths; encryption and
// decryption are the same operation.
class AesCtr {
 public:
  // The iv is the first counter block, 16 bytes.
  [[nodiscard]] bool init(const uint8_t* key, size_t key_length, const uint8_t* iv,
                          AesEngine engine = AesEngine::automatic);
  [[nodiscard]] bool init(const String& key, const String& iv,
                          AesEngine engine = AesEngine::automatic);
  // A new first counter block under the same key (SRTP sets one per packet).
  void set_iv(const uint8_t* iv);
  void update(const uint8_t* in, uint8_t* out, size_t n);
  String update(const String& data);
  bool hardware() const { return aes_.hardware(); }

 private:
  Aes aes_;
  uint8_t counter_[16] = {};
  uint8_t stream_[16] = {};
  size_t stream_used_ = 16;
};

// CBC without padding. The chaining value carries over between calls, as the records of
// TLS 1.0 need; lengths must be whole blocks.
class AesCbc {
 public:
  [[nodiscard]] bool init(const uint8_t* key, size_t key_length, const uint8_t* iv,
                          AesEngine engine = AesEngine::automatic);
  [[nodiscard]] bool init(const String& key, const String& iv,
                          AesEngine engine = AesEngine::automatic);
  void set_iv(const uint8_t* iv);
  // False, and nothing done, when n is not a multiple of 16 or there is no key.
  [[nodiscard]] bool encrypt(const uint8_t* in, uint8_t* out, size_t n);
  [[nodiscard]] bool decrypt(const uint8_t* in, uint8_t* out, size_t n);
  // Empty for a length that is not a multiple of 16.
  String encrypt(const String& data);
  String decrypt(const String& data);
  bool hardware() const { return aes_.hardware(); }

 private:
  Aes aes_;
  uint8_t iv_[16] = {};
};

// One-shot forms; empty on a bad key or iv length (and for CBC a partial block).
String aes_ctr(const String& key, const String& iv, const String& data);
String aes_cbc_encrypt(const String& key, const String& iv, const String& data);
String aes_cbc_decrypt(const String& key, const String& iv, const String& data);
