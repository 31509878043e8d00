// Driver for json_suite.sh: parses every file of a folder with Json and prints one line per
// file, "name<TAB>dump", where the dump is JSON that json_suite_compare.py reads: numbers as
// {"n":"%.17g"}, strings as {"s":"<hex bytes>"}, objects as {"o":[["<hex key>",value],...]}.
// Before each parse the file's name goes to standard error, so a crash names its case.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "core/json.h"

namespace {

void hex(const String& s, std::string& out) {
  static const char digits[] = "0123456789abcdef";
  for (int i = 0; i < s.length(); i++) {
    out += digits[s.byte_at(i) >> 4];
    out += digits[s.byte_at(i) & 15];
  }
}

void dump(const Json& j, std::string& out) {
  switch (j.type()) {
    case Json::Null:
      out += "null";
      break;
    case Json::Bool:
      out += j.as_bool() ? "true" : "false";
      break;
    case Json::Number: {
      char text[64];
      snprintf(text, sizeof text, "{\"n\":\"%.17g\"}", j.as_number());
      out += text;
      break;
    }
    case Json::Str:
      out += "{\"s\":\"";
      hex(j.as_string(), out);
      out += "\"}";
      break;
    case Json::Array: {
      out += '[';
      bool first = true;
      for (const Json& e : j.elements()) {
        if (!first) out += ',';
        first = false;
        dump(e, out);
      }
      out += ']';
      break;
    }
    case Json::Object: {
      out += "{\"o\":[";
      bool first = true;
      for (const auto& [key, value] : j.members()) {
        if (!first) out += ',';
        first = false;
        out += "[\"";
        hex(key, out);
        out += "\",";
        dump(value, out);
        out += ']';
      }
      out += "]}";
      break;
    }
  }
}

bool read_file(const std::string& path, std::string& bytes) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return false;
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) bytes.append(buffer, n);
  fclose(f);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  std::vector<std::string> names;
  DIR* d = opendir(argv[1]);
  if (!d) {
    fprintf(stderr, "no folder %s\n", argv[1]);
    return 2;
  }
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') names.push_back(e->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string bytes;
    if (!read_file(std::string(argv[1]) + "/" + name, bytes)) {
      fprintf(stderr, "cannot read %s\n", name.c_str());
      return 2;
    }
    fprintf(stderr, "%s\n", name.c_str());
    fflush(stderr);
    Json j(String(bytes.data(), static_cast<int>(bytes.size())));
    String text = j.to_string();
    Json again(text);
    (void)again.to_string();
    std::string line = name + "\t";
    dump(j, line);
    line += '\n';
    fwrite(line.data(), 1, line.size(), stdout);
  }
  return 0;
}
