#include "sip/domain_names.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include "core/mutex.h"
#include "core/server.h"
#include "store/names.h"
#include "store/schema.h"

namespace {

using Names = std::vector<String>;
// The lock covers the exchange of the pointer only; readers search their own reference
// while the control half builds the next list.
std::mutex names_lock;
std::shared_ptr<const Names> published = std::make_shared<const Names>();

void add_names(Names& out, const String& table_name) {
  Table* t = find_table(table_name);
  if (!t) return;
  int column = t->column_index(col_name);
  if (column < 0) return;
  for (int row = t->first(); row != 0; row = t->next(row)) {
    String name = t->get(row, column).trim().to_lower();
    if (!name.empty()) out.push_back(name);
  }
}

void on_table_change(Table&, int) { publish_domain_names(); }

void publish_and_watch() {
  for (const String* name : {&tbl_domains, &tbl_domain_alias}) {
    Table* t = find_table(*name);
    if (t && !t->on_change) t->on_change = on_table_change;
  }
  publish_domain_names();
}

}  // namespace

void publish_domain_names() {
  must_own(ctrl_run_mutex, "publish_domain_names", 1);
  auto names = std::make_shared<Names>();
  add_names(*names, tbl_domains);
  add_names(*names, tbl_domain_alias);
  std::sort(names->begin(), names->end());
  std::lock_guard<std::mutex> g(names_lock);
  published = std::move(names);
}

bool domain_name_known(const String& host) {
  std::shared_ptr<const Names> names;
  {
    std::lock_guard<std::mutex> g(names_lock);
    names = published;
  }
  String key = host.to_lower();
  return std::binary_search(names->begin(), names->end(), key);
}

void domain_names_register() { register_start_step(StartStage::services, publish_and_watch); }
