// Backup of the configuration as one tar archive (the old header form, no magic) and the
// restore of such an archive into the running process. A restore reads and checks the
// whole archive before it changes anything, and replaces only the tables the archive holds.
// Control half only, under ctrl_run_mutex.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <vector>

#include "core/string.h"

class TarWriter {
 public:
  // `limit` in bytes, 0 for none; `mtime` for every header.
  TarWriter(int64_t limit, time_t mtime);

  // False, with the log line, when the entry would take the archive past the limit.
  bool tar_add_directory(const String& name);
  bool tar_add_file(const String& name, const String& content);
  // The directory (a path relative to the working directory, which is also its name in
  // the archive) and everything below it, in name order.
  void tar_add_tree(const String& directory);
  // The archive with its two closing zero blocks.
  String finish() const;
  int64_t size() const { return out_.length(); }

 private:
  bool add(const String& name, char type, const String& content);

  String out_;
  int64_t limit_;
  time_t mtime_;
};

// The header block of one entry: type '0' for a file, '5' for a directory.
String tar_header(const String& name, char type, int64_t size, time_t mtime);

// The tables of a full backup, in archive order.
extern const char* const backup_tables[];
extern const int backup_table_count;

// The full archive: `pbx.xml`, then each table directory that exists. Limited by `max_tar`.
void make_backup(String& out);

// One member of an archive as restore sees it.
struct TarEntry {
  String name;
  bool directory = false;
  String content;
};
// Reads and checks every header of `archive`: printable names of at most 99 bytes, octal
// sizes, the check sum, only files and directories, contents inside the archive, no ".."
// or absolute path, and only `pbx.xml` and the tables of a backup. False, with the log line
// in `error`, at the first fault.
[[nodiscard]] bool check_tar(const String& archive, std::vector<TarEntry>& entries, String& error);

// Unpacks a backup over the working directory and reloads what it replaced. An archive that
// fails any check changes nothing. True when the configuration was loaded.
bool restore(const String& archive);
// Called after a restore has reloaded the tables, for the subsystems that hold rows.
using RestoreHook = void (*)();
void set_restore_hook(RestoreHook hook);

// The files of an archive by name, with no disk access. Stops at a bad size or type with
// "Configuration: Cannot read tar file %s" and keeps what it read.
void read_tar(const String& archive, std::map<String, String>& files);
