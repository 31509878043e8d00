#include "store/table.h"

#include <algorithm>

#include "core/files.h"
#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "store/cell_cipher.h"
#include "store/row_file.h"
#include "store/store_mode.h"
#include "store/table_files.h"

namespace {
const String empty_cell;

void log_line(int level, const String& text) {
  log_add_message_global(LOG_GENERAL, level, 0, text);
}
}  // namespace

Table::Table(const String& name) : name_(name), directory_(name) {}

Table::~Table() {
  for (Block* b : blocks_) {
    if (!b) continue;
    for (Row* r : b->slots) delete r;
    delete b;
  }
}

void Table::add_column(const String& name, bool indexed, bool encrypted) {
  if (column_by_name_.contains(name) || columns_.size() >= no_slot) return;
  column_by_name_.add(name, column_count());
  columns_.push_back({name, indexed, encrypted});
  indices_.emplace_back(indexed ? new Index() : nullptr);
}

int Table::column_index(const String& name) const { return column_by_name_.find(name); }

bool Table::is_encrypted(const String& column) const {
  int c = column_index(column);
  return c >= 0 && columns_[c].encrypted;
}

const String& Table::row_cell(const Row& r, int column) {
  auto it = std::lower_bound(r.columns.begin(), r.columns.end(), static_cast<uint16_t>(column));
  if (it == r.columns.end() || *it != column) return empty_cell;
  return r.values[it - r.columns.begin()];
}

const String& Table::cell(int row, int column) const {
  must_own(ctrl_run_mutex, "Table::cell", 0);
  const Row* r = find_row(row);
  if (!r || column < 0) return empty_cell;
  return row_cell(*r, column);
}

String Table::get(int row, const String& column) const {
  must_own(ctrl_run_mutex, "Table::get", 0);
  if (column == row_id_name) return row_key(row);
  return cell(row, column_index(column));
}

String Table::row_key(int row) const {
  const Row* r = find_row(row);
  return r ? r->id : String();
}

int Table::find_key(const String& key) const {
  auto it = keys_.find(key);
  return it == keys_.end() ? 0 : it->second;
}

// --- rows and blocks ---

Table::Row* Table::insert_row(int row) {
  size_t b = static_cast<size_t>(row) >> 10;
  if (b >= blocks_.size()) blocks_.resize(b + 1, nullptr);
  if (!blocks_[b]) blocks_[b] = new Block();
  Block& blk = *blocks_[b];
  uint16_t s = row & 1023;
  Row* r = new Row();
  blk.slots[s] = r;
  uint16_t before = no_slot;
  for (int i = s - 1; i >= 0; i--) {
    if (blk.slots[i]) {
      before = static_cast<uint16_t>(i);
      break;
    }
  }
  uint16_t after = before == no_slot ? blk.first : blk.next[before];
  blk.prev[s] = before;
  blk.next[s] = after;
  if (before == no_slot) blk.first = s; else blk.next[before] = s;
  if (after == no_slot) blk.last = s; else blk.prev[after] = s;
  blk.used++;
  row_count_++;
  return r;
}

void Table::remove_row(int row) {
  size_t b = static_cast<size_t>(row) >> 10;
  Block& blk = *blocks_[b];
  uint16_t s = row & 1023;
  uint16_t before = blk.prev[s];
  uint16_t after = blk.next[s];
  if (before == no_slot) blk.first = after; else blk.next[before] = after;
  if (after == no_slot) blk.last = before; else blk.prev[after] = before;
  delete blk.slots[s];
  blk.slots[s] = nullptr;
  row_count_--;
  if (--blk.used == 0) {
    delete blocks_[b];
    blocks_[b] = nullptr;
    while (!blocks_.empty() && !blocks_.back()) blocks_.pop_back();
  }
}

int Table::next(int row) const {
  if (row < 0) row = 0;
  size_t b = static_cast<size_t>(row) >> 10;
  if (b < blocks_.size() && blocks_[b]) {
    const Block& blk = *blocks_[b];
    int s = row & 1023;
    if (blk.slots[s]) {
      if (blk.next[s] != no_slot) return static_cast<int>(b << 10) + blk.next[s];
    } else {
      for (int i = s + 1; i < 1024; i++) {
        if (blk.slots[i]) return static_cast<int>(b << 10) + i;
      }
    }
  }
  for (b++; b < blocks_.size(); b++) {
    if (blocks_[b]) return static_cast<int>(b << 10) + blocks_[b]->first;
  }
  return 0;
}

int Table::prev(int row) const {
  if (row <= 1) return 0;
  size_t b = static_cast<size_t>(row) >> 10;
  if (b >= blocks_.size()) return last();
  if (blocks_[b]) {
    const Block& blk = *blocks_[b];
    int s = row & 1023;
    if (blk.slots[s]) {
      if (blk.prev[s] != no_slot) return static_cast<int>(b << 10) + blk.prev[s];
    } else {
      for (int i = s - 1; i >= 0; i--) {
        if (blk.slots[i]) return static_cast<int>(b << 10) + i;
      }
    }
  }
  while (b-- > 0) {
    if (blocks_[b]) return static_cast<int>(b << 10) + blocks_[b]->last;
  }
  return 0;
}

int Table::last() const {
  for (size_t b = blocks_.size(); b-- > 0;) {
    if (blocks_[b]) return static_cast<int>(b << 10) + blocks_[b]->last;
  }
  return 0;
}

RowSet Table::all_rows() const {
  RowSet out;
  for (int r = first(); r > 0; r = next(r)) out.add(r);
  return out;
}

// --- indices ---

void Table::index_row(int row, const Row& r) {
  for (int c = 0; c < column_count(); c++) {
    if (indices_[c]) indices_[c]->entry(row_cell(r, c)).second.add(row);
  }
  if (!r.id.empty()) keys_[r.id] = row;
}

void Table::unindex_row(int row, const Row& r) {
  for (int c = 0; c < column_count(); c++) {
    if (!indices_[c]) continue;
    const String& value = row_cell(r, c);
    RowSet* set = indices_[c]->find(value);
    if (!set) continue;
    set->remove(row);
    if (set->empty()) indices_[c]->erase(value);
  }
  if (!r.id.empty()) {
    auto it = keys_.find(r.id);
    if (it != keys_.end() && it->second == row) keys_.erase(it);
  }
}

void Table::set_cell(int row, Row& r, int column, const String& value) {
  auto it = std::lower_bound(r.columns.begin(), r.columns.end(), static_cast<uint16_t>(column));
  size_t at = it - r.columns.begin();
  bool present = it != r.columns.end() && *it == column;
  const String& old = present ? r.values[at] : empty_cell;
  if (old == value) return;
  r.dirty = true;
  if (indices_[column]) {
    Index& index = *indices_[column];
    if (RowSet* set = index.find(old)) {
      set->remove(row);
      if (set->empty()) index.erase(old);
    }
    index.entry(value).second.add(row);
  }
  if (value.empty()) {
    r.columns.erase(it);
    r.values.erase(r.values.begin() + at);
  } else if (present) {
    r.values[at] = value;
  } else {
    r.columns.insert(it, static_cast<uint16_t>(column));
    r.values.insert(r.values.begin() + at, value);
  }
}

// --- writes ---

void Table::raise_next_id(int row) {
  if (row >= next_id_) next_id_ = row == INT_MAX ? INT_MAX : row + 1;
}

void Table::save_next_id() {
  if (!persist_ || store_passive || next_id_ == saved_id_ || row_count_ == 0) return;
  if (write_next_id(directory_, next_id_)) saved_id_ = next_id_;
}

void Table::set(int row, const String& column, const String& value, bool write, bool notify) {
  if (column == row_id_name) {
    Row* r = find_row(row);
    if (!r || r->id == value) return;
    auto it = keys_.find(r->id);
    if (it != keys_.end() && it->second == row) keys_.erase(it);
    r->id = value;
    if (!value.empty()) keys_[value] = row;
    r->dirty = true;
    if (write) write_row(row, notify);
    return;
  }
  int c = column_index(column);
  if (c < 0) {
    if (log_enabled(LOG_GENERAL, 5)) {
      log_line(5, format("Column %s does not exist in table %s, ignoring request", column, name_));
    }
    return;
  }
  set(row, c, value, write, notify);
}

void Table::set(int row, int column, const String& value, bool write, bool notify) {
  must_own(ctrl_run_mutex, "Table::set", 0);
  if (row <= 0) {
    if (log_enabled(LOG_GENERAL, 5)) {
      log_line(5, format("Writing to row %d in table %s, ignoring request", row, name_));
    }
    return;
  }
  if (column < 0 || column >= column_count()) return;
  Row* r = find_row(row);
  if (!r) {
    if (!create_on_write_) {
      if (log_enabled(LOG_GENERAL, 2)) {
        log_line(2, format("Writing to row %d which does not exist in table %s, ignoring request",
                           row, name_));
      }
      return;
    }
    raise_next_id(row);
    r = insert_row(row);
    index_row(row, *r);
    save_next_id();
  }
  set_cell(row, *r, column, value);
  if (write) write_row(row, notify);
}

void Table::set_cells(int row, const std::map<String, String>& cells, bool write) {
  must_own(ctrl_run_mutex, "Table::set_cells", 0);
  for (const auto& [column, value] : cells) set(row, column, value, false, false);
  if (write) write_row(row);
}

void Table::clear_row(int row) {
  must_own(ctrl_run_mutex, "Table::clear_row", 0);
  Row* r = find_row(row);
  if (!r) return;
  std::vector<uint16_t> columns = r->columns;
  for (uint16_t c : columns) set_cell(row, *r, c, empty_cell);
}

std::map<String, String> Table::cells(int row) const {
  must_own(ctrl_run_mutex, "Table::cells", 0);
  std::map<String, String> out;
  const Row* r = find_row(row);
  if (!r) return out;
  for (size_t i = 0; i < r->columns.size(); i++) out[columns_[r->columns[i]].name] = r->values[i];
  return out;
}

int Table::create_row(bool write) {
  must_own(ctrl_run_mutex, "Table::create_row", 0);
  int id = next_id_;
  while (has_row(id)) {
    if (id == INT_MAX) {
      if (log_enabled(LOG_GENERAL, 0)) log_line(0, format("Table %s has no free row id", name_));
      return 0;
    }
    id++;
  }
  raise_next_id(id);
  Row* r = insert_row(id);
  r->dirty = write;
  save_next_id();
  index_row(id, *r);
  if (write) write_row(id);
  return id;
}

void Table::delete_row(int row, bool write) {
  must_own(ctrl_run_mutex, "Table::delete_row", 0);
  Row* r = find_row(row);
  if (r) {
    unindex_row(row, *r);
    remove_row(row);
  }
  if (write) write_row(row);
}

void Table::delete_rows(const RowSet& rows) {
  for (int row : rows) delete_row(row, true);
}

void Table::delete_where(const String& column, const String& value) {
  delete_rows(find_all(column, value));
}

void Table::write_row(int row, bool notify) {
  must_own(ctrl_run_mutex, "Table::write_row", 0);
  if (!persist_ || store_passive) return;
  Row* r = find_row(row);
  if (!r) {
    (void)remove_file(row_file_path(directory_, row), true);
  } else if (r->dirty) {
    if (store_replication && r->id.empty()) {
      r->id = new_object_id();
      keys_[r->id] = row;
    }
    std::vector<RowRecord> records;
    records.reserve(r->columns.size());
    for (size_t i = 0; i < r->columns.size(); i++) {
      const Column& col = columns_[r->columns[i]];
      if (col.encrypted) {
        records.push_back({col.name, encipher_cell(r->values[i]), true});
      } else {
        records.push_back({col.name, r->values[i], false});
      }
    }
    String data = tlvb_ ? encode_row_binary(r->id, records) : encode_row_xml(r->id, records);
    // A failed write (disk full) is logged by the writer; the row goes out at its next change.
    (void)write_file_atomic(data, row_file_path(directory_, row));
    r->dirty = false;
    if (store_replication && store_replication_hook) {
      store_replication_hook(name_, row, cells(row), r->id);
    }
  }
  if (notify && on_change) on_change(*this, row);
}

// --- loading ---

void Table::load(const String& directory) {
  must_own(ctrl_run_mutex, "Table::load", 0);
  for (int row = first(); row > 0; row = first()) {
    unindex_row(row, *find_row(row));
    remove_row(row);
  }
  directory_ = directory;
  next_id_ = read_next_id(directory);
  saved_id_ = next_id_;
  if (!persist_ || store_passive) return;
  std::vector<int> ids = list_row_files(directory, name_);
  if (log_enabled(LOG_GENERAL, 8)) {
    log_line(8, format("Read table %s (%d entries)", name_, static_cast<int>(ids.size())));
  }
  for (int id : ids) read_row(id);
}

void Table::read_row(int row) {
  must_own(ctrl_run_mutex, "Table::read_row", 0);
  must_not_own(srv_run_mutex, "Table::read_row", 0);
  String path = row_file_path(directory_, row);
  String data = read_file(path, true);
  String id;
  std::vector<RowRecord> records;
  String error;
  RowFileResult result = decode_row_file(data, id, records, error);
  if (result == RowFileResult::empty) return;
  if (result == RowFileResult::bad && log_enabled(LOG_GENERAL, 2)) {
    log_line(2, format("Row file %s of table %s: %s", path, name_, error));
  }
  Row* r = insert_row(row);
  r->id = id;
  for (const RowRecord& rec : records) {
    int c = rec.name.empty() ? -1 : column_index(rec.name);
    if (c < 0) continue;
    String value = rec.value;
    if (rec.enciphered) {
      if (!decipher_cell(rec.value, value) && log_enabled(LOG_GENERAL, 2)) {
        log_line(2, format("Enciphered cell %s in %s is shorter than its initial vector", rec.name,
                           path));
      }
      // A cell enciphered on disk in a column that is no longer encrypted goes out plain.
      if (!columns_[c].encrypted) r->dirty = true;
    } else if (columns_[c].encrypted) {
      // Written by hand in plain text: enciphered at the row's next write.
      r->dirty = true;
    }
    bool dirty = r->dirty;
    set_cell(row, *r, c, value);
    r->dirty = dirty;
  }
  index_row(row, *r);
  raise_next_id(row);
}

void Table::clear() {
  for (int row = first(); row > 0; row = first()) delete_row(row, true);
}

// --- searches ---

int Table::search(const Cond* conds, int n, bool first_only, RowSet* out) const {
  must_own(ctrl_run_mutex, "Table::search", 0);
  for (int i = 0; i < n; i++) {
    if (conds[i].column < 0) return 0;
  }
  auto matches = [&](const Row& r) {
    for (int i = 0; i < n; i++) {
      if (row_cell(r, conds[i].column) != *conds[i].value) return false;
    }
    return true;
  };
  // The smallest index set among the indexed columns drives the walk.
  const RowSet* driver = nullptr;
  static const RowSet none;
  for (int i = 0; i < n; i++) {
    const Index* index = indices_[conds[i].column].get();
    if (!index) continue;
    const RowSet* set = index->find(*conds[i].value);
    if (!set) set = &none;
    if (!driver || set->size() < driver->size()) driver = set;
  }
  int found = 0;
  if (driver) {
    if (n == 1 || driver->empty()) {
      if (out) *out = *driver;
      return first_only ? (driver->empty() ? 0 : driver->first()) : driver->size();
    }
    for (int row = driver->first(); row > 0; row = driver->next(row)) {
      if (!matches(*find_row(row))) continue;
      if (first_only) return row;
      if (out) out->add(row);
      found++;
    }
    return found;
  }
  for (int row = first(); row > 0; row = next(row)) {
    if (!matches(*find_row(row))) continue;
    if (first_only) return row;
    if (out) out->add(row);
    found++;
  }
  return found;
}

int Table::find_first(const String& c1, const String& v1) const {
  Cond c[] = {{column_index(c1), &v1}};
  return search(c, 1, true, nullptr);
}
int Table::find_first(const String& c1, const String& v1, const String& c2, const String& v2) const {
  Cond c[] = {{column_index(c1), &v1}, {column_index(c2), &v2}};
  return search(c, 2, true, nullptr);
}
int Table::find_first(const String& c1, const String& v1, const String& c2, const String& v2,
                      const String& c3, const String& v3) const {
  Cond c[] = {{column_index(c1), &v1}, {column_index(c2), &v2}, {column_index(c3), &v3}};
  return search(c, 3, true, nullptr);
}
int Table::find_first(const String& c1, const String& v1, const String& c2, const String& v2,
                      const String& c3, const String& v3, const String& c4, const String& v4) const {
  Cond c[] = {{column_index(c1), &v1}, {column_index(c2), &v2}, {column_index(c3), &v3},
              {column_index(c4), &v4}};
  return search(c, 4, true, nullptr);
}
RowSet Table::find_all(const String& c1, const String& v1) const {
  Cond c[] = {{column_index(c1), &v1}};
  RowSet out;
  search(c, 1, false, &out);
  return out;
}
RowSet Table::find_all(const String& c1, const String& v1, const String& c2, const String& v2) const {
  Cond c[] = {{column_index(c1), &v1}, {column_index(c2), &v2}};
  RowSet out;
  search(c, 2, false, &out);
  return out;
}
RowSet Table::find_all(const String& c1, const String& v1, const String& c2, const String& v2,
                       const String& c3, const String& v3) const {
  Cond c[] = {{column_index(c1), &v1}, {column_index(c2), &v2}, {column_index(c3), &v3}};
  RowSet out;
  search(c, 3, false, &out);
  return out;
}
int Table::count(const String& c1, const String& v1) const {
  must_own(ctrl_run_mutex, "Table::count", 0);
  must_not_own(srv_run_mutex, "Table::count", 0);
  Cond c[] = {{column_index(c1), &v1}};
  return search(c, 1, false, nullptr);
}
int Table::count(const String& c1, const String& v1, const String& c2, const String& v2) const {
  Cond c[] = {{column_index(c1), &v1}, {column_index(c2), &v2}};
  return search(c, 2, false, nullptr);
}
int Table::count(const String& c1, const String& v1, const String& c2, const String& v2,
                 const String& c3, const String& v3) const {
  Cond c[] = {{column_index(c1), &v1}, {column_index(c2), &v2}, {column_index(c3), &v3}};
  return search(c, 3, false, nullptr);
}

int Table::same(int row, const String* const* columns, int n, bool forward) const {
  must_own(ctrl_run_mutex, "Table::same", 0);
  const Row* r = find_row(row);
  if (!r) return 0;
  Cond conds[3];
  for (int i = 0; i < n; i++) {
    int c = column_index(*columns[i]);
    if (c < 0) return 0;
    conds[i] = {c, &row_cell(*r, c)};
  }
  auto matches = [&](int candidate) {
    const Row& o = *find_row(candidate);
    for (int i = 0; i < n; i++) {
      if (row_cell(o, conds[i].column) != *conds[i].value) return false;
    }
    return true;
  };
  for (int i = 0; i < n; i++) {
    const Index* index = indices_[conds[i].column].get();
    if (!index) continue;
    const RowSet* found = index->find(*conds[i].value);
    if (!found) return 0;
    const RowSet& set = *found;
    for (int k = forward ? set.next(row) : set.prev(row); k > 0; k = forward ? set.next(k) : set.prev(k)) {
      if (matches(k)) return k;
    }
    return 0;
  }
  for (int k = forward ? next(row) : prev(row); k > 0; k = forward ? next(k) : prev(k)) {
    if (matches(k)) return k;
  }
  return 0;
}

int Table::prev_same(int row, const String& c1) const {
  const String* c[] = {&c1};
  return same(row, c, 1, false);
}
int Table::prev_same(int row, const String& c1, const String& c2) const {
  const String* c[] = {&c1, &c2};
  return same(row, c, 2, false);
}
int Table::prev_same(int row, const String& c1, const String& c2, const String& c3) const {
  const String* c[] = {&c1, &c2, &c3};
  return same(row, c, 3, false);
}
int Table::next_same(int row, const String& c1) const {
  const String* c[] = {&c1};
  return same(row, c, 1, true);
}
int Table::next_same(int row, const String& c1, const String& c2) const {
  const String* c[] = {&c1, &c2};
  return same(row, c, 2, true);
}
int Table::next_same(int row, const String& c1, const String& c2, const String& c3) const {
  const String* c[] = {&c1, &c2, &c3};
  return same(row, c, 3, true);
}

String Table::stats() const {
  must_own(ctrl_run_mutex, "Table::stats", 0);
  String lookup;
  for (int c = 0; c < column_count(); c++) {
    if (!indices_[c]) continue;
    if (!lookup.empty()) lookup.append(',');
    lookup.append(format("%j:%d", columns_[c].name, static_cast<int>(indices_[c]->size())));
  }
  return format("{\"idx\":%d,\"size\":%d,\"col\":%d,\"lookup\":{%s}}", next_id_, row_count_,
                column_count(), lookup);
}

bool Table::check_indices() const {
  bool ok = true;
  for (int c = 0; c < column_count(); c++) {
    if (!indices_[c]) continue;
    int total = 0;
    indices_[c]->for_each([&](const String& value, const RowSet& set) {
      total += set.size();
      if (set.empty()) ok = false;
      for (int row : set) {
        const Row* r = find_row(row);
        if (!r || row_cell(*r, c) != value) ok = false;
      }
    });
    if (total != row_count_) ok = false;
  }
  if (!ok && log_enabled(LOG_GENERAL, 0)) {
    log_line(0, format("Assertion: the indices of table %s do not match its rows", name_));
  }
  return ok;
}
