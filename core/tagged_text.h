// Records of a 1-byte tag, a 3-byte big-endian length and the value: the encoding of
// serialised SIP messages and of every message posted between the two halves.
#pragma once

#include "core/string.h"

constexpr int tagged_max_value = 16777215;

class TaggedText {
 public:
  TaggedText() = default;
  explicit TaggedText(const String& records) : text_(records) {}

  // False (and nothing added) for a value longer than a record can carry.
  bool add(int tag, const String& value);
  bool add(int tag, const char* value) { return add(tag, String(value)); }
  bool add(int tag, int value) { return add(tag, String(value)); }
  bool add(int tag, long value) { return add(tag, String(value)); }
  bool add(int tag, bool value) { return add(tag, value ? str_true : str_false); }
  bool add(int tag, const TaggedText& inner) { return add(tag, inner.text_); }

  // Takes the first record off the front. False when the text is used up, or when a
  // record claims more bytes than there are; the rest is then dropped.
  bool next(int& tag, String& value);
  // The value of the first record with this tag, without consuming anything.
  String find(int tag) const;
  bool has(int tag) const;

  const String& text() const { return text_; }
  bool empty() const { return text_.empty(); }
  int length() const { return text_.length(); }

 private:
  String text_;
};
