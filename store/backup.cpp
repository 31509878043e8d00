#include "store/backup.h"

#include <algorithm>
#include <set>

#include "core/files.h"
#include "core/format.h"
#include "core/log.h"
#include "store/registry.h"
#include "store/schema.h"
#include "store/settings.h"

const char* const backup_tables[] = {
    "accesslist", "acds",      "admins",     "adrbook",   "attendants",    "audiofiles",
    "callingcards", "certificates", "cdre",  "cdri",      "gstatm",        "astatm",
    "gstatw",     "astatw",    "gstatd",     "astatd",    "gstath",        "astath",
    "cdrt",       "cdr",       "colines",    "conferences", "dial_plan",   "dial_plan_entry",
    "domain_alias", "domains", "extensions", "hoots",     "hunts",         "ivrnodes",
    "alerts",     "weblogin",  "extlog",     "emails",    "macs",          "messages",
    "mohs",       "orbits",    "pnp_parms",  "recs",      "registrations", "schedules",
    "srvflags",   "trunks",    "user_alias", "users",     "webpages",      "wipers"};
const int backup_table_count = sizeof(backup_tables) / sizeof(backup_tables[0]);

namespace {

constexpr int block = 512;
const String str_pbx_xml("pbx.xml");
RestoreHook restore_hook = nullptr;

void log_config(int level, const String& text) {
  if (log_enabled(LOG_CONFIG, level)) log_add_message_global(LOG_CONFIG, level, 0, text);
}

int64_t padded(int64_t n) { return (n + block - 1) / block * block; }

void put_octal(char* field, int digits, int64_t value) {
  for (int i = digits - 1; i >= 0; i--) {
    field[i] = static_cast<char>('0' + (value & 7));
    value >>= 3;
  }
}

bool is_backup_table(const String& name) {
  for (int i = 0; i < backup_table_count; i++) {
    if (name == backup_tables[i]) return true;
  }
  return false;
}

// The size field: octal digits, blanks counted as zero digits, ended by NUL or the field's
// end. -1 for any other character.
int64_t read_size(const char* field, String& text) {
  int64_t value = 0;
  int i = 0;
  for (; i < 12 && field[i] != '\0'; i++) {
    char c = field[i];
    if (c == ' ') c = '0';
    if (c < '0' || c > '7') {
      int end = i;
      while (end < 12 && field[end] != '\0') end++;
      text = String(field, end);
      return -1;
    }
    value = value * 8 + (c - '0');
  }
  return value;
}

// The check sum field: octal digits, with blanks before them and a NUL or blank behind, as
// the various tar writers leave it.
int64_t read_check_sum(const char* field) {
  int i = 0;
  while (i < 8 && field[i] == ' ') i++;
  int64_t value = 0;
  int digits = 0;
  for (; i < 8 && field[i] >= '0' && field[i] <= '7'; i++, digits++) value = value * 8 + (field[i] - '0');
  for (; i < 8; i++) {
    if (field[i] != ' ' && field[i] != '\0') return -1;
  }
  return digits ? value : -1;
}

bool safe_member_name(const String& name, String& top) {
  if (name.starts_with("/")) return false;
  String path = name.ends_with("/") ? name.head(name.length() - 1) : name;
  if (path.empty()) return false;
  std::vector<String> parts = path.split('/');
  for (const String& part : parts) {
    if (part.empty() || part == "." || part == "..") return false;
  }
  top = parts[0];
  if (parts.size() == 1 && !name.ends_with("/")) return top == str_pbx_xml;
  return is_backup_table(top);
}

// Removes the row and index files below `directory`, keeping anything else there.
void remove_table_files(const String& directory) {
  for (const DirectoryEntry& e : list_directory(directory)) {
    String path = directory + "/" + e.name;
    if (e.is_directory) {
      if (!e.name.starts_with("audio_")) remove_table_files(path);
    } else if (e.name.ends_with(".wav") || e.name.ends_with(".xml") || e.name == "index.txt") {
      remove_file(path, true);
    }
  }
}

}  // namespace

String tar_header(const String& name, char type, int64_t size, time_t mtime) {
  String h = String::repeat('\0', block);
  char* p = h.writable_data();
  std::copy(name.c_data(), name.c_data() + std::min(name.length(), 99), p);
  const char* mode = type == '5' ? "0040755" : "0100644";
  std::copy(mode, mode + 7, p + 100);
  put_octal(p + 108, 7, 500);
  put_octal(p + 116, 7, 100);
  put_octal(p + 124, 11, type == '5' ? 0 : size);
  put_octal(p + 136, 11, static_cast<int64_t>(mtime));
  std::fill(p + 148, p + 156, ' ');
  p[156] = type;
  unsigned sum = 0;
  for (int i = 0; i < block; i++) sum += static_cast<unsigned char>(p[i]);
  put_octal(p + 148, 6, sum);
  p[154] = '\0';
  return h;
}

TarWriter::TarWriter(int64_t limit, time_t mtime) : limit_(limit), mtime_(mtime) {}

bool TarWriter::add(const String& name, char type, const String& content) {
  int64_t grow = block + padded(content.length());
  if (name.length() > 99 || (limit_ > 0 && out_.length() + grow > limit_)) {
    log_config(1, String("tar: Cannot add file because it would exceed the total size"));
    return false;
  }
  out_.append(tar_header(name, type, content.length(), mtime_));
  out_.append(content);
  int pad = static_cast<int>(padded(content.length()) - content.length());
  if (pad) out_.append(String::repeat('\0', pad));
  return true;
}

bool TarWriter::tar_add_directory(const String& name) {
  return add(name.ends_with("/") ? name : name + "/", '5', String());
}

bool TarWriter::tar_add_file(const String& name, const String& content) {
  return add(name, '0', content);
}

void TarWriter::tar_add_tree(const String& directory) {
  if (!tar_add_directory(directory)) return;
  std::vector<DirectoryEntry> entries = list_directory(directory);
  std::sort(entries.begin(), entries.end(),
            [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
  for (const DirectoryEntry& e : entries) {
    String path = directory + "/" + e.name;
    if (e.is_directory) {
      tar_add_tree(path);
    } else if (!e.name.ends_with(temp_file_suffix)) {
      (void)tar_add_file(path, read_file(path, true));
    }
  }
}

String TarWriter::finish() const { return out_ + String::repeat('\0', 2 * block); }

void make_backup(String& out) {
  TarWriter tar(ctrl_read_registry(registry_index("max_tar")).to_int64(), time(nullptr));
  String settings = read_file(settings_file(), true);
  if (settings.empty()) settings = settings_document();
  (void)tar.tar_add_file(str_pbx_xml, settings);
  for (int i = 0; i < backup_table_count; i++) {
    String name(backup_tables[i]);
    if (is_directory(name)) tar.tar_add_tree(name);
  }
  out = tar.finish();
}

bool check_tar(const String& archive, std::vector<TarEntry>& entries, String& error) {
  entries.clear();
  const char* data = archive.c_data();
  int64_t length = archive.length();
  int64_t pos = 0;
  while (pos + block <= length) {
    const char* h = data + pos;
    if (h[0] == '\0') {
      if (std::all_of(h, h + block, [](char c) { return c == '\0'; })) return true;
      error = "Configuration: This is not a tar file";
      return false;
    }
    int n = 0;
    while (n < 100 && h[n] != '\0') n++;
    bool printable = n < 100;
    for (int i = 0; i < n && printable; i++) {
      unsigned char c = static_cast<unsigned char>(h[i]);
      printable = c >= 0x20 && c < 0x7F;
    }
    if (!printable) {
      error = "Configuration: This is not a tar file";
      return false;
    }
    String name(h, n);
    unsigned sum = 0;
    for (int i = 0; i < block; i++) sum += (i >= 148 && i < 156) ? ' ' : static_cast<unsigned char>(h[i]);
    int64_t stored = read_check_sum(h + 148);
    if (stored < 0 || static_cast<unsigned>(stored) != sum) {
      error = format("Configuration: This is not a tar file %s", name);
      return false;
    }
    String size_text;
    char size_field[12];
    std::copy(h + 124, h + 136, size_field);
    int64_t size = read_size(size_field, size_text);
    if (size < 0) {
      error = format("Configuration: Invalid length %s", size_text);
      return false;
    }
    char type = h[156];
    TarEntry e;
    e.name = name;
    if (type == '5' && size == 0 && name.ends_with("/")) {
      e.directory = true;
    } else if ((type == '0' || type == '\0') && !name.ends_with("/")) {
      // Files of size 0 are an empty row or greeting, and are kept.
    } else {
      error = format("Configuration: This is not a tar file %s", name);
      return false;
    }
    String top;
    if (!safe_member_name(name, top)) {
      error = format("Configuration: Refusing member %s", name);
      return false;
    }
    if (size > length - pos - block) {
      error = format("Configuration: Archive ends inside %s", name);
      return false;
    }
    if (!e.directory) e.content = archive.substr(static_cast<int>(pos + block), static_cast<int>(size));
    entries.push_back(e);
    pos += block + padded(size);
  }
  if (pos != length) {
    error = "Configuration: This is not a tar file";
    return false;
  }
  return true;
}

void set_restore_hook(RestoreHook hook) { restore_hook = hook; }

bool restore(const String& archive) {
  if (archive.empty()) {
    log_config(1, String("Configuration: No tar file specified"));
    return false;
  }
  std::vector<TarEntry> entries;
  String error;
  if (!check_tar(archive, entries, error)) {
    log_config(1, error);
    return false;
  }
  ParsedSettings settings;
  bool has_settings = false;
  std::set<String> tables;
  for (const TarEntry& e : entries) {
    if (e.name == str_pbx_xml) {
      settings = parse_settings(e.content);
      if (!settings.ok || !settings.problems.empty()) {
        log_config(1, String("Configuration: The archive holds no valid pbx.xml"));
        return false;
      }
      has_settings = true;
    } else {
      tables.insert(e.name.word(0, '/'));
    }
  }
  if (entries.empty()) {
    log_config(1, String("Configuration: This is not a tar file"));
    return false;
  }
  for (const String& name : tables) {
    if (Table* t = find_table(name)) t->clear();
    else if (LazyTable* l = find_lazy_table(name)) l->clear();
    remove_table_files(name);
  }
  for (const TarEntry& e : entries) {
    if (e.name == str_pbx_xml) continue;
    if (e.directory) {
      make_path(e.name);
    } else {
      make_path(e.name);
      if (!write_file_atomic(e.content, e.name)) log_config(1, format("Configuration: Cannot write %s", e.name));
    }
  }
  log_config(1, String("Configuration: Successfully loaded configuration"));
  // The key follows the restored secret before any enciphered cell is read again.
  if (has_settings) {
    apply_parsed_settings(settings);
    (void)save_settings();
    registry_sync();
  }
  for (const String& name : tables) {
    if (Table* t = find_table(name)) t->load(name);
    else if (LazyTable* l = find_lazy_table(name)) l->load(name);
  }
  if (restore_hook) restore_hook();
  return true;
}

void read_tar(const String& archive, std::map<String, String>& files) {
  const char* data = archive.c_data();
  int64_t length = archive.length();
  int64_t pos = 0;
  while (pos + block <= length) {
    const char* h = data + pos;
    int n = 0;
    while (n < 99 && h[n] != '\0') n++;
    if (n == 0) return;
    String name(h, n);
    String size_text;
    char size_field[12];
    std::copy(h + 124, h + 136, size_field);
    int64_t size = read_size(size_field, size_text);
    char type = h[156];
    bool file = type == '0' || type == '\0';
    if (size < 0 || (!file && type != '5') || size > length - pos - block) {
      log_config(1, format("Configuration: Cannot read tar file %s", name));
      return;
    }
    if (file) files[name] = archive.substr(static_cast<int>(pos + block), static_cast<int>(size));
    pos += block + padded(size);
  }
}
