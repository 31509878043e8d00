// Parameter lists of URIs and name-addrs, and the quote-aware text helpers that read
// Via parameters, Content-Type parameters and comma lists.
#pragma once

#include "core/string.h"
#include "sip/internal/small_list.h"

struct SipParam {
  String name;
  String value;
};

// In order of arrival; a name may repeat.
using ParamList = SmallList<SipParam, 2>;

// First parameter of that name, ignoring case; nullptr when there is none.
const SipParam* find_param(const ParamList& list, const String& name);
SipParam* find_param(ParamList& list, const String& name);
// Replaces the value of the first match or appends.
void set_param(ParamList& list, const String& name, const String& value);

// The value of `name` in a text of name=value items separated by `separator`, honouring
// double quotes; a quoted value comes back without its quotes and escapes. Names
// compare ignoring case. Not found gives empty text.
String param_value(const String& text, const String& name, char separator);
// The n-th field (from 0), trimmed, of `text` split at `separator` outside double quotes;
// empty text past the end.
String split_quoted(const String& text, int n, char separator);

// Percent-encodes with upper-case hexadecimal every byte outside `char_class`, but copies
// a "{x-pre-...}" placeholder untouched, so that a placeholder survives in a user part.
void append_uri_encoded(String& out, const String& value, uint8_t char_class);
// Decodes only when a "%" is present, so that the common case stays a slice.
String uri_decoded(const String& value);
// Removes backslash escapes from the inside of a quoted string.
String unescape_quoted(const String& value);

// Offset of the "}" that closes a placeholder opening at `pos`, or -1 when no
// "{x-pre-" opens there.
int placeholder_end(const char* p, int n, int pos);
