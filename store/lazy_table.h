// LazyTable: a table whose rows stay on disk. Memory holds the set of row ids, the indexed
// columns (value to rows, and row to value) and one cached row; a journal per bucket of
// 2048 rows records ids and indexed values, so a start reads one file per bucket rather
// than one per row. Control half only, under ctrl_run_mutex.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "core/string.h"
#include "store/name_map.h"
#include "store/row_set.h"
#include "store/value_index.h"

class LazyTable {
 public:
  static constexpr int bucket_rows = 2048;

  explicit LazyTable(const String& name);
  LazyTable(const LazyTable&) = delete;
  LazyTable& operator=(const LazyTable&) = delete;
  ~LazyTable();

  const String& name() const { return name_; }
  const String& directory() const { return directory_; }

  // Schema time only.
  void add_column(const String& name, bool indexed = false);
  int column_count() const { return static_cast<int>(columns_.size()); }
  int column_index(const String& name) const;
  const String& column_name(int column) const { return columns_[column].name; }
  bool is_indexed(int column) const;
  bool is_encrypted(const String&) const { return false; }

  // Sets the directory and `next_id`, then replays the journals, or rebuilds them from the
  // row files when the journal directory is missing.
  void load(const String& directory);
  // Removes every row with its file and the journals.
  void clear();

  String get(int row, const String& column) const;
  String get(int row, int column) const;
  // The cell of an indexed column, from memory; empty otherwise.
  const String& indexed_cell(int row, int column) const;
  void set(int row, const String& column, const String& value, bool write = false);
  void set(int row, int column, const String& value, bool write = false);
  // A new row id, or 0 when the id range is used up.
  [[nodiscard]] int create_row(bool write = false);
  void delete_row(int row);
  // Writes the cached row to its file and the pending journal bytes of its bucket.
  void write_row(int row);

  bool has_row(int row) const { return ids_.contains(row); }
  int row_count() const { return ids_.size(); }
  int first() const { int r = ids_.first(); return r < 0 ? 0 : r; }
  int next(int row) const { int r = ids_.next(row); return r < 0 ? 0 : r; }
  int last() const { int r = ids_.last(); return r < 0 ? 0 : r; }
  const RowSet& all_rows() const { return ids_; }
  int next_id() const { return next_id_; }

  int find_first(const String& c1, const String& v1) const;
  int find_first(const String& c1, const String& v1, const String& c2, const String& v2) const;
  int find_first(const String& c1, const String& v1, const String& c2, const String& v2,
                 const String& c3, const String& v3) const;
  RowSet find_all(const String& c1, const String& v1) const;
  RowSet find_all(const String& c1, const String& v1, const String& c2, const String& v2) const;
  RowSet find_all(const String& c1, const String& v1, const String& c2, const String& v2,
                  const String& c3, const String& v3) const;
  int count(const String& c1, const String& v1) const;
  int count(const String& c1, const String& v1, const String& c2, const String& v2) const;
  int count(const String& c1, const String& v1, const String& c2, const String& v2,
            const String& c3, const String& v3) const;

  String stats() const;
  // The journal bytes of a bucket as a compaction would write them (for tests).
  String compacted_journal(int bucket) const;

 private:
  struct Column {
    String name;
    bool index = false;
  };
  // Value to rows, and row to value: the row side points at the key of the map entry, so
  // a row costs one pointer per indexed column.
  struct Index {
    ValueIndex rows;
    std::vector<std::unique_ptr<const String*[]>> pages;  // 1024 rows per page
    const String* value_of(int row) const;
    void put(int row, const String& value);
    void drop(int row);
  };
  struct Bucket {
    int rows = 0;
    int entries = 0;
    int row = 0;          // the journal's current row
    int column = -1;      // the journal's current column (-1 none, -2 `_id`)
    String pending;       // bytes not yet appended
  };
  class Replayer;

  String journal_path(int bucket) const;
  String journal_directory() const;
  void load_row_cache(int row) const;
  void journal_cell(int row, int column, const String& value);
  void flush_bucket(int bucket);
  void compact(int bucket);
  void rebuild();
  void replay(const String& file, int bucket);
  void reconcile(int row);
  void put_row(int row, bool with_cells = true);
  void fill_empty_cells(int bucket);
  void enter_row(int row, const String& id, const std::vector<String>& values);
  RowSet search(const String* const* columns, const String* const* values, int n) const;
  void log_no_index(const String* const* columns, const String* const* values, int n) const;
  void save_next_id();

  String name_;
  String directory_;
  int next_id_ = 1;
  std::vector<Column> columns_;
  NameMap column_by_name_;
  std::vector<std::unique_ptr<Index>> indices_;
  RowSet ids_;
  std::map<String, int> keys_;
  std::map<int, String> key_of_row_;
  std::map<int, Bucket> buckets_;
  // The one-row cache.
  mutable int cache_row_ = 0;
  mutable std::vector<String> cache_cells_;
  mutable String cache_key_;
  mutable bool cache_has_file_ = false;
};
