// Checks shared by the tests of the hash units: NIST CAVP message and Monte Carlo files,
// and incremental hashing split at every offset.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/security/test_vectors.h"
#include "tests/support/test_support.h"

template <class H>
String hash_whole(const String& data) {
  H h;
  h.update(data);
  return h.final();
}

template <class H>
String hash_in_pieces(const String& data, const std::vector<int>& cuts) {
  H h;
  int from = 0;
  for (int cut : cuts) {
    h.update(data.substr(from, cut - from));
    from = cut;
  }
  h.update(data.tail(from));
  return h.final();
}

// SHAxxxShortMsg.rsp / LongMsg.rsp: Len (bits), Msg, MD. Returns the number of records.
template <class H>
int check_message_file(const std::string& path, String (*one_shot)(const String&)) {
  auto records = read_vectors(path);
  int checked = 0;
  for (const auto& r : records) {
    if (!r.has("MD") || !r.has("MSG")) continue;
    String msg = r.bytes("MSG").head(r.number("LEN") / 8);
    String md = r.bytes("MD");
    EXPECT_EQ(to_hex(one_shot(msg)), to_hex(md)) << path << " " << r.where();
    // The same message fed in two uneven parts.
    std::vector<int> cut{msg.length() / 3};
    EXPECT_EQ(to_hex(hash_in_pieces<H>(msg, cut)), to_hex(md)) << path << " " << r.where();
    checked++;
  }
  return checked;
}

// SHAxxxMonte.rsp (CAVP SHAVS section 6.4): 100 checkpoints of 1000 chained hashes.
template <class H>
int check_monte_file(const std::string& path) {
  auto records = read_vectors(path);
  String seed;
  int checked = 0;
  for (const auto& r : records) {
    if (r.has("SEED")) {
      seed = r.bytes("SEED");
      continue;
    }
    if (!r.has("MD")) continue;
    String md[3] = {seed, seed, seed};
    String next;
    for (int i = 3; i < 1003; i++) {
      next = hash_whole<H>(md[0] + md[1] + md[2]);
      md[0] = md[1];
      md[1] = md[2];
      md[2] = next;
    }
    EXPECT_EQ(to_hex(next), to_hex(r.bytes("MD"))) << path << " " << r.where();
    seed = next;
    checked++;
  }
  return checked;
}

// Feeding a message in two parts cut at every offset 0..129, and in three parts around
// every block boundary, gives the one-shot digest; so does every length 0..129 split in
// the middle and byte by byte.
template <class H>
void check_incremental_splits(String (*one_shot)(const String&)) {
  std::mt19937_64 rng(H::block_size);
  String msg = pseudo_random_bytes(rng, 3 * H::block_size + 77);
  String whole = one_shot(msg);
  EXPECT_EQ(whole, hash_whole<H>(msg));
  for (int cut = 0; cut <= 129; cut++) {
    EXPECT_EQ(hash_in_pieces<H>(msg, {cut}), whole) << "cut at " << cut;
    EXPECT_EQ(hash_in_pieces<H>(msg, {cut, cut + 1, cut + H::block_size}), whole)
        << "cuts at " << cut;
  }
  for (int length = 0; length <= 129; length++) {
    String part = msg.head(length);
    String expect = one_shot(part);
    EXPECT_EQ(hash_in_pieces<H>(part, {length / 2}), expect) << "length " << length;
    H h;
    for (int i = 0; i < length; i++) h.update(part.substr(i, 1));
    EXPECT_EQ(h.final(), expect) << "byte by byte, length " << length;
  }
}

// Empty updates change nothing, and an object can be used again after init().
template <class H>
void check_empty_and_reuse(String (*one_shot)(const String&), const std::string& empty_hex) {
  EXPECT_EQ(to_hex(one_shot(String())), empty_hex);
  H h;
  h.update(String());
  h.update(nullptr, 0);
  EXPECT_EQ(to_hex(h.final()), empty_hex);
  h.init();
  h.update(String("abc"));
  String first = h.final();
  h.init();
  h.update(String("ab"));
  h.update(String());
  h.update(String("c"));
  EXPECT_EQ(h.final(), first);
  EXPECT_EQ(first.length(), H::digest_size);
}

#define REQUIRE_VECTORS()                                                                 \
  do {                                                                                    \
    if (cryptography_vectors_dir().empty())                                               \
      GTEST_SKIP() << "python3-cryptography-vectors is not installed (scripts/deps.sh " \
                      "test installs it)";                                                \
  } while (0)
