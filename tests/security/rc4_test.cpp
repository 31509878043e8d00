#include "security/rc4.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/security/hash_checks.h"

// RFC 6229 key streams (keys of 40 to 256 bits, at offsets up to 4096) and the package's
// arc4.txt: each record is the key stream at OFFSET, XORed with the plaintext.
TEST(Rc4Test, Rfc6229KeyStreams) {
  REQUIRE_VECTORS();
  int checked = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(cryptography_vectors_dir() + "/ciphers/ARC4")) {
    std::string file = entry.path().string();
    for (const auto& r : read_vectors(file)) {
      if (!r.has("KEY")) continue;
      Rc4 rc4;
      ASSERT_TRUE(rc4.init(r.bytes("KEY"))) << file << " " << r.where();
      String skip = String::repeat('\0', r.number("OFFSET"));
      rc4.update(skip);
      EXPECT_EQ(to_hex(rc4.update(r.bytes("PLAINTEXT"))), to_hex(r.bytes("CIPHERTEXT")))
          << file << " " << r.where();
      checked++;
    }
  }
  EXPECT_GT(checked, 250);
}

TEST(Rc4Test, StreamSplitsAtEveryOffset) {
  std::mt19937_64 rng(6);
  String key = pseudo_random_bytes(rng, 16), data = pseudo_random_bytes(rng, 300);
  String whole = rc4(key, data);
  ASSERT_EQ(whole.length(), data.length());
  for (int cut = 0; cut <= 129; cut++) {
    Rc4 r;
    ASSERT_TRUE(r.init(key));
    String out = r.update(data.head(cut));
    out += r.update(String());
    out += r.update(data.tail(cut));
    EXPECT_EQ(out, whole) << cut;
  }
  EXPECT_EQ(rc4(key, whole), data);
}

TEST(Rc4Test, KeyLengthsOutsideOneTo256AreRefused) {
  Rc4 r;
  EXPECT_FALSE(r.init(String()));
  EXPECT_FALSE(r.ready());
  EXPECT_FALSE(r.init(String::repeat('k', 257)));
  EXPECT_TRUE(rc4(String(), String("data")).empty());
  EXPECT_TRUE(r.init(String("k")));
  EXPECT_TRUE(r.init(String::repeat('k', 256)));
  EXPECT_TRUE(rc4(String("key"), String()).empty());
}
