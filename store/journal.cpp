#include "store/journal.h"

#include "core/format.h"

namespace {

void put_u32(String& out, uint32_t v) {
  char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
               static_cast<char>(v)};
  out.append(b, 4);
}

uint32_t get_u32(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

}  // namespace

void journal_put_row(String& out, int row) {
  out.append('r');
  put_u32(out, static_cast<uint32_t>(row));
}

void journal_put_column(String& out, const String& name) {
  int n = name.length() > 255 ? 255 : name.length();
  out.append('c');
  out.append(static_cast<char>(n));
  out.append(name.head(n));
}

void journal_put_set(String& out, const String& value) {
  out.append('s');
  put_u32(out, static_cast<uint32_t>(value.length()));
  out.append(value);
}

void journal_put_delete(String& out) { out.append('x'); }

void journal_put_value(String& out, const String& value) {
  out.append('v');
  put_u32(out, static_cast<uint32_t>(value.length()));
  out.append(value);
}

void journal_put_rows(String& out, const std::vector<int>& rows) {
  out.append('i');
  put_u32(out, static_cast<uint32_t>(rows.size()));
  for (int r : rows) put_u32(out, static_cast<uint32_t>(r));
}

JournalReplay replay_journal(const String& data, JournalSink& sink) {
  JournalReplay out;
  const uint8_t* p = reinterpret_cast<const uint8_t*>(data.c_data());
  const int n = data.length();
  int at = 0;
  int64_t row = 0;
  String column;
  String value;
  while (at < n) {
    int left = n - at - 1;
    const uint8_t* a = p + at + 1;
    char command = static_cast<char>(p[at]);
    int size = 0;  // bytes of the command after its letter
    switch (command) {
      case 'r':
        if (left < 4) break;
        size = 4;
        row = get_u32(a);
        sink.on_row(row);
        break;
      case 'c':
        if (left < 1 || left < 1 + a[0]) break;
        size = 1 + a[0];
        column = data.substr(at + 2, a[0]);
        break;
      case 's':
      case 'v': {
        if (left < 4) break;
        uint32_t length = get_u32(a);
        if (length > static_cast<uint32_t>(left - 4)) break;
        size = 4 + static_cast<int>(length);
        String v = data.substr(at + 5, static_cast<int>(length));
        if (command == 'v') {
          value = v;
        } else {
          sink.on_set(row, column, v);
          out.commands++;
        }
        break;
      }
      case 'x':
        size = 0;
        sink.on_delete(row);
        out.commands++;
        break;
      case 'i': {
        if (left < 4) break;
        uint32_t count = get_u32(a);
        if (count > static_cast<uint32_t>((left - 4) / 4)) break;
        size = 4 + static_cast<int>(count) * 4;
        for (uint32_t k = 0; k < count; k++) sink.on_set(get_u32(a + 4 + 4 * k), column, value);
        row = 0;
        break;
      }
      default:
        out.error = format("unknown command %d at offset %d", static_cast<int>(p[at]), at);
        out.consumed = at;
        out.last_row = row;
        return out;
    }
    if (size == 0 && command != 'x') {
      out.error = format("command %c cut at offset %d", command, at);
      out.consumed = at;
      out.last_row = row;
      return out;
    }
    at += 1 + size;
  }
  out.consumed = at;
  out.last_row = row;
  return out;
}
