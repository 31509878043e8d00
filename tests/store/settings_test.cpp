#include "store/settings.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "core/codings.h"
#include "core/format.h"
#include "core/random.h"
#include "core/xml.h"
#include "core/files.h"
#include "core/log.h"
#include "core/mutex.h"
#include "core/poll_set.h"
#include "core/posting.h"
#include "core/server.h"
#include "store/cell_cipher.h"
#include "store/registry.h"
#include "tests/store/store_test_support.h"
#include "tests/support/test_support.h"

namespace {

// Runs a test inside a directory of its own, as the daemon runs in its working directory.
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

const int encrypted_slots[] = {142, 193, 272, 275, 276, 280, 291, 331, 335,
                               339, 343, 347, 351, 355, 363, 372, 389, 409};

// The children of a settings document in order, as name and raw text.
std::vector<std::pair<String, String>> children(const String& text) {
  std::vector<std::pair<String, String>> out;
  int root = text.find("<pbx-config>");
  String body = text.substr(root + 12, text.length() - root - 12 - 13);
  while (!body.empty()) {
    String element = XmlNode::next_element_strict(body);
    if (element.empty()) break;
    XmlNode n(element, false);
    out.emplace_back(n.name(), n.raw_body());
  }
  return out;
}

}  // namespace

TEST(RegistryTableTest, SlotsNamesDefaultsAndFlags) {
  std::set<std::string> names;
  for (int i = 0; i < registry_size; i++) {
    EXPECT_EQ(registry_slots[i].index, i);
    ASSERT_NE(registry_slots[i].name, nullptr);
    EXPECT_TRUE(names.insert(registry_slots[i].name).second) << registry_slots[i].name;
    EXPECT_EQ(registry_index(registry_name(i)), i);
  }
  std::set<int> enc(std::begin(encrypted_slots), std::end(encrypted_slots));
  for (int i = 0; i < registry_size; i++) EXPECT_EQ(registry_is_encrypted(i), enc.count(i) == 1) << i;

  struct Case {
    int index;
    const char* name;
    const char* value;
  } cases[] = {{0, "random", ""},           {47, "reserved_47", ""},
               {382, "reserved_382", ""},   {2, "log_length", "100"},
               {11, "log_event_general", "5"}, {33, "log_event_crm", "5"},
               {82, "ip_http_port", "80"},  {87, "ip_sip_tls_port", "5061"},
               {145, "soap_trusted_ip", "localhost"}, {150, "login_keep", "4w"},
               {222, "cdr_file_name", "$c/$m/$d.csv"}, {257, "ip_ntp_port", ""},
               {383, "fill_chars", ". -()/"}, {424, "notify_count", "10"}};
  for (const Case& c : cases) {
    EXPECT_STREQ(registry_slots[c.index].name, c.name);
    EXPECT_STREQ(registry_slots[c.index].default_value, c.value) << c.name;
  }
  EXPECT_EQ(registry_index(String("no_such_setting")), registry_none);
  EXPECT_EQ(registry_none, 425);
}

TEST(SettingsTest, ReadsOutsideTheSlotsAndTheComputedCodecList) {
  reset_registry();
  EXPECT_EQ(ctrl_read_registry(425), String());
  EXPECT_EQ(ctrl_read_registry(-1), String());
  EXPECT_EQ(registry_name(425), String());
  ctrl_write_registry(425, String("x"), false);  // does nothing
  struct Case {
    const char* stored;
    const char* read;
  } cases[] = {{"0 8 9 18", "0 8 9 18"},
               {"ulaw alaw gsm g729 g726 g722 l16 opus", "0 8 3 18 96 9 l16 opus"},
               {"ALAW  101", "8 101"},
               {"", ""}};
  for (const Case& c : cases) {
    ctrl_write_setting(reg_codec_preference, String(c.stored));
    EXPECT_EQ(ctrl_read_registry(reg_codec_preference), String(c.read)) << c.stored;
    EXPECT_EQ(registry_value(reg_codec_preference), String(c.stored));
  }
  reset_registry();
}

TEST(SettingsTest, FirstStartWritesEverySlotInOrderWithANewSecret) {
  TempDir dir;
  InDirectory in(dir.path());
  ASSERT_TRUE(write_file(String("<pbx-con"), String("pbx.xml") + temp_file_suffix));
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::first_start);
  EXPECT_FALSE(file_size(String("exchsrv-test.txt")) >= 0);
  EXPECT_EQ(file_size(String("pbx.xml") + temp_file_suffix), -1);
  String text = read_file(String("pbx.xml"));
  auto kids = children(text);
  ASSERT_EQ(kids.size(), static_cast<size_t>(registry_size));
  for (int i = 0; i < registry_size; i++) EXPECT_EQ(kids[i].first, registry_name(i));
  EXPECT_EQ(base64_decode(kids[0].second).length(), 16);
  EXPECT_EQ(text.find("><"), text.find("<pbx-config>") + 11);
  EXPECT_LT(text.find(">\n<", text.find("<pbx-config>")), 0);
  for (int i : encrypted_slots) {
    EXPECT_GE(text.find(format("<%s encrypted=\"true\">", registry_name(i))), 0) << i;
  }

  // A second start reads the same secret and deciphers what was written enciphered.
  String secret = registry_value(reg_random);
  ctrl_write_registry(142, String("p&ss<word>"), true);
  ctrl_write_registry(409, String("token"), true);
  reset_registry();
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::loaded);
  EXPECT_EQ(registry_value(reg_random), secret);
  EXPECT_EQ(registry_value(142), String("p&ss<word>"));
  EXPECT_EQ(registry_value(409), String("token"));
  EXPECT_EQ(read_file(String("pbx.xml")).find("p&amp;ss"), -1);
  reset_registry();
}

TEST(SettingsTest, OrderOfElementsOldNamesAndHandWrittenCells) {
  TempDir dir;
  InDirectory in(dir.path());
  String secret = base64_encode(String("0123456789abcdef"));
  set_cell_key_from_setting(secret);
  String enciphered = base64_encode(encipher_cell(String("hidden")));
  // The enciphered element stands before `random`, an element of an older version has no
  // slot, record_start is held apart, and a hand-written secret has no attribute (read plain).
  String doc = format(
      "<?xml version=\"1.0\"?>\r\n<pbx-config>\n  <location_password encrypted=\"true\">%s</location_password>\n"
      "  <old_setting>x</old_setting><record_start>*81</record_start><sms_password>plain</sms_password>"
      "<random>%s</random><sys_name>A &amp; B</sys_name></pbx-config>\n",
      enciphered, secret);
  ASSERT_TRUE(write_file(doc, String("pbx.xml")));
  set_cell_key(String("ffffffffffffffff"));
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::loaded);
  EXPECT_EQ(registry_value(142), String("hidden"));
  EXPECT_EQ(registry_value(372), String("plain"));
  EXPECT_EQ(registry_value(77), String("A & B"));
  EXPECT_EQ(registry_value(2), String("100"));
  EXPECT_EQ(settings_extras().record_start, String("*81"));
  EXPECT_TRUE(settings_extras().move_records);
  ctrl_write_registry(77, String("C"), true);
  String after = read_file(String("pbx.xml"));
  EXPECT_EQ(after.find("old_setting"), -1);
  EXPECT_EQ(after.find(">plain<"), -1);
  reset_registry();
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::loaded);
  EXPECT_EQ(registry_value(372), String("plain"));
  reset_registry();
}

TEST(SettingsTest, BadFilesFollowTheDataDirectory) {
  String secret = base64_encode(String("0123456789abcdef"));
  String good = format("<pbx-config><random>%s</random><sys_name>x</sys_name></pbx-config>", secret);
  struct Case {
    const char* what;
    String text;
    bool parses;
  } cases[] = {
      {"truncated", good.head(good.length() - 7), false},
      {"cut in a child", good.head(40), false},
      {"wrong root", String("<config><random>x</random></config>"), false},
      {"garbage", String("\x01\x02\xff<<>>\x00zz", 11), false},
      {"text between children", format("<pbx-config>junk<random>%s</random></pbx-config>", secret), false},
      {"two roots", good + good, false},
      {"duplicate elements",
       format("<pbx-config><random>%s</random><sys_name>first</sys_name><sys_name>second</sys_name></pbx-config>", secret),
       true},
      {"bad base64", format("<pbx-config><random>%s</random><email_pass encrypted=\"true\">@@@@</email_pass></pbx-config>", secret),
       true},
      {"cipher too short",
       format("<pbx-config><random>%s</random><email_pass encrypted=\"true\">QUJD</email_pass></pbx-config>", secret),
       true},
  };
  for (const Case& c : cases) {
    ParsedSettings p = parse_settings(c.text);
    EXPECT_EQ(p.ok, c.parses) << c.what;
    for (bool data : {false, true}) {
      TempDir dir;
      InDirectory in(dir.path());
      if (data) {
        make_path(String("domains/"));
        ASSERT_TRUE(write_file(String("2"), String("domains/index.txt")));
      }
      ASSERT_TRUE(write_file(c.text, String("pbx.xml")));
      LogCapture log;
      SettingsLoad r = load_settings(String("pbx.xml"));
      if (c.parses) {
        EXPECT_EQ(r, SettingsLoad::loaded) << c.what;
        EXPECT_FALSE(log.lines().empty()) << c.what;
        EXPECT_NE(registry_value(77), String("second"));
        EXPECT_EQ(registry_value(280), String()) << c.what;
      } else if (data) {
        EXPECT_EQ(r, SettingsLoad::unreadable) << c.what;
        EXPECT_EQ(read_file(String("pbx.xml")), c.text) << c.what;
      } else {
        EXPECT_EQ(r, SettingsLoad::defaults) << c.what;
        EXPECT_EQ(base64_decode(registry_value(reg_random)).length(), 16);
      }
    }
  }
  {
    TempDir dir;
    InDirectory in(dir.path());
    make_path(String("domains/"));
    ASSERT_TRUE(write_file(String("2"), String("domains/index.txt")));
    EXPECT_EQ(load_settings(String("pbx.xml")), SettingsLoad::unreadable);
    EXPECT_EQ(file_size(String("pbx.xml")), -1);
  }
  reset_registry();
}

TEST(SettingsTest, WritesPersistPostAndRunTheirEffects) {
  TempDir dir;
  InDirectory in(dir.path());
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::first_start);
  String before = read_file(String("pbx.xml"));

  ctrl_write_registry(77, String("not kept"), false);
  EXPECT_EQ(ctrl_read_registry(77), String("not kept"));
  EXPECT_EQ(read_file(String("pbx.xml")), before);
  ctrl_write_setting(reg_log_event_first + 1, String("9"));
  EXPECT_NE(log_level_of(LOG_SIP), 9);  // a setting write has no effect
  ctrl_write_registry(reg_log_event_first + 1, String("7"), false);
  EXPECT_EQ(log_level_of(LOG_SIP), 7);
  ctrl_write_registry(reg_log_event_first + 1, String("5"), false);

  static int effect_calls = 0;
  static String effect_old, effect_new;
  effect_calls = 0;
  set_setting_effect(reg_dns_server, [](int, const String& o, const String& v) {
    effect_calls++;
    effect_old = o;
    effect_new = v;
  });
  ctrl_write_registry(reg_dns_server, String("10.0.0.1"), true);
  ctrl_write_registry(reg_dns_server, String("10.0.0.1"), true);  // unchanged: no effect
  EXPECT_EQ(effect_calls, 1);
  EXPECT_EQ(effect_new, String("10.0.0.1"));
  set_setting_effect(reg_dns_server, nullptr);

  // Every write reaches the service half's mirror.
  register_settings_handlers();
  srv_run_mutex.lock("test", 1);
  pbxsrv_soap();
  EXPECT_EQ(srv_read_registry(77), String("not kept"));
  EXPECT_EQ(srv_read_registry(reg_dns_server), String("10.0.0.1"));
  EXPECT_EQ(srv_read_registry(425), String());
  srv_run_mutex.unlock("test", 1);
  reset_registry();
}

TEST(SettingsTest, LanguagesFromTheAudioDirectories) {
  TempDir dir;
  struct Dir {
    const char* name;
    const char* file;
    const char* content;
  } dirs[] = {{"audio_en", "ringback.wav", "x"}, {"audio_en", "bi_1.wav", "x"}, {"audio_de", "bi_1.wav", "x"},
              {"audio_fr", "ringback.wav", ""},  {"audio_moh", "bi_1.wav", "x"}, {"audio_upload", "ringback.wav", "x"},
              {"other_it", "bi_1.wav", "x"}};
  for (const Dir& d : dirs) {
    String path = format("%s/%s/%s", dir.path().c_str(), d.name, d.file);
    make_path(path);
    ASSERT_TRUE(write_file(String(d.content), path));
  }
  String tones, audio;
  find_languages(S(dir.path()), tones, audio);
  EXPECT_EQ(tones, String("en"));
  std::vector<String> a = audio.split(' ');
  EXPECT_EQ(std::set<String>(a.begin(), a.end()), (std::set<String>{String("de"), String("en")}));
}

// A value written in the control half reaches the service half's mirror after one pass of
// the control loop, by way of the posted message.
TEST(SettingsThreadsTest, WriteIsSeenByTheServiceHalfAfterOnePass) {
  reset_registry();
  register_settings_handlers();
  server_start_threads();
  ctrl_run_mutex.lock("test", 1);
  ctrl_write_registry(77, String("pbx.example"), false);
  PollSet set;
  server_loop_pass(set, 0);
  ctrl_run_mutex.unlock("test", 1);
  String seen;
  for (int i = 0; i < 2000 && seen != String("pbx.example"); i++) {
    srv_run_mutex.lock("test", 2);
    seen = srv_read_registry(77);
    srv_run_mutex.unlock("test", 2);
    if (seen != String("pbx.example")) usleep(1000);
  }
  server_stop_threads();
  single_threaded.store(true);
  EXPECT_EQ(seen, String("pbx.example"));
  reset_registry();
}

// Storage fault injection: a process that rewrites the file in a loop is killed at random
// moments; the file always loads with one of the written values.
TEST(SettingsCrashTest, KillDuringPersistedWritesLeavesALoadableFile) {
  TempDir dir;
  InDirectory in(dir.path());
  ASSERT_EQ(load_settings(String("pbx.xml")), SettingsLoad::first_start);
  for (int round = 0; round < 12; round++) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int i = 0;; i++) ctrl_write_registry(77, format("name-%d", i), true);
    }
    usleep(static_cast<useconds_t>(2000 + random_below(30000)));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ParsedSettings p = parse_settings(read_file(String("pbx.xml")));
    ASSERT_TRUE(p.ok) << round;
    EXPECT_TRUE(p.values[77].empty() || p.values[77].starts_with("name-")) << round;
    EXPECT_TRUE(p.problems.empty());
  }
  reset_registry();
}
