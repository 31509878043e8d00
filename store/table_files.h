// File names and small files shared by both kinds of table: `index.txt` with the next row
// id, and the listing of the row files "<id>.xml" of a table directory.
#pragma once

#include <vector>

#include "core/string.h"

String row_file_path(const String& directory, int row);
String index_file_path(const String& directory);

// The next row id from `index.txt`; a missing, unreadable or non-positive value gives 1.
int read_next_id(const String& directory);
// Rewrites `index.txt` in one piece; false (logged by the writer) on failure.
[[nodiscard]] bool write_next_id(const String& directory, int next_id);

// The ids of the row files of a directory, in ascending order. A leftover temporary file
// of an interrupted rewrite is removed; any other name that is not a canonical positive
// number with ".xml", and a directory of such a name, is passed over with a log line.
std::vector<int> list_row_files(const String& directory, const String& table);

// The row id that a canonical decimal text names, or 0.
int parse_row_id(const String& text);
