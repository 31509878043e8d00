// Whole-file helpers on String values. Every path passes through normalized_path() and
// gets its NUL appended here. Failures log with their fixed texts and return an empty
// or false result; nothing throws.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "core/string.h"

String read_file(const String& path, bool quiet = false);
// Reads up to `length` bytes from `offset`; the file's size and modification time are
// given back as well.
bool read_file_part(const String& path, int64_t offset, int length, int64_t& out_size,
                    time_t& out_mtime, String& out);
bool file_nonempty(const String& path);
int64_t file_size(const String& path);   // -1 if the file does not exist
time_t file_mtime(const String& path);   // 0 if the file does not exist
bool is_directory(const String& path);

// Creates every directory named by the path up to its last "/", with mode 0777,
// ignoring failures: "a/b/file" creates a and a/b, "a/b/" creates a and a/b.
void make_path(const String& path);
[[nodiscard]] bool write_file(const String& data, const String& path);
[[nodiscard]] bool append_file(const String& data, const String& path);
// Writes a temporary file beside the target and renames it over the target, so a
// crash leaves either the old or the new content. With `sync`, the file and its
// directory are flushed to the disk as well.
[[nodiscard]] bool write_file_atomic(const String& data, const String& path, bool sync = false);
// The suffix of the temporary files of write_file_atomic, for clean-up at load.
extern const String temp_file_suffix;

struct DirectoryEntry {
  String name;
  bool is_directory;
  int64_t size;
};
std::vector<DirectoryEntry> list_directory(const String& path);

bool remove_file(const String& path, bool quiet = false);
bool rename_file(const String& from, const String& to);
