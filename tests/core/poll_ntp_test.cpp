#include <gtest/gtest.h>
#include <unistd.h>

#include "core/ntp.h"
#include "core/poll_set.h"
#include "tests/support/test_support.h"

TEST(PollSetTest, ReadinessByDescriptor) {
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  PollSet set;
  set.add(-1, true, false);  // ignored
  set.add(p[0], true, false);
  set.add(p[1], false, true);
  set.add(p[1], true, false);  // merged with the first entry of this descriptor
  EXPECT_EQ(set.size(), 2);
  ASSERT_EQ(write(p[1], "x", 1), 1);
  EXPECT_EQ(set.wait(1000), 2);
  EXPECT_TRUE(set.readable(p[0]));
  EXPECT_TRUE(set.writable(p[1]));
  EXPECT_FALSE(set.writable(p[0]));
  EXPECT_FALSE(set.readable(-5));
  EXPECT_FALSE(set.readable(100000));
  set.reset();
  EXPECT_EQ(set.size(), 0);
  EXPECT_FALSE(set.readable(p[0]));
  for (int fd = 0; fd < 40; fd++) set.add(p[0], true, false);  // growth from the minimum
  EXPECT_EQ(set.wait(0), 1);
  close(p[0]);
  close(p[1]);
  PollSet empty;
  EXPECT_EQ(empty.wait(1), 0);
}

TEST(NtpTest, ReplyFields) {
  String request = String::repeat(0, 48);
  request.set_byte(0, 0x1b);  // version 3, client mode
  uint64_t wall = 1700000000123ULL;
  String r = ntp_reply(request, wall, String::bytes(127, 0, 0, 1));
  ASSERT_EQ(r.length(), 48);
  EXPECT_EQ(r.head(4), String::bytes(28, 2, 0, static_cast<char>(238)));
  EXPECT_EQ(r.substr(4, 8), String::repeat(0, 8));
  EXPECT_EQ(r.substr(12, 4), String::bytes(127, 0, 0, 1));
  EXPECT_EQ(r.substr(16, 16), String::repeat(0, 16));
  uint32_t seconds = (r.byte_at(40) << 24) | (r.byte_at(41) << 16) | (r.byte_at(42) << 8) | r.byte_at(43);
  EXPECT_EQ(seconds, static_cast<uint32_t>(1700000000u + 2208988800u));
  uint32_t fraction = (r.byte_at(44) << 24) | (r.byte_at(45) << 16) | (r.byte_at(46) << 8) | r.byte_at(47);
  EXPECT_EQ(fraction, 123u * 4294967u);
  EXPECT_EQ(r.substr(32, 8), r.substr(40, 8));
  EXPECT_EQ(ntp_reply(request, wall, String::repeat(0, 16)).substr(12, 4), String("IPv6"));
  EXPECT_TRUE(ntp_reply(request.head(47), wall, String()).empty());
  request.set_byte(0, 0x1c);  // server mode: no answer
  EXPECT_TRUE(ntp_reply(request, wall, String()).empty());
}
