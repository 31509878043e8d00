#include "security/md5.h"

#include <gtest/gtest.h>

#include "tests/security/hash_checks.h"

// RFC 1321, appendix A.5.
TEST(Md5Test, Rfc1321TestSuite) {
  auto records = read_vectors(security_data_dir() + "/rfc1321_md5.txt");
  ASSERT_EQ(records.size(), 7u);
  for (const auto& r : records) {
    std::string text = r.text("TEXT");
    String msg(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(to_hex(md5(msg)), r.text("MD")) << r.where();
  }
}

// The package's copy of the same suite, in hexadecimal.
TEST(Md5Test, PackagedRfc1321Vectors) {
  REQUIRE_VECTORS();
  int n = check_message_file<Md5>(cryptography_vectors_dir() + "/hashes/MD5/rfc-1321.txt", md5);
  EXPECT_EQ(n, 7);
}

TEST(Md5Test, IncrementalSplitsAtEveryOffset) { check_incremental_splits<Md5>(md5); }

TEST(Md5Test, EmptyInputAndReuse) {
  check_empty_and_reuse<Md5>(md5, "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5Test, RawFormMatchesStringForm) {
  const uint8_t msg[] = "message digest";
  uint8_t out[16];
  ::md5(msg, 14, out);
  EXPECT_EQ(to_hex(String(out, 16)), "f96b697d7cb7938d525a2f31aaf161d0");
}
