#include "store/table_files.h"

#include <algorithm>
#include <climits>

#include "core/files.h"
#include "core/format.h"
#include "core/log.h"

namespace {
const String row_file_suffix(".xml");
}

String row_file_path(const String& directory, int row) {
  return format("%s/%d.xml", directory, row);
}

String index_file_path(const String& directory) { return directory + "/index.txt"; }

int parse_row_id(const String& text) {
  int n = text.length();
  if (n == 0 || n > 10 || text[0] == '0') return 0;
  int64_t v = 0;
  for (int i = 0; i < n; i++) {
    char c = text[i];
    if (c < '0' || c > '9') return 0;
    v = v * 10 + (c - '0');
  }
  return v > INT_MAX ? 0 : static_cast<int>(v);
}

int read_next_id(const String& directory) {
  String text = read_file(index_file_path(directory), true).trim();
  int id = parse_row_id(text);
  return id < 1 ? 1 : id;
}

bool write_next_id(const String& directory, int next_id) {
  return write_file_atomic(String(next_id), index_file_path(directory));
}

std::vector<int> list_row_files(const String& directory, const String& table) {
  std::vector<int> ids;
  for (const DirectoryEntry& e : list_directory(directory)) {
    if (e.name.ends_with(temp_file_suffix)) {
      if (log_enabled(LOG_GENERAL, 2)) {
        log_add_message_global(LOG_GENERAL, 2, 0,
                               format("Removing left-over file %s of table %s", e.name, table));
      }
      if (!e.is_directory) (void)remove_file(directory + "/" + e.name, true);
      continue;
    }
    if (!e.name.ends_with(row_file_suffix)) continue;
    int id = parse_row_id(e.name.head(e.name.length() - row_file_suffix.length()));
    if (id < 1 || e.is_directory) {
      if (log_enabled(LOG_GENERAL, 2)) {
        log_add_message_global(LOG_GENERAL, 2, 0,
                               format("Passing over %s in table %s: not a row file", e.name, table));
      }
      continue;
    }
    ids.push_back(id);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}
