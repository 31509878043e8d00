#include "store/lazy_table.h"

#include <algorithm>
#include <climits>

#include "core/files.h"
#include "core/format.h"
#include "core/log.h"
#include "core/mutex.h"
#include "store/cell_cipher.h"
#include "store/journal.h"
#include "store/row_file.h"
#include "store/store_mode.h"
#include "store/table_files.h"

namespace {
const String empty_value;
constexpr int key_column = -2;
constexpr int page_rows = 1024;

void log_line(int level, const String& text) {
  log_add_message_global(LOG_GENERAL, level, 0, text);
}

struct ByValue {
  bool operator()(const String* a, const String* b) const { return *a < *b; }
};
}  // namespace

// --- the two-way index of one column ---

const String* LazyTable::Index::value_of(int row) const {
  size_t page = static_cast<size_t>(row) / page_rows;
  if (row <= 0 || page >= pages.size() || !pages[page]) return nullptr;
  return pages[page][row % page_rows];
}

void LazyTable::Index::put(int row, const String& given) {
  String value = given;  // `given` may be the very key that drop() erases
  drop(row);
  ValueIndex::Entry* it = &rows.entry(value);
  it->second.add(row);
  size_t page = static_cast<size_t>(row) / page_rows;
  if (page >= pages.size()) pages.resize(page + 1);
  if (!pages[page]) {
    pages[page].reset(new const String*[page_rows]);
    std::fill(pages[page].get(), pages[page].get() + page_rows, nullptr);
  }
  pages[page][row % page_rows] = &it->first;
}

void LazyTable::Index::drop(int row) {
  const String* value = value_of(row);
  if (!value) return;
  RowSet* set = rows.find(*value);
  set->remove(row);
  if (set->empty()) rows.erase(*value);
  pages[static_cast<size_t>(row) / page_rows][row % page_rows] = nullptr;
}

// --- replay of a journal file into the table ---

class LazyTable::Replayer : public JournalSink {
 public:
  Replayer(LazyTable& table, int bucket, const String& file)
      : table_(table), low_(static_cast<int64_t>(bucket) * bucket_rows), file_(file) {}

  bool accept(int64_t row) {
    if (row >= 1 && row >= low_ && row < low_ + bucket_rows) return true;
    if (!warned_ && log_enabled(LOG_GENERAL, 2)) {
      log_line(2, format("Journal %s of table %s names row %d outside its bucket", file_,
                         table_.name_, static_cast<long>(row)));
    }
    warned_ = true;
    return false;
  }
  void on_row(int64_t row) override {
    if (accept(row)) table_.put_row(static_cast<int>(row), false);
  }
  void on_set(int64_t row, const String& column, const String& value) override {
    if (!accept(row)) return;
    int r = static_cast<int>(row);
    table_.put_row(r, false);
    if (column == row_id_name) {
      auto old = table_.key_of_row_.find(r);
      if (old != table_.key_of_row_.end()) table_.keys_.erase(old->second);
      if (value.empty()) {
        table_.key_of_row_.erase(r);
      } else {
        table_.key_of_row_[r] = value;
        table_.keys_[value] = r;
      }
      return;
    }
    int c = table_.column_index(column);
    if (c < 0 || !table_.indices_[c]) return;
    // A buffer of its own: a cut of the journal would keep the whole file in memory.
    table_.indices_[c]->put(r, String(value.c_data(), value.length()));
  }
  void on_delete(int64_t row) override {
    if (!accept(row) || !table_.has_row(static_cast<int>(row))) return;
    int r = static_cast<int>(row);
    for (auto& index : table_.indices_) {
      if (index) index->drop(r);
    }
    auto key = table_.key_of_row_.find(r);
    if (key != table_.key_of_row_.end()) {
      table_.keys_.erase(key->second);
      table_.key_of_row_.erase(key);
    }
    table_.ids_.remove(r);
    table_.buckets_[r / bucket_rows].rows--;
  }

 private:
  LazyTable& table_;
  int64_t low_;
  String file_;
  bool warned_ = false;
};

LazyTable::LazyTable(const String& name) : name_(name), directory_(name) {}
LazyTable::~LazyTable() = default;

void LazyTable::add_column(const String& name, bool indexed) {
  if (column_by_name_.contains(name) || name.length() > 255) return;
  column_by_name_.add(name, column_count());
  columns_.push_back({name, indexed});
  indices_.emplace_back(indexed ? new Index() : nullptr);
}

int LazyTable::column_index(const String& name) const { return column_by_name_.find(name); }

bool LazyTable::is_indexed(int column) const {
  return column >= 0 && column < column_count() && indices_[column] != nullptr;
}

String LazyTable::journal_directory() const { return directory_ + "/index"; }

String LazyTable::journal_path(int bucket) const {
  return format("%s/index/%d.bin", directory_, bucket);
}

void LazyTable::save_next_id() {
  if (!store_passive) (void)write_next_id(directory_, next_id_);
}

// Enters a row with empty indexed cells, unless it is already there. A replay leaves the
// cells out and fills the empty ones at the end of the file (fill_empty_cells), which
// spares two index changes per cell that the journal sets anyway.
void LazyTable::put_row(int row, bool with_cells) {
  if (!ids_.add(row)) return;
  buckets_[row / bucket_rows].rows++;
  if (!with_cells) return;
  for (auto& index : indices_) {
    if (index) index->put(row, empty_value);
  }
}

void LazyTable::fill_empty_cells(int bucket) {
  int low = bucket * bucket_rows;
  for (int row = ids_.next(low == 0 ? 0 : low - 1); row > 0 && row < low + bucket_rows; row = ids_.next(row)) {
    for (auto& index : indices_) {
      if (index && !index->value_of(row)) index->put(row, empty_value);
    }
  }
}

// --- reading ---

void LazyTable::load_row_cache(int row) const {
  if (cache_row_ == row) return;
  cache_row_ = row;
  cache_cells_.assign(columns_.size(), String());
  cache_key_ = String();
  String data = read_file(row_file_path(directory_, row), true);
  cache_has_file_ = !data.empty();
  String id;
  std::vector<RowRecord> records;
  String error;
  if (decode_row_file(data, id, records, error) == RowFileResult::bad && log_enabled(LOG_GENERAL, 2)) {
    log_line(2, format("Row file %d of table %s: %s", row, name_, error));
  }
  cache_key_ = id;
  for (const RowRecord& rec : records) {
    int c = column_index(rec.name);
    if (c < 0) continue;
    if (rec.enciphered) {
      (void)decipher_cell(rec.value, cache_cells_[c]);
    } else {
      cache_cells_[c] = rec.value;
    }
  }
  // The indices are what searches see; the cached row agrees with them.
  for (int c = 0; c < column_count(); c++) {
    if (!indices_[c]) continue;
    const String* v = indices_[c]->value_of(row);
    cache_cells_[c] = v ? *v : String();
  }
}

const String& LazyTable::indexed_cell(int row, int column) const {
  if (!is_indexed(column)) return empty_value;
  const String* v = indices_[column]->value_of(row);
  return v ? *v : empty_value;
}

String LazyTable::get(int row, int column) const {
  must_own(ctrl_run_mutex, "LazyTable::get", 0);
  if (!has_row(row) || column < 0 || column >= column_count()) return String();
  if (indices_[column]) return indexed_cell(row, column);
  load_row_cache(row);
  return cache_cells_[column];
}

String LazyTable::get(int row, const String& column) const {
  if (column == row_id_name) {
    auto it = key_of_row_.find(row);
    return it == key_of_row_.end() ? String() : it->second;
  }
  return get(row, column_index(column));
}

// --- writing ---

void LazyTable::journal_cell(int row, int column, const String& value) {
  Bucket& b = buckets_[row / bucket_rows];
  if (b.row != row) {
    journal_put_row(b.pending, row);
    b.row = row;
  }
  if (b.column != column) {
    journal_put_column(b.pending, column == key_column ? row_id_name : columns_[column].name);
    b.column = column;
  }
  journal_put_set(b.pending, value);
  b.entries++;
}

void LazyTable::set(int row, const String& column, const String& value, bool write) {
  if (column == row_id_name) {
    if (!has_row(row)) return;
    load_row_cache(row);
    if (cache_key_ != value) {
      auto old = key_of_row_.find(row);
      if (old != key_of_row_.end()) keys_.erase(old->second);
      if (value.empty()) key_of_row_.erase(row); else { key_of_row_[row] = value; keys_[value] = row; }
      cache_key_ = value;
      journal_cell(row, key_column, value);
    }
    if (write) write_row(row);
    return;
  }
  set(row, column_index(column), value, write);
}

void LazyTable::set(int row, int column, const String& value, bool write) {
  must_own(ctrl_run_mutex, "LazyTable::set", 0);
  if (!has_row(row) || column < 0 || column >= column_count()) return;
  load_row_cache(row);
  if (cache_cells_[column] != value) {
    cache_cells_[column] = value;
    if (indices_[column]) {
      indices_[column]->put(row, value);
      journal_cell(row, column, value);
    }
  }
  if (write) write_row(row);
}

int LazyTable::create_row(bool write) {
  must_own(ctrl_run_mutex, "LazyTable::create_row", 0);
  int id = next_id_;
  while (has_row(id)) {
    if (id == INT_MAX) {
      if (log_enabled(LOG_GENERAL, 0)) log_line(0, format("Table %s has no free row id", name_));
      return 0;
    }
    id++;
  }
  next_id_ = id == INT_MAX ? INT_MAX : id + 1;
  save_next_id();
  put_row(id);
  Bucket& b = buckets_[id / bucket_rows];
  journal_put_row(b.pending, id);
  b.row = id;
  b.entries++;
  cache_row_ = id;
  cache_cells_.assign(columns_.size(), String());
  cache_key_ = String();
  cache_has_file_ = false;
  if (write) write_row(id);
  return id;
}

void LazyTable::flush_bucket(int bucket) {
  auto it = buckets_.find(bucket);
  if (it == buckets_.end()) return;
  Bucket& b = it->second;
  if (store_passive) {
    b.pending = String();
    return;
  }
  if (!b.pending.empty()) {
    if (!append_file(b.pending, journal_path(bucket)) && log_enabled(LOG_GENERAL, 2)) {
      log_line(2, format("Could not append to the journal of table %s", name_));
    }
    b.pending = String();
  }
  if (b.rows == 0 || b.entries > column_count() * 4096) compact(bucket);
}

// Order matters for a kill between the two writes. A row that has a file gets the journal
// first: a start finds the row named last in the journal and takes its cells from the
// file (see reconcile). A row without a file yet gets the file first: cut before the
// journal, the row is simply not there, as before the write.
void LazyTable::write_row(int row) {
  must_own(ctrl_run_mutex, "LazyTable::write_row", 0);
  int bucket = row / bucket_rows;
  if (!has_row(row) || cache_row_ != row) {
    flush_bucket(bucket);
    return;
  }
  std::vector<RowRecord> records;
  for (int c = 0; c < column_count(); c++) {
    if (!cache_cells_[c].empty()) records.push_back({columns_[c].name, cache_cells_[c], false});
  }
  if (store_passive) return;
  String data = encode_row_binary(cache_key_, records);
  String path = row_file_path(directory_, row);
  if (cache_has_file_) {
    flush_bucket(bucket);
    (void)write_file_atomic(data, path);
  } else {
    cache_has_file_ = write_file_atomic(data, path);
    flush_bucket(bucket);
  }
}

void LazyTable::delete_row(int row) {
  must_own(ctrl_run_mutex, "LazyTable::delete_row", 0);
  if (!has_row(row)) return;
  int bucket = row / bucket_rows;
  Bucket& b = buckets_[bucket];
  if (b.row != row) {
    journal_put_row(b.pending, row);
    b.row = row;
  }
  journal_put_delete(b.pending);
  b.entries++;
  for (auto& index : indices_) {
    if (index) index->drop(row);
  }
  auto key = key_of_row_.find(row);
  if (key != key_of_row_.end()) {
    keys_.erase(key->second);
    key_of_row_.erase(key);
  }
  ids_.remove(row);
  b.rows--;
  if (cache_row_ == row) cache_row_ = 0;
  flush_bucket(bucket);
  if (!store_passive) (void)remove_file(row_file_path(directory_, row), true);
}

String LazyTable::compacted_journal(int bucket) const {
  String out;
  int low = bucket * bucket_rows;
  int high = low + bucket_rows - 1;
  bool any_index = false;
  for (int c = 0; c < column_count(); c++) {
    if (!indices_[c]) continue;
    any_index = true;
    std::map<const String*, std::vector<int>, ByValue> groups;
    for (int row = ids_.next(low == 0 ? 0 : low - 1); row > 0 && row <= high; row = ids_.next(row)) {
      const String* v = indices_[c]->value_of(row);
      groups[v ? v : &empty_value].push_back(row);
    }
    if (groups.empty()) continue;
    journal_put_column(out, columns_[c].name);
    for (const auto& [value, rows] : groups) {
      journal_put_value(out, *value);
      journal_put_rows(out, rows);
    }
  }
  bool keys = false;
  for (auto it = key_of_row_.lower_bound(low); it != key_of_row_.end() && it->first <= high; ++it) {
    if (!keys) journal_put_column(out, row_id_name);
    keys = true;
    journal_put_value(out, it->second);
    journal_put_rows(out, {it->first});
  }
  if (!any_index) {
    for (int row = ids_.next(low == 0 ? 0 : low - 1); row > 0 && row <= high; row = ids_.next(row)) {
      journal_put_row(out, row);
    }
  }
  return out;
}

void LazyTable::compact(int bucket) {
  String data = compacted_journal(bucket);
  if (data.empty()) {
    (void)remove_file(journal_path(bucket), true);
    buckets_.erase(bucket);
    return;
  }
  (void)write_file_atomic(data, journal_path(bucket));
  Bucket& b = buckets_[bucket];
  b.pending = String();
  b.entries = 0;
  b.row = 0;
  b.column = -1;
}

// --- loading ---

void LazyTable::load(const String& directory) {
  must_own(ctrl_run_mutex, "LazyTable::load", 0);
  directory_ = directory;
  ids_.clear();
  for (auto& index : indices_) {
    if (index) index.reset(new Index());
  }
  keys_.clear();
  key_of_row_.clear();
  buckets_.clear();
  cache_row_ = 0;
  next_id_ = read_next_id(directory);
  if (store_passive) return;
  if (is_directory(journal_directory())) {
    if (log_enabled(LOG_GENERAL, 8)) log_line(8, format("Reading index for table %s", name_));
    std::vector<std::pair<int, String>> files;
    for (const DirectoryEntry& e : list_directory(journal_directory())) {
      if (e.is_directory || !e.name.ends_with(String(".bin"))) {
        if (e.name.ends_with(temp_file_suffix)) (void)remove_file(journal_directory() + "/" + e.name, true);
        continue;
      }
      String number = e.name.head(e.name.length() - 4);
      int bucket = number == "0" ? 0 : parse_row_id(number);
      if (bucket == 0 && number != "0") {
        if (log_enabled(LOG_GENERAL, 2)) {
          log_line(2, format("Passing over %s in the index of table %s", e.name, name_));
        }
        continue;
      }
      if (bucket > INT_MAX / bucket_rows) continue;
      files.push_back({bucket, e.name});
    }
    std::sort(files.begin(), files.end());
    for (const auto& [bucket, file] : files) replay(journal_directory() + "/" + file, bucket);
  } else {
    rebuild();
  }
  int top = last();
  if (top >= next_id_) {
    next_id_ = top == INT_MAX ? INT_MAX : top + 1;
    save_next_id();
  }
}

void LazyTable::replay(const String& file, int bucket) {
  String data = read_file(file, true);
  Replayer sink(*this, bucket, file);
  JournalReplay result = replay_journal(data, sink);
  fill_empty_cells(bucket);
  if (!result.error.empty()) {
    if (log_enabled(LOG_GENERAL, 2)) {
      log_line(2, format("Journal %s of table %s: %s; keeping the first %d bytes", file, name_,
                         result.error, result.consumed));
    }
    // Cut at the last complete command, so that later appends stay readable.
    (void)write_file_atomic(data.head(result.consumed), file);
  }
  auto it = buckets_.find(bucket);
  if (it == buckets_.end() || it->second.rows <= 0) {
    (void)remove_file(file, true);
    buckets_.erase(bucket);
    return;
  }
  it->second.entries = result.commands;
  it->second.row = 0;
  it->second.column = -1;
  int64_t last_row = result.last_row;
  if (last_row >= 1 && last_row / bucket_rows == bucket) reconcile(static_cast<int>(last_row));
}

// The row named last in a journal may have been cut off between the journal and its file
// (see write_row). Its file, written after the journal, is the truth: indexed cells that
// differ from it take the file's values. A row without a file keeps what the journal says.
void LazyTable::reconcile(int row) {
  if (!has_row(row)) return;
  String data = read_file(row_file_path(directory_, row), true);
  if (data.empty()) return;
  cache_row_ = 0;
  String id;
  std::vector<RowRecord> records;
  String error;
  (void)decode_row_file(data, id, records, error);
  std::vector<String> values(columns_.size());
  for (const RowRecord& rec : records) {
    int c = column_index(rec.name);
    if (c >= 0) values[c] = rec.value;
  }
  for (int c = 0; c < column_count(); c++) {
    if (indices_[c] && indexed_cell(row, c) != values[c]) {
      indices_[c]->put(row, values[c]);
      journal_cell(row, c, values[c]);
    }
  }
  flush_bucket(row / bucket_rows);
}

void LazyTable::enter_row(int row, const String& id, const std::vector<String>& values) {
  put_row(row);
  for (int c = 0; c < column_count(); c++) {
    if (indices_[c] && !values[c].empty()) indices_[c]->put(row, values[c]);
  }
  if (!id.empty()) {
    key_of_row_[row] = id;
    keys_[id] = row;
  }
}

void LazyTable::rebuild() {
  if (log_enabled(LOG_GENERAL, 8)) log_line(8, format("Rebuilding index for table %s", name_));
  std::vector<int> rows = list_row_files(directory_, name_);
  if (log_enabled(LOG_GENERAL, 5)) {
    log_line(5, format("Found %d files for table %s", static_cast<int>(rows.size()), name_));
  }
  for (int row : rows) {
    String data = read_file(row_file_path(directory_, row), true);
    String id;
    std::vector<RowRecord> records;
    String error;
    RowFileResult result = decode_row_file(data, id, records, error);
    if (result == RowFileResult::empty) continue;
    if (result == RowFileResult::bad && log_enabled(LOG_GENERAL, 2)) {
      log_line(2, format("Row file %d of table %s: %s", row, name_, error));
    }
    std::vector<String> values(columns_.size());
    for (const RowRecord& rec : records) {
      int c = column_index(rec.name);
      if (c >= 0) values[c] = rec.value;
    }
    enter_row(row, id, values);
  }
  make_path(journal_directory() + "/");
  if (log_enabled(LOG_GENERAL, 5)) log_line(5, format("Writing index for table %s", name_));
  std::vector<int> buckets;
  for (const auto& [bucket, state] : buckets_) buckets.push_back(bucket);
  for (int bucket : buckets) compact(bucket);
}

void LazyTable::clear() {
  for (int row = first(); row > 0; row = first()) delete_row(row);
}

// --- searches ---

void LazyTable::log_no_index(const String* const* columns, const String* const* values, int n) const {
  if (!log_enabled(LOG_GENERAL, 0)) return;
  if (n == 1) {
    log_line(0, format("Search in %s for %s %s is not implemented (set index)", name_, *columns[0],
                       *values[0]));
  } else {
    log_line(0, format("Search in %s for %s %s %s is not implemented (set index)", name_,
                       *columns[0], *values[0], *columns[1]));
  }
}

RowSet LazyTable::search(const String* const* columns, const String* const* values, int n) const {
  must_own(ctrl_run_mutex, "LazyTable::search", 0);
  const RowSet* sets[3] = {nullptr, nullptr, nullptr};
  static const RowSet none;
  for (int i = 0; i < n; i++) {
    int c = column_index(*columns[i]);
    if (!is_indexed(c)) {
      log_no_index(columns, values, n);
      return RowSet();
    }
    const RowSet* found = indices_[c]->rows.find(*values[i]);
    sets[i] = found ? found : &none;
  }
  RowSet out = *sets[0];
  for (int i = 1; i < n; i++) out = RowSet::intersect(out, *sets[i]);
  return out;
}

int LazyTable::find_first(const String& c1, const String& v1) const {
  int r = find_all(c1, v1).first();
  return r < 0 ? 0 : r;
}
int LazyTable::find_first(const String& c1, const String& v1, const String& c2, const String& v2) const {
  int r = find_all(c1, v1, c2, v2).first();
  return r < 0 ? 0 : r;
}
int LazyTable::find_first(const String& c1, const String& v1, const String& c2, const String& v2,
                          const String& c3, const String& v3) const {
  int r = find_all(c1, v1, c2, v2, c3, v3).first();
  return r < 0 ? 0 : r;
}
RowSet LazyTable::find_all(const String& c1, const String& v1) const {
  const String* c[] = {&c1};
  const String* v[] = {&v1};
  return search(c, v, 1);
}
RowSet LazyTable::find_all(const String& c1, const String& v1, const String& c2, const String& v2) const {
  const String* c[] = {&c1, &c2};
  const String* v[] = {&v1, &v2};
  return search(c, v, 2);
}
RowSet LazyTable::find_all(const String& c1, const String& v1, const String& c2, const String& v2,
                           const String& c3, const String& v3) const {
  const String* c[] = {&c1, &c2, &c3};
  const String* v[] = {&v1, &v2, &v3};
  return search(c, v, 3);
}
int LazyTable::count(const String& c1, const String& v1) const {
  must_own(ctrl_run_mutex, "LazyTable::count", 0);
  must_not_own(srv_run_mutex, "LazyTable::count", 0); return find_all(c1, v1).size(); }
int LazyTable::count(const String& c1, const String& v1, const String& c2, const String& v2) const {
  return find_all(c1, v1, c2, v2).size();
}
int LazyTable::count(const String& c1, const String& v1, const String& c2, const String& v2,
                     const String& c3, const String& v3) const {
  return find_all(c1, v1, c2, v2, c3, v3).size();
}

String LazyTable::stats() const {
  must_own(ctrl_run_mutex, "LazyTable::stats", 0);
  String lookup;
  for (int c = 0; c < column_count(); c++) {
    if (!indices_[c]) continue;
    if (!lookup.empty()) lookup.append(',');
    lookup.append(format("%j:%d", columns_[c].name, static_cast<int>(indices_[c]->rows.size())));
  }
  return format("{\"idx\":%d,\"size\":%d,\"col\":%d,\"lookup\":{%s}}", next_id_, row_count(),
                column_count(), lookup);
}
