#include "security/hmac.h"

#include <gtest/gtest.h>

#include "security/digest.h"
#include "tests/security/hash_checks.h"

namespace {

struct HmacCase {
  const char* file;     // in tests/security/data
  const char* section;  // "" or the [NAME] of the part that applies
  HashKind kind;
};

// One table for the RFC data files: RFC 2202 sections 2 and 3, RFC 4231 section 4.
const HmacCase rfc_files[] = {
    {"rfc2202_hmac_md5.txt", "", HashKind::md5},
    {"rfc2202_hmac_sha1.txt", "", HashKind::sha1},
    {"rfc4231_hmac_sha2.txt", "SHA256", HashKind::sha256},
    {"rfc4231_hmac_sha2.txt", "SHA384", HashKind::sha384},
    {"rfc4231_hmac_sha2.txt", "SHA512", HashKind::sha512},
};

}  // namespace

TEST(HmacTest, RfcVectorsFromDataFiles) {
  for (const auto& c : rfc_files) {
    int checked = 0;
    for (const auto& r : read_vectors(security_data_dir() + "/" + c.file)) {
      if (r.section_name != c.section) continue;
      String mac = hmac(c.kind, r.bytes("KEY"), r.bytes("DATA"));
      if (r.has("TRUNCATE")) mac = mac.head(r.number("TRUNCATE"));
      EXPECT_EQ(to_hex(mac), r.text("MD")) << c.file << " " << c.section << " " << r.where();
      checked++;
    }
    EXPECT_EQ(checked, 7) << c.file << " " << c.section;
  }
}

// The RFC files of python3-cryptography-vectors (full, untruncated digests).
TEST(HmacTest, PackagedRfcVectors) {
  REQUIRE_VECTORS();
  const struct {
    const char* file;
    HashKind kind;
    int count;
  } files[] = {
      {"rfc-2202-md5.txt", HashKind::md5, 7},       {"rfc-2202-sha1.txt", HashKind::sha1, 7},
      {"rfc-4231-sha256.txt", HashKind::sha256, 6}, {"rfc-4231-sha384.txt", HashKind::sha384, 6},
      {"rfc-4231-sha512.txt", HashKind::sha512, 6},
  };
  for (const auto& f : files) {
    int checked = 0;
    for (const auto& r : read_vectors(cryptography_vectors_dir() + "/HMAC/" + f.file)) {
      if (!r.has("MD")) continue;
      EXPECT_EQ(to_hex(hmac(f.kind, r.bytes("KEY"), r.bytes("MSG"))), r.text("MD"))
          << f.file << " " << r.where();
      checked++;
    }
    EXPECT_EQ(checked, f.count) << f.file;
  }
}

// The key state is computed once; messages after it, incremental or one-shot, give the
// same MACs as a fresh object each time.
TEST(HmacTest, KeyStateIsReusedAcrossMessages) {
  std::mt19937_64 rng(7);
  String key = pseudo_random_bytes(rng, 20);
  HmacSha1 keyed(key);
  for (int length : {0, 1, 55, 56, 63, 64, 65, 172, 1000}) {
    String msg = pseudo_random_bytes(rng, length);
    String expect = hmac_sha1(key, msg);
    EXPECT_EQ(keyed.mac(msg), expect) << length;
    keyed.init();
    keyed.update(msg.head(length / 2));
    keyed.update(msg.tail(length / 2));
    EXPECT_EQ(keyed.final(), expect) << length;
    // final() leaves the object ready for the next message under the same key
    keyed.update(msg);
    EXPECT_EQ(keyed.final(), expect) << length;
  }
}

TEST(HmacTest, IncrementalSplitsAtEveryOffset) {
  std::mt19937_64 rng(11);
  String key = pseudo_random_bytes(rng, 33);
  String msg = pseudo_random_bytes(rng, 300);
  HmacSha256 keyed(key);
  String whole = keyed.mac(msg);
  for (int cut = 0; cut <= 129; cut++) {
    keyed.init();
    keyed.update(msg.head(cut));
    keyed.update(msg.tail(cut));
    EXPECT_EQ(keyed.final(), whole) << cut;
  }
}

// Keys of any length are valid: empty, up to a block, and longer (hashed first).
TEST(HmacTest, KeyLengthsAroundTheBlockSize) {
  String msg("message");
  // HMAC with an empty key equals HMAC with a key of block-size zero bytes (RFC 2104 pads).
  EXPECT_EQ(hmac_sha256(String(), msg), hmac_sha256(String::repeat('\0', 64), msg));
  EXPECT_EQ(hmac_sha512(String(), msg), hmac_sha512(String::repeat('\0', 128), msg));
  // A key longer than a block acts as its hash.
  String long_key = String::repeat('k', 200);
  EXPECT_EQ(hmac_sha1(long_key, msg), hmac_sha1(sha1(long_key), msg));
  EXPECT_EQ(hmac_md5(long_key, msg), hmac_md5(md5(long_key), msg));
  EXPECT_EQ(hmac_sha384(long_key, msg), hmac_sha384(sha384(long_key), msg));
  HmacMd5 empty;
  EXPECT_EQ(empty.mac(msg), hmac_md5(String(), msg));
}

TEST(DigestTest, KindsByNameAndSize) {
  const struct {
    const char* name;
    HashKind kind;
    int size;
  } table[] = {{"md5", HashKind::md5, 16},         {"SHA1", HashKind::sha1, 20},
               {"sha-256", HashKind::sha256, 32},  {"sha384", HashKind::sha384, 48},
               {"SHA-512", HashKind::sha512, 64},  {"sha224", HashKind::none, 0},
               {"", HashKind::none, 0}};
  for (const auto& t : table) {
    EXPECT_EQ(hash_kind_from_name(String(t.name)), t.kind) << t.name;
    EXPECT_EQ(digest_size(t.kind), t.size) << t.name;
    EXPECT_EQ(digest(t.kind, String("abc")).length(), t.size) << t.name;
    EXPECT_EQ(hmac(t.kind, String("k"), String("abc")).length(), t.size) << t.name;
  }
  EXPECT_EQ(digest(HashKind::sha256, String("abc")), sha256(String("abc")));
  EXPECT_EQ(digest(HashKind::md5, String("abc")), md5(String("abc")));
  EXPECT_STREQ(hash_name(HashKind::sha384), "sha384");
}
