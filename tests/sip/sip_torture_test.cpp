// Hand-written hostile and unusual messages in tests/sip/torture: each NAME.sip has a
// NAME.expect of "field=value" lines naming what the parser must make of it, and where
// the case comes from. Every message is also serialised, sent and parsed again.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "sip/message_text.h"
#include "sip/sip_message.h"
#include "tests/support/test_support.h"

namespace {

std::string read_all(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

std::string torture_dir() { return source_dir() + "/tests/sip/torture"; }

std::vector<std::string> case_names() {
  std::vector<std::string> names;
  DIR* d = opendir(torture_dir().c_str());
  if (!d) return names;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n.size() > 4 && n.compare(n.size() - 4, 4, ".sip") == 0) names.push_back(n.substr(0, n.size() - 4));
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

std::string params_text(const ParamList& list) {
  std::string out;
  for (const SipParam& p : list) out += to_std(p.name) + "=" + to_std(p.value) + "|";
  return out;
}

std::string num(long v) { return std::to_string(v); }

// What a field of the message reads as, by the name used in the .expect files.
std::string field(const SipMessage& m, const std::string& key) {
  const NameAddr none{};
  const NameAddr& contact = m.contact.empty() ? none : m.contact[0];
  String top = m.via.empty() ? String() : param_value(m.via[0], "branch", ';');
  std::map<std::string, std::function<std::string()>> fields = {
      {"method", [&] { return to_std(m.method); }},
      {"method_length", [&] { return num(m.method.length()); }},
      {"is_request", [&] { return num(m.is_request); }},
      {"status", [&] { return num(m.status); }},
      {"reason", [&] { return to_std(m.reason); }},
      {"ruri_scheme", [&] { return to_std(m.request_uri.scheme()); }},
      {"ruri_user", [&] { return to_std(m.request_uri.user()); }},
      {"ruri_user_length", [&] { return num(m.request_uri.user().length()); }},
      {"ruri_password", [&] { return to_std(m.request_uri.password()); }},
      {"ruri_host", [&] { return to_std(m.request_uri.host()); }},
      {"call_id", [&] { return to_std(m.call_id); }},
      {"call_id_length", [&] { return num(m.call_id.length()); }},
      {"cseq", [&] { return num(m.cseq); }},
      {"cseq_method", [&] { return to_std(m.cseq_method); }},
      {"max_forwards", [&] { return num(m.max_forwards); }},
      {"via_count", [&] { return num(m.via.size()); }},
      {"top_branch", [&] { return to_std(top); }},
      {"top_branch_length", [&] { return num(top.length()); }},
      {"from_display", [&] { return to_std(m.from.display()); }},
      {"from_user", [&] { return to_std(m.from.uri().user()); }},
      {"from_host", [&] { return to_std(m.from.uri().host()); }},
      {"from_tag", [&] { return to_std(m.from.tag()); }},
      {"to_tag", [&] { return to_std(m.to.tag()); }},
      {"to_user", [&] { return to_std(m.to.uri().user()); }},
      {"to_user_length", [&] { return num(m.to.uri().user().length()); }},
      {"to_uri", [&] { return to_std(m.to.uri().text()); }},
      {"contact_count", [&] { return num(m.contact.size()); }},
      {"contact_display", [&] { return to_std(contact.display()); }},
      {"contact_scheme", [&] { return to_std(contact.uri().scheme()); }},
      {"contact_user", [&] { return to_std(contact.uri().user()); }},
      {"contact_user_length", [&] { return num(contact.uri().user().length()); }},
      {"contact_host", [&] { return to_std(contact.uri().host()); }},
      {"contact_port", [&] { return to_std(contact.uri().port()); }},
      {"contact_params", [&] { return params_text(contact.uri().params()); }},
      {"contact_param_count", [&] { return num(contact.params().size()); }},
      {"contact_param_q", [&] { return to_std(nameaddr_param(contact, "q")); }},
      {"contact_uri_header_subject", [&] { return to_std(uri_header(contact.uri(), "subject")); }},
      {"route_count", [&] { return num(m.route.size()); }},
      {"header_count", [&] { return num(m.headers.size()); }},
      {"body", [&] { return to_std(m.body); }},
      {"body_length", [&] { return num(m.body.length()); }},
      {"parts", [&] { return num(static_cast<long>(m.parts.size())); }},
      {"part0_type", [&] { return m.parts.size() > 0 ? to_std(m.parts[0].content_type) : "-"; }},
      {"part1_type", [&] { return m.parts.size() > 1 ? to_std(m.parts[1].content_type) : "-"; }},
      {"boundary", [&] { return to_std(m.boundary); }},
  };
  auto it = fields.find(key);
  if (it != fields.end()) return it->second();
  const std::string values = "header_values_";
  if (key.rfind(values, 0) == 0)
    return num(static_cast<long>(m.header_values(String(key.substr(values.size()).c_str())).size()));
  const std::string length = "header_length_";
  if (key.rfind(length, 0) == 0) return num(m.header(String(key.substr(length.size()).c_str())).length());
  return "<unknown field " + key + ">";
}

}  // namespace

TEST(SipTortureTest, EveryCaseReadsAsExpected) {
  std::vector<std::string> names = case_names();
  ASSERT_GE(names.size(), 25u);
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    std::string text = read_all(torture_dir() + "/" + name + ".sip");
    std::string expect = read_all(torture_dir() + "/" + name + ".expect");
    ASSERT_FALSE(expect.empty()) << "every case names its outcome";
    SipMessage m(String(text.data(), static_cast<int>(text.size())));
    std::istringstream lines(expect);
    std::string line;
    int checks = 0;
    while (std::getline(lines, line)) {
      if (line.empty() || line[0] == '#') continue;
      size_t eq = line.find('=');
      ASSERT_NE(eq, std::string::npos) << line;
      EXPECT_EQ(field(m, line.substr(0, eq)), line.substr(eq + 1)) << line;
      checks++;
    }
    EXPECT_GT(checks, 0);
  }
}

TEST(SipTortureTest, EveryCaseSurvivesARoundTrip) {
  for (const std::string& name : case_names()) {
    SCOPED_TRACE(name);
    std::string text = read_all(torture_dir() + "/" + name + ".sip");
    SipMessage m(String(text.data(), static_cast<int>(text.size())));
    for (Transport t : {Transport::udp, Transport::tls}) {
      String out = message_text(m.serialise(t), parse_local_end("192.0.2.1:5060"), "4000", "udp");
      // Normal forms add a little per element; nothing may grow without bound.
      EXPECT_LE(out.length(), static_cast<int>(text.size()) * 3 + 4096);
      SipMessage again(out);
      EXPECT_EQ(again.call_id, m.call_id);
      EXPECT_EQ(again.cseq, m.cseq);
      EXPECT_EQ(again.via.size(), m.via.size());
      EXPECT_EQ(again.from.tag(), m.from.tag());
      EXPECT_EQ(again.parts.size(), m.parts.size());
      if (m.parts.size() == 1) {
        EXPECT_EQ(again.body.length(), m.body.length());
      }
    }
  }
}

TEST(SipTortureTest, EveryPrefixParsesAndSerialises) {
  for (const char* name : {"wsinv", "multipart", "compact", "esc01", "resp6"}) {
    SCOPED_TRACE(name);
    std::string text = read_all(torture_dir() + "/" + name + ".sip");
    ASSERT_FALSE(text.empty());
    for (size_t n = 0; n <= text.size(); n++) {
      SipMessage m(String(text.data(), static_cast<int>(n)));
      (void)m.from.uri().host();
      (void)m.to.tag();
      for (const NameAddr& c : m.contact) (void)c.params().size();
      String out = message_text(m.serialise(Transport::udp), parse_local_end("192.0.2.1:5060"), "", "udp");
      EXPECT_LE(out.length(), static_cast<int>(n) * 3 + 512);
    }
  }
}
