#include "media/fec.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/fec_shards.h"
#include "tests/support/latch.h"

namespace {

// Each test program starts with empty tables, so that the first of these calls, whichever it is,
// fills them while the others wait.
TEST(FecSetup, ManyThreadsMayBeTheFirstToUseTheCode) {
  constexpr int THREADS = 8;
  Latch start(THREADS);
  std::vector<std::vector<std::uint8_t>> parity(THREADS);
  {
    std::vector<std::jthread> threads;
    for (auto& result : parity) {
      threads.emplace_back([&start, &result] {
        FecShards shards(30, 6, 200, 1);
        start.arrive_and_wait();
        shards.encode();
        result = shards.bytes(33);
      });
    }
  }
  FecShards again(30, 6, 200, 1);
  again.encode();
  for (const auto& result : parity) EXPECT_EQ(result, again.bytes(33));
}

}  // namespace
