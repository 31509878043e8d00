#include "security/sha256.h"

#include <gtest/gtest.h>

#include "tests/security/hash_checks.h"

// NIST CAVP SHAVS response files (FIPS 180-4 byte-oriented tests).
TEST(Sha256Test, NistShortAndLongMessages) {
  REQUIRE_VECTORS();
  const std::string dir = cryptography_vectors_dir() + "/hashes/SHA2/";
  EXPECT_EQ(check_message_file<Sha256>(dir + "SHA256ShortMsg.rsp", sha256), 65);
  EXPECT_EQ(check_message_file<Sha256>(dir + "SHA256LongMsg.rsp", sha256), 64);
}

TEST(Sha256Test, NistMonteCarlo) {
  REQUIRE_VECTORS();
  EXPECT_EQ(check_monte_file<Sha256>(cryptography_vectors_dir() + "/hashes/SHA2/SHA256Monte.rsp"),
            100);
}

TEST(Sha256Test, IncrementalSplitsAtEveryOffset) { check_incremental_splits<Sha256>(sha256); }

TEST(Sha256Test, EmptyInputAndReuse) {
  check_empty_and_reuse<Sha256>(
      sha256, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}
