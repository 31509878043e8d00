// Table: a set of rows kept in memory, each written to a file of its own when the caller
// asks. Rows are addressed by positive ids (0 means none); cells are Strings, empty when
// never set. Control half only: every operation runs under ctrl_run_mutex, and the table
// has no lock of its own.
#pragma once

#include <climits>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "core/string.h"
#include "store/name_map.h"
#include "store/row_set.h"
#include "store/value_index.h"

class Table {
 public:
  using ChangeHook = void (*)(Table& table, int row);

  explicit Table(const String& name);
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  ~Table();

  const String& name() const { return name_; }
  const String& directory() const { return directory_; }
  bool persist() const { return persist_; }
  void set_persist(bool on) { persist_ = on; }
  bool create_on_write() const { return create_on_write_; }
  void set_create_on_write(bool on) { create_on_write_ = on; }
  bool tlvb() const { return tlvb_; }
  void set_tlvb(bool on) { tlvb_ = on; }
  ChangeHook on_change = nullptr;

  // Schema time only: the order of the calls fixes the column indices.
  void add_column(const String& name, bool indexed = false, bool encrypted = false);
  int column_count() const { return static_cast<int>(columns_.size()); }
  // -1 for a name that is no column.
  int column_index(const String& name) const;
  const String& column_name(int column) const { return columns_[column].name; }
  bool is_indexed(int column) const { return column >= 0 && column < column_count() && columns_[column].index; }
  bool is_encrypted(const String& column) const;

  // Sets the directory, reads `index.txt` and every row file below it.
  void load(const String& directory);
  // Removes every row together with its file (a restore empties the table so).
  void clear();

  // The cell, or the empty String for an unknown row or column. The reference stays good
  // until the row changes.
  const String& cell(int row, int column) const;
  String get(int row, int column) const { return cell(row, column); }
  String get(int row, const String& column) const;
  void set(int row, const String& column, const String& value, bool write = false,
           bool notify = false);
  void set(int row, int column, const String& value, bool write = false, bool notify = false);
  void set_cells(int row, const std::map<String, String>& cells, bool write = false);
  void clear_row(int row);
  // Column name to value of the non-empty cells.
  std::map<String, String> cells(int row) const;
  // The object id `_id` of a row, and the row of an object id (0 if none).
  String row_key(int row) const;
  int find_key(const String& key) const;

  // A new row id, or 0 when the id range is used up.
  [[nodiscard]] int create_row(bool write = false);
  void delete_row(int row, bool write = true);
  void delete_rows(const RowSet& rows);
  void delete_where(const String& column, const String& value);
  // Writes a dirty row to its file (or removes the file of a row that is gone) and calls
  // on_change when `notify` is set.
  void write_row(int row, bool notify = false);

  bool has_row(int row) const { return find_row(row) != nullptr; }
  int row_count() const { return row_count_; }
  int first() const { return next(0); }
  // The next row in id order, 0 at the end.
  int next(int row) const;
  int prev(int row) const;
  int last() const;
  RowSet all_rows() const;
  int next_id() const { return next_id_; }

  int find_first(const String& c1, const String& v1) const;
  int find_first(const String& c1, const String& v1, const String& c2, const String& v2) const;
  int find_first(const String& c1, const String& v1, const String& c2, const String& v2,
                 const String& c3, const String& v3) const;
  int find_first(const String& c1, const String& v1, const String& c2, const String& v2,
                 const String& c3, const String& v3, const String& c4, const String& v4) const;
  RowSet find_all(const String& c1, const String& v1) const;
  RowSet find_all(const String& c1, const String& v1, const String& c2, const String& v2) const;
  RowSet find_all(const String& c1, const String& v1, const String& c2, const String& v2,
                  const String& c3, const String& v3) const;
  int count(const String& c1, const String& v1) const;
  int count(const String& c1, const String& v1, const String& c2, const String& v2) const;
  int count(const String& c1, const String& v1, const String& c2, const String& v2,
            const String& c3, const String& v3) const;

  // The neighbouring row in id order whose cells in these columns equal those of `row`.
  int prev_same(int row, const String& c1) const;
  int prev_same(int row, const String& c1, const String& c2) const;
  int prev_same(int row, const String& c1, const String& c2, const String& c3) const;
  int next_same(int row, const String& c1) const;
  int next_same(int row, const String& c1, const String& c2) const;
  int next_same(int row, const String& c1, const String& c2, const String& c3) const;

  // {"idx":next_id,"size":rows,"col":columns,"lookup":{"column":distinct values,...}}
  String stats() const;
  // Checks that every row sits in exactly one index entry per indexed column, under its
  // own value; logs and returns false otherwise. For tests and after repairs.
  bool check_indices() const;

 private:
  struct Column {
    String name;
    bool index = false;
    bool encrypted = false;
  };
  static constexpr uint16_t no_slot = 0xFFFF;
  // Cells are kept sparse, sorted by column: a `domains` row has 270 columns and most rows
  // use a few of them.
  struct Row {
    std::vector<uint16_t> columns;
    std::vector<String> values;
    String id;
    bool dirty = false;
  };
  // 1024 row slots; the used ones are chained both ways so that iteration never looks at
  // an empty slot.
  struct Block {
    Row* slots[1024] = {};
    uint16_t next[1024];
    uint16_t prev[1024];
    int used = 0;
    uint16_t first = no_slot;
    uint16_t last = no_slot;
  };
  struct Cond {
    int column;
    const String* value;
  };
  using Index = ValueIndex;

  Row* find_row(int row) const {
    if (row <= 0) return nullptr;
    size_t b = static_cast<size_t>(row) >> 10;
    if (b >= blocks_.size() || !blocks_[b]) return nullptr;
    return blocks_[b]->slots[row & 1023];
  }
  Row* insert_row(int row);
  void remove_row(int row);
  void index_row(int row, const Row& r);
  void unindex_row(int row, const Row& r);
  void set_cell(int row, Row& r, int column, const String& value);
  void raise_next_id(int row);
  void save_next_id();
  void read_row(int row);
  int search(const Cond* conds, int n, bool first_only, RowSet* out) const;
  int same(int row, const String* const* columns, int n, bool forward) const;
  static const String& row_cell(const Row& r, int column);

  String name_;
  String directory_;
  bool persist_ = true;
  bool create_on_write_ = true;
  bool tlvb_ = false;
  int next_id_ = 1;
  int saved_id_ = 1;
  int row_count_ = 0;
  std::vector<Column> columns_;
  NameMap column_by_name_;
  std::vector<std::unique_ptr<Index>> indices_;  // per column, null when not indexed
  std::map<String, int> keys_;
  std::vector<Block*> blocks_;
};
