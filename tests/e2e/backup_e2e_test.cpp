// Backups read by outside tools: GNU tar lists them, Python's tarfile unpacks them, and
// the unpacked files are those of the working directory.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "core/files.h"
#include "store/backup.h"
#include "store/names.h"
#include "store/schema.h"
#include "store/settings.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

namespace {

std::string run(const std::string& command, int& status) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int st = pclose(p);
  status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return out;
}

}  // namespace

TEST(BackupToolsTest, GnuTarAndPythonReadTheBackup) {
  TempDir dir;
  std::string work = dir.file("work");
  ASSERT_EQ(system(("mkdir -p " + work).c_str()), 0);
  WorkDirOptions options;
  for (int i = 0; i < 30; i++) options.extensions.push_back({std::to_string(100 + i), "pw" + std::to_string(i)});
  write_work_dir(work, options);

  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(work.c_str()), 0);
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::loaded);
  load_tables(String(), false, false);
  String archive;
  make_backup(archive);
  ASSERT_EQ(chdir(cwd), 0);
  std::string tar_path = dir.file("pbx.tar");
  ASSERT_TRUE(write_file(archive, String(tar_path.c_str())));

  int status = -1;
  std::string listing = run("tar -tvf " + tar_path, status);
  ASSERT_EQ(status, 0) << listing;
  std::istringstream lines(listing);
  std::string line;
  std::vector<std::string> names;
  while (std::getline(lines, line)) names.push_back(line.substr(line.rfind(' ') + 1));
  ASSERT_FALSE(names.empty());
  EXPECT_EQ(names[0], "pbx.xml");
  // The table directories come in the order of the backup list.
  int last = -1;
  for (const std::string& name : names) {
    if (name.back() != '/' || name.find('/') != name.size() - 1) continue;
    int at = -1;
    for (int i = 0; i < backup_table_count; i++) {
      if (name == std::string(backup_tables[i]) + "/") at = i;
    }
    EXPECT_GT(at, last) << name;
    last = at;
  }
  EXPECT_NE(listing.find("extensions/30.xml"), std::string::npos);

  std::string out = dir.file("out");
  std::string py = run("/usr/bin/python3 -c \"import tarfile,sys; t=tarfile.open(sys.argv[1]); "
                       "t.extractall(sys.argv[2]); print(len(t.getnames()))\" " + tar_path + " " + out + " 2>&1",
                       status);
  ASSERT_EQ(status, 0) << py;
  EXPECT_EQ(std::stoul(py), names.size());
  for (const std::string& name : names) {
    if (name.back() == '/') continue;
    EXPECT_EQ(file_text(out + "/" + name), file_text(work + "/" + name)) << name;
  }

  // An archive that GNU tar made from the working directory restores as well.
  std::string gnu = dir.file("gnu.tar");
  run("tar -C " + work + " -cf " + gnu + " pbx.xml domains extensions users user_alias 2>&1", status);
  ASSERT_EQ(status, 0);
  std::string fresh = dir.file("fresh");
  ASSERT_EQ(system(("mkdir -p " + fresh).c_str()), 0);
  ASSERT_EQ(chdir(fresh.c_str()), 0);
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::first_start);
  load_tables(String(), false, false);
  bool restored = restore(read_file(String(gnu.c_str())));
  int extensions = find_table(tbl_extensions)->row_count();
  String password = find_table(tbl_extensions)->get(30, col_password);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_TRUE(restored);
  EXPECT_EQ(extensions, 32);
  EXPECT_EQ(password, String("pw27"));
  reset_registry();
}
