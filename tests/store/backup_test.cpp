#include "store/backup.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "core/files.h"
#include "core/format.h"
#include "core/xml.h"
#include "store/cell_cipher.h"
#include "store/domain_backup.h"
#include "store/names.h"
#include "store/registry.h"
#include "store/schema.h"
#include "store/settings.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

class InDirectory {
 public:
  explicit InDirectory(const std::string& path) {
    char buf[4096];
    old_ = getcwd(buf, sizeof buf) ? buf : "/";
    EXPECT_EQ(chdir(path.c_str()), 0);
  }
  ~InDirectory() { (void)chdir(old_.c_str()); }

 private:
  std::string old_;
};

// A working directory with settings, a domain and a few extensions, loaded in the process.
void make_store(int extensions) {
  ASSERT_NE(load_settings(String("pbx.xml")), SettingsLoad::fs_failed);
  load_tables(String(), false, false);
  Table* domains = find_table(tbl_domains);
  int d = domains->create_row();
  domains->set(d, col_name, String("example.com"), true);
  Table* ext = find_table(tbl_extensions);
  for (int i = 0; i < extensions; i++) {
    int row = ext->create_row();
    ext->set(row, col_password, format("pw%d", i), true);
  }
}

String field(const String& header, int offset, int length) { return header.substr(offset, length); }

}  // namespace

TEST(TarTest, HeaderFieldsAndPadding) {
  String h = tar_header(String("domains/1.xml"), '0', 513, 1000);
  ASSERT_EQ(h.length(), 512);
  EXPECT_EQ(field(h, 0, 14), String("domains/1.xml", 13) + str_nul);
  EXPECT_EQ(field(h, 100, 8), String("0100644") + str_nul);
  EXPECT_EQ(field(h, 108, 7), String("0000764"));
  EXPECT_EQ(field(h, 116, 7), String("0000144"));
  EXPECT_EQ(field(h, 124, 11), String("00000001001"));
  EXPECT_EQ(field(h, 136, 11), String("00000001750"));
  EXPECT_EQ(h[156], '0');
  unsigned sum = 0;
  for (int i = 0; i < 512; i++) sum += (i >= 148 && i < 156) ? ' ' : h.byte_at(i);
  EXPECT_EQ(strtoul(std::string(h.c_data() + 148, 6).c_str(), nullptr, 8), sum);
  EXPECT_EQ(h[154], '\0');
  EXPECT_EQ(h[155], ' ');
  String d = tar_header(String("domains/"), '5', 0, 0);
  EXPECT_EQ(field(d, 100, 7), String("0040755"));
  EXPECT_EQ(field(d, 124, 11), String("00000000000"));

  struct Case {
    int size;
    int64_t archive;
  } cases[] = {{0, 512}, {1, 1024}, {512, 1024}, {513, 1536}};
  for (const Case& c : cases) {
    TarWriter tar(0, 0);
    ASSERT_TRUE(tar.tar_add_file(String("f"), String::repeat('a', c.size)));
    EXPECT_EQ(tar.size(), c.archive) << c.size;
  }
}

TEST(BackupTest, LimitRefusesEntriesAndGoesOnWithTheList) {
  TempDir dir;
  InDirectory in(dir.path());
  make_store(20);
  String full;
  make_backup(full);
  std::map<String, String> all;
  read_tar(full, all);
  EXPECT_EQ(all[String("extensions/20.xml")].empty(), false);
  int64_t limit = full.length() - 1024 - 3000;
  ctrl_write_registry(registry_index(String("max_tar")), String(static_cast<long>(limit)), false);
  LogCapture log;
  String archive;
  make_backup(archive);
  EXPECT_TRUE(log.contains("tar: Cannot add file because it would exceed the total size"));
  EXPECT_LE(archive.length(), limit + 1024);
  std::map<String, String> files;
  read_tar(archive, files);
  EXPECT_TRUE(files.count(String("pbx.xml")));
  EXPECT_TRUE(files.count(String("domains/1.xml")));
  EXPECT_LT(archive.length(), full.length());
  for (const auto& [name, content] : files) EXPECT_EQ(all[name], content) << to_std(name);
  reset_registry();
}

TEST(BackupTest, RestoreIntoAFreshDirectoryGivesTheSameTablesAndSettings) {
  String archive;
  String secret;
  {
    TempDir dir;
    InDirectory in(dir.path());
    make_store(50);
    ctrl_write_registry(142, String("location secret"), true);
    secret = registry_value(reg_random);
    make_backup(archive);
  }
  TempDir fresh;
  InDirectory in(fresh.path());
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::first_start);
  load_tables(String(), false, false);
  EXPECT_EQ(find_table(tbl_extensions)->row_count(), 0);
  LogCapture log;
  ASSERT_TRUE(restore(archive));
  EXPECT_TRUE(log.contains("Configuration: Successfully loaded configuration"));
  EXPECT_EQ(registry_value(reg_random), secret);
  EXPECT_EQ(registry_value(142), String("location secret"));
  Table* ext = find_table(tbl_extensions);
  ASSERT_EQ(ext->row_count(), 50);
  EXPECT_EQ(ext->get(7, col_password), String("pw6"));
  EXPECT_EQ(find_table(tbl_domains)->get(1, col_name), String("example.com"));
  // After a restart the restored rows still decipher.
  load_settings(String("pbx.xml"));
  load_tables(String(), false, false);
  EXPECT_EQ(find_table(tbl_extensions)->get(50, col_password), String("pw49"));
  reset_registry();
}

TEST(BackupTest, HostileArchivesChangeNothing) {
  TempDir dir;
  InDirectory in(dir.path());
  make_store(3);
  String good;
  make_backup(good);
  String settings_before = read_file(String("pbx.xml"));

  auto with_header = [](const String& name, char type, const String& size_field, const String& content) {
    String h = tar_header(name, type, content.length(), 0);
    char* p = h.writable_data();
    std::copy(name.c_data(), name.c_data() + std::min(name.length(), 100), p);
    if (!size_field.empty()) std::copy(size_field.c_data(), size_field.c_data() + 11, p + 124);
    std::fill(p + 148, p + 156, ' ');
    unsigned sum = 0;
    for (int i = 0; i < 512; i++) sum += h.byte_at(i);
    for (int i = 5; i >= 0; i--, sum >>= 3) p[148 + i] = static_cast<char>('0' + (sum & 7));
    p[154] = '\0';
    String pad = String::repeat('\0', (512 - content.length() % 512) % 512);
    return h + content + pad;
  };
  String end = String::repeat('\0', 1024);
  String long_name = String::repeat('a', 100);
  struct Case {
    const char* what;
    String archive;
    const char* log;
  } cases[] = {
      {"empty", String(), "Configuration: No tar file specified"},
      {"not tar", String::repeat('x', 2048), "Configuration: This is not a tar file"},
      {"truncated mid-content", good.head(512 + 100), "Configuration: Archive ends inside pbx.xml"},
      {"bad size", with_header(String("domains/2.xml"), '0', String("0000000009x"), String("abc")) + end,
       "Configuration: Invalid length 0000000009x"},
      {"name without NUL", with_header(long_name, '0', String(), String("abc")) + end,
       "Configuration: This is not a tar file"},
      {"symbolic link", with_header(String("domains/3.xml"), '2', String(), String()) + end,
       "Configuration: This is not a tar file domains/3.xml"},
      {"hard link", with_header(String("domains/3.xml"), '1', String(), String()) + end,
       "Configuration: This is not a tar file domains/3.xml"},
      {"parent directory", with_header(String("../exch-restore-escape"), '0', String(), String("abc")) + end,
       "Configuration: Refusing member ../exch-restore-escape"},
      {"inside then out", with_header(String("domains/../../x"), '0', String(), String("abc")) + end,
       "Configuration: Refusing member domains/../../x"},
      {"absolute", with_header(String("/etc/x"), '0', String(), String("abc")) + end,
       "Configuration: Refusing member /etc/x"},
      {"not a table", with_header(String("certs/x.pem"), '0', String(), String("abc")) + end,
       "Configuration: Refusing member certs/x.pem"},
      {"bad settings inside", with_header(String("pbx.xml"), '0', String(), String("<pbx-config><random>")) + end,
       "Configuration: The archive holds no valid pbx.xml"},
      {"good then garbage", good.head(good.length() - 1024) + String::repeat('\x07', 512),
       "Configuration: This is not a tar file"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    EXPECT_FALSE(restore(c.archive)) << c.what;
    EXPECT_TRUE(log.contains(c.log)) << c.what << ": " << (log.lines().empty() ? "" : log.lines().back());
    EXPECT_EQ(find_table(tbl_extensions)->row_count(), 3) << c.what;
    EXPECT_EQ(file_size(String("extensions/1.xml")) > 0, true) << c.what;
    EXPECT_EQ(read_file(String("pbx.xml")), settings_before) << c.what;
    EXPECT_EQ(file_size(String("../exch-restore-escape")), -1);
  }

  // A file of size 0 is an empty row and is accepted; only the archive's tables change.
  String only_ext = with_header(String("extensions/"), '5', String(), String()) +
                    with_header(String("extensions/9.xml"), '0', String(), String()) + end;
  ASSERT_TRUE(restore(only_ext));
  EXPECT_EQ(find_table(tbl_extensions)->row_count(), 0);
  EXPECT_EQ(file_size(String("extensions/9.xml")), 0);
  EXPECT_EQ(find_table(tbl_domains)->row_count(), 1);
  EXPECT_EQ(read_file(String("pbx.xml")), settings_before);
  reset_registry();
}

TEST(BackupTest, ReadTarKeepsWhatItReadBeforeABadEntry) {
  TarWriter tar(0, 0);
  ASSERT_TRUE(tar.tar_add_directory(String("a")));
  ASSERT_TRUE(tar.tar_add_file(String("a/1.xml"), String("one")));
  String bad = tar_header(String("a/2.xml"), '3', 0, 0);
  String archive = tar.finish().head(static_cast<int>(tar.size())) + bad;
  std::map<String, String> files;
  LogCapture log;
  read_tar(archive, files);
  EXPECT_EQ(files.size(), 1u);
  EXPECT_EQ(files[String("a/1.xml")], String("one"));
  EXPECT_TRUE(log.contains("Configuration: Cannot read tar file a/2.xml"));
}

// Random damage to a good archive: the check never reads outside it, and whatever it
// accepts stays inside the working directory.
TEST(BackupTest, DamagedArchivesAreCheckedSafely) {
  TarWriter tar(0, 0);
  ASSERT_TRUE(tar.tar_add_file(String("pbx.xml"), String("<pbx-config></pbx-config>")));
  ASSERT_TRUE(tar.tar_add_directory(String("domains")));
  ASSERT_TRUE(tar.tar_add_file(String("domains/1.xml"), String::repeat('r', 700)));
  String good = tar.finish();
  std::mt19937 rng(7);
  for (int round = 0; round < 3000; round++) {
    String bad = good;
    char* p = bad.writable_data();
    int flips = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < flips; i++) p[rng() % bad.length()] = static_cast<char>(rng());
    if (round % 5 == 0) bad = bad.head(static_cast<int>(rng() % bad.length()));
    std::vector<TarEntry> entries;
    String error;
    if (!check_tar(bad, entries, error)) {
      EXPECT_TRUE(error.starts_with("Configuration: ")) << round;
      continue;
    }
    for (const TarEntry& e : entries) {
      EXPECT_FALSE(e.name.starts_with("/")) << round;
      EXPECT_LT(e.name.find(".."), 0) << round;
      EXPECT_LE(e.content.length(), bad.length());
    }
  }
}

TEST(DomainBackupTest, DocumentNamesReferencesAndHoldsAccountsPlansAndGroups) {
  TempDir dir;
  InDirectory in(dir.path());
  ASSERT_NE(load_settings(String("pbx.xml")), SettingsLoad::fs_failed);
  load_tables(String(), false, false);
  Table* domains = find_table(tbl_domains);
  Table* plans = find_table(tbl_dial_plan);
  Table* entries = find_table(tbl_dial_plan_entry);
  Table* users = find_table(tbl_users);
  Table* aliases = find_table(tbl_user_alias);
  Table* ext = find_table(tbl_extensions);
  Table* groups = find_table(tbl_groups);
  Table* members = find_table(tbl_group_members);
  int other = domains->create_row();
  domains->set(other, col_name, String("other.com"));
  int d = domains->create_row();
  int plan = plans->create_row();
  plans->set(plan, col_name, String("Default"));
  plans->set(plan, col_domain, String(d));
  int entry = entries->create_row();
  entries->set(entry, col_id, String(plan));
  entries->set(entry, String("pattern"), String("9*"));
  domains->set(d, col_name, String("a&b.com"));
  domains->set(d, col_default_dialplan, String(plan));
  int da = find_table(tbl_domain_alias)->create_row();
  find_table(tbl_domain_alias)->set(da, col_domain, String(d));
  find_table(tbl_domain_alias)->set(da, col_name, String("alias.a.com"));
  int e = ext->create_row();
  ext->set(e, String("first_name"), String("Ann"));
  int u = users->create_row();
  users->set(u, col_alias, String("40"));
  users->set(u, col_domain, String(d));
  users->set(u, col_type, tbl_extensions);
  users->set(u, col_id, String(e));
  for (const char* name : {"40", "ann", "+4930123"}) {
    int a = aliases->create_row();
    aliases->set(a, col_user, String(u));
    aliases->set(a, col_name, String(name));
    if (String(name).starts_with("+")) aliases->set(a, col_trunk, String("1"));
  }
  int strange = users->create_row();
  users->set(strange, col_domain, String(d));
  users->set(strange, col_type, String("no_such_kind"));
  int g = groups->create_row();
  groups->set(g, col_name, String("sales"));
  groups->set(g, col_domain, String(d));
  int m = members->create_row();
  members->set(m, col_ref, String(g));
  members->set(m, col_user, String(u));
  members->set(m, col_sort, String("1"));

  LogCapture log;
  String doc = domain_document(d);
  EXPECT_TRUE(log.contains("Cannot serialize type no_such_kind"));
  EXPECT_TRUE(doc.starts_with("<?xml version=\"1.0\"?>\r\n<domain version=\"68.0.22\">"));
  const char* parts[] = {"<name>a&amp;b.com</name>", "<default_dialplan>Default</default_dialplan>",
                         "<alias>alias.a.com</alias>", "<extensions><primary-name>40</primary-name>",
                         "<alias-name>ann</alias-name>", "<did>+4930123</did>", "<first_name>Ann</first_name>",
                         "<dial_plan><name>Default</name><dial_plan_entry><pattern>9*</pattern></dial_plan_entry>",
                         "<group><name>sales</name><member><user>40</user><sort>1</sort></member></group>"};
  for (const char* p : parts) EXPECT_GE(doc.find(String(p)), 0) << p << "\n" << to_std(doc);
  EXPECT_EQ(doc.find("other.com"), -1);
  XmlNode root(doc, true);
  EXPECT_EQ(root.name(), String("domain"));

  String archive;
  make_domain_backup(d, archive);
  std::map<String, String> files;
  read_tar(archive, files);
  EXPECT_EQ(files[String("domain.xml")], doc);
  make_domain_backup(999, archive);
  EXPECT_TRUE(archive.empty());
  for (Table* t : {domains, plans, entries, users, aliases, ext, groups, members, find_table(tbl_domain_alias)}) t->clear();
  reset_registry();
}
