#include "core/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/format.h"
#include "core/internal/string_access.h"
#include "core/log.h"

const String temp_file_suffix(".tmp");

namespace {

constexpr int write_piece = 0x40000;

// The path as a C string for the system calls.
String c_path(const String& path) { return path.normalized_path() + str_nul; }

void log_file_error(const char* text, const String& path) {
  if (log_enabled(LOG_GENERAL, 1)) log_add_message_global(LOG_GENERAL, 1, 0, format(text, path));
}

bool write_all(int fd, const String& data, bool pieces) {
  const char* p = StringAccess::data(data);
  int left = data.length();
  while (left > 0) {
    int n = pieces && left > write_piece ? write_piece : left;
    ssize_t w = write(fd, p, static_cast<size_t>(n));
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    left -= static_cast<int>(w);
  }
  return true;
}

String parent_of(const String& path) {
  int slash = path.find_last('/');
  return slash > 0 ? path.head(slash) : slash == 0 ? String("/") : String(".");
}

}  // namespace

String read_file(const String& path, bool quiet) {
  String p = c_path(path);
  int fd = open(p.c_data(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return String();
  struct stat st;
  if (fstat(fd, &st) != 0) {
    if (!quiet) log_file_error("Could not fstat %s", path);
    close(fd);
    return String();
  }
  String out;
  if (st.st_size > 0 && st.st_size < 0x7fffffff) {
    int size = static_cast<int>(st.st_size);
    char* d = StringAccess::grow(out, size);
    ssize_t got;
    do got = read(fd, d, static_cast<size_t>(size));
    while (got < 0 && errno == EINTR);
    if (got < 0) got = 0;
    out = out.head(static_cast<int>(got));
  } else {
    // Files of /proc report a size of 0: read until the end.
    char piece[2048];
    for (;;) {
      ssize_t got = read(fd, piece, sizeof piece);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      out.append(piece, static_cast<int>(got));
    }
  }
  close(fd);
  return out;
}

bool read_file_part(const String& path, int64_t offset, int length, int64_t& out_size,
                    time_t& out_mtime, String& out) {
  out = String();
  out_size = -1;
  out_mtime = 0;
  String p = c_path(path);
  int fd = open(p.c_data(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    close(fd);
    return false;
  }
  out_size = st.st_size;
  out_mtime = st.st_mtime;
  if (length > 0 && offset >= 0 && offset < st.st_size) {
    char* d = StringAccess::grow(out, length);
    ssize_t got;
    do got = pread(fd, d, static_cast<size_t>(length), offset);
    while (got < 0 && errno == EINTR);
    out = out.head(got < 0 ? 0 : static_cast<int>(got));
  }
  close(fd);
  return true;
}

bool file_nonempty(const String& path) { return file_size(path) > 0; }

int64_t file_size(const String& path) {
  struct stat st;
  if (stat(c_path(path).c_data(), &st) != 0) return -1;
  return st.st_size;
}

time_t file_mtime(const String& path) {
  struct stat st;
  if (stat(c_path(path).c_data(), &st) != 0) return 0;
  return st.st_mtime;
}

bool is_directory(const String& path) {
  struct stat st;
  return stat(c_path(path).c_data(), &st) == 0 && S_ISDIR(st.st_mode);
}

void make_path(const String& path) {
  String p = path.normalized_path();
  for (int slash = p.find('/', 1); slash > 0; slash = p.find('/', slash + 1)) {
    String dir = p.head(slash) + str_nul;
    mkdir(dir.c_data(), 0777);
  }
}

static bool write_with_flags(const String& data, const String& path, int flags) {
  make_path(path);
  String p = c_path(path);
  int fd = open(p.c_data(), flags | O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    log_file_error("Could not open %s for writing", path);
    return false;
  }
  bool ok = write_all(fd, data, (flags & O_APPEND) == 0);
  if (close(fd) != 0) ok = false;
  if (!ok) log_file_error("Could not write %s", path);
  return ok;
}

bool write_file(const String& data, const String& path) { return write_with_flags(data, path, O_TRUNC); }
bool append_file(const String& data, const String& path) { return write_with_flags(data, path, O_APPEND); }

bool write_file_atomic(const String& data, const String& path, bool sync) {
  String target = path.normalized_path();
  String temp = target + temp_file_suffix;
  make_path(target);
  String tp = temp + str_nul;
  int fd = open(tp.c_data(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) {
    log_file_error("Could not open %s for writing", temp);
    return false;
  }
  bool ok = write_all(fd, data, true);
  if (ok && sync && fsync(fd) != 0) ok = false;
  if (close(fd) != 0) ok = false;
  if (!ok) {
    log_file_error("Could not write %s", temp);
    unlink(tp.c_data());
    return false;
  }
  if (!rename_file(temp, target)) {
    unlink(tp.c_data());
    return false;
  }
  if (sync) {
    String dir = parent_of(target) + str_nul;
    int dfd = open(dir.c_data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
      fsync(dfd);
      close(dfd);
    }
  }
  return true;
}

std::vector<DirectoryEntry> list_directory(const String& path) {
  std::vector<DirectoryEntry> out;
  String base = path.normalized_path();
  DIR* d = opendir((base + str_nul).c_data());
  if (!d) return out;
  if (!base.ends_with(String("/"))) base.append('/');
  while (dirent* e = readdir(d)) {
    String name(e->d_name);
    if (name == "." || name == "..") continue;
    struct stat st;
    bool dir = false;
    int64_t size = 0;
    // stat follows a symbolic link, so a link to a directory counts as one.
    if (stat((base + name + str_nul).c_data(), &st) == 0) {
      dir = S_ISDIR(st.st_mode);
      size = st.st_size;
    }
    out.push_back({name, dir, size});
  }
  closedir(d);
  return out;
}

bool remove_file(const String& path, bool quiet) {
  if (unlink(c_path(path).c_data()) == 0) return true;
  if (!quiet) log_file_error("Cannot remove file %s", path);
  return false;
}

bool rename_file(const String& from, const String& to) {
  if (rename(c_path(from).c_data(), c_path(to).c_data()) == 0) return true;
  if (log_enabled(LOG_GENERAL, 1))
    log_add_message_global(LOG_GENERAL, 1, 0, format("Cannot rename file %s to %s", from, to));
  return false;
}
