#include "tests/security/test_vectors.h"

#include <cstdio>
#include <fstream>

#include "tests/support/test_support.h"

namespace {

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

std::string upper(std::string s) {
  for (char& c : s)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
  return s;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string VectorRecord::text(const std::string& name) const {
  auto it = fields.find(name);
  return it == fields.end() ? std::string() : it->second;
}

String VectorRecord::bytes(const std::string& name) const { return from_hex(text(name)); }

int VectorRecord::number(const std::string& name) const { return std::stoi(text(name)); }

std::vector<VectorRecord> read_vectors(const std::string& path) {
  std::vector<VectorRecord> out;
  std::ifstream in(path);
  if (!in) return out;
  std::map<std::string, std::string> section;
  std::string section_name;
  VectorRecord current;
  bool open = false;
  bool in_header_run = false;  // consecutive [..] lines belong to one group
  std::string line;
  int number = 0;
  auto close = [&] {
    if (open) out.push_back(current);
    open = false;
  };
  while (std::getline(in, line)) {
    number++;
    std::string t = trim(line);
    if (t.empty()) {
      close();
      continue;
    }
    if (t[0] == '#') continue;
    if (t[0] == '[') {
      close();
      if (!in_header_run) section.clear();
      in_header_run = true;
      std::string inner = trim(t.substr(1, t.find(']') - 1));
      size_t eq = inner.find('=');
      if (eq == std::string::npos)
        section_name = upper(inner);
      else
        section[upper(trim(inner.substr(0, eq)))] = trim(inner.substr(eq + 1));
      continue;
    }
    in_header_run = false;
    if (!open) {
      current = VectorRecord();
      current.section = section;
      current.section_name = section_name;
      current.line = number;
      open = true;
    }
    if (t == "FAIL") {
      current.fail = true;
      continue;
    }
    size_t eq = t.find('=');
    if (eq == std::string::npos) continue;
    // The value keeps inner blanks (texts of RFC 1321); only the edges are trimmed.
    current.fields[upper(trim(t.substr(0, eq)))] = trim(t.substr(eq + 1));
  }
  close();
  return out;
}

const std::string& cryptography_vectors_dir() {
  static const std::string dir = [] {
    std::string result;
    FILE* p = popen(
        "/usr/bin/python3 -c 'import cryptography_vectors, os; "
        "print(os.path.dirname(cryptography_vectors.__file__))' 2>/dev/null",
        "r");
    if (!p) return result;
    char buf[4096];
    while (fgets(buf, sizeof buf, p)) result += buf;
    if (pclose(p) != 0) return std::string();
    return trim(result);
  }();
  return dir;
}

std::string security_data_dir() { return source_dir() + "/tests/security/data"; }

String from_hex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    int a = hex_digit(hex[i]), b = hex_digit(hex[i + 1]);
    if (a < 0 || b < 0) return String();
    bytes += static_cast<char>(a * 16 + b);
  }
  return String(bytes.data(), static_cast<int>(bytes.size()));
}

std::string to_hex(const String& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < bytes.length(); i++) {
    out += digits[bytes.byte_at(i) >> 4];
    out += digits[bytes.byte_at(i) & 15];
  }
  return out;
}

String pseudo_random_bytes(std::mt19937_64& rng, size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>(rng() & 0xff);
  return String(s.data(), static_cast<int>(s.size()));
}
