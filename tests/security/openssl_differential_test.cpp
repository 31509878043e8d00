// Differential tests against the openssl command on random inputs of random lengths
// (0 to 100 KiB): digests, HMAC, AES-128-CTR and AES-256-CBC.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "security/aes.h"
#include "security/digest.h"
#include "security/hmac.h"
#include "tests/security/hash_checks.h"

namespace {

// Runs a shell command; its standard output, or "" with ok = false on failure.
std::string run(const std::string& command, bool& ok) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  ok = p != nullptr;
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  ok = pclose(p) == 0;
  return out;
}

bool have_openssl() {
  bool ok;
  run("openssl version >/dev/null 2>&1", ok);
  return ok;
}

void write_file(const std::string& path, const String& data) {
  std::ofstream f(path, std::ios::binary);
  f.write(data.c_data(), data.length());
}

String read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  return String(s.data(), static_cast<int>(s.size()));
}

std::string lower(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return s;
}

// First word of the output, lower case: "hex *file" from dgst -r, "HEX" from mac.
std::string first_word(const std::string& s) {
  return lower(s.substr(0, s.find_first_of(" \t\r\n")));
}

constexpr int cases = 6;
constexpr size_t max_length = 100 * 1024;

#define REQUIRE_OPENSSL() \
  if (!have_openssl()) GTEST_SKIP() << "the openssl command is not installed"

}  // namespace

TEST(OpensslDifferentialTest, Digests) {
  REQUIRE_OPENSSL();
  TempDir dir;
  std::mt19937_64 rng(1001);
  const struct {
    const char* option;
    HashKind kind;
  } table[] = {{"-md5", HashKind::md5},       {"-sha1", HashKind::sha1},
               {"-sha256", HashKind::sha256}, {"-sha384", HashKind::sha384},
               {"-sha512", HashKind::sha512}};
  for (int i = 0; i < cases; i++) {
    size_t length = i == 0 ? 0 : rng() % (max_length + 1);
    String data = pseudo_random_bytes(rng, length);
    write_file(dir.file("in"), data);
    for (const auto& t : table) {
      bool ok;
      std::string out = run(std::string("openssl dgst ") + t.option + " -r " + dir.file("in"), ok);
      ASSERT_TRUE(ok) << out;
      EXPECT_EQ(to_hex(digest(t.kind, data)), first_word(out)) << t.option << " length " << length;
    }
  }
}

TEST(OpensslDifferentialTest, Hmac) {
  REQUIRE_OPENSSL();
  TempDir dir;
  std::mt19937_64 rng(1002);
  const struct {
    const char* name;
    HashKind kind;
  } table[] = {{"MD5", HashKind::md5},       {"SHA1", HashKind::sha1},
               {"SHA256", HashKind::sha256}, {"SHA384", HashKind::sha384},
               {"SHA512", HashKind::sha512}};
  for (int i = 0; i < cases; i++) {
    size_t length = i == 0 ? 0 : rng() % (max_length + 1);
    String data = pseudo_random_bytes(rng, length);
    String key = pseudo_random_bytes(rng, 1 + rng() % 150);
    write_file(dir.file("in"), data);
    for (const auto& t : table) {
      bool ok;
      std::string out = run(std::string("openssl mac -digest ") + t.name + " -macopt hexkey:" +
                                to_hex(key) + " -in " + dir.file("in") + " HMAC",
                            ok);
      ASSERT_TRUE(ok) << out;
      EXPECT_EQ(to_hex(hmac(t.kind, key, data)), first_word(out))
          << t.name << " length " << length << " key " << key.length();
    }
  }
}

TEST(OpensslDifferentialTest, Aes128Ctr) {
  REQUIRE_OPENSSL();
  TempDir dir;
  std::mt19937_64 rng(1003);
  for (int i = 0; i < cases; i++) {
    size_t length = i == 0 ? 0 : rng() % (max_length + 1);
    String data = pseudo_random_bytes(rng, length);
    String key = pseudo_random_bytes(rng, 16), iv = pseudo_random_bytes(rng, 16);
    write_file(dir.file("in"), data);
    bool ok;
    std::string out = run("openssl enc -aes-128-ctr -K " + to_hex(key) + " -iv " + to_hex(iv) +
                              " -nopad -in " + dir.file("in") + " -out " + dir.file("out"),
                          ok);
    ASSERT_TRUE(ok) << out;
    String expect = read_file(dir.file("out"));
    for (AesEngine engine : {AesEngine::portable, AesEngine::automatic}) {
      AesCtr ctr;
      ASSERT_TRUE(ctr.init(key, iv, engine));
      EXPECT_TRUE(ctr.update(data) == expect) << "length " << length;
    }
  }
}

TEST(OpensslDifferentialTest, Aes256Cbc) {
  REQUIRE_OPENSSL();
  TempDir dir;
  std::mt19937_64 rng(1004);
  for (int i = 0; i < cases; i++) {
    size_t length = i == 0 ? 0 : rng() % (max_length + 1) / 16 * 16;
    String data = pseudo_random_bytes(rng, length);
    String key = pseudo_random_bytes(rng, 32), iv = pseudo_random_bytes(rng, 16);
    write_file(dir.file("in"), data);
    bool ok;
    std::string out = run("openssl enc -aes-256-cbc -K " + to_hex(key) + " -iv " + to_hex(iv) +
                              " -nopad -in " + dir.file("in") + " -out " + dir.file("out"),
                          ok);
    ASSERT_TRUE(ok) << out;
    String expect = read_file(dir.file("out"));
    for (AesEngine engine : {AesEngine::portable, AesEngine::automatic}) {
      AesCbc enc, dec;
      ASSERT_TRUE(enc.init(key, iv, engine));
      ASSERT_TRUE(dec.init(key, iv, engine));
      String cipher = enc.encrypt(data);
      EXPECT_TRUE(cipher == expect) << "length " << length;
      EXPECT_TRUE(dec.decrypt(cipher) == data) << "length " << length;
    }
  }
}
