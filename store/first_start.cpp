#include "store/first_start.h"

#include <fcntl.h>
#include <unistd.h>

#include "core/format.h"
#include "core/log.h"
#include "store/names.h"
#include "store/schema.h"

const String first_admin_name("admin");
const String first_domain_name("localhost");
const String admin_password_file("admin-password.txt");

static bool write_private_file(const String& path, const String& text) {
  String p = path.normalized_path() + str_nul;
  unlink(p.c_data());
  int fd = open(p.c_data(), O_WRONLY | O_CREAT | O_TRUNC | O_EXCL, 0600);
  if (fd < 0) return false;
  bool ok = write(fd, text.c_data(), static_cast<size_t>(text.length())) == text.length();
  return close(fd) == 0 && ok;
}

String create_first_start_data() {
  Table* domains = find_table(tbl_domains);
  Table* admins = find_table(tbl_admins);
  if (!domains || !admins) return String();
  if (domains->row_count() == 0) {
    int row = domains->create_row();
    if (row) domains->set(row, col_name, first_domain_name, true);
  }
  if (admins->row_count() > 0) return String();
  String password = random_text(12);
  int row = admins->create_row();
  if (!row) return String();
  admins->set(row, col_name, first_admin_name);
  admins->set(row, col_password, password, true);
  if (!write_private_file(admin_password_file, password + "\n") && log_enabled(LOG_CONFIG, 0)) {
    log_add_message_global(LOG_CONFIG, 0, 0, format("Cannot write %s", admin_password_file));
  }
  return password;
}
