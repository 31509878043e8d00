// Helpers shared by the tests: printing Strings in failure messages, temporary
// directories, and capture of log lines.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "core/string.h"

void PrintTo(const String& s, std::ostream* os);
std::string to_std(const String& s);

// A fresh directory below /tmp, removed with everything in it when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Collects every log message while alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  const std::vector<std::string>& lines() const;
  bool contains(const std::string& text) const;
  void clear();
};

// Root of the source tree, for data files of the tests, and of this build's binaries.
// The whole of a file, bytes as they are; empty if it can't be read.
std::string file_text(const std::string& path);
// Writes `text` to `path`, replacing what was there; false if it couldn't.
bool write_text(const std::string& path, const std::string& text);
// Checks `condition` ten times a second for up to `seconds`; for what a daemon or a peer
// does in its own time.
bool eventually(const std::function<bool()>& condition, int seconds);

std::string source_dir();
std::string binary_dir();
