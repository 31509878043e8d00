// The String handle: construction, the ring of sharers, copying, editing, comparison
// and search. Text helpers (words, lines, numbers, case) live in string_text.cpp.
#include "core/string.h"

#include <cstdio>
#include <cstring>

#include "core/format.h"
#include "core/internal/string_access.h"
#include "core/log.h"
#include "core/pool.h"
#include "core/random.h"
#include "core/spin_lock.h"

namespace {

// Ring surgery locks, striped by buffer address. Rings of different buffers never
// need two stripes at once, so there is no lock order to keep.
constexpr int ring_stripes = 64;
SpinLock ring_locks[ring_stripes];

SpinLock& ring_lock(const StringBuffer* b) {
  return ring_locks[(reinterpret_cast<uintptr_t>(b) >> 6) & (ring_stripes - 1)];
}

const char empty_byte = 0;
char scratch_byte[16];

bool log_size_refused(int64_t n) {
  if (log_enabled(LOG_GENERAL, 1))
    log_add_message_global(LOG_GENERAL, 1, 0, format("String too large: %d bytes", n));
  return false;
}

}  // namespace

const char* String::data() const { return buffer_ ? buffer_->data() + begin_ : &empty_byte; }

String::String(const char* text) : String() {
  if (text) {
    size_t n = strlen(text);
    if (n > 0) {
      adopt(pool_take(n, this), static_cast<int>(n));
      memcpy(buffer_->data(), text, n);
    }
  }
}

String::String(const char* bytes, int length) : String() {
  if (length >= 1) {
    adopt(pool_take(static_cast<size_t>(length), this), length);
    if (bytes) memcpy(buffer_->data(), bytes, static_cast<size_t>(length));
    else memset(buffer_->data(), 0, static_cast<size_t>(length));
  }
}

static String number_text(bool negative, unsigned long magnitude, int width) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude);
  if (width > 4096) width = 4096;
  int total = n + (negative ? 1 : 0);
  int pad = width > total ? width - total : 0;
  String s;
  char* p = StringAccess::grow(s, total + pad);
  if (negative) *p++ = '-';
  memset(p, '0', static_cast<size_t>(pad));
  p += pad;
  while (n) *p++ = digits[--n];
  return s;
}

static unsigned long magnitude_of(long v) {
  return v < 0 ? 0UL - static_cast<unsigned long>(v) : static_cast<unsigned long>(v);
}

String::String(int value, int width) : String() { *this = number_text(value < 0, magnitude_of(value), width); }
String::String(unsigned value, int width) : String() { *this = number_text(false, value, width); }
String::String(long value, int width) : String() { *this = number_text(value < 0, magnitude_of(value), width); }
String::String(unsigned long value, int width) : String() { *this = number_text(false, value, width); }

String::String(double value) : String() {
  char text[400];
  int n = snprintf(text, sizeof text, "%lf", value);
  if (n <= 0) return;
  if (n >= static_cast<int>(sizeof text)) n = sizeof text - 1;
  if (memchr(text, '.', static_cast<size_t>(n))) {
    while (n > 0 && text[n - 1] == '0') n--;
    if (n > 0 && text[n - 1] == '.') n--;
  }
  *this = String(text, n);
}

String String::repeat(char byte, int count) {
  String s;
  if (count >= 1) memset(s.grow(count, false), byte, static_cast<size_t>(count));
  return s;
}

String String::bytes(char a, char b) {
  const char t[] = {a, b};
  return String(t, 2);
}
String String::bytes(char a, char b, char c) {
  const char t[] = {a, b, c};
  return String(t, 3);
}
String String::bytes(char a, char b, char c, char d) {
  const char t[] = {a, b, c, d};
  return String(t, 4);
}

// --- the ring ------------------------------------------------------------------------

namespace {
constexpr auto relaxed = std::memory_order_relaxed;
constexpr auto release_order = std::memory_order_release;
}  // namespace

void String::adopt(StringBuffer* b, int length) {
  buffer_ = b;
  begin_ = 0;
  end_ = length;
  next_.store(this, relaxed);
  prev_.store(this, relaxed);
}

void String::release() {
  if (buffer_) {
    StringBuffer* b = buffer_;
    bool last = alone();
    if (!last) {
      SpinLock& l = ring_lock(b);
      l.lock();
      String* n = next_.load(relaxed);
      String* p = prev_.load(relaxed);
      last = n == this;
      if (!last) {
        // The forward link last: a sharer that finds itself alone through it also
        // sees its backward link already mended.
        n->prev_.store(p, release_order);
        p->next_.store(n, release_order);
      }
      l.unlock();
    }
    if (last) pool_give(b);
    buffer_ = nullptr;
  }
  next_.store(this, relaxed);
  prev_.store(this, relaxed);
  begin_ = end_ = 0;
}

// A value kept alone after the big buffer it was cut from lost its other sharers: a copy
// of it gets a block of its own size instead of pinning the big one. The value itself
// stays where it is, so a pointer into it that a caller holds stays good.
bool String::compact_copy_wanted() const {
  StringBuffer* b = buffer_;
  uint32_t c = b->pool_class;
  if (c == 0) return false;
  size_t span = static_cast<size_t>(end_ - begin_);
  return span <= pool_class_size(static_cast<int>(c) - 1) && alone();
}

// Joins src's ring with the view [from, to) of src, in offsets relative to src.
void String::share_from(const String& src, int from, int to) {
  if (from >= to || !src.buffer_) return;
  StringBuffer* b = src.buffer_;
  String* s = const_cast<String*>(&src);
  if (src.alone()) {
    next_.store(s, relaxed);
    prev_.store(s, relaxed);
    s->prev_.store(this, release_order);
    s->next_.store(this, release_order);
  } else {
    SpinLock& l = ring_lock(b);
    l.lock();
    String* n = s->next_.load(relaxed);
    next_.store(n, relaxed);
    prev_.store(s, relaxed);
    n->prev_.store(this, release_order);
    s->next_.store(this, release_order);
    l.unlock();
  }
  buffer_ = b;
  begin_ = src.begin_ + from;
  end_ = src.begin_ + to;
}

String::String(const String& o) : String() {
  if (o.buffer_ && o.compact_copy_wanted()) {
    int n = o.length();
    adopt(pool_take(static_cast<size_t>(n), this), n);
    memcpy(buffer_->data(), o.data(), static_cast<size_t>(n));
    return;
  }
  share_from(o, 0, o.length());
}

String::String(String&& o) noexcept : String() { *this = static_cast<String&&>(o); }

String& String::operator=(const String& o) {
  if (this == &o) return *this;
  if (buffer_ && buffer_ == o.buffer_) {
    begin_ = o.begin_;
    end_ = o.end_;
    return *this;
  }
  release();
  if (o.buffer_ && o.compact_copy_wanted()) {
    int n = o.length();
    adopt(pool_take(static_cast<size_t>(n), this), n);
    memcpy(buffer_->data(), o.data(), static_cast<size_t>(n));
    return *this;
  }
  share_from(o, 0, o.length());
  return *this;
}

String& String::operator=(String&& o) noexcept {
  if (this == &o) return *this;
  release();
  if (!o.buffer_) return *this;
  StringBuffer* b = o.buffer_;
  if (o.alone()) {
    next_.store(this, relaxed);
    prev_.store(this, relaxed);
  } else {
    SpinLock& l = ring_lock(b);
    l.lock();
    String* n = o.next_.load(relaxed);
    String* p = o.prev_.load(relaxed);
    if (n == &o) {
      next_.store(this, relaxed);
      prev_.store(this, relaxed);
    } else {
      next_.store(n, relaxed);
      prev_.store(p, relaxed);
      n->prev_.store(this, release_order);
      p->next_.store(this, release_order);
    }
    l.unlock();
  }
  buffer_ = b;
  begin_ = o.begin_;
  end_ = o.end_;
  o.buffer_ = nullptr;
  o.next_.store(&o, relaxed);
  o.prev_.store(&o, relaxed);
  o.begin_ = o.end_ = 0;
  return *this;
}

int String::capacity() const { return buffer_ ? static_cast<int>(buffer_->capacity) : 0; }

int String::sharers() const {
  if (!buffer_) return 0;
  SpinLock& l = ring_lock(buffer_);
  l.lock();
  int n = 1;
  for (const String* s = next_.load(relaxed); s != this; s = s->next_.load(relaxed)) n++;
  l.unlock();
  return n;
}

const char* String::c_data() const {
  if (!buffer_) return &empty_byte;
  if (!(buffer_->flags.load(std::memory_order_relaxed) & buffer_pinned))
    buffer_->flags.fetch_or(buffer_pinned, std::memory_order_relaxed);
  return buffer_->data() + begin_;
}

char* String::grow(int extra, bool pin) {
  int len = length();
  int64_t need = static_cast<int64_t>(len) + extra;
  if (extra < 0 || need > 0x7fffffff) return nullptr;
  if (need == 0) {
    release();
    return scratch_byte;
  }
  if (buffer_) {
    if (alone() && static_cast<size_t>(end_) + static_cast<size_t>(extra) <= buffer_->capacity) {
      end_ += extra;
      if (pin) buffer_->flags.fetch_or(buffer_pinned, std::memory_order_relaxed);
      return buffer_->data() + begin_;
    }
  }
  StringBuffer* nb = pool_take(static_cast<size_t>(need), this);
  if (len) memcpy(nb->data(), data(), static_cast<size_t>(len));
  release();
  adopt(nb, static_cast<int>(need));
  if (pin) nb->flags.fetch_or(buffer_pinned, std::memory_order_relaxed);
  return nb->data();
}

char* String::writable(int extra) { return grow(extra, true); }
char* String::writable_data() { return grow(0, true); }

bool String::reserve(int n) {
  if (n > max_string_size) return log_size_refused(n);
  if (n <= 0) return true;
  if (buffer_ && static_cast<size_t>(begin_) + static_cast<size_t>(n) <= buffer_->capacity &&
      sharers() == 1)
    return true;
  int len = length();
  StringBuffer* nb = pool_take(static_cast<size_t>(n > len ? n : len), this);
  if (len) memcpy(nb->data(), data(), static_cast<size_t>(len));
  release();
  adopt(nb, len);
  return true;
}

String& String::append(const char* bytes, int n) {
  if (n <= 0) return *this;
  int len = length();
  if (len == 0 && !buffer_) {
    *this = String(bytes, n);
    return *this;
  }
  // The source may live in our own buffer, which grow() can move or hand back.
  if (buffer_ && bytes >= buffer_->data() && bytes < buffer_->data() + buffer_->capacity) {
    String copy(bytes, n);
    char* p = grow(n, false);
    if (p) memcpy(p + len, copy.data(), static_cast<size_t>(n));
    return *this;
  }
  char* p = grow(n, false);
  if (p) memcpy(p + len, bytes, static_cast<size_t>(n));
  return *this;
}

String& String::append(const String& s) {
  if (s.empty()) return *this;
  if (empty()) {
    *this = s;
    return *this;
  }
  if (&s == this) {
    String keep(s);
    return append(keep.data(), keep.length());
  }
  // Bytes inside our own buffer are copied first by the other append.
  return append(s.data(), s.length());
}

String& String::append(const char* s) { return s ? append(s, static_cast<int>(strlen(s))) : *this; }
String& String::append(char byte) { return append(&byte, 1); }

bool String::set_byte(int i, char byte) {
  if (i < 0) return false;
  if (i >= max_string_size) return log_size_refused(static_cast<int64_t>(i) + 1);
  int len = length();
  if (i < len) {
    grow(0, false)[i] = byte;
    return true;
  }
  char* p = grow(i + 1 - len, false);
  memset(p + len, 0, static_cast<size_t>(i - len));
  p[i] = byte;
  return true;
}

String& String::replace_all(const String& what, const String& with) {
  if (what.empty() || empty()) return *this;
  int at = find(what);
  if (at < 0) return *this;
  String out;
  int from = 0;
  while (at >= 0) {
    out.append(data() + from, at - from);
    out.append(with);
    from = at + what.length();
    at = find(what, from);
  }
  out.append(data() + from, length() - from);
  *this = static_cast<String&&>(out);
  return *this;
}

String operator+(const String& a, const String& b) {
  String s(a);
  s.append(b);
  return s;
}
String operator+(const String& a, const char* b) { return a + String(b); }
String operator+(const char* a, const String& b) { return String(a) + b; }

// --- comparison and search -------------------------------------------------------------

bool String::operator==(const String& o) const {
  int n = length();
  return n == o.length() && (n == 0 || memcmp(data(), o.data(), static_cast<size_t>(n)) == 0);
}

bool String::operator==(const char* o) const {
  if (!o) return empty();
  size_t n = strlen(o);
  return n == static_cast<size_t>(length()) && memcmp(data(), o, n) == 0;
}

int String::compare(const String& o) const {
  int a = length(), b = o.length();
  int m = memcmp(data(), o.data(), static_cast<size_t>(a < b ? a : b));
  if (m) return m;
  return a < b ? -1 : a > b ? 1 : 0;
}

static inline unsigned char lower_ascii(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + 32) : c;
}

static bool same_nocase(const char* a, const char* b, int n) {
  for (int i = 0; i < n; i++)
    if (lower_ascii(static_cast<unsigned char>(a[i])) != lower_ascii(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

bool String::equals_nocase(const String& o) const {
  return length() == o.length() && same_nocase(data(), o.data(), length());
}

bool String::equals_nocase(const char* o) const {
  if (!o) return empty();
  size_t n = strlen(o);
  return n == static_cast<size_t>(length()) && same_nocase(data(), o, length());
}

bool String::starts_with(const String& p) const {
  return p.length() <= length() && memcmp(data(), p.data(), static_cast<size_t>(p.length())) == 0;
}

bool String::starts_with_nocase(const String& p) const {
  return p.length() <= length() && same_nocase(data(), p.data(), p.length());
}

bool String::ends_with(const String& s) const {
  return s.length() <= length() &&
         memcmp(data() + length() - s.length(), s.data(), static_cast<size_t>(s.length())) == 0;
}

int String::find(const String& needle, int from) const {
  int n = length();
  if (n == 0) return -1;
  if (from < 0) from = 0;
  if (needle.empty()) return from <= n ? from : -1;
  if (from >= n) return -1;
  const void* p = memmem(data() + from, static_cast<size_t>(n - from), needle.data(),
                         static_cast<size_t>(needle.length()));
  return p ? static_cast<int>(static_cast<const char*>(p) - data()) : -1;
}

int String::find_last(const String& needle) const {
  int n = length(), m = needle.length();
  if (n == 0) return -1;
  if (m == 0) return 0;
  for (int i = n - m; i >= 0; i--)
    if (memcmp(data() + i, needle.data(), static_cast<size_t>(m)) == 0) return i;
  return -1;
}

int String::find(char c, int from) const {
  int n = length();
  if (from < 0) from = 0;
  if (from >= n) return -1;
  const void* p = memchr(data() + from, c, static_cast<size_t>(n - from));
  return p ? static_cast<int>(static_cast<const char*>(p) - data()) : -1;
}

int String::find_last(char c) const {
  const void* p = memrchr(data(), c, static_cast<size_t>(length()));
  return p ? static_cast<int>(static_cast<const char*>(p) - data()) : -1;
}

// --- substrings ------------------------------------------------------------------------

String String::substr(int pos, int len) const {
  // One named result, so that the compiler builds it in place: a move would cost a
  // second trip through the ring lock.
  String s;
  int n = length();
  if (pos < 0) {
    len += pos;
    pos = 0;
  }
  if (len > n - pos) len = n - pos;
  if (len > 0 && pos < n) s.share_from(*this, pos, pos + len);
  return s;
}

String String::tail(int pos) const {
  if (pos < 0) pos = 0;
  return substr(pos, length() - pos);
}

String String::head(int n) const { return substr(0, n); }

uint64_t String::hash() const {
  uint64_t h = 1469598103934665603ULL;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data());
  for (int i = 0, n = length(); i < n; i++) h = (h ^ p[i]) * 1099511628211ULL;
  return h;
}

// --- hexadecimal and random texts ------------------------------------------------------

String hex(const String& bytes, bool upper) {
  static const char lower_digits[] = "0123456789abcdef";
  static const char upper_digits[] = "0123456789ABCDEF";
  const char* digits = upper ? upper_digits : lower_digits;
  int n = bytes.length();
  String out;
  if (n == 0) return out;
  char* p = StringAccess::grow(out, 2 * n);
  const unsigned char* s = reinterpret_cast<const unsigned char*>(StringAccess::data(bytes));
  for (int i = 0; i < n; i++) {
    p[2 * i] = digits[s[i] >> 4];
    p[2 * i + 1] = digits[s[i] & 15];
  }
  return out;
}

static int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

String unhex(const String& text) {
  int n = text.length() / 2;
  String out;
  if (n == 0) return out;
  char* p = StringAccess::grow(out, n);
  const char* s = StringAccess::data(text);
  for (int i = 0; i < text.length(); i++)
    if (hex_digit(s[i]) < 0) return String();
  for (int i = 0; i < n; i++) p[i] = static_cast<char>(hex_digit(s[2 * i]) * 16 + hex_digit(s[2 * i + 1]));
  return out;
}

String random_text(int n) {
  static const char alphabet[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  String out;
  if (n <= 0) return out;
  char* p = StringAccess::grow(out, n);
  int filled = 0;
  unsigned char pool[64];
  while (filled < n) {
    if (!random_bytes(pool, sizeof pool)) return String();
    for (unsigned char b : pool) {
      // 252 is the largest multiple of 36 below 256: no letter is more likely.
      if (b < 252 && filled < n) p[filled++] = alphabet[b % 36];
    }
  }
  return out;
}

// --- shared constants ------------------------------------------------------------------

#define EXCH_EARLY __attribute__((init_priority(101)))
const String str_empty EXCH_EARLY;
const String str_blanks EXCH_EARLY(" \t\r\n");
const String str_crlf EXCH_EARLY("\r\n");
const String str_space EXCH_EARLY(" ");
const String str_comma EXCH_EARLY(", ");
const String str_lf EXCH_EARLY("\n");
const String str_true EXCH_EARLY("true");
const String str_false EXCH_EARLY("false");
const String str_nul EXCH_EARLY("", 1);
const String str_one EXCH_EARLY("\x01", 1);
const String str_ff EXCH_EARLY("\xff", 1);
