// The data model of the system as data: every table in load order with its kind, flags
// and columns (schema_tables.cpp), the routine that creates and loads them all, and the
// look-ups by name. Control half only.
#pragma once

#include <vector>

#include "core/string.h"
#include "store/lazy_table.h"
#include "store/table.h"

enum class SchemaKind { table, lazy };
constexpr int schema_tlvb = 1;     // rows in the binary form
constexpr int schema_memory = 2;   // memory only
constexpr int schema_runtime = 4;  // memory unless a setting asks for disk; no create_on_write

struct SchemaTable {
  const char* name;
  SchemaKind kind;
  int flags;
  // Blank-separated column names in order; "+" behind a name marks an index, "!" a cipher.
  const char* columns;
};
extern const SchemaTable schema_tables[];
extern const int schema_table_count;

struct SchemaColumn {
  String name;
  bool indexed = false;
  bool encrypted = false;
};
std::vector<SchemaColumn> schema_columns(const SchemaTable& table);

// Creates every table with its columns; later calls do nothing. Tables are never destroyed.
void create_tables();
// Loads every table in load order from `base`/<table name>. The flags are the settings
// `write_cobjs_to_fs` and `write_legs_to_fs`, read by the caller before the store loads.
void load_tables(const String& base, bool write_cobjs_to_fs, bool write_legs_to_fs);

// The tables that the generic access by name may reach. Other names log
// "Table %s not found" and give null.
Table* table_by_name(const String& name);
LazyTable* lazy_table_by_name(const String& name);
bool is_table_name(const String& name);
bool is_lazy_table_name(const String& name);
// Any table of the schema by name, of either kind, without a log line; null if none.
Table* find_table(const String& name);
LazyTable* find_lazy_table(const String& name);

// Empties, with their files, the tables that a restore replaces, in their fixed order.
void clear_tables();
