#include "core/files.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "tests/support/test_support.h"

TEST(FilesTest, WriteReadAppendAndList) {
  TempDir dir;
  String base(dir.path().c_str());
  String path = base + "/a/b/c.txt";
  ASSERT_TRUE(write_file(String("hello"), path));  // creates the missing directories
  EXPECT_EQ(read_file(path), String("hello"));
  ASSERT_TRUE(append_file(String(" world"), path));
  EXPECT_EQ(read_file(path), String("hello world"));
  EXPECT_EQ(file_size(path), 11);
  EXPECT_TRUE(file_nonempty(path));
  EXPECT_GT(file_mtime(path), 0);
  EXPECT_TRUE(is_directory(base + "/a/b"));
  EXPECT_FALSE(is_directory(path));

  int64_t size;
  time_t mtime;
  String part;
  ASSERT_TRUE(read_file_part(path, 6, 100, size, mtime, part));
  EXPECT_EQ(part, String("world"));
  EXPECT_EQ(size, 11);
  ASSERT_TRUE(read_file_part(path, 50, 10, size, mtime, part));
  EXPECT_TRUE(part.empty());

  auto entries = list_directory(base + "/a");
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, String("b"));
  EXPECT_TRUE(entries[0].is_directory);

  // Backslashes are path separators too.
  EXPECT_EQ(read_file(base + "\\a\\b\\c.txt"), String("hello world"));
  ASSERT_TRUE(rename_file(path, base + "/moved"));
  EXPECT_EQ(file_size(path), -1);
  EXPECT_TRUE(remove_file(base + "/moved"));
  EXPECT_TRUE(read_file(base + "/moved").empty());
}

TEST(FilesTest, LargeFilesAndProcFiles) {
  TempDir dir;
  String path = String(dir.file("big").c_str());
  String big = String::repeat('z', 0x40000 * 2 + 17);  // more than one write piece
  ASSERT_TRUE(write_file(big, path));
  EXPECT_EQ(read_file(path), big);
  // /proc reports a size of 0 and must be read to its end.
  EXPECT_TRUE(read_file(String("/proc/self/status")).contains(String("Pid:")));
}

TEST(FilesTest, FailuresLogTheirTexts) {
  LogCapture log;
  EXPECT_FALSE(write_file(String("x"), String("/dev/full")));
  EXPECT_TRUE(log.contains("Could not write /dev/full"));
  TempDir dir;
  String blocker = String(dir.file("file").c_str());
  ASSERT_TRUE(write_file(String("x"), blocker));
  // A path below a regular file cannot be opened, even by root.
  EXPECT_FALSE(write_file(String("x"), blocker + "/sub/f"));
  EXPECT_TRUE(log.contains("Could not open " + dir.file("file") + "/sub/f for writing"));
  EXPECT_FALSE(write_file_atomic(String("x"), blocker + "/f"));
  EXPECT_FALSE(remove_file(blocker + "/nothing"));
  EXPECT_TRUE(log.contains("Cannot remove file"));
  log.clear();
  EXPECT_FALSE(remove_file(blocker + "/nothing", true));
  EXPECT_FALSE(log.contains("Cannot remove file"));
  EXPECT_FALSE(rename_file(blocker + "/a", blocker + "/b"));
  EXPECT_TRUE(log.contains("Cannot rename file"));
  EXPECT_TRUE(read_file(String("/nonexistent/file")).empty());
}

TEST(FilesTest, AtomicWriteReplacesWholeFile) {
  TempDir dir;
  String path = String(dir.file("pbx.xml").c_str());
  ASSERT_TRUE(write_file_atomic(String("first"), path, true));
  ASSERT_TRUE(write_file_atomic(String("second, longer"), path));
  EXPECT_EQ(read_file(path), String("second, longer"));
  EXPECT_EQ(file_size(path + temp_file_suffix), -1);
}

// A child rewrites a file in a loop and is killed at random moments: the file is
// always one of the versions, never a mix or a truncation.
TEST(FilesTest, AtomicWriteSurvivesKill) {
  TempDir dir;
  String path = String(dir.file("state").c_str());
  String a = String::repeat('a', 300000);
  String b = String::repeat('b', 70000);
  ASSERT_TRUE(write_file_atomic(a, path));
  std::mt19937 rng(12345);
  for (int round = 0; round < 40; round++) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int i = 0;; i++)
        if (!write_file_atomic(i % 2 ? a : b, path)) _exit(3);
    }
    usleep(std::uniform_int_distribution<int>(100, 5000)(rng));
    kill(child, SIGKILL);
    int status;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "writer failed on its own";
    String now = read_file(path);
    ASSERT_TRUE(now == a || now == b) << "round " << round << ": " << now.length() << " bytes";
  }
}
