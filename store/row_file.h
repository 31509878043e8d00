// The two forms of a row file: an XML document with the root "row", and the binary form
// "TLVB" followed by records. Both hold the optional `_id` first and then one entry per
// non-empty cell. Enciphering is the caller's: a record's value is what goes to disk.
#pragma once

#include <vector>

#include "core/string.h"

struct RowRecord {
  String name;
  String value;
  bool enciphered = false;
};

extern const String row_id_name;  // "_id"

String encode_row_xml(const String& id, const std::vector<RowRecord>& records);
String encode_row_binary(const String& id, const std::vector<RowRecord>& records);

enum class RowFileResult { row, empty, bad };

// Reads either form, decided by the first four bytes. `empty`: no data, so no row. `bad`:
// a wrong root element or a record running past the end; `records` then holds what was
// read before the fault and `error` says what it was.
RowFileResult decode_row_file(const String& data, String& id, std::vector<RowRecord>& records,
                              String& error);
