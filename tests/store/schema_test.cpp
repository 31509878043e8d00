#include "store/schema.h"

#include <gtest/gtest.h>

#include <set>

#include "core/files.h"
#include "store/names.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

// The counts of the table list as written down for this system; a table or column added
// or lost by accident changes one of them.
TEST(SchemaTest, CountsOfTablesAndColumns) {
  int lazy = 0, columns = 0, indexed = 0, encrypted = 0, tlvb = 0, memory = 0;
  for (int i = 0; i < schema_table_count; i++) {
    const SchemaTable& t = schema_tables[i];
    if (t.kind == SchemaKind::lazy) lazy++;
    if (t.flags & schema_tlvb) tlvb++;
    if (t.flags & schema_memory) memory++;
    for (const SchemaColumn& c : schema_columns(t)) {
      columns++;
      indexed += c.indexed;
      encrypted += c.encrypted;
    }
  }
  EXPECT_EQ(schema_table_count, 70);
  EXPECT_EQ(lazy, 21);
  EXPECT_EQ(columns, 1471);
  EXPECT_EQ(indexed, 198);
  EXPECT_EQ(encrypted, 46);
  EXPECT_EQ(tlvb, 6);
  EXPECT_EQ(memory, 3);
  EXPECT_EQ(schema_columns(schema_tables[0]).size(), 270u);  // domains
}

TEST(SchemaTest, NamesAreUniqueAndWellFormed) {
  std::set<String> tables;
  for (int i = 0; i < schema_table_count; i++) {
    const SchemaTable& t = schema_tables[i];
    EXPECT_TRUE(tables.insert(String(t.name)).second) << t.name;
    std::set<String> names;
    for (const SchemaColumn& c : schema_columns(t)) {
      EXPECT_TRUE(names.insert(c.name).second) << t.name << "." << to_std(c.name);
      EXPECT_FALSE(c.name.empty());
      EXPECT_LE(c.name.length(), 255);  // the journal's column names are one length byte
      EXPECT_FALSE(c.name.contains('+') || c.name.contains('!'));
      if (t.kind == SchemaKind::lazy) {
        EXPECT_FALSE(c.encrypted) << t.name;  // no cipher there
      }
    }
  }
}

TEST(SchemaTest, TablesByNameAndTheirFlags) {
  TempDir dir;
  LogCapture log;
  load_tables(S(dir.path()), false, false);
  EXPECT_EQ(table_by_name("emails"), nullptr);
  EXPECT_TRUE(log.contains("Table emails not found"));
  ASSERT_NE(lazy_table_by_name("emails"), nullptr);
  EXPECT_EQ(lazy_table_by_name("emails")->name(), String("emails"));
  EXPECT_EQ(lazy_table_by_name("cdr"), nullptr);  // reached by the code that owns it only
  ASSERT_NE(find_lazy_table(tbl_cdr), nullptr);
  EXPECT_TRUE(is_table_name("outbounds"));
  EXPECT_TRUE(is_table_name("domains"));
  EXPECT_FALSE(is_table_name("cdr"));
  EXPECT_TRUE(is_lazy_table_name("gstatm"));
  EXPECT_FALSE(is_lazy_table_name("emails"));

  Table* domains = table_by_name(tbl_domains);
  ASSERT_NE(domains, nullptr);
  EXPECT_EQ(domains->column_count(), 270);
  EXPECT_TRUE(domains->is_indexed(domains->column_index(col_name)));
  EXPECT_TRUE(domains->is_encrypted(col_email_pass));
  EXPECT_TRUE(table_by_name(tbl_btmpl)->tlvb());
  EXPECT_FALSE(table_by_name(tbl_domains)->tlvb());
  EXPECT_FALSE(table_by_name(tbl_cells)->persist());
  Table* conferences = table_by_name(tbl_conferences);
  int pin = conferences->column_index(col_pin);
  EXPECT_TRUE(conferences->is_indexed(pin) && conferences->is_encrypted(col_pin));
  EXPECT_EQ(col_check_sync, String("check-sync"));
  EXPECT_EQ(col_F, String("F"));

  // Run-time tables: no rows made by writing, nothing on disk unless the setting asks.
  Table* legs = table_by_name(tbl_legs);
  legs->set(5, col_state, "x", true);
  EXPECT_FALSE(legs->has_row(5));
  EXPECT_TRUE(log.contains("Writing to row 5 which does not exist in table legs, ignoring request"));
  Table* cobjs = table_by_name(tbl_cobjs);
  int call = cobjs->create_row(true);
  cobjs->set(call, col_state, "talking", true);
  EXPECT_FALSE(is_directory(S(dir.file("cobjs"))));
  load_tables(S(dir.path()), false, false);
  EXPECT_EQ(table_by_name(tbl_cobjs)->row_count(), 0);

  load_tables(S(dir.path()), true, false);
  cobjs = table_by_name(tbl_cobjs);
  call = cobjs->create_row(true);
  cobjs->set(call, col_state, "talking", true);
  load_tables(S(dir.path()), true, false);
  EXPECT_EQ(table_by_name(tbl_cobjs)->get(call, col_state), String("talking"));

  // A restore empties the tables with their files.
  table_by_name(tbl_domains)->set(1, col_name, "example.test", true);
  int cdr = find_lazy_table(tbl_cdr)->create_row(true);
  EXPECT_GT(cdr, 0);
  clear_tables();
  EXPECT_EQ(table_by_name(tbl_domains)->row_count(), 0);
  EXPECT_EQ(find_lazy_table(tbl_cdr)->row_count(), 0);
  EXPECT_EQ(file_size(S(dir.file("domains/1.xml"))), -1);
  load_tables(S(dir.path()), false, false);
  EXPECT_EQ(table_by_name(tbl_domains)->row_count(), 0);
}
