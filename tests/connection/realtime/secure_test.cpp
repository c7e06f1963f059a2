// Real threads on one session.
#include "connection/secure.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "connection/byte_order.h"
#include "tests/support/latch.h"
#include "tests/support/session_pair.h"

namespace {

TEST(Seal, NoTwoRecordsOfConcurrentThreadsShareANonce) {
  constexpr std::size_t THREADS = 4;
  constexpr std::size_t RECORDS = 5'000;
  session_pair pair;
  std::vector<std::uint64_t> counters[THREADS];
  Latch together(THREADS);
  {
    std::vector<std::jthread> threads;
    for (auto& own : counters) {
      threads.emplace_back([&own, &pair, &together] {
        const auto packet = plain_packet(16);
        together.arrive_and_wait();
        for (std::size_t i = 0; i < RECORDS; ++i)
          own.push_back(load_le<std::uint64_t>(seal(pair.sender, packet).data() + 8));
      });
    }
  }
  std::set<std::uint64_t> all;
  for (const auto& own : counters) all.insert(own.begin(), own.end());
  EXPECT_EQ(all.size(), THREADS * RECORDS);
  EXPECT_EQ(*all.rbegin(), THREADS * RECORDS - 1);
}

}  // namespace
