// The start-up test for a store read with the wrong cell key: the mailbox PINs of
// `extensions` are enciphered, so with a wrong key they decipher to bytes that are mostly
// not UTF-8. The start-up sequence calls this after the tables load (unless
// --ignore-corrupt was given) and stops on a true result.
#pragma once

#include "core/string.h"

class Table;

struct PinCheck {
  int rows = 0;     // rows of the table
  int invalid = 0;  // rows whose `mb_pin` is not valid UTF-8 (an empty PIN is valid)
  // At least one row, and 51% or more of the rows invalid.
  bool corrupt() const { return rows > 0 && invalid * 100 >= rows * 51; }
};

PinCheck check_pins(const Table& extensions);

// What the start-up prints on standard output before it exits with 1.
extern const String corrupt_store_text;
