// The one text and byte-string type of the process. A String is a handle on a pooled
// buffer with begin and end offsets; copies and substrings share the buffer and are
// kept in a ring of sharers, so cutting a 64 KiB datagram into header values copies
// no bytes. See core/README.md for the threading rules.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstddef>
#include <vector>

struct StringBuffer;

class String {
 public:
  String() noexcept : buffer_(nullptr), next_(this), prev_(this), begin_(0), end_(0) {}
  String(const char* text);  // NOLINT: implicit from C strings on purpose
  String(const char* bytes, int length);
  String(const unsigned char* bytes, int length)
      : String(reinterpret_cast<const char*>(bytes), length) {}
  explicit String(int value, int width = 0);
  explicit String(unsigned value, int width = 0);
  explicit String(long value, int width = 0);
  explicit String(unsigned long value, int width = 0);
  explicit String(long long value, int width = 0) : String(static_cast<long>(value), width) {}
  explicit String(unsigned long long value, int width = 0)
      : String(static_cast<unsigned long>(value), width) {}
  explicit String(double value);
  static String repeat(char byte, int count);
  static String bytes(char a, char b);
  static String bytes(char a, char b, char c);
  static String bytes(char a, char b, char c, char d);

  String(const String& other);
  String(String&& other) noexcept;
  String& operator=(const String& other);
  String& operator=(String&& other) noexcept;
  ~String() { release(); }

  int length() const { return end_ - begin_; }
  bool empty() const { return end_ == begin_; }
  char at(int i) const { return data()[i]; }
  char operator[](int i) const { return data()[i]; }
  uint8_t byte_at(int i) const { return static_cast<uint8_t>(data()[i]); }

  // Raw access. c_data() marks the buffer so that it is never re-packed while an outside
  // pointer may exist. The bytes are not NUL-terminated.
  const char* c_data() const;
  char* writable_data();
  // Makes the buffer unshared, grows the length by `extra` and returns the first byte.
  char* writable(int extra);

  bool operator==(const String& o) const;
  bool operator==(const char* o) const;
  bool operator!=(const String& o) const { return !(*this == o); }
  bool operator!=(const char* o) const { return !(*this == o); }
  bool operator<(const String& o) const { return compare(o) < 0; }
  bool operator>(const String& o) const { return compare(o) > 0; }
  int compare(const String& o) const;
  bool equals_nocase(const String& o) const;
  bool equals_nocase(const char* o) const;
  bool starts_with(const String& prefix) const;
  bool starts_with_nocase(const String& prefix) const;
  bool ends_with(const String& suffix) const;

  int find(const String& needle, int from = 0) const;
  int find_last(const String& needle) const;
  int find(char c, int from = 0) const;
  int find_last(char c) const;
  bool contains(char c) const { return find(c) >= 0; }
  bool contains(const String& needle) const { return find(needle) >= 0; }

  String substr(int pos, int len) const;
  String tail(int pos) const;
  String head(int n) const;

  String word(int n, char separator) const;
  String word_set(int n, const String& separators) const;
  String words_from(int n, char separator) const;
  String words_from_set(int n, const String& separators) const;
  std::vector<String> split(char separator) const;
  std::vector<String> split_keep(char separator) const;
  static String join(const std::vector<String>& list, char separator);

  // Offset where the text of line `count` (from 0) ends, or -1 if there are fewer lines.
  // `next`, if given, receives the offset behind the line's terminator. A line ends with
  // CR, LF, CR LF or LF CR; with `unfold` a terminator followed by a blank or tab
  // continues the line.
  int line_end(int count, bool unfold, int* next = nullptr) const;
  String line(int n, bool unfold) const;
  String next_line(bool unfold);

  String trim(const String& set) const;
  String trim_left(const String& set) const;
  String trim_right(const String& set) const;
  String trim(char c) const;
  String trim_left(char c) const;
  String trim_right(char c) const;
  String trim() const;  // the standard blanks " \t\r\n"

  String& append(const String& s);
  String& append(const char* s);
  String& append(const char* bytes, int length);
  String& append(char byte);
  String& operator+=(const String& s) { return append(s); }
  String& operator+=(const char* s) { return append(s); }
  String& operator+=(char c) { return append(c); }
  // Extends with zero bytes when `i` is past the end; refuses sizes above the largest
  // pool class with a log line and returns false.
  bool set_byte(int i, char byte);
  bool reserve(int n);
  String& replace_all(const String& what, const String& with);
  void clear() { release(); }

  int to_int() const;
  unsigned to_uint() const;
  int64_t to_int64() const;
  uint64_t to_uint64() const;
  double to_double() const;
  bool is_int() const;
  bool is_float() const;

  String to_lower() const;
  String to_upper() const;
  String normalized_path() const;
  bool is_utf8() const;
  uint64_t hash() const;

  // For tests and statistics: the data capacity of the buffer and the size of the ring.
  int capacity() const;
  int sharers() const;
  bool shares_buffer_with(const String& o) const { return buffer_ && buffer_ == o.buffer_; }

 private:
  friend struct StringAccess;
  const char* data() const;
  void release();
  void share_from(const String& src, int begin, int end);
  void adopt(StringBuffer* b, int length);
  char* grow(int extra, bool pin);
  bool compact_copy_wanted() const;
  // True when no other String shares the buffer. Another thread can then not reach the
  // ring at all, so the owner may change it without the lock.
  bool alone() const {
    return next_.load(std::memory_order_acquire) == this && prev_.load(std::memory_order_acquire) == this;
  }

  StringBuffer* buffer_;
  // Ring links. Changed under the ring lock, or by the sole owner of a lone String;
  // atomic so that the lone test needs no lock.
  mutable std::atomic<String*> next_;
  mutable std::atomic<String*> prev_;
  int32_t begin_;
  int32_t end_;
};

String operator+(const String& a, const String& b);
String operator+(const String& a, const char* b);
String operator+(const char* a, const String& b);

// Header-form text: lines of "name<separator>value". Case-insensitive on the name,
// which is trimmed by `trim_set`; `alias`, if not empty, matches as well.
String header_line(const String& text, const String& name, const String& alias,
                   char separator, const String& trim_set);
String header_value(const String& text, const String& name, const String& alias = String(),
                    char separator = ':');
void header_set(String& text, const String& name, const String& value, char separator = ':');

String hex(const String& bytes, bool upper = false);
String unhex(const String& text);
// n characters of [0-9a-z] from the kernel's random source.
String random_text(int n);

// The shared constants, built once before any other static initialiser of the process.
extern const String str_empty;
extern const String str_blanks;     // " \t\r\n"
extern const String str_crlf;       // "\r\n"
extern const String str_space;      // " "
extern const String str_comma;      // ", "
extern const String str_lf;         // "\n"
extern const String str_true;       // "true"
extern const String str_false;      // "false"
extern const String str_nul;        // one NUL byte
extern const String str_one;        // one byte 1
extern const String str_ff;         // one byte 255

// Largest size a String may be grown to by set_byte and reserve: the largest pool class.
constexpr int max_string_size = 67108864;
