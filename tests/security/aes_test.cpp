#include "security/aes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/security/hash_checks.h"

namespace {

// Every test runs on the portable engine, and on the AES instructions where present.
std::vector<AesEngine> engines() {
  std::vector<AesEngine> out{AesEngine::portable};
  if (aes_hardware_available()) out.push_back(AesEngine::hardware);
  return out;
}

const char* engine_name(AesEngine e) {
  return e == AesEngine::hardware ? "hardware" : e == AesEngine::portable ? "portable" : "auto";
}

String ecb(const String& key, const String& data, bool decrypt, AesEngine engine) {
  Aes aes;
  if (!aes.set_key(key, engine) || data.length() % 16) return String();
  String out(data);
  uint8_t* p = reinterpret_cast<uint8_t*>(out.writable_data());
  if (decrypt)
    aes.decrypt_blocks(p, p, static_cast<size_t>(data.length() / 16));
  else
    aes.encrypt_blocks(p, p, static_cast<size_t>(data.length() / 16));
  return out;
}

// The NIST AESAVS files for the key sizes the system uses (AES-192 is refused).
const char* const kat_kinds[] = {"GFSbox", "KeySbox", "VarKey", "VarTxt", "MMT"};
const char* const key_bits[] = {"128", "256"};

}  // namespace

TEST(AesTest, NistEcbKnownAnswersAndMultiBlockMessages) {
  REQUIRE_VECTORS();
  for (AesEngine engine : engines()) {
    int checked = 0;
    for (const char* kind : kat_kinds) {
      for (const char* bits : key_bits) {
        std::string file = cryptography_vectors_dir() + "/ciphers/AES/ECB/ECB" + kind + bits + ".rsp";
        for (const auto& r : read_vectors(file)) {
          String key = r.bytes("KEY"), plain = r.bytes("PLAINTEXT"), cipher = r.bytes("CIPHERTEXT");
          EXPECT_EQ(to_hex(ecb(key, plain, false, engine)), to_hex(cipher))
              << file << " " << r.where() << " " << engine_name(engine);
          EXPECT_EQ(to_hex(ecb(key, cipher, true, engine)), to_hex(plain))
              << file << " " << r.where() << " " << engine_name(engine);
          checked++;
        }
      }
    }
    EXPECT_GT(checked, 1000);
  }
}

TEST(AesTest, NistCbcKnownAnswersAndMultiBlockMessages) {
  REQUIRE_VECTORS();
  for (AesEngine engine : engines()) {
    int checked = 0;
    for (const char* kind : kat_kinds) {
      for (const char* bits : key_bits) {
        std::string file = cryptography_vectors_dir() + "/ciphers/AES/CBC/CBC" + kind + bits + ".rsp";
        for (const auto& r : read_vectors(file)) {
          String key = r.bytes("KEY"), iv = r.bytes("IV");
          String plain = r.bytes("PLAINTEXT"), cipher = r.bytes("CIPHERTEXT");
          AesCbc enc, dec;
          ASSERT_TRUE(enc.init(key, iv, engine));
          ASSERT_TRUE(dec.init(key, iv, engine));
          EXPECT_EQ(to_hex(enc.encrypt(plain)), to_hex(cipher)) << file << " " << r.where();
          EXPECT_EQ(to_hex(dec.decrypt(cipher)), to_hex(plain)) << file << " " << r.where();
          checked++;
        }
      }
    }
    EXPECT_GT(checked, 1000);
  }
  // The one-shot forms, on the engine chosen at run time.
  for (const auto& r : read_vectors(cryptography_vectors_dir() + "/ciphers/AES/CBC/CBCMMT256.rsp")) {
    String key = r.bytes("KEY"), iv = r.bytes("IV");
    EXPECT_EQ(aes_cbc_encrypt(key, iv, r.bytes("PLAINTEXT")), r.bytes("CIPHERTEXT")) << r.where();
    EXPECT_EQ(aes_cbc_decrypt(key, iv, r.bytes("CIPHERTEXT")), r.bytes("PLAINTEXT")) << r.where();
  }
}

// RFC 3686 section 6 (as shipped in the package): counter mode with partial last blocks.
TEST(AesTest, Rfc3686CounterMode) {
  REQUIRE_VECTORS();
  for (AesEngine engine : engines()) {
    int checked = 0;
    for (const char* bits : key_bits) {
      std::string file = cryptography_vectors_dir() + "/ciphers/AES/CTR/aes-" + bits + "-ctr.txt";
      for (const auto& r : read_vectors(file)) {
        AesCtr ctr;
        ASSERT_TRUE(ctr.init(r.bytes("KEY"), r.bytes("IV"), engine));
        EXPECT_EQ(to_hex(ctr.update(r.bytes("PLAINTEXT"))), to_hex(r.bytes("CIPHERTEXT")))
            << file << " " << r.where();
        EXPECT_EQ(aes_ctr(r.bytes("KEY"), r.bytes("IV"), r.bytes("CIPHERTEXT")), r.bytes("PLAINTEXT"));
        checked++;
      }
    }
    EXPECT_EQ(checked, 6);
  }
}

// SP 800-38A F.5.1 and F.5.5, the vectors with the counter ending in ...fcfd, ...fcfe, ...
TEST(AesTest, Sp80038aCounterVectors) {
  String plain = from_hex(
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  String iv = from_hex("f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
  const struct {
    const char* key;
    const char* cipher;
  } table[] = {
      {"2b7e151628aed2a6abf7158809cf4f3c",
       "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
       "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee"},
      {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
       "601ec313775789a5b7a7f504bbf3d228f443e3ca4d62b59aca84e990cacaf5c5"
       "2b0930daa23de94ce87017ba2d84988ddfc9c58db67aada613c2dd08457941a6"},
  };
  for (AesEngine engine : engines()) {
    for (const auto& t : table) {
      AesCtr ctr;
      ASSERT_TRUE(ctr.init(from_hex(t.key), iv, engine));
      EXPECT_EQ(to_hex(ctr.update(plain)), t.cipher) << engine_name(engine);
    }
  }
}

// Keys of any length but 16 and 32 bytes are refused with a clear result.
TEST(AesTest, WrongKeyLengthsAreRefused) {
  for (int length : {0, 1, 8, 15, 17, 24, 31, 33, 48, 64}) {
    String key = String::repeat('k', length);
    String iv = String::repeat('i', 16);
    Aes aes;
    EXPECT_FALSE(aes.set_key(key)) << length;
    EXPECT_FALSE(aes.ready()) << length;
    EXPECT_EQ(aes.key_bits(), 0);
    AesCtr ctr;
    EXPECT_FALSE(ctr.init(key, iv)) << length;
    AesCbc cbc;
    EXPECT_FALSE(cbc.init(key, iv)) << length;
    EXPECT_TRUE(aes_ctr(key, iv, String("data")).empty()) << length;
    EXPECT_TRUE(aes_cbc_encrypt(key, iv, String::repeat('p', 32)).empty()) << length;
    EXPECT_TRUE(aes_cbc_decrypt(key, iv, String::repeat('p', 32)).empty()) << length;
  }
  // A good key with a wrong iv length is refused as well.
  EXPECT_TRUE(aes_ctr(String::repeat('k', 16), String::repeat('i', 15), String("data")).empty());
  EXPECT_TRUE(aes_cbc_encrypt(String::repeat('k', 16), String::repeat('i', 17),
                              String::repeat('p', 16)).empty());
  // A key that failed leaves no old key behind.
  Aes aes;
  ASSERT_TRUE(aes.set_key(String::repeat('k', 16)));
  EXPECT_FALSE(aes.set_key(String::repeat('k', 24)));
  EXPECT_FALSE(aes.ready());
  uint8_t block[16] = {1, 2, 3};
  aes.encrypt_blocks(block, block, 1);
  EXPECT_EQ(to_hex(String(block, 16)), std::string(32, '0'));
}

TEST(AesTest, CbcNeedsWholeBlocksAndChainsAcrossCalls) {
  String key = String::repeat('k', 32), iv = String::repeat('i', 16);
  EXPECT_TRUE(aes_cbc_encrypt(key, iv, String::repeat('p', 15)).empty());
  EXPECT_TRUE(aes_cbc_decrypt(key, iv, String::repeat('p', 17)).empty());
  EXPECT_TRUE(aes_cbc_encrypt(key, iv, String()).empty());
  std::mt19937_64 rng(3);
  String plain = pseudo_random_bytes(rng, 16 * 21);
  String whole = aes_cbc_encrypt(key, iv, plain);
  ASSERT_EQ(whole.length(), plain.length());
  for (AesEngine engine : engines()) {
    AesCbc enc, dec;
    ASSERT_TRUE(enc.init(key, iv, engine));
    ASSERT_TRUE(dec.init(key, iv, engine));
    String pieces, back;
    for (int from = 0; from < plain.length();) {
      int n = 16 * (1 + from / 16 % 9);
      if (from + n > plain.length()) n = plain.length() - from;
      String c = enc.encrypt(plain.substr(from, n));
      pieces += c;
      back += dec.decrypt(c);
      from += n;
    }
    EXPECT_EQ(pieces, whole) << engine_name(engine);
    EXPECT_EQ(back, plain) << engine_name(engine);
    uint8_t buf[15] = {};
    EXPECT_FALSE(enc.encrypt(buf, buf, 15));
  }
}

// Counter mode as a stream: cut at every offset 0..129, in three pieces, and byte by byte.
TEST(AesTest, CounterStreamSplitsAtEveryOffset) {
  std::mt19937_64 rng(5);
  String key = pseudo_random_bytes(rng, 16), iv = pseudo_random_bytes(rng, 16);
  String plain = pseudo_random_bytes(rng, 400);
  String whole = aes_ctr(key, iv, plain);
  for (AesEngine engine : engines()) {
    for (int cut = 0; cut <= 129; cut++) {
      AesCtr ctr;
      ASSERT_TRUE(ctr.init(key, iv, engine));
      String out = ctr.update(plain.head(cut));
      out += ctr.update(plain.substr(cut, 1 + cut % 37));
      out += ctr.update(plain.tail(cut + 1 + cut % 37));
      EXPECT_EQ(out, whole) << "cut " << cut << " " << engine_name(engine);
    }
    AesCtr ctr;
    ASSERT_TRUE(ctr.init(key, iv, engine));
    String out;
    for (int i = 0; i < plain.length(); i++) out += ctr.update(plain.substr(i, 1));
    EXPECT_EQ(out, whole) << engine_name(engine);
  }
}

// The counter is one 128-bit big-endian number: it carries across all 16 bytes and wraps
// to zero, as OpenSSL's and SP 800-38A's counter does.
TEST(AesTest, CounterCarriesAcrossAllBytes) {
  String key = String::repeat('k', 16);
  String plain = String::repeat('\0', 16 * 20);
  const char* const starts[] = {"00000000000000000000000000000000",
                                "0000000000000000fffffffffffffff9",
                                "000000000000000000000000fffffffa",
                                "fffffffffffffffffffffffffffffffc"};
  for (const char* start : starts) {
    // The expected key stream: E(counter + i) block by block.
    String counters;
    String counter = from_hex(start);
    for (int i = 0; i < 20; i++) {
      counters += counter;
      std::string bytes = to_std(counter);
      for (int b = 15; b >= 0; b--)
        if (++bytes[b] != 0) break;
      counter = String(bytes.data(), 16);
    }
    for (AesEngine engine : engines()) {
      AesCtr ctr;
      ASSERT_TRUE(ctr.init(key, from_hex(start), engine));
      EXPECT_EQ(ctr.update(plain), ecb(key, counters, false, engine)) << start << engine_name(engine);
    }
  }
}

// The two engines give the same bytes for every mode on messages of many lengths.
TEST(AesTest, EnginesAgree) {
  if (!aes_hardware_available()) GTEST_SKIP() << "no AES instructions on this processor";
  std::mt19937_64 rng(9);
  for (int round = 0; round < 200; round++) {
    String key = pseudo_random_bytes(rng, round % 2 ? 32 : 16);
    String iv = pseudo_random_bytes(rng, 16);
    size_t blocks = rng() % 40;
    String data = pseudo_random_bytes(rng, 16 * blocks + rng() % 16);
    AesCtr a, b;
    ASSERT_TRUE(a.init(key, iv, AesEngine::portable));
    ASSERT_TRUE(b.init(key, iv, AesEngine::hardware));
    EXPECT_EQ(a.update(data), b.update(data));
    String whole = data.head(static_cast<int>(16 * blocks));
    EXPECT_EQ(ecb(key, whole, false, AesEngine::portable), ecb(key, whole, false, AesEngine::hardware));
    EXPECT_EQ(ecb(key, whole, true, AesEngine::portable), ecb(key, whole, true, AesEngine::hardware));
    AesCbc c, d;
    ASSERT_TRUE(c.init(key, iv, AesEngine::portable));
    ASSERT_TRUE(d.init(key, iv, AesEngine::hardware));
    String ce = c.encrypt(whole);
    EXPECT_EQ(ce, d.encrypt(whole));
    ASSERT_TRUE(c.init(key, iv, AesEngine::portable));
    EXPECT_EQ(c.decrypt(ce), whole);
  }
}

TEST(AesTest, ZeroLengthInputs) {
  String key = String::repeat('k', 16), iv = String::repeat('i', 16);
  EXPECT_TRUE(aes_ctr(key, iv, String()).empty());
  AesCtr ctr;
  ASSERT_TRUE(ctr.init(key, iv));
  ctr.update(nullptr, nullptr, 0);
  EXPECT_TRUE(ctr.update(String()).empty());
  // Nothing was used up: the next byte is the first of the key stream.
  EXPECT_EQ(ctr.update(String("x")), aes_ctr(key, iv, String("x")));
  AesCbc cbc;
  ASSERT_TRUE(cbc.init(key, iv));
  EXPECT_TRUE(cbc.encrypt(String()).empty());
  Aes aes;
  ASSERT_TRUE(aes.set_key(key));
  aes.encrypt_blocks(nullptr, nullptr, 0);
}

TEST(AesTest, EngineChoice) {
  Aes aes;
  ASSERT_TRUE(aes.set_key(String::repeat('k', 32), AesEngine::portable));
  EXPECT_FALSE(aes.hardware());
  EXPECT_EQ(aes.key_bits(), 256);
  ASSERT_TRUE(aes.set_key(String::repeat('k', 16)));
  EXPECT_EQ(aes.hardware(), aes_hardware_available());
  EXPECT_EQ(aes.key_bits(), 128);
  EXPECT_EQ(aes.set_key(String::repeat('k', 16), AesEngine::hardware), aes_hardware_available());
}
