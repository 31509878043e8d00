#include "store/schema.h"

#include <map>
#include <memory>
#include <set>

#include "core/format.h"
#include "core/log.h"
#include "store/names.h"

namespace {

struct Registry {
  std::map<String, std::unique_ptr<Table>> tables;
  std::map<String, std::unique_ptr<LazyTable>> lazy;
};

Registry& registry() {
  static Registry r;
  return r;
}

const char* const generic_tables[] = {
    "domains", "domain_alias", "users", "user_alias", "registrations", "regidx", "fcmregs",
    "dial_plan", "dial_plan_entry", "extensions", "attendants", "callingcards", "autocallback",
    "trunks", "hunts", "hoots", "srvflags", "ivrnodes", "alerts", "acds", "conferences", "orbits",
    "schedules", "wipers", "adrbook", "cobjs", "messages", "colines", "mohs", "pnp_parms",
    "accesslist", "webpages", "macs", "btmpl", "cells", "certificates", "legs", "locations",
    "billcfg", "billdata", "syncedcontacts"};
const char* const generic_lazy_tables[] = {"billcdr", "gstatm", "astatm", "gstatw", "astatw",
                                           "gstatd", "astatd", "gstath", "astath", "weblogin",
                                           "extlog", "emails"};
const char* const extra_table_names[] = {"weblogin", "extlog", "emails", "outbounds"};
const char* const lazy_table_names[] = {"billcdr", "gstatm", "astatm", "gstatw", "astatw",
                                        "gstatd", "astatd", "gstath", "astath"};
// A restore empties these, in this order.
const char* const restore_order[] = {
    "domains", "domain_alias", "users", "user_alias", "extensions", "login", "attendants",
    "autocallback", "callingcards", "hunts", "hoots", "srvflags", "ivrnodes", "acds",
    "conferences", "orbits", "schedules", "wipers", "registrations", "regidx", "dial_plan",
    "dial_plan_entry", "cobjs", "cdr", "cdri", "gstatm", "astatm", "gstatw", "astatw", "gstatd",
    "astatd", "gstath", "astath", "cdrt", "cdre", "recs", "adrbook", "chat", "messages", "trunks",
    "colines", "mohs", "pnp_parms", "accesslist", "webpages", "certificates", "outbounds"};

template <size_t N>
bool listed(const char* const (&list)[N], const String& name) {
  for (const char* n : list) {
    if (name == n) return true;
  }
  return false;
}

}  // namespace

std::vector<SchemaColumn> schema_columns(const SchemaTable& table) {
  std::vector<SchemaColumn> out;
  for (const String& word : String(table.columns).split(' ')) {
    if (word.empty()) continue;
    SchemaColumn c;
    int end = word.length();
    while (end > 0 && (word[end - 1] == '+' || word[end - 1] == '!')) {
      if (word[end - 1] == '+') c.indexed = true; else c.encrypted = true;
      end--;
    }
    c.name = word.head(end);
    out.push_back(c);
  }
  return out;
}

void create_tables() {
  Registry& r = registry();
  if (!r.tables.empty() || !r.lazy.empty()) return;
  for (int i = 0; i < schema_table_count; i++) {
    const SchemaTable& entry = schema_tables[i];
    String name(entry.name);
    if (entry.kind == SchemaKind::lazy) {
      auto t = std::make_unique<LazyTable>(name);
      for (const SchemaColumn& c : schema_columns(entry)) t->add_column(c.name, c.indexed);
      r.lazy[name] = std::move(t);
      continue;
    }
    auto t = std::make_unique<Table>(name);
    t->set_tlvb(entry.flags & schema_tlvb);
    if (entry.flags & (schema_memory | schema_runtime)) t->set_persist(false);
    if (entry.flags & schema_runtime) t->set_create_on_write(false);
    for (const SchemaColumn& c : schema_columns(entry)) t->add_column(c.name, c.indexed, c.encrypted);
    r.tables[name] = std::move(t);
  }
}

void load_tables(const String& base, bool write_cobjs_to_fs, bool write_legs_to_fs) {
  create_tables();
  Registry& r = registry();
  r.tables[tbl_cobjs]->set_persist(write_cobjs_to_fs);
  r.tables[tbl_legs]->set_persist(write_legs_to_fs);
  for (int i = 0; i < schema_table_count; i++) {
    String name(schema_tables[i].name);
    String directory = base.empty() ? name : base + "/" + name;
    if (schema_tables[i].kind == SchemaKind::lazy) {
      r.lazy[name]->load(directory);
    } else {
      r.tables[name]->load(directory);
    }
  }
}

Table* find_table(const String& name) {
  auto& tables = registry().tables;
  auto it = tables.find(name);
  return it == tables.end() ? nullptr : it->second.get();
}

LazyTable* find_lazy_table(const String& name) {
  auto& lazy = registry().lazy;
  auto it = lazy.find(name);
  return it == lazy.end() ? nullptr : it->second.get();
}

Table* table_by_name(const String& name) {
  if (listed(generic_tables, name)) {
    if (Table* t = find_table(name)) return t;
  }
  if (log_enabled(LOG_GENERAL, 2)) {
    log_add_message_global(LOG_GENERAL, 2, 0, format("Table %s not found", name));
  }
  return nullptr;
}

LazyTable* lazy_table_by_name(const String& name) {
  if (listed(generic_lazy_tables, name)) {
    if (LazyTable* t = find_lazy_table(name)) return t;
  }
  if (log_enabled(LOG_GENERAL, 2)) {
    log_add_message_global(LOG_GENERAL, 2, 0, format("Table %s not found", name));
  }
  return nullptr;
}

bool is_table_name(const String& name) {
  return listed(generic_tables, name) || listed(extra_table_names, name);
}

bool is_lazy_table_name(const String& name) { return listed(lazy_table_names, name); }

void clear_tables() {
  create_tables();
  for (const char* name : restore_order) {
    if (Table* t = find_table(String(name))) {
      t->clear();
    } else if (LazyTable* l = find_lazy_table(String(name))) {
      l->clear();
    }
  }
}
