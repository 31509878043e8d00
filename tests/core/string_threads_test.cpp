#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "core/string.h"
#include "tests/support/test_support.h"

// Two threads copy, cut, append and drop strings that share 64 KiB buffers, and hand
// pieces to each other, as the two halves of the process do with posted messages.
// Under the thread sanitizer this must produce no report.
TEST(StringThreadsTest, SharersInTwoThreadsWithRepacking) {
  std::mutex lock;
  std::vector<String> mailbox;
  std::atomic<long> checksum{0};
  std::atomic<int> repacked{0};
  auto worker = [&](unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<String> mine;
    for (int round = 0; round < 2000; round++) {
      String big = String::repeat(static_cast<char>('a' + round % 26), 65536);
      String a = big.substr(static_cast<int>(rng() % 60000), 100);
      String b = big.substr(static_cast<int>(rng() % 60000), 30);
      {
        std::lock_guard<std::mutex> g(lock);
        mailbox.push_back(a);  // the other thread may get this sharer
        if (mailbox.size() > 8) {
          mine.push_back(mailbox.front());
          mailbox.erase(mailbox.begin());
        }
      }
      big = String();  // b is now alone or nearly: the next copy may re-pack it
      String lone = String::repeat('q', 65536).substr(static_cast<int>(rng() % 60000), 40);
      {
        // The other thread makes the copy that re-packs this lone value.
        std::lock_guard<std::mutex> g(lock);
        mailbox.push_back(static_cast<String&&>(lone));
        String taken = mailbox[mailbox.size() / 2];
        if (taken.capacity() < 65536) repacked++;
      }
      String c = b;
      c.append(a.head(5));
      checksum += c.length() + b.at(0);
      mine.push_back(b.tail(3));
      if (mine.size() > 32) {
        for (auto& s : mine) checksum += s.length() ? s.at(0) : 0;
        mine.clear();
      }
    }
  };
  std::thread t1(worker, 1u), t2(worker, 2u);
  t1.join();
  t2.join();
  EXPECT_GT(checksum.load(), 0);
  EXPECT_GT(repacked.load(), 0);
}
