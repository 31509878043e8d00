// The dictionary: the read-only archive of built-in web pages, templates, texts and
// translations that ships with the program as "exchsrv.dat" (built from a folder by
// tools/pack_dictionary.py). Read once at start; the map stays for the life of the process.
#pragma once

#include <cstdint>
#include <map>

#include "core/string.h"

// Each byte of the body at file offset n is XORed with entry n mod 100.
extern const uint8_t dictionary_scramble[100];

// Reads "exchsrv.dat" from the working directory; with `show` prints each record as
// "%d: %s (%d)\n" (offset, name, size) on standard output. On failure the map is empty and
// the log has "Could not read dictionary".
bool read_dictionary(bool show);
bool read_dictionary_from(const String& path, bool show);
// Decodes a whole dictionary file into `out`. False, with `error` saying why and `out`
// untouched, for a bad magic, a record cut short, a length past the end or a stream that
// does not inflate.
[[nodiscard]] bool parse_dictionary(const String& data, std::map<String, String>& out,
                                    String& error, String* listing = nullptr);

// The record's content, or empty.
String dictionary_file(const String& name);
// The first four bytes of a hash of the file, "%x": changes whenever the file does.
const String& dictionary_version();
int dictionary_count();

// Translations from the record "dict.json": language, file, item to text. Loading also
// writes the languages found to `languages_web`, persisted.
void load_translations();
String translation(const String& language, const String& file, const String& item);
