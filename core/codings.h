// Text codings: base64, hexadecimal, percent coding, query strings, quoting.
#pragma once

#include "core/string.h"

// Standard alphabet with "=" padding and a CRLF after every `groups` groups of four
// characters: 18 gives lines of 72 characters, 65536 no line breaks.
String base64_encode(const String& value, int groups = 65536);
// Passes over everything outside the alphabet; the first "=" ends the text.
String base64_decode(const String& text);

String hex_encode(const String& value);
String hex_encode_upper(const String& value);
// Any character that is not a hexadecimal digit gives the empty String.
String hex_decode(const String& text);

// "%" and two digits give the byte; "%" with anything else vanishes with it.
String percent_decode(const String& text);
// A query string in the header form: "a=1&b=2" gives "a:1\nb:2".
String url_decode(const String& text, bool keep_plus = false);
// Every byte that is neither a letter, a digit nor in `safe` becomes "%XX".
String percent_encode(const String& text, const String& safe);

String quoted(const String& text);
String js_single_quoted(const String& text);
String js_json_parse(const String& text);

// The characters that each part of a URI keeps unencoded besides letters and digits.
extern const String uri_safe_user;
extern const String uri_safe_host;
extern const String uri_safe_parameters;
extern const String uri_safe_headers;
