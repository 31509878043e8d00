#include "security/sha1.h"

#include <gtest/gtest.h>

#include "tests/security/hash_checks.h"

// NIST CAVP SHAVS response files (FIPS 180-4 byte-oriented tests).
TEST(Sha1Test, NistShortAndLongMessages) {
  REQUIRE_VECTORS();
  const std::string dir = cryptography_vectors_dir() + "/hashes/SHA1/";
  EXPECT_EQ(check_message_file<Sha1>(dir + "SHA1ShortMsg.rsp", sha1), 65);
  EXPECT_EQ(check_message_file<Sha1>(dir + "SHA1LongMsg.rsp", sha1), 64);
}

TEST(Sha1Test, NistMonteCarlo) {
  REQUIRE_VECTORS();
  EXPECT_EQ(check_monte_file<Sha1>(cryptography_vectors_dir() + "/hashes/SHA1/SHA1Monte.rsp"), 100);
}

TEST(Sha1Test, IncrementalSplitsAtEveryOffset) { check_incremental_splits<Sha1>(sha1); }

TEST(Sha1Test, EmptyInputAndReuse) {
  check_empty_and_reuse<Sha1>(sha1, "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

// RFC 6455 section 1.3: the WebSocket accept value is built on SHA-1.
TEST(Sha1Test, WebSocketExampleKey) {
  String digest = sha1(String("dGhlIHNhbXBsZSBub25jZQ==258EAFA5-E914-47DA-95CA-C5AB0DC85B11"));
  EXPECT_EQ(to_hex(digest), "b37a4f2cc0624f1690f64606cf385945b2bec4ea");
}
