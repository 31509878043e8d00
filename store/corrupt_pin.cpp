#include "store/corrupt_pin.h"

#include "store/names.h"
#include "store/table.h"

const String corrupt_store_text(
    "Database seems to be corrupt. Run PBX with option --ignore-corrupt to proceed anyway");

PinCheck check_pins(const Table& extensions) {
  PinCheck out;
  int column = extensions.column_index(col_mb_pin);
  for (int row = extensions.first(); row > 0; row = extensions.next(row)) {
    out.rows++;
    if (column >= 0 && !extensions.cell(row, column).is_utf8()) out.invalid++;
  }
  return out;
}
