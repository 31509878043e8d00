// Feeds arbitrary bytes to the readers of the configuration files: the settings document,
// the dictionary and a backup archive (checked, and read into a map).
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "core/string.h"
#include "store/backup.h"
#include "store/dictionary.h"
#include "store/registry.h"
#include "store/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  String in(reinterpret_cast<const char*>(data), static_cast<int>(size));
  ParsedSettings p = parse_settings(in);
  if (p.values.size() != static_cast<size_t>(registry_size)) __builtin_trap();
  std::map<String, String> records;
  String error;
  if (parse_dictionary(in, records, error) != error.empty()) __builtin_trap();
  std::vector<TarEntry> entries;
  if (!check_tar(in, entries, error) && error.empty()) __builtin_trap();
  std::map<String, String> files;
  read_tar(in, files);
  for (const TarEntry& e : entries) {
    if (e.content.length() > in.length()) __builtin_trap();
  }
  return 0;
}
