#include "security/sha512.h"

#include <gtest/gtest.h>

#include "tests/security/hash_checks.h"

// NIST CAVP SHAVS response files (FIPS 180-4 byte-oriented tests).
TEST(Sha512Test, NistShortAndLongMessages) {
  REQUIRE_VECTORS();
  const std::string dir = cryptography_vectors_dir() + "/hashes/SHA2/";
  EXPECT_EQ(check_message_file<Sha512>(dir + "SHA512ShortMsg.rsp", sha512), 129);
  EXPECT_EQ(check_message_file<Sha512>(dir + "SHA512LongMsg.rsp", sha512), 128);
  EXPECT_EQ(check_message_file<Sha384>(dir + "SHA384ShortMsg.rsp", sha384), 129);
  EXPECT_EQ(check_message_file<Sha384>(dir + "SHA384LongMsg.rsp", sha384), 128);
}

TEST(Sha512Test, NistMonteCarlo) {
  REQUIRE_VECTORS();
  const std::string dir = cryptography_vectors_dir() + "/hashes/SHA2/";
  EXPECT_EQ(check_monte_file<Sha512>(dir + "SHA512Monte.rsp"), 100);
  EXPECT_EQ(check_monte_file<Sha384>(dir + "SHA384Monte.rsp"), 100);
}

TEST(Sha512Test, IncrementalSplitsAtEveryOffset) {
  check_incremental_splits<Sha512>(sha512);
  check_incremental_splits<Sha384>(sha384);
}

TEST(Sha512Test, EmptyInputAndReuse) {
  check_empty_and_reuse<Sha512>(sha512,
                                "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
                                "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e");
  check_empty_and_reuse<Sha384>(sha384,
                                "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da"
                                "274edebfe76f65fbd51ad2f14898b95b");
}
