// kill -9 at random moments while a child writes rows of both kinds of table: every start
// afterwards loads, and every row is whole, either its old or its new version.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "core/files.h"
#include "store/lazy_table.h"
#include "store/table.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

const String col_a("a"), col_b("b"), col_c("c"), col_x("x"), col_y("y");

std::unique_ptr<Table> open_table(const std::string& dir) {
  auto t = std::make_unique<Table>(String("rows"));
  t->add_column(col_a);
  t->add_column(col_b, true);
  t->add_column(col_c);
  t->load(S(dir + "/rows"));
  return t;
}

std::unique_ptr<LazyTable> open_lazy(const std::string& dir) {
  auto t = std::make_unique<LazyTable>(String("records"));
  t->add_column(col_x, true);
  t->add_column(col_y);
  t->load(S(dir + "/records"));
  return t;
}

[[noreturn]] void write_forever(const std::string& dir, unsigned seed) {
  auto t = open_table(dir);
  auto l = open_lazy(dir);
  std::mt19937 rng(seed);
  for (int k = 1;; k++) {
    String v = String(static_cast<int>(seed)) + ":" + String(k);
    int r = 1 + static_cast<int>(rng() % 40);
    if (rng() % 10 == 0) {
      t->delete_row(r);
    } else {
      // A long cell now and then, so that kills land inside larger writes too.
      String c = rng() % 8 ? v : v + String::repeat('z', 100000);
      t->set(r, col_a, v);
      t->set(r, col_b, v);
      t->set(r, col_c, c, true);
    }
    int lr = l->row_count() < 40 ? l->create_row() : l->all_rows().next(static_cast<int>(rng() % 60));
    if (lr > 0) {
      if (rng() % 12 == 0) {
        l->delete_row(lr);
      } else {
        l->set(lr, col_x, v);
        l->set(lr, col_y, v, true);
      }
    }
  }
}

}  // namespace

TEST(CrashTest, KilledWritersLeaveEveryRowOldOrNew) {
  TempDir dir;
  std::mt19937 rng(20261122);
  int tables_seen = 0, lazy_seen = 0;
  for (int round = 0; round < 200; round++) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) write_forever(dir.path(), static_cast<unsigned>(round + 1));
    // From the first instants of the start to well into the writing.
    usleep(rng() % 4 == 0 ? rng() % 500 : rng() % 30000);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);

    auto t = open_table(dir.path());
    for (int r = t->first(); r > 0; r = t->next(r)) {
      String a = t->get(r, col_a);
      ASSERT_FALSE(a.empty()) << "round " << round << " row " << r;
      ASSERT_EQ(t->get(r, col_b), a) << "round " << round << " row " << r;
      ASSERT_TRUE(t->get(r, col_c).starts_with(a)) << "round " << round << " row " << r;
      tables_seen++;
    }
    ASSERT_TRUE(t->check_indices());
    auto l = open_lazy(dir.path());
    for (int r : l->all_rows()) {
      // x comes from the journal, y from the row file: one write must have given both.
      ASSERT_EQ(l->get(r, col_x), l->get(r, col_y)) << "round " << round << " row " << r;
      ASSERT_EQ(l->find_first(col_x, l->get(r, col_x)) > 0, true);
      lazy_seen++;
    }
    ASSERT_GT(l->next_id(), l->last());
  }
  EXPECT_GT(tables_seen, 0);
  EXPECT_GT(lazy_seen, 0);
}
