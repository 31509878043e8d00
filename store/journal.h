// The journal of a LazyTable bucket: a stream of one-letter commands that records which
// rows exist and the values of their indexed columns, so a start reads one file per 2048
// rows instead of every row file. Integers are big-endian.
//
//   "r" u32 row              the current row becomes row (and exists)
//   "c" u8 length, name      the current column becomes name
//   "s" u32 length, value    the current row's current column gets value
//   "x"                      the current row is deleted
//   "v" u32 length, value    the current value becomes value
//   "i" u32 count, rows      these rows hold the current value in the current column
//
// A write appends "r", "c", "s" and "x"; a compaction writes "c", "v" and "i".
#pragma once

#include <cstdint>
#include <vector>

#include "core/string.h"

void journal_put_row(String& out, int row);
void journal_put_column(String& out, const String& name);
void journal_put_set(String& out, const String& value);
void journal_put_delete(String& out);
void journal_put_value(String& out, const String& value);
void journal_put_rows(String& out, const std::vector<int>& rows);

// What a replay reports. Rows are passed as read, so the receiver checks their range.
class JournalSink {
 public:
  virtual ~JournalSink() = default;
  virtual void on_row(int64_t row) = 0;
  virtual void on_set(int64_t row, const String& column, const String& value) = 0;
  virtual void on_delete(int64_t row) = 0;
};

struct JournalReplay {
  int consumed = 0;       // bytes of complete commands; the file is good up to here
  int commands = 0;       // commands of the kinds a write appends ("s" and "x")
  int64_t last_row = 0;   // current row at the end, 0 after "i" or with no "r"
  String error;           // why the replay stopped early, empty at a clean end
};

JournalReplay replay_journal(const String& data, JournalSink& sink);
