#include <unistd.h>
#include <sstream>
#include <fstream>
#include "tests/support/test_support.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "core/log.h"

void PrintTo(const String& s, std::ostream* os) {
  *os << '"';
  for (int i = 0; i < s.length(); i++) {
    unsigned char c = s.byte_at(i);
    if (c >= 32 && c < 127 && c != '"' && c != '\\') {
      *os << static_cast<char>(c);
    } else {
      static const char digits[] = "0123456789abcdef";
      *os << "\\x" << digits[c >> 4] << digits[c & 15];
    }
  }
  *os << '"';
}

std::string to_std(const String& s) { return std::string(s.c_data(), s.length()); }

TempDir::TempDir() {
  char pattern[] = "/tmp/exch-test-XXXXXX";
  char* made = mkdtemp(pattern);
  path_ = made ? made : "/tmp";
}

TempDir::~TempDir() {
  std::error_code ec;
  if (path_ != "/tmp") std::filesystem::remove_all(path_, ec);
}

static std::mutex capture_lock;
static std::vector<std::string> captured;

static void capture(int, int, const String& message) {
  std::lock_guard<std::mutex> g(capture_lock);
  captured.push_back(to_std(message));
}

static bool saved_on;
static int saved_levels[log_categories];

LogCapture::LogCapture() {
  clear();
  saved_on = log_on;
  for (int i = 0; i < log_categories; i++) saved_levels[i] = log_levels[i];
  for (int& l : log_levels) l = 9;
  log_on = true;
  log_set_observer(capture);
}
LogCapture::~LogCapture() {
  log_set_observer(nullptr);
  log_on = saved_on;
  for (int i = 0; i < log_categories; i++) log_levels[i] = saved_levels[i];
}
const std::vector<std::string>& LogCapture::lines() const { return captured; }
bool LogCapture::contains(const std::string& text) const {
  std::lock_guard<std::mutex> g(capture_lock);
  for (const auto& l : captured)
    if (l.find(text) != std::string::npos) return true;
  return false;
}
void LogCapture::clear() {
  std::lock_guard<std::mutex> g(capture_lock);
  captured.clear();
}

std::string source_dir() { return EXCH_SOURCE_DIR; }
std::string binary_dir() { return EXCH_BINARY_DIR; }

std::string file_text(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

bool write_text(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << text;
  f.close();
  return !f.fail();
}

bool eventually(const std::function<bool()>& condition, int seconds) {
  for (int i = 0; i < seconds * 10; i++) {
    if (condition()) return true;
    usleep(100000);
  }
  return condition();
}
