// Json: one JSON value, a tree for reading what a client sent. The reader is
// lenient and never fails: bad input gives null or a container cut short, and callers
// test the fields they need. Most JSON output does not come through here but through the
// %j directive of format.
//
// Beyond the text: nesting deeper than 256 levels ends the parse (D4), and numbers with
// an exponent, signed or not, are read (D13). Integer conversions saturate.
#pragma once

#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "core/string.h"

class Json {
 public:
  enum Type : uint8_t { Null = 0, Number = 1, Str = 2, Bool = 3, Array = 4, Object = 5 };
  // Members are kept sorted by key, bytewise, with no key twice.
  using Members = std::vector<std::pair<String, Json>>;
  using Elements = std::vector<Json>;

  // Deepest nesting of containers that the reader follows (D4).
  static constexpr int max_depth = 256;
  // Most values that one document may hold (D4: element counts are bounded too).
  static constexpr int max_values = 1 << 22;

  Json() noexcept : number_(0) {}
  // Tokenises `text` and parses the first value; what stands behind it is ignored.
  explicit Json(const String& text);
  explicit Json(const char* text) : Json(String(text)) {}
  // An empty value of the type: 0, "", false, [] or {}.
  explicit Json(Type type);

  static Json parse(const String& text) { return Json(text); }
  static Json number(double value);
  static Json string(const String& value);
  static Json boolean(bool value);
  static Json array() { return Json(Array); }
  static Json object() { return Json(Object); }

  Json(const Json& other);
  Json(Json&& other) noexcept : type_(other.type_) { take(other); }
  Json& operator=(const Json& other);
  Json& operator=(Json&& other) noexcept {
    if (this != &other) {
      clear();
      type_ = other.type_;
      take(other);
    }
    return *this;
  }
  ~Json() { clear(); }

  Type type() const { return type_; }
  bool is_null() const { return type_ == Null; }
  bool is_number() const { return type_ == Number; }
  bool is_string() const { return type_ == Str; }
  bool is_bool() const { return type_ == Bool; }
  bool is_array() const { return type_ == Array; }
  bool is_object() const { return type_ == Object; }

  // The value itself, or 0, "" or false for another type. as_int and as_int64 cut towards
  // zero and saturate.
  double as_number() const { return type_ == Number ? number_ : 0; }
  const String& as_string() const;
  bool as_bool() const { return type_ == Bool && number_ != 0; }
  int as_int() const;
  int64_t as_int64() const;

  // Elements of an array or members of an object; 0 for every other type.
  int size() const;
  // An element of an array, or the shared empty value.
  const Json& operator[](int index) const;
  // A member of an object, or the shared empty value.
  const Json& operator[](const String& name) const;
  const Json& operator[](const char* name) const { return (*this)[String(name)]; }
  bool has(const String& name) const;
  // For iteration: the members in key order (bytewise), the elements in order; empty for
  // other types. Member lookups are binary searches.
  const Members& members() const;
  const Elements& elements() const;

  // Object members of one type: the value if the member exists and has that type,
  // else "", 0 or false.
  String get_string(const String& name) const;
  int get_int(const String& name) const;
  int64_t get_int64(const String& name) const;
  bool get_bool(const String& name) const;
  // The member, or a shared empty value if it is missing or of another type, so that calls
  // can be chained without tests.
  const Json& get_object(const String& name) const;
  const Json& get_array(const String& name) const;

  // Building. set makes a value that is not an object into an empty object first, and a key
  // that is there already gets the new value; push does the same for arrays.
  Json& set(const String& name, Json value);
  Json& set(const String& name, const String& value) { return set(name, string(value)); }
  Json& set(const String& name, const char* value) { return set(name, string(String(value))); }
  Json& set(const String& name, double value) { return set(name, number(value)); }
  Json& set(const String& name, int value) { return set(name, number(value)); }
  Json& set(const String& name, int64_t value) {
    return set(name, number(static_cast<double>(value)));
  }
  Json& set(const String& name, bool value) { return set(name, boolean(value)); }
  Json& push(Json value);
  bool remove(const String& name);

  // The JSON text: numbers as integers cut towards zero, no white space.
  String to_string() const;
  void append_to(String& out) const;

  bool operator==(const Json& o) const;
  bool operator!=(const Json& o) const { return !(*this == o); }

  // The shared empty (null) value that lookups return.
  static const Json& empty();

 private:
  friend class JsonReader;

  // Gives back what the value holds and leaves it null.
  void clear() noexcept {
    if (type_ >= Str && type_ != Bool) release();
    type_ = Null;
  }
  void release() noexcept;
  // Moves the payload of `o`, whose type this value has already taken, and makes `o` null.
  void take(Json& o) noexcept {
    if (type_ == Str || type_ >= Array) {
      take_payload(o);
    } else {
      number_ = o.number_;
    }
    o.type_ = Null;
    o.number_ = 0;
  }
  void take_payload(Json& o) noexcept;
  // Turns a null value into an empty one of `type`.
  void make(Type type);
  Members::const_iterator find(const String& name) const;

  Type type_ = Null;
  // One payload, chosen by type_: a number (or 0 and 1 for a bool), a string or a container.
  union {
    double number_;
    String string_;
    Elements elements_;
    Members members_;
  };
};

// Cuts towards zero and saturates at the ends of the 64-bit range; NaN gives 0 (D13).
int64_t json_to_int64(double value);
