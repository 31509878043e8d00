#include "tests/support/work_dir_fixture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <set>

#include "core/codings.h"
#include "core/files.h"
#include "core/random.h"
#include "store/cell_cipher.h"
#include "store/names.h"
#include "store/registry.h"
#include "store/schema.h"
#include "store/settings.h"
#include "tests/support/test_support.h"

namespace {

String S(const std::string& s) { return String(s.data(), static_cast<int>(s.size())); }

bool port_free(int type, int port) {
  int fd = socket(AF_INET, type, 0);
  if (fd < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}


}  // namespace

int free_port() {
  static std::set<int> handed_out;
  for (int tries = 0; tries < 1000; tries++) {
    int port = 20000 + static_cast<int>(random_below(30000));
    if (handed_out.count(port)) continue;
    if (port_free(SOCK_DGRAM, port) && port_free(SOCK_STREAM, port)) {
      handed_out.insert(port);
      return port;
    }
  }
  return 0;
}

std::unique_ptr<Table> open_table(const std::string& base, const String& name) {
  auto t = std::make_unique<Table>(name);
  for (int i = 0; i < schema_table_count; i++) {
    if (name != schema_tables[i].name) continue;
    for (const SchemaColumn& c : schema_columns(schema_tables[i])) t->add_column(c.name, c.indexed, c.encrypted);
  }
  t->load(S(base) + "/" + name);
  return t;
}

WorkDir write_work_dir(const std::string& path, const WorkDirOptions& options) {
  WorkDir dir;
  dir.path = path;
  dir.domain = options.domain;
  dir.extensions = options.extensions;

  std::vector<String> values = registry_defaults();
  values[reg_random] = base64_encode(random_string(16));
  for (int i = 0; i < registry_size; i++) {
    if (registry_slots[i].flags & registry_port) values[i].clear();
  }
  for (const std::string& name : options.ports) {
    int index = registry_index(S(name));
    EXPECT_LT(index, registry_size) << name;
    if (index >= registry_size) continue;
    int port = free_port();
    values[index] = String(port);
    dir.ports[name] = port;
  }
  for (const auto& [name, value] : options.settings) {
    int index = registry_index(S(name));
    EXPECT_LT(index, registry_size) << name;
    if (index < registry_size) values[index] = S(value);
  }
  set_cell_key_from_setting(values[reg_random]);
  EXPECT_TRUE(write_file_atomic(settings_document(values), S(path) + "/pbx.xml", true));

  auto domains = open_table(path, tbl_domains);
  int domain = domains->create_row();
  domains->set(domain, col_name, S(options.domain), true);
  String domain_id(domain);

  auto users = open_table(path, tbl_users);
  auto aliases = open_table(path, tbl_user_alias);
  auto extensions = open_table(path, tbl_extensions);
  for (const WorkDirExtension& e : options.extensions) {
    int ext = extensions->create_row();
    extensions->set(ext, col_password, S(e.password), true);
    int user = users->create_row();
    users->set(user, col_alias, S(e.number));
    users->set(user, col_domain, domain_id);
    users->set(user, col_type, tbl_extensions);
    users->set(user, col_id, String(ext), true);
    int alias = aliases->create_row();
    aliases->set(alias, col_user, String(user));
    aliases->set(alias, col_domain, domain_id);
    aliases->set(alias, col_name, S(e.number), true);
  }

  auto access = open_table(path, tbl_accesslist);
  int row = access->create_row();
  access->set(row, col_adr, String("127.0.0.1"));
  access->set(row, col_mask, String("32"));
  access->set(row, col_type, String("white"));
  access->set(row, String("comment"), String("test fixture"), true);
  return dir;
}
