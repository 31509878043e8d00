#include "core/json.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/format.h"
#include "core/log.h"

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_octal(char c) { return c >= '0' && c <= '7'; }

// A code unit as UTF-8; surrogates are written as they come (pairs are not joined).
int put_utf8(char* out, unsigned u) {
  if (u < 0x80) {
    out[0] = static_cast<char>(u);
    return 1;
  }
  if (u < 0x800) {
    out[0] = static_cast<char>(0xC0 | (u >> 6));
    out[1] = static_cast<char>(0x80 | (u & 0x3F));
    return 2;
  }
  out[0] = static_cast<char>(0xE0 | (u >> 12));
  out[1] = static_cast<char>(0x80 | ((u >> 6) & 0x3F));
  out[2] = static_cast<char>(0x80 | (u & 0x3F));
  return 3;
}

constexpr double exact_powers_of_ten[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                          1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                          1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// A number token as String::is_float sees it (optional "-", digits with at most one
// "."), extended by D13 with an exponent: "e" or "E", an optional sign and digits. Gives
// false for anything else; else the value, as strtod would read it.
bool read_number(const char* p, int n, double* value) {
  int i = 0;
  bool negative = false;
  if (i < n && p[i] == '-') {
    negative = true;
    i++;
  }
  uint64_t mantissa = 0;
  int digits = 0;
  int significant = 0;
  int fraction_digits = 0;
  bool dot = false;
  for (; i < n; i++) {
    char c = p[i];
    if (is_digit(c)) {
      digits++;
      if (significant > 0 || c != '0') significant++;
      if (significant <= 19) mantissa = mantissa * 10 + (c - '0');
      if (dot) fraction_digits++;
    } else if (c == '.' && !dot) {
      dot = true;
    } else {
      break;
    }
  }
  if (digits == 0) return false;
  int exponent = 0;
  if (i < n && (p[i] == 'e' || p[i] == 'E')) {
    i++;
    bool exponent_negative = false;
    if (i < n && (p[i] == '+' || p[i] == '-')) exponent_negative = p[i++] == '-';
    int exponent_digits = 0;
    for (; i < n && is_digit(p[i]); i++) {
      exponent_digits++;
      if (exponent < 100000) exponent = exponent * 10 + (p[i] - '0');
    }
    if (exponent_digits == 0) return false;
    if (exponent_negative) exponent = -exponent;
  }
  if (i != n) return false;

  // Clinger's fast path: an exact mantissa and an exact power of ten give a correctly
  // rounded result with one operation, the same as strtod.
  int scale = exponent - fraction_digits;
  if (significant <= 15 && scale >= -22 && scale <= 22) {
    double v = static_cast<double>(mantissa);
    v = scale >= 0 ? v * exact_powers_of_ten[scale] : v / exact_powers_of_ten[-scale];
    *value = negative ? -v : v;
    return true;
  }
  char small[128];
  char* buffer = n < static_cast<int>(sizeof small) ? small : static_cast<char*>(malloc(n + 1));
  memcpy(buffer, p, n);
  buffer[n] = 0;
  *value = strtod(buffer, nullptr);
  if (buffer != small) free(buffer);
  return true;
}

// `line` is one of the three fixed log lines, with %s for the token.
void log_expect(const char* line, const String& got) {
  if (!log_enabled(LOG_GENERAL, 5)) return;
  log_add_message_global(LOG_GENERAL, 5, 0, format(line, got));
}

}  // namespace

// The tokeniser and the value rules, pulling one token at a time.
class JsonReader {
 public:
  explicit JsonReader(const String& source)
      : source_(source), p_(source.c_data()), n_(source.length()) {}

  void read_value(Json& out, int depth);

 private:
  enum Kind : uint8_t { End, Text, Num, True, False, Nil, Char };
  struct Token {
    Kind kind = End;
    bool escaped = false;
    int begin = 0;
    int end = 0;
  };

  const Token& peek() {
    if (!have_token_) {
      token_ = scan();
      have_token_ = true;
    }
    return token_;
  }
  void consume() { have_token_ = false; }
  Token scan();
  String token_text(const Token& t) const { return source_.substr(t.begin, t.end - t.begin); }
  String string_value(const Token& t) const;
  bool count_value();
  void read_array(Json& out, int depth);
  void read_object(Json& out, int depth);
  void read_members(int depth);
  void finish_object(Json& out, int base);

  // The members of the objects being read wait here, in source order, until their object
  // ends; then each key is made once, in place, in the object's vector of exactly the
  // right size. Growing and sorting that vector instead would move every key (and a
  // String move relinks its ring under a lock). Chunks keep addresses stable while a
  // nested value is read into its slot.
  struct Pending {
    Token key;
    String decoded;  // the key, if it had escapes
    Token text;      // a string value, made in place at the end like the key
    Json value;      // any other value
  };
  class PendingStack {
   public:
    static constexpr int chunk = 64;
    int top() const { return top_; }
    Pending& at(int i) { return chunks_[i / chunk][i % chunk]; }
    Pending& push() {
      if (top_ / chunk == static_cast<int>(chunks_.size())) {
        chunks_.push_back(std::make_unique<Pending[]>(chunk));
      }
      return at(top_++);
    }
    void pop_to(int base) {
      for (int i = base; i < top_; i++) {
        Pending& p = at(i);
        p.value = Json();
        p.decoded.clear();
      }
      top_ = base;
      // A huge object once read need not keep its memory for ever.
      if (top_ == 0 && chunks_.size() > 16) chunks_.resize(16);
    }

   private:
    std::vector<std::unique_ptr<Pending[]>> chunks_;
    int top_ = 0;
  };
  // One per thread: a parse never starts another, and leaves the stack empty.
  static PendingStack& pending() {
    static thread_local PendingStack stack;
    return stack;
  }

  const String& source_;
  const char* p_;
  int n_;
  int pos_ = 0;
  bool have_token_ = false;
  bool stop_ = false;
  int values_ = 0;
  Token token_;
};

JsonReader::Token JsonReader::scan() {
  Token t;
  while (pos_ < n_) {
    char c = p_[pos_];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') break;
    pos_++;
  }
  if (pos_ >= n_) return t;
  char c = p_[pos_];
  t.begin = pos_;
  if (c == '"' || c == '\'') {
    int j = pos_ + 1;
    while (j < n_) {
      char d = p_[j];
      if (d == c) break;
      if (d == '\\') {
        t.escaped = true;
        j += 2;
      } else {
        j++;
      }
    }
    if (j >= n_) {
      // A string with no end is dropped, with the rest of the text.
      pos_ = n_;
      return Token();
    }
    t.kind = Text;
    t.end = pos_ = j + 1;
    return t;
  }
  if (is_digit(c) || c == '-') {
    int j = pos_ + 1;
    while (j < n_) {
      char d = p_[j];
      if (is_digit(d) || d == '.' || d == 'e' || d == 'E') {
        j++;
      } else if ((d == '+' || d == '-') && (p_[j - 1] == 'e' || p_[j - 1] == 'E')) {
        j++;  // D13: a signed exponent stays in the number
      } else {
        break;
      }
    }
    t.kind = Num;
    t.end = pos_ = j;
    return t;
  }
  // The words are known by their letters alone; what follows them is not looked at.
  int rest = n_ - pos_;
  if (c == 't' && rest >= 4 && memcmp(p_ + pos_, "true", 4) == 0) {
    t.kind = True;
  } else if (c == 'f' && rest >= 5 && memcmp(p_ + pos_, "false", 5) == 0) {
    t.kind = False;
  } else if (c == 'n' && rest >= 4 && memcmp(p_ + pos_, "null", 4) == 0) {
    t.kind = Nil;
  } else {
    t.kind = Char;
  }
  t.end = pos_ += t.kind == Char ? 1 : t.kind == False ? 5 : 4;
  return t;
}

String JsonReader::string_value(const Token& t) const {
  int begin = t.begin + 1;
  int end = t.end - 1;
  if (!t.escaped) return source_.substr(begin, end - begin);
  String out;
  out.reserve(end - begin);
  const char* p = p_;
  int run = begin;
  for (int i = begin; i < end; i++) {
    if (p[i] != '\\') continue;
    out.append(p + run, i - run);
    // The scanner saw to it that a backslash inside the token has a byte behind it.
    char c = p[++i];
    char bytes[4];
    int count = 1;
    switch (c) {
      case 'b': bytes[0] = '\b'; break;
      case 'f': bytes[0] = '\f'; break;
      case 'n': bytes[0] = '\n'; break;
      case 'r': bytes[0] = '\r'; break;
      case 't': bytes[0] = '\t'; break;
      case 'v': bytes[0] = '\v'; break;
      case 'x':
        if (i + 2 < end && hex_value(p[i + 1]) >= 0 && hex_value(p[i + 2]) >= 0) {
          bytes[0] = static_cast<char>(hex_value(p[i + 1]) * 16 + hex_value(p[i + 2]));
          i += 2;
        } else {
          bytes[0] = c;
        }
        break;
      case 'u':
        if (i + 4 < end && hex_value(p[i + 1]) >= 0 && hex_value(p[i + 2]) >= 0 &&
            hex_value(p[i + 3]) >= 0 && hex_value(p[i + 4]) >= 0) {
          unsigned u = 0;
          for (int k = 1; k <= 4; k++) u = u * 16 + hex_value(p[i + k]);
          count = put_utf8(bytes, u);
          i += 4;
        } else {
          bytes[0] = c;
        }
        break;
      default:
        if (is_octal(c) && i + 2 < end && is_octal(p[i + 1]) && is_octal(p[i + 2])) {
          bytes[0] = static_cast<char>((c - '0') * 64 + (p[i + 1] - '0') * 8 + (p[i + 2] - '0'));
          i += 2;
        } else if (c == '0') {
          bytes[0] = 0;
        } else {
          bytes[0] = c;  // any other backslash drops out: \' \" \\ \/ and the rest
        }
        break;
    }
    out.append(bytes, count);
    run = i + 1;
  }
  out.append(p + run, end - run);
  return out;
}

// Counts one more value against Json::max_values; past it, the parse stops.
bool JsonReader::count_value() {
  if (++values_ <= Json::max_values) return true;
  stop_ = true;
  if (log_enabled(LOG_GENERAL, 5)) {
    log_add_message_global(LOG_GENERAL, 5, 0, "JSON: More than 4194304 values");
  }
  return false;
}

// `out` is null on entry and stays null if the parse has stopped.
void JsonReader::read_value(Json& out, int depth) {
  if (stop_) return;
  Token t = peek();
  consume();
  if (!count_value()) return;
  switch (t.kind) {
    case Text:
      // Built in place from the prvalue: no move, no second link into the source's ring.
      new (&out.string_) String(string_value(t));
      out.type_ = Json::Str;
      return;
    case Num: {
      double v;
      if (read_number(p_ + t.begin, t.end - t.begin, &v)) {
        out.type_ = Json::Number;
        out.number_ = v;
      }
      return;
    }
    case True:
    case False:
      out.type_ = Json::Bool;
      out.number_ = t.kind == True ? 1 : 0;
      return;
    case Char:
      if (p_[t.begin] != '[' && p_[t.begin] != '{') return;
      if (depth >= Json::max_depth) {
        stop_ = true;
        if (log_enabled(LOG_GENERAL, 5)) {
          log_add_message_global(LOG_GENERAL, 5, 0, "JSON: Nesting deeper than 256 levels");
        }
        return;
      }
      if (p_[t.begin] == '[') {
        read_array(out, depth + 1);
      } else {
        read_object(out, depth + 1);
      }
      return;
    default:
      return;
  }
}

void JsonReader::read_array(Json& out, int depth) {
  out.make(Json::Array);
  Json::Elements& elements = out.elements_;
  bool want_value = true;
  while (!stop_) {
    const Token& t = peek();
    if (t.kind == End) return;
    if (t.kind == Char && p_[t.begin] == ']') {
      consume();
      return;
    }
    if (want_value) {
      elements.emplace_back();
      read_value(elements.back(), depth);
      // The container that went too deep leaves no trace.
      if (stop_ && elements.back().is_null()) elements.pop_back();
      want_value = false;
    } else if (t.kind == Char && p_[t.begin] == ',') {
      consume();
      want_value = true;
    } else {
      // A wrong token ends the container and is left for the one around it.
      log_expect("JSON: Expect comma but got %s", token_text(t));
      return;
    }
  }
}

void JsonReader::read_object(Json& out, int depth) {
  int base = pending().top();
  read_members(depth);
  finish_object(out, base);
}

// Reads the members in source order onto the pending stack.
void JsonReader::read_members(int depth) {
  enum { Name, Colon, Value, Comma } state = Name;
  Token key;
  while (!stop_) {
    const Token& t = peek();
    if (t.kind == End) return;
    char c = t.kind == Char ? p_[t.begin] : 0;
    switch (state) {
      case Name:
        if (c == '}') {
          consume();
          return;
        }
        if (t.kind != Text) {
          log_expect("JSON: Expect name but got %s", token_text(t));
          return;
        }
        key = t;
        consume();
        state = Colon;
        break;
      case Colon:
        if (c != ':') {
          log_expect("JSON: Expect colon but got %s", token_text(t));
          return;
        }
        consume();
        state = Value;
        break;
      case Value: {
        PendingStack& stack = pending();
        Pending& member = stack.push();
        member.key = key;
        if (key.escaped) member.decoded = string_value(key);
        member.text = Token();
        if (t.kind == Text) {
          member.text = t;
          consume();
          if (!count_value()) member.text = Token();
        } else {
          read_value(member.value, depth);
        }
        // A value cut off by a limit leaves no trace.
        if (stop_ && member.text.kind != Text && member.value.is_null()) {
          stack.pop_to(stack.top() - 1);
        }
        state = Comma;
        break;
      }
      case Comma:
        if (c == '}') {
          consume();
          return;
        }
        if (c != ',') {
          log_expect("JSON: Expect comma but got %s", token_text(t));
          return;
        }
        consume();
        state = Name;
        break;
    }
  }
}

// Makes `out` the object of the pending members from `base` up: sorted by key, bytewise,
// and where a key came twice, the last one counts.
void JsonReader::finish_object(Json& out, int base) {
  PendingStack& stack = pending();
  int n = stack.top() - base;
  out.make(Json::Object);
  if (n == 0) return;

  struct Key {
    const char* p;
    int n;
  };
  auto key_of = [&](int i) -> Key {
    Pending& m = stack.at(i);
    if (m.key.escaped) return {m.decoded.c_data(), m.decoded.length()};
    return {p_ + m.key.begin + 1, m.key.end - m.key.begin - 2};
  };
  auto compare = [](const Key& a, const Key& b) {
    int m = memcmp(a.p, b.p, static_cast<size_t>(a.n < b.n ? a.n : b.n));
    return m ? m : (a.n < b.n ? -1 : a.n > b.n ? 1 : 0);
  };

  // The keys once, and the order in which they go; small objects need no allocation.
  constexpr int inline_count = 64;
  Key small_keys[inline_count];
  int small_order[inline_count];
  std::unique_ptr<Key[]> big_keys;
  std::unique_ptr<int[]> big_order;
  Key* keys = small_keys;
  int* order = small_order;
  if (n > inline_count) {
    big_keys.reset(new Key[n]);
    big_order.reset(new int[n]);
    keys = big_keys.get();
    order = big_order.get();
  }
  bool sorted = true;
  for (int i = 0; i < n; i++) {
    keys[i] = key_of(base + i);
    order[i] = i;
    if (i > 0 && sorted && compare(keys[i - 1], keys[i]) >= 0) sorted = false;
  }
  // Stable, so that equal keys stay in source order.
  auto before = [&](int a, int b) { return compare(keys[a], keys[b]) < 0; };
  if (!sorted && n <= 32) {
    for (int i = 1; i < n; i++) {
      int v = order[i];
      int j = i;
      for (; j > 0 && before(v, order[j - 1]); j--) order[j] = order[j - 1];
      order[j] = v;
    }
  } else if (!sorted) {
    std::stable_sort(order, order + n, before);
  }

  Json::Members& members = out.members_;
  members.reserve(n);
  for (int k = 0; k < n; k++) {
    if (k + 1 < n && compare(keys[order[k]], keys[order[k + 1]]) == 0) continue;
    Pending& m = stack.at(base + order[k]);
    auto& member = members.emplace_back();
    // Built in place from the prvalue: no move, no second link into the source's ring.
    member.first.~String();
    new (&member.first) String(m.key.escaped ? m.decoded : string_value(m.key));
    if (m.text.kind == Text) {
      new (&member.second.string_) String(string_value(m.text));
      member.second.type_ = Json::Str;
    } else {
      member.second = std::move(m.value);
    }
  }
  stack.pop_to(base);
}

Json::Json(const String& text) : number_(0) {
  JsonReader reader(text);
  reader.read_value(*this, 0);
}

Json::Json(Type type) : number_(0) { make(type); }

void Json::make(Type type) {
  switch (type) {
    case Str:
      new (&string_) String();
      break;
    case Array:
      new (&elements_) Elements();
      break;
    case Object:
      new (&members_) Members();
      break;
    default:
      number_ = 0;
      break;
  }
  type_ = type;
}

void Json::release() noexcept {
  switch (type_) {
    case Str:
      string_.~String();
      break;
    case Array:
      elements_.~Elements();
      break;
    case Object:
      members_.~Members();
      break;
    default:
      break;
  }
  number_ = 0;
}

void Json::take_payload(Json& o) noexcept {
  switch (type_) {
    case Str:
      new (&string_) String(std::move(o.string_));
      o.string_.~String();
      break;
    case Array:
      new (&elements_) Elements(std::move(o.elements_));
      o.elements_.~Elements();
      break;
    case Object:
      new (&members_) Members(std::move(o.members_));
      o.members_.~Members();
      break;
    default:
      break;
  }
}

Json::Json(const Json& o) : type_(o.type_) {
  switch (type_) {
    case Str:
      new (&string_) String(o.string_);
      break;
    case Array:
      new (&elements_) Elements(o.elements_);
      break;
    case Object:
      new (&members_) Members(o.members_);
      break;
    default:
      number_ = o.number_;
      break;
  }
}

Json& Json::operator=(const Json& o) {
  if (this != &o) *this = Json(o);
  return *this;
}

Json Json::number(double value) {
  Json j(Number);
  j.number_ = value;
  return j;
}

Json Json::string(const String& value) {
  Json j;
  new (&j.string_) String(value);
  j.type_ = Str;
  return j;
}

Json Json::boolean(bool value) {
  Json j(Bool);
  j.number_ = value ? 1 : 0;
  return j;
}

const Json& Json::empty() {
  static const Json value;
  return value;
}

const String& Json::as_string() const { return type_ == Str ? string_ : str_empty; }

int64_t json_to_int64(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9223372036854775807.0) return INT64_MAX;
  if (v <= -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(v);
}

int Json::as_int() const {
  if (type_ != Number || std::isnan(number_)) return 0;
  if (number_ >= 2147483647.0) return INT32_MAX;
  if (number_ <= -2147483648.0) return INT32_MIN;
  return static_cast<int>(number_);
}

int64_t Json::as_int64() const { return type_ == Number ? json_to_int64(number_) : 0; }

int Json::size() const {
  if (type_ == Array) return static_cast<int>(elements_.size());
  if (type_ == Object) return static_cast<int>(members_.size());
  return 0;
}

const Json& Json::operator[](int index) const {
  if (type_ != Array || index < 0 || index >= static_cast<int>(elements_.size())) return empty();
  return elements_[index];
}

// On an object only: the member called `name`, or members_.end().
Json::Members::const_iterator Json::find(const String& name) const {
  auto it = std::lower_bound(members_.begin(), members_.end(), name,
                             [](const auto& member, const String& n) { return member.first < n; });
  return it != members_.end() && it->first == name ? it : members_.end();
}

const Json& Json::operator[](const String& name) const {
  if (type_ != Object) return empty();
  auto it = find(name);
  return it == members_.end() ? empty() : it->second;
}

bool Json::has(const String& name) const { return type_ == Object && find(name) != members_.end(); }

const Json::Members& Json::members() const {
  static const Members none;
  return type_ == Object ? members_ : none;
}

const Json::Elements& Json::elements() const {
  static const Elements none;
  return type_ == Array ? elements_ : none;
}

String Json::get_string(const String& name) const { return (*this)[name].as_string(); }
int Json::get_int(const String& name) const { return (*this)[name].as_int(); }
int64_t Json::get_int64(const String& name) const { return (*this)[name].as_int64(); }
bool Json::get_bool(const String& name) const { return (*this)[name].as_bool(); }

const Json& Json::get_object(const String& name) const {
  const Json& j = (*this)[name];
  return j.type_ == Object ? j : empty();
}

const Json& Json::get_array(const String& name) const {
  const Json& j = (*this)[name];
  return j.type_ == Array ? j : empty();
}

Json& Json::set(const String& name, Json value) {
  if (type_ != Object) {
    clear();
    make(Object);
  }
  auto it = std::lower_bound(members_.begin(), members_.end(), name,
                             [](const auto& member, const String& n) { return member.first < n; });
  if (it != members_.end() && it->first == name) {
    it->second = std::move(value);
  } else {
    members_.emplace(it, name, std::move(value));
  }
  return *this;
}

Json& Json::push(Json value) {
  if (type_ != Array) {
    clear();
    make(Array);
  }
  elements_.push_back(std::move(value));
  return *this;
}

bool Json::remove(const String& name) {
  if (type_ != Object) return false;
  auto it = find(name);
  if (it == members_.end()) return false;
  members_.erase(it);
  return true;
}

namespace {

void append_int64(String& out, int64_t value) {
  char digits[24];
  int i = sizeof digits;
  uint64_t u = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  do {
    digits[--i] = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u);
  if (value < 0) digits[--i] = '-';
  out.append(digits + i, static_cast<int>(sizeof digits) - i);
}

}  // namespace

void Json::append_to(String& out) const {
  switch (type_) {
    case Null:
      out.append("null", 4);
      break;
    case Number:
      append_int64(out, json_to_int64(number_));
      break;
    case Str:
      append_json_quoted(out, string_);
      break;
    case Bool:
      if (number_ != 0) {
        out.append("true", 4);
      } else {
        out.append("false", 5);
      }
      break;
    case Array: {
      out.append('[');
      bool first = true;
      for (const Json& e : elements_) {
        if (!first) out.append(',');
        first = false;
        e.append_to(out);
      }
      out.append(']');
      break;
    }
    case Object: {
      out.append('{');
      bool first = true;
      for (const auto& [key, value] : members_) {
        if (!first) out.append(',');
        first = false;
        append_json_quoted(out, key);
        out.append(':');
        value.append_to(out);
      }
      out.append('}');
      break;
    }
  }
}

String Json::to_string() const {
  String out;
  append_to(out);
  return out;
}

bool Json::operator==(const Json& o) const {
  if (type_ != o.type_) return false;
  switch (type_) {
    case Null:
      return true;
    case Number:
    case Bool:
      return number_ == o.number_;
    case Str:
      return string_ == o.string_;
    case Array:
      return elements_ == o.elements_;
    case Object:
      return members_ == o.members_;
  }
  return false;
}
