// The store belongs to the control half: its operations assert that the caller holds
// ctrl_run_mutex, and the failed assertion lands in the lock's dump file.
#include <gtest/gtest.h>

#include "core/files.h"
#include "core/mutex.h"
#include "store/lazy_table.h"
#include "store/table.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

TEST(LockRuleTest, OperationsWithoutTheControlLockAreReported) {
  TempDir dir;
  std::string dump = dir.file("mutex.txt");
  mutex_set_dump_path(dump.c_str());
  Table t(String("things"));
  t.add_column(String("a"), true);
  t.set_persist(false);
  LazyTable l(String("log"));
  l.add_column(String("k"), true);
  l.load(S(dir.file("log")));

  int saved_level = ctrl_run_mutex.level();
  ctrl_run_mutex.set_level(1);
  single_threaded.store(false);
  {
    MutexGuard hold(ctrl_run_mutex, "test", 1);
    t.set(1, String("a"), "x");
    EXPECT_EQ(t.find_first(String("a"), "x"), 1);
    EXPECT_EQ(l.count(String("k"), ""), 0);
  }
  EXPECT_EQ(file_size(S(dump)), -1);
  EXPECT_EQ(t.get(1, String("a")), String("x"));
  EXPECT_EQ(l.count(String("k"), ""), 0);
  single_threaded.store(true);
  ctrl_run_mutex.set_level(saved_level);
  String text = read_file(S(dump));
  EXPECT_TRUE(text.contains(String("Table::get")));
  EXPECT_TRUE(text.contains(String("LazyTable::count")));
  mutex_set_dump_path("mutex.txt");
}
