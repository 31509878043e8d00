// The daemon's settings file, its fatal start-up paths, the dictionary on its command line
// and the NTP reply on a port from the settings, driven through the real binary.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "core/codings.h"
#include "core/string.h"
#include "store/registry.h"
#include "store/settings.h"
#include "tests/e2e/daemon_runner.h"
#include "tests/support/test_support.h"
#include "tests/support/work_dir_fixture.h"

namespace {

struct Shell {
  int status = -1;
  std::string out;
};
Shell shell(const std::string& command) {
  Shell r;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

String S(const std::string& s) { return String(s.data(), static_cast<int>(s.size())); }

// Starts the daemon in `dir` until it has written "Working Directory", then stops it. It
// runs in a network namespace of its own: a directory without settings binds the
// well-known ports of the defaults, which tests never do on the host's network.
std::string run_until_up(const std::string& dir, const std::vector<std::string>& extra = {}) {
  std::string err = dir + "/../" + std::to_string(getpid()) + "-err.txt";
  std::string command = "unshare -n sh -c '" + daemon_binary() + " --no-daemon --dir " + dir;
  for (const std::string& a : extra) command += " " + a;
  command += " 2>" + err + " & pid=$!; for i in $(seq 150); do grep -q \"Working Directory is\" " + err +
             " && break; sleep 0.1; done; kill -9 $pid; wait $pid' 2>/dev/null";
  Shell r = shell(command);
  std::string text = file_text(err);
  EXPECT_NE(text.find("Working Directory is"), std::string::npos) << text;
  unlink(err.c_str());
  return text;
}

}  // namespace

TEST(SettingsDaemonTest, EmptyDirectoryGetsACompleteSettingsFileAndAnAdministrator) {
  TempDir dir;
  std::string err = run_until_up(dir.path());
  std::string xml = file_text(dir.file("pbx.xml"));
  Shell count = shell("xmllint --xpath 'count(/pbx-config/*)' " + dir.file("pbx.xml"));
  EXPECT_EQ(count.out, "425\n");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(xml, m, std::regex("<pbx-config><random>([A-Za-z0-9+/=]+)</random><log_filename")));
  EXPECT_EQ(base64_decode(S(m[1].str())).length(), 16);
  EXPECT_FALSE(std::regex_search(xml.substr(xml.find("<pbx-config>")), std::regex(">\\s+<")));
  EXPECT_EQ(std::regex_search(xml, std::regex("<location_password encrypted=\"true\">[A-Za-z0-9+/=]+</location_password>")), true);

  struct stat st{};
  ASSERT_EQ(stat(dir.file("admin-password.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  std::string password = file_text(dir.file("admin-password.txt"));
  ASSERT_EQ(password.size(), 13u);
  EXPECT_NE(err.find("Administrator \"admin\", password " + password.substr(0, 12)), std::string::npos);
  EXPECT_TRUE(eventually([&] { return file_text(dir.file("domains/1.xml")).find("<name>localhost</name>") != std::string::npos; }, 1));

  // The next start reads the file: same secret, no second administrator.
  std::string err2 = run_until_up(dir.path());
  EXPECT_EQ(err2.find("Administrator"), std::string::npos);
  EXPECT_EQ(file_text(dir.file("pbx.xml")).substr(0, 120), xml.substr(0, 120));
  EXPECT_FALSE(std::ifstream(dir.file("admins/2.xml")).good());
}

TEST(SettingsDaemonTest, FatalStartsWithTheirTexts) {
  struct Case {
    const char* what;
    const char* settings;  // nullptr: no file
    bool read_only;
    const char* text;
  } cases[] = {
      {"settings removed", nullptr, false, "FATAL: Cannot read initialization file\n"},
      {"settings garbage", "\x01\x02 not xml", false, "FATAL: Cannot read initialization file\n"},
      {"wrong root", "<config><random>AAAA</random></config>", false, "FATAL: Cannot read initialization file\n"},
      {"truncated", "<pbx-config><random>AAAAAAAAAAAAAAAAAAAAAA==</random><log_filename>", false,
       "FATAL: Cannot read initialization file\n"},
      {"unwritable directory", nullptr, true, "FATAL: File system access failed\n"},
  };
  for (const Case& c : cases) {
    TempDir dir;
    std::string work = dir.file("work");
    mkdir(work.c_str(), 0755);
    if (!c.read_only) {
      write_work_dir(work);
      if (c.settings) write_text(work + "/pbx.xml", c.settings);
      else unlink((work + "/pbx.xml").c_str());
    }
    std::string command = "--no-daemon --dir " + work;
    Shell r = c.read_only ? shell("unshare -m sh -c 'mount -t tmpfs -o ro tmpfs " + work + " && exec " +
                                  daemon_binary() + " " + command + "' 2>&1")
                          : shell("timeout 20 " + daemon_binary() + " " + command + " 2>&1");
    EXPECT_EQ(r.status, 1) << c.what << ": " << r.out;
    EXPECT_GE(r.out.size(), strlen(c.text)) << c.what;
    EXPECT_NE(r.out.find(c.text), std::string::npos) << c.what << ": " << r.out;
    if (c.settings) {
      EXPECT_EQ(file_text(work + "/pbx.xml"), c.settings) << c.what;
    }
  }
}

TEST(SettingsDaemonTest, EncipheredSlotsReadBackAfterTheDaemonRewritesTheFile) {
  TempDir dir;
  WorkDirOptions options;
  options.settings = {{"location_password", "loc<&>pass"}, {"token", "t0ken"}, {"sys_name", "e2e"}};
  write_work_dir(dir.path(), options);
  // A dictionary with translations makes the daemon write `languages_web`, and so the file.
  std::string src = dir.file("dict-src");
  mkdir(src.c_str(), 0755);
  write_text(src + "/dict.json", "{\"en\":{\"a\":{\"b\":\"c\"}}}");
  Shell pack = shell("/usr/bin/python3 " + source_dir() + "/tools/pack_dictionary.py " + src + " " +
                     dir.file("exchsrv.dat"));
  ASSERT_EQ(pack.status, 0) << pack.out;
  std::string before = file_text(dir.file("pbx.xml"));
  run_until_up(dir.path());
  std::string after = file_text(dir.file("pbx.xml"));
  EXPECT_NE(after, before);
  EXPECT_EQ(after.find("loc&lt;"), std::string::npos);
  ParsedSettings p = parse_settings(S(after));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.values[142], String("loc<&>pass"));
  EXPECT_EQ(p.values[409], String("t0ken"));
  EXPECT_EQ(p.values[77], String("e2e"));
  EXPECT_EQ(p.values[reg_languages_web], String("en"));
}

TEST(SettingsDaemonTest, ShowDictListsAPackedDictionaryThatAnIndependentReaderUnpacks) {
  TempDir dir;
  std::string src = dir.file("src");
  shell("mkdir -p " + src + "/admin/js " + src + "/user");
  write_text(src + "/admin/index.htm", "<html><body>[[#version]]</body></html>");
  write_text(src + "/admin/js/app.js", std::string(5000, 'j'));
  write_text(src + "/user/empty.txt", "");
  write_text(src + "/dict.json", "{\"en\":{\"index\":{\"title\":\"Home\"}}}");
  for (const char* mode : {"", "--compress"}) {
    std::string work = dir.file(std::string("work") + mode);
    mkdir(work.c_str(), 0755);
    write_work_dir(work);
    Shell pack = shell("/usr/bin/python3 " + source_dir() + "/tools/pack_dictionary.py " + mode + " " + src +
                       " " + work + "/exchsrv.dat 2>&1");
    ASSERT_EQ(pack.status, 0) << pack.out;
    Shell shown = shell("timeout 3 " + daemon_binary() + " --no-daemon --show-dict --dir " + work + " 2>/dev/null");
    Shell reader = shell("/usr/bin/python3 " + source_dir() + "/tests/e2e/dictionary_reader.py " + work +
                         "/exchsrv.dat " + src);
    EXPECT_EQ(reader.status, 0) << reader.out;
    EXPECT_FALSE(reader.out.empty());
    EXPECT_EQ(shown.out.substr(0, reader.out.size()), reader.out) << mode;
    EXPECT_NE(shown.out.find("admin/js/app.js (5000)"), std::string::npos) << shown.out;
  }
}

// A small NTP client against the port that the settings give.
TEST(SettingsDaemonTest, NtpReplyOnTheConfiguredPort) {
  TempDir dir;
  WorkDirOptions options;
  options.ports = {"ip_ntp_port"};
  WorkDir work = write_work_dir(dir.path(), options);
  int port = work.port("ip_ntp_port");
  ASSERT_GT(port, 0);
  DaemonProcess d({"--no-daemon", "--dir", dir.path()}, dir.file("err.txt"));
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  unsigned char request[48] = {0x1B};  // version 3, mode 3 (client)
  unsigned char reply[100];
  ssize_t got = -1;
  for (int i = 0; i < 100 && got < 0; i++) {
    sendto(fd, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 200) == 1) got = recv(fd, reply, sizeof reply, 0);
  }
  close(fd);
  ASSERT_EQ(got, 48) << file_text(dir.file("err.txt"));
  EXPECT_EQ(reply[0], 28);
  EXPECT_EQ(reply[1], 2);
  EXPECT_EQ(reply[2], 0);
  EXPECT_EQ(reply[3], 238);
  for (int i = 4; i < 12; i++) EXPECT_EQ(reply[i], 0) << i;  // root delay and dispersion
  EXPECT_EQ(reply[12], 127);
  EXPECT_EQ(reply[15], 1);
  auto word = [&](int at) {
    return (uint32_t(reply[at]) << 24) | (uint32_t(reply[at + 1]) << 16) | (uint32_t(reply[at + 2]) << 8) | reply[at + 3];
  };
  for (int at = 16; at < 32; at += 4) EXPECT_EQ(word(at), 0u) << at;  // reference and originate
  EXPECT_EQ(word(32), word(40));
  EXPECT_EQ(word(36), word(44));
  int64_t seconds = int64_t(word(40)) - 0x83AA7E80LL;
  EXPECT_LT(std::llabs(seconds - int64_t(time(nullptr))), 86400);
}
