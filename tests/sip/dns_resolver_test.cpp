#include "sip/dns_resolver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "core/udp_socket.h"
#include "sip/interfaces.h"
#include "tests/support/test_support.h"

namespace {

int64_t fake_now = 1000000000;
int64_t fake_tick() { return fake_now; }
void advance_ms(int64_t m) { fake_now += m * 1000000; }

int answered = 0;
void on_answer() { answered++; }

String loopback() { return parse_adr(String("127.0.0.1")); }

// A DNS server on a free loopback port that the test answers by hand.
class FakeDns : public ::testing::Test {
 protected:
  void SetUp() override {
    tick_set_source(fake_tick);
    dns_reset();
    answered = 0;
    ASSERT_TRUE(server.open(0, loopback()));
    set_dns_servers({loopback()});
    dns_set_server_port(server.port);
    dns_set_hosts_path(String("/nonexistent/hosts"));
  }
  void TearDown() override {
    dns_reset();
    while (!service_queue.empty()) service_queue.next();
    tick_set_source(nullptr);
    set_dns_servers({});
    dns_set_server_port(53);
  }

  // The next query that reached the server, waiting a little for the kernel.
  bool take_query(String& query, Address& from) {
    pollfd p = {server.fd, POLLIN, 0};
    if (poll(&p, 1, 2000) != 1) return false;
    return server.receive(query, from) && !query.empty();
  }
  // Every query waiting at the server, without waiting.
  int drain_queries() {
    int n = 0;
    String q;
    Address from;
    while (server.receive(q, from) && !q.empty()) n++;
    return n;
  }
  // Lets the resolver read until the callback ran or nothing more arrives.
  void let_resolver_read() {
    for (int i = 0; i < 200 && answered == 0; i++) {
      dns_serve_sockets();
      if (answered == 0) usleep(1000);
    }
  }
  void answer(const String& query, const Address& to, int rcode, const std::vector<DnsRecord>& records) {
    ASSERT_TRUE(server.send_to(dns_encode_answer(query, rcode, records), to));
  }

  UdpSocket server;
};

}  // namespace

TEST_F(FakeDns, AnswerFillsTheCacheAndRunsEveryCallback) {
  LogCapture log;
  ASSERT_TRUE(request_dns(String("PBX1.Example.Test."), dns_a, callback_argument(on_answer)));
  ASSERT_TRUE(request_dns(String("pbx1.example.test"), dns_a, callback_argument(on_answer)));
  EXPECT_TRUE(log.contains("DNS: we have already a request pending for this address pbx1.example.test"));
  String query;
  Address from;
  ASSERT_TRUE(take_query(query, from));
  EXPECT_EQ(drain_queries(), 0);  // one query for both callers
  answer(query, from, 0, {{"pbx1.example.test", dns_a, 300, "192.0.2.1"}, {"pbx1.example.test", dns_a, 300, "192.0.2.2"}});
  let_resolver_read();
  dns_serve_sockets();
  EXPECT_EQ(answered, 2);
  EXPECT_EQ(dns_pending_count(), 0);
  EXPECT_TRUE(log.contains("DNS: Received response for pbx1.example.test with 2 answers"));
  String out;
  ASSERT_TRUE(cache_lookup(String("pbx1.example.test"), dns_a, out, false));
  EXPECT_EQ(out, String("192.0.2.1"));
  ASSERT_TRUE(cache_lookup(String("pbx1.example.test"), dns_a, out, true));
  EXPECT_EQ(out, String("192.0.2.1\n192.0.2.2"));
  EXPECT_FALSE(cache_lookup(String("pbx1.example.test"), dns_aaaa, out, true));
  String json;
  json_stringify(json);
  EXPECT_EQ(json, String("{\"type\":\"A\",\"name\":\"pbx1.example.test\",\"value\":\"192.0.2.1\\n192.0.2.2\",\"duration\":300}"));
}

// Each of these is ignored: the request stays, and a good answer still ends it.
TEST_F(FakeDns, HostileAnswersAreIgnoredAndRetriesGoOn) {
  ASSERT_TRUE(request_dns(String("a.test"), dns_a, callback_argument(on_answer)));
  String query;
  Address from;
  ASSERT_TRUE(take_query(query, from));
  String good = dns_encode_answer(query, 0, {{"a.test", dns_a, 60, "192.0.2.9"}});
  String wrong_id = good;
  wrong_id.set_byte(1, static_cast<char>(good.byte_at(1) ^ 0x55));
  String truncated = good;
  truncated.set_byte(2, static_cast<char>(good.byte_at(2) | 0x02));
  String many = good;
  many.set_byte(7, 50);
  String loop = good.head(good.length() - 16) + String::bytes('\xc0', static_cast<char>(good.length() - 16)) + good.tail(good.length() - 14);
  String long_rdlength = good;
  long_rdlength.set_byte(good.length() - 5, 100);
  String other_name = dns_encode_answer(dns_encode_query(query.byte_at(0) * 256 + query.byte_at(1), String("b.test"), dns_a), 0,
                                        {{"b.test", dns_a, 60, "192.0.2.66"}});
  for (const String& bad : {wrong_id, truncated, many, loop, long_rdlength, other_name, String("garbage")}) {
    ASSERT_TRUE(server.send_to(bad, from));
    for (int i = 0; i < 20; i++) {
      dns_serve_sockets();
      usleep(500);
    }
    EXPECT_EQ(answered, 0);
    EXPECT_EQ(dns_pending_count(), 1);
  }
  String out;
  EXPECT_FALSE(cache_lookup(String("b.test"), dns_a, out, false));
  advance_ms(dns_retry_ms[0]);
  ASSERT_TRUE(service_queue.next());
  EXPECT_EQ(drain_queries(), 1);
  ASSERT_TRUE(server.send_to(good, from));
  let_resolver_read();
  EXPECT_EQ(answered, 1);
  ASSERT_TRUE(cache_lookup(String("a.test"), dns_a, out, false));
  EXPECT_EQ(out, String("192.0.2.9"));
}

// A silent server: sends at 0, 0.5, 1.5, 3.5, 7.5, 11.5 and 15.5 s, the give-up line at
// 19.5 s, and then a negative entry that answers for 10 seconds.
TEST_F(FakeDns, SilentServerGivesTheRetryScheduleAndGivesUp) {
  LogCapture log;
  int64_t start = fake_now;
  ASSERT_TRUE(request_dns(String("dead.test"), dns_a, callback_argument(on_answer)));
  std::vector<int64_t> sends;
  String query;
  Address from;
  ASSERT_TRUE(take_query(query, from));
  sends.push_back(0);
  while (answered == 0) {
    Tick now;
    uint64_t id;
    int64_t d = service_queue.delay(now, id, true);
    ASSERT_GE(d, 0);
    advance_ms(d);
    ASSERT_TRUE(service_queue.next());
    int n = drain_queries();
    for (int i = 0; i < n; i++) sends.push_back((fake_now - start) / 1000000);
    ASSERT_LT(sends.size(), 20u);
  }
  EXPECT_EQ(sends, (std::vector<int64_t>{0, 500, 1500, 3500, 7500, 11500, 15500}));
  EXPECT_EQ(fake_now - start, int64_t{19500} * 1000000);
  EXPECT_EQ(dns_pending_count(), 0);
  EXPECT_TRUE(log.contains("DNS: 7 retry attempts failed for Id 1. Giving up..."));
  String out("x");
  ASSERT_TRUE(cache_lookup(String("dead.test"), dns_a, out, true));
  EXPECT_TRUE(out.empty());
  advance_ms(9999);
  EXPECT_TRUE(cache_lookup(String("dead.test"), dns_a, out, true));
  advance_ms(1);
  EXPECT_FALSE(cache_lookup(String("dead.test"), dns_a, out, true));
}

TEST_F(FakeDns, NxdomainAndNoDataAreCachedForTenSeconds) {
  for (int rcode : {dns_rcode_nxdomain, 0}) {
    answered = 0;
    String name = format("gone%d.test", rcode);
    ASSERT_TRUE(request_dns(name, dns_srv, callback_argument(on_answer)));
    String query;
    Address from;
    ASSERT_TRUE(take_query(query, from));
    answer(query, from, rcode, {});
    let_resolver_read();
    ASSERT_EQ(answered, 1);
    String out("x");
    ASSERT_TRUE(cache_lookup(name, dns_srv, out, true)) << rcode;
    EXPECT_TRUE(out.empty());
    advance_ms(10000);
    EXPECT_FALSE(cache_lookup(name, dns_srv, out, true)) << rcode;
  }
}

TEST_F(FakeDns, AliasIsFollowed) {
  // The alias with its target in one answer.
  ASSERT_TRUE(request_dns(String("www.test"), dns_a, callback_argument(on_answer)));
  String query;
  Address from;
  ASSERT_TRUE(take_query(query, from));
  answer(query, from, 0, {{"www.test", dns_cname, 60, "real.test"}, {"real.test", dns_a, 60, "192.0.2.20"},
                          {"bank.test", dns_a, 60, "192.0.2.66"}});
  let_resolver_read();
  ASSERT_EQ(answered, 1);
  String out;
  ASSERT_TRUE(cache_lookup(String("www.test"), dns_a, out, false));
  EXPECT_EQ(out, String("192.0.2.20"));
  ASSERT_TRUE(cache_lookup(String("www.test"), dns_cname, out, false));
  EXPECT_EQ(out, String("real.test"));
  EXPECT_FALSE(cache_lookup(String("bank.test"), dns_a, out, false));  // not asked for

  // The alias alone: the target is asked for before the caller hears back.
  answered = 0;
  ASSERT_TRUE(request_dns(String("alias.test"), dns_aaaa, callback_argument(on_answer)));
  ASSERT_TRUE(take_query(query, from));
  answer(query, from, 0, {{"alias.test", dns_cname, 60, "target.test"}});
  String second;
  for (int i = 0; i < 200 && second.empty(); i++) {
    dns_serve_sockets();
    if (!server.receive(second, from)) usleep(1000);
  }
  ASSERT_FALSE(second.empty());
  EXPECT_EQ(answered, 0);
  answer(second, from, 0, {{"target.test", dns_aaaa, 60, "2001:db8::20"}});
  let_resolver_read();
  ASSERT_EQ(answered, 1);
  ASSERT_TRUE(cache_lookup(String("alias.test"), dns_aaaa, out, false));
  EXPECT_EQ(out, String("2001:db8::20"));
}

TEST_F(FakeDns, CacheTtlAndLines) {
  LogCapture log;
  add_cache(String("t.test"), String("192.0.2.1"), 0, dns_a, false);
  EXPECT_TRUE(log.contains("DNS: TTL 0 is less that 1 sec, default it to 1"));
  add_cache(String("t.test"), String("192.0.2.2"), 30, dns_a, false);
  add_cache(String("t.test"), String("192.0.2.2"), 30, dns_a, false);
  String out;
  ASSERT_TRUE(cache_lookup(String("t.test"), dns_a, out, true));
  EXPECT_EQ(out, String("192.0.2.1\n192.0.2.2"));
  advance_ms(1000);  // the entry lives as long as its shortest record
  EXPECT_FALSE(cache_lookup(String("t.test"), dns_a, out, true));

  add_cache(String("u.test"), String(), 10, dns_a, false);
  add_cache(String("u.test"), String("192.0.2.3"), 60, dns_a, false);
  ASSERT_TRUE(cache_lookup(String("u.test"), dns_a, out, true));
  EXPECT_EQ(out, String("192.0.2.3"));
  add_cache(String("u.test"), String("192.0.2.4"), 60, dns_a, true);
  ASSERT_TRUE(cache_lookup(String("u.test"), dns_a, out, true));
  EXPECT_EQ(out, String("192.0.2.4"));
  // The removal timer does the same as the look-up's check.
  advance_ms(60000);
  while (!service_queue.empty()) service_queue.next();
  String json;
  json_stringify(json);
  EXPECT_TRUE(json.empty());
}

namespace {
std::vector<int> retried;
void on_retry(const CallbackObject& object) { retried.push_back(*static_cast<int*>(object.get())); }
}  // namespace

// The look-ups of the transaction layer: a miss starts a request whose answer hands the
// pending object back; without a server the miss becomes a negative answer at once.
TEST_F(FakeDns, ResolverOfTheTransactionLayer) {
  retried.clear();
  SipResolver r = dns_sip_resolver();
  String adr;
  EXPECT_FALSE(r.lookup(String("host.test"), dns_aaaa, adr));
  r.request(String("host.test"), dns_aaaa, on_retry, std::make_shared<int>(42));
  String query;
  Address from;
  ASSERT_TRUE(take_query(query, from));
  answer(query, from, 0, {{"host.test", dns_aaaa, 60, "2001:db8::42"}});
  for (int i = 0; i < 200 && retried.empty(); i++) {
    dns_serve_sockets();
    if (retried.empty()) usleep(1000);
  }
  ASSERT_EQ(retried, std::vector<int>{42});
  ASSERT_TRUE(r.lookup(String("host.test"), dns_aaaa, adr));
  EXPECT_EQ(adr, String("2001:db8::42"));
  set_dns_servers({});
  r.request(String("other.test"), dns_a, on_retry, std::make_shared<int>(7));
  EXPECT_EQ(retried, (std::vector<int>{42, 7}));
  ASSERT_TRUE(r.lookup(String("other.test"), dns_a, adr));
  EXPECT_TRUE(adr.empty());
}

TEST_F(FakeDns, NoServerAndEmptyName) {
  LogCapture log;
  EXPECT_FALSE(request_dns(String(""), dns_a, callback_argument(on_answer)));
  EXPECT_TRUE(log.contains("DNS: Cannot resolve empty DNS address"));
  set_dns_servers({});
  EXPECT_FALSE(request_dns(String("x.test"), dns_a, callback_argument(on_answer)));
  EXPECT_TRUE(log.contains("DNS: No server found"));
  EXPECT_EQ(dns_pending_count(), 0);
}

TEST(DnsHostsTest, ReadAgainOnlyWhenTheFileChanges) {
  dns_reset();
  TempDir dir;
  String path(dir.file("hosts").c_str());
  auto write = [&](const char* text, time_t mtime) {
    std::ofstream(dir.file("hosts")) << text;
    timespec times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, dir.file("hosts").c_str(), times, 0), 0);
  };
  write("# comment\n127.0.0.5\tpbx.local alias # trailing\n::5 pbx.local\nbogus line\n10.0.0.1 second\n10.0.0.2 second\n", 1000);
  dns_set_hosts_path(path);
  struct Case {
    const char* name;
    int type;
    bool all;
    bool found;
    const char* out;
  } cases[] = {
      {"pbx.local", dns_a, false, true, "127.0.0.5"},
      {"ALIAS", dns_a, false, true, "127.0.0.5"},
      {"pbx.local", dns_aaaa, false, true, "::5"},
      {"alias", dns_aaaa, false, false, ""},
      {"second", dns_a, true, true, "10.0.0.1\n10.0.0.2"},
      {"second", dns_a, false, true, "10.0.0.1"},
      {"bogus", dns_a, false, false, ""},
  };
  for (const auto& c : cases) {
    String out;
    EXPECT_EQ(cache_lookup(String(c.name), c.type, out, c.all), c.found) << c.name;
    EXPECT_EQ(out, String(c.out)) << c.name;
  }
  String out;
  // Same time stamp and size: the file isn't read again.
  write("# comment\n127.0.0.6\tpbx.local alias # trailing\n::5 pbx.local\nbogus line\n10.0.0.1 second\n10.0.0.2 second\n", 1000);
  ASSERT_TRUE(cache_lookup(String("pbx.local"), dns_a, out, false));
  EXPECT_EQ(out, String("127.0.0.5"));
  write("127.0.0.7 pbx.local\n", 2000);
  ASSERT_TRUE(cache_lookup(String("pbx.local"), dns_a, out, false));
  EXPECT_EQ(out, String("127.0.0.7"));
  EXPECT_FALSE(cache_lookup(String("second"), dns_a, out, false));
  dns_set_hosts_path(String("/etc/hosts"));
  dns_reset();
}

TEST(DnsSortTest, OrderThenPreference) {
  // Without weights: by the first number, then the second; an equal key replaces.
  std::vector<String> sorted = dns_sort_lines(String("20 10 c\n10 50 b\n10 10 a\nx 1 junk\n20 10 d"), false);
  EXPECT_EQ(sorted, (std::vector<String>{"10 10 a", "10 50 b", "20 10 d"}));
  // With weights the priority still decides first, whatever the draw.
  for (int i = 0; i < 50; i++) {
    sorted = dns_sort_lines(String("2 65535 far 5060\n1 0 near 5060\n1 100 near2 5060"), true);
    ASSERT_GE(sorted.size(), 2u);
    EXPECT_EQ(sorted.back(), String("2 65535 far 5060"));
  }
}
