#include "sip/sip_names.h"

#include <gtest/gtest.h>

#include <string>

#include "sip/internal/small_list.h"
#include "tests/support/test_support.h"

TEST(SipNamesTest, HeaderTableKnowsNamesAndSevenCompactForms) {
  struct Case {
    const char* name;
    SipHeader id;
  } cases[] = {
      {"From", SipHeader::from},         {"f", SipHeader::from},
      {"TO", SipHeader::to},             {"t", SipHeader::to},
      {"call-id", SipHeader::call_id},   {"Call-ID", SipHeader::call_id},
      {"I", SipHeader::call_id},         {"CSeq", SipHeader::cseq},
      {"content-type", SipHeader::content_type}, {"c", SipHeader::content_type},
      {"Content-Length", SipHeader::content_length}, {"L", SipHeader::content_length},
      {"Expires", SipHeader::expires},   {"Route", SipHeader::route},
      {"record-route", SipHeader::record_route}, {"Path", SipHeader::path},
      {"History-Info", SipHeader::history_info}, {"Contact", SipHeader::contact},
      {"m", SipHeader::contact},         {"Via", SipHeader::via},
      {"v", SipHeader::via},             {"Max-Forwards", SipHeader::max_forwards},
      // Compact forms that are not ours, near misses, and bytes that fold to letters.
      {"s", SipHeader::other},           {"k", SipHeader::other},
      {"e", SipHeader::other},           {"o", SipHeader::other},
      {"r", SipHeader::other},           {"Fro", SipHeader::other},
      {"Fromm", SipHeader::other},       {"Call_ID", SipHeader::other},
      {"", SipHeader::other},            {"Content-Lengthx", SipHeader::other},
      {"\xc6rom", SipHeader::other},
  };
  for (const auto& c : cases) EXPECT_EQ(sip_header_of(String(c.name)), c.id) << c.name;
}

TEST(SipNamesTest, SmallListAcrossItsInlineBoundary) {
  SmallList<String, 2> a;
  for (int i = 0; i < 5; i++) a.push_back(String(i));
  SmallList<String, 2> b = a;
  SmallList<String, 2> c = std::move(b);
  EXPECT_TRUE(b.empty());
  c.erase_if([](const String& s) { return s.to_int() % 2 == 1; });
  ASSERT_EQ(c.size(), 3);
  EXPECT_EQ(c[2], String("4"));
  c.erase(0);
  EXPECT_EQ(c.front(), String("2"));
  SmallList<String, 2> d;
  d.push_back("x");
  d = c;
  EXPECT_EQ(d.size(), 2);
  SmallList<String, 2> e;
  e.push_back("only");
  SmallList<String, 2> f = std::move(e);
  EXPECT_EQ(f.back(), String("only"));
  d = std::move(f);
  EXPECT_EQ(d.size(), 1);
  EXPECT_EQ(a.size(), 5);
  EXPECT_EQ(a[4], String("4"));
}
