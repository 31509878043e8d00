// Reading published test vectors: NIST's CAVP response files (.rsp) and the files of the
// same "Name = value" form that Debian's python3-cryptography-vectors ships and that
// tests/security/data holds.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "core/string.h"

struct VectorRecord {
  std::map<std::string, std::string> section;  // the [Name = value] lines in force
  std::string section_name;                    // the last bare [NAME] line: ENCRYPT, DECRYPT
  std::map<std::string, std::string> fields;   // names in upper case
  bool fail = false;                           // a "FAIL" line: the input must be refused
  int line = 0;

  bool has(const std::string& name) const { return fields.count(name) > 0; }
  std::string text(const std::string& name) const;
  String bytes(const std::string& name) const;  // hexadecimal value as bytes
  int number(const std::string& name) const;
  std::string where() const { return "record at line " + std::to_string(line); }
};

// Records are runs of non-blank lines; "#" lines are comments. Empty when unreadable.
std::vector<VectorRecord> read_vectors(const std::string& path);

// The folder of the python3-cryptography-vectors package, found through Debian's Python;
// empty when the package is missing.
const std::string& cryptography_vectors_dir();
// tests/security/data in the source tree.
std::string security_data_dir();

String from_hex(const std::string& hex);
std::string to_hex(const String& bytes);
// Test data that only has to vary, not to be secret.
String pseudo_random_bytes(std::mt19937_64& rng, size_t n);
