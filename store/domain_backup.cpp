#include "store/domain_backup.h"

#include <ctime>

#include "core/format.h"
#include "core/log.h"
#include "core/version.h"
#include "store/backup.h"
#include "store/names.h"
#include "store/schema.h"

namespace {

struct Reference {
  const String* column;
  const String* table;
};
// Domain cells that hold a row id of another table; the file carries that row's name, which
// means something on another system, where the id does not.
const Reference domain_references[] = {
    {&col_default_dialplan, &tbl_dial_plan}, {&col_moh, &tbl_mohs}, {&col_default_location, &tbl_locations}};

String row_name(const String& table, const String& id) {
  Table* t = find_table(table);
  if (!t || id.empty()) return String();
  return t->get(id.to_int(), col_name);
}

// One element per non-empty cell, in column order; `skip` leaves out a column.
void append_cells(String& out, const Table& t, int row, const String& skip = String()) {
  for (int c = 0; c < t.column_count(); c++) {
    const String& name = t.column_name(c);
    const String& value = t.cell(row, c);
    if (value.empty() || name == skip) continue;
    out.append(format("<%s>%m</%s>", name, value, name));
  }
}

void append_account(String& out, Table& users, int user, int domain) {
  String type = users.get(user, col_type);
  Table* own = find_table(type);
  if (!own) {
    if (log_enabled(LOG_CONFIG, 2)) {
      log_add_message_global(LOG_CONFIG, 2, 0, format("Cannot serialize type %s", type));
    }
    return;
  }
  out.append(format("<%s>", type));
  out.append(format("<primary-name>%m</primary-name>", users.get(user, col_alias)));
  if (Table* aliases = find_table(tbl_user_alias)) {
    RowSet rows = aliases->find_all(col_user, String(user));
    for (int a = rows.first(); a >= 0; a = rows.next(a)) {
      String name = aliases->get(a, col_name);
      if (!aliases->get(a, col_trunk).empty()) {
        out.append(format("<did>%m</did>", name));
      } else if (name != users.get(user, col_alias)) {
        out.append(format("<alias-name>%m</alias-name>", name));
      }
    }
  }
  append_cells(out, users, user, col_id);
  append_cells(out, *own, users.get(user, col_id).to_int());
  out.append(format("</%s>", type));
}

}  // namespace

String domain_document(int domain) {
  Table* domains = find_table(tbl_domains);
  if (!domains || !domains->has_row(domain)) return String();
  String d(domain);
  String out = format("<?xml version=\"1.0\"?>\r\n<domain version=\"%m\">", String(exch_version));
  for (int c = 0; c < domains->column_count(); c++) {
    const String& name = domains->column_name(c);
    String value = domains->cell(domain, c);
    if (value.empty()) continue;
    for (const Reference& r : domain_references) {
      if (name == *r.column) value = row_name(*r.table, value);
    }
    out.append(format("<%s>%m</%s>", name, value, name));
  }
  if (Table* aliases = find_table(tbl_domain_alias)) {
    RowSet rows = aliases->find_all(col_domain, d);
    for (int a = rows.first(); a >= 0; a = rows.next(a)) out.append(format("<alias>%m</alias>", aliases->get(a, col_name)));
  }
  if (Table* users = find_table(tbl_users)) {
    out.append("<users>");
    RowSet rows = users->find_all(col_domain, d);
    for (int u = rows.first(); u >= 0; u = rows.next(u)) append_account(out, *users, u, domain);
    out.append("</users>");
  }
  Table* plans = find_table(tbl_dial_plan);
  Table* entries = find_table(tbl_dial_plan_entry);
  if (plans && entries) {
    RowSet rows = plans->find_all(col_domain, d);
    for (int p = rows.first(); p >= 0; p = rows.next(p)) {
      out.append("<dial_plan>");
      append_cells(out, *plans, p, col_domain);
      RowSet es = entries->find_all(col_id, String(p));
      for (int e = es.first(); e >= 0; e = es.next(e)) {
        out.append("<dial_plan_entry>");
        append_cells(out, *entries, e, col_id);
        out.append("</dial_plan_entry>");
      }
      out.append("</dial_plan>");
    }
  }
  Table* groups = find_table(tbl_groups);
  Table* members = find_table(tbl_group_members);
  Table* permissions = find_table(tbl_group_permissions);
  Table* access = find_table(tbl_group_access);
  Table* users = find_table(tbl_users);
  if (groups && members && permissions && access && users) {
    RowSet rows = groups->find_all(col_domain, d);
    for (int g = rows.first(); g >= 0; g = rows.next(g)) {
      String ref(g);
      out.append("<group>");
      append_cells(out, *groups, g, col_domain);
      RowSet ms = members->find_all(col_ref, ref);
      for (int m = ms.first(); m >= 0; m = ms.next(m)) {
        out.append(format("<member><user>%m</user><sort>%m</sort></member>",
                          users->get(members->get(m, col_user).to_int(), col_alias), members->get(m, col_sort)));
      }
      RowSet ps = permissions->find_all(col_ref, ref);
      for (int p = ps.first(); p >= 0; p = ps.next(p)) {
        out.append(format("<permission><name>%m</name></permission>", permissions->get(p, col_name)));
      }
      RowSet as = access->find_all(col_ref, ref);
      for (int a = as.first(); a >= 0; a = as.next(a)) {
        out.append(format("<access><user>%m</user></access>", users->get(access->get(a, col_user).to_int(), col_alias)));
      }
      out.append("</group>");
    }
  }
  out.append("</domain>");
  return out;
}

void make_domain_backup(int domain, String& out) {
  out.clear();
  String document = domain_document(domain);
  if (document.empty()) return;
  TarWriter tar(0, time(nullptr));
  (void)tar.tar_add_file(String("domain.xml"), document);
  out = tar.finish();
}
