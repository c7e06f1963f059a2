#include "tests/support/lossy_proxy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "connection/clock.h"
#include "connection/protocol.h"
#include "tests/support/loopback_socket.h"

namespace {

using Bytes = LoopbackSocket::Bytes;
using Numbers = std::vector<std::uint32_t>;

constexpr std::chrono::seconds PATIENCE{20};
constexpr std::uint32_t BURST = 50;  // that any receive buffer holds
constexpr std::uint64_t HOUR_US = 3'600'000'000;
constexpr NetworkLink BAD{.loss = 0.05, .duplicate = 0.01, .reorder = 0.02};

Bytes bytes_of(std::uint32_t number) {
  Bytes bytes(sizeof number);
  std::memcpy(bytes.data(), &number, sizeof number);
  return bytes;
}

class LossyProxyTest : public testing::Test {
 protected:
  // What comes out at the host, in the order of its arrival, of datagrams 0 to count - 1.
  Numbers pass(const LossyProxy& proxy, std::uint32_t count) {
    Numbers arrived;
    for (std::uint32_t number = 0; number < count; ++number) {
      EXPECT_TRUE(client_.send(proxy.address(), bytes_of(number)));
      if ((number + 1) % BURST != 0 && number + 1 != count) continue;
      const std::uint64_t passed_on = settle(proxy, number + 1);
      while (arrived.size() < passed_on) {
        const auto bytes = host_.receive(PATIENCE);
        if (!bytes) {
          ADD_FAILURE() << "of " << passed_on << " datagrams, " << arrived.size() << " came";
          return arrived;
        }
        arrived.push_back(0);
        std::memcpy(&arrived.back(), bytes->data(), sizeof arrived.back());
      }
    }
    return arrived;
  }

  // Waits until these have been decided on and none of them is on its way; how many passed.
  static std::uint64_t settle(const LossyProxy& proxy, std::uint64_t received) {
    const auto until = std::chrono::steady_clock::now() + PATIENCE;
    for (;;) {
      const LossyProxy::Counts counts = proxy.to_host();
      if (counts.received == received && counts.on_its_way == 0) return counts.passed_on;
      if (std::chrono::steady_clock::now() > until) {
        ADD_FAILURE() << "after " << received << " datagrams: " << counts.text();
        return counts.passed_on;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  LoopbackSocket host_{"127.0.0.1"};
  LoopbackSocket client_{"127.0.0.1"};
};

TEST_F(LossyProxyTest, WithoutChancesEveryDatagramArrivesOnceAndInOrder) {
  const LossyProxy proxy(host_.address(), {}, {}, 1);
  const Numbers arrived = pass(proxy, 2'000);
  ASSERT_EQ(arrived.size(), 2'000u);
  for (std::uint32_t i = 0; i < arrived.size(); ++i) ASSERT_EQ(arrived[i], i);
  EXPECT_EQ(proxy.to_host(), (LossyProxy::Counts{.received = 2'000, .passed_on = 2'000}));
  EXPECT_EQ(proxy.to_client(), LossyProxy::Counts{});
}

TEST_F(LossyProxyTest, TheSameSeedDecidesTheSame) {
  const auto run = [&](std::uint64_t seed) {
    const LossyProxy proxy(host_.address(), BAD, {}, seed);
    Numbers arrived = pass(proxy, 2'000);
    std::sort(arrived.begin(), arrived.end());
    return std::pair(arrived, proxy.to_host());
  };
  const auto first = run(7);
  EXPECT_EQ(run(7), first);
  EXPECT_NE(run(8).first, first.first);
}

TEST_F(LossyProxyTest, OfTenThousandAsManyAreLostDuplicatedAndHeldBackAsIsAsked) {
  const LossyProxy proxy(host_.address(), BAD, {}, 7);
  const Numbers arrived = pass(proxy, 10'000);
  const LossyProxy::Counts counts = proxy.to_host();
  std::printf("%s\n", counts.text().c_str());
  // Five standard deviations each way.
  EXPECT_NEAR(static_cast<double>(counts.lost), 500, 109);
  EXPECT_NEAR(static_cast<double>(counts.duplicated), 100, 50);
  EXPECT_NEAR(static_cast<double>(counts.held_back), 190, 69);
  EXPECT_EQ(counts.passed_on, counts.received - counts.lost + counts.duplicated);
  EXPECT_EQ(arrived.size(), counts.passed_on);
}

TEST_F(LossyProxyTest, WhatIsHeldBackArrivesBehindWhatFollowedIt) {
  const LossyProxy proxy(host_.address(), {.reorder = 0.02}, {}, 7);
  Numbers arrived = pass(proxy, 2'000);
  const auto overtaken = std::adjacent_find(arrived.begin(), arrived.end(), std::greater<>());
  EXPECT_NE(overtaken, arrived.end());
  EXPECT_GT(proxy.to_host().held_back, 0u);
  std::sort(arrived.begin(), arrived.end());
  ASSERT_EQ(arrived.size(), 2'000u);
  for (std::uint32_t i = 0; i < arrived.size(); ++i) ASSERT_EQ(arrived[i], i);
}

TEST_F(LossyProxyTest, NothingArrivesBeforeItsDelay) {
  constexpr std::uint64_t DELAY_US = 30'000;
  const LossyProxy proxy(host_.address(), {.delay_us = DELAY_US}, {}, 1);
  const std::uint64_t sent_us = lund_now_us();
  EXPECT_EQ(pass(proxy, 1), Numbers{0});
  EXPECT_GE(lund_now_us() - sent_us, DELAY_US);
}

TEST_F(LossyProxyTest, EachClientHasTheAnswersToItsOwnQuestions) {
  const LossyProxy proxy(host_.address(), {}, {}, 1);
  const LoopbackSocket other("127.0.0.1");
  const auto seen_by_host = [&](const LoopbackSocket& client, std::uint32_t number) {
    EXPECT_TRUE(client.send(proxy.address(), bytes_of(number)));
    std::uint8_t bytes[64];
    lund_rv_endpoint from;
    const lund_socket handle = host_.handle();
    EXPECT_EQ(lund_udp_wait(&handle, 1, 20'000), 1);
    EXPECT_EQ(lund_udp_recv(handle, bytes, sizeof bytes, &from), 4);
    return from;
  };
  const lund_rv_endpoint first = seen_by_host(client_, 1);
  const lund_rv_endpoint second = seen_by_host(other, 2);
  EXPECT_NE(first.port, second.port);
  EXPECT_EQ(seen_by_host(client_, 3).port, first.port);
  EXPECT_TRUE(host_.send(second, bytes_of(22)));
  EXPECT_TRUE(host_.send(first, bytes_of(11)));
  EXPECT_EQ(client_.receive(PATIENCE), bytes_of(11));
  EXPECT_EQ(other.receive(PATIENCE), bytes_of(22));
  EXPECT_EQ(proxy.to_client().passed_on, 2u);
}

TEST_F(LossyProxyTest, QuestionsOfDiscoveryDontGetThrough) {
  const LossyProxy proxy(host_.address(), {}, {}, 1);
  std::uint8_t question[64];
  const lund_packet_header header;
  const lund_discover wanted{1};
  const std::size_t size = lund_encode_discover(question, sizeof question, &header, &wanted);
  ASSERT_TRUE(client_.send(proxy.address(), Bytes(question, question + size)));
  EXPECT_EQ(pass(proxy, 1), Numbers{0});
}

// Its thread waits for a minute when there is nothing to do.
TEST_F(LossyProxyTest, EndsAtOnceWhateverIsOnItsWay) {
  const std::uint64_t begin_us = lund_now_us();
  { const LossyProxy idle(host_.address(), {}, {}, 1); }
  {
    const LossyProxy proxy(host_.address(), {.delay_us = HOUR_US}, {}, 1);
    ASSERT_TRUE(client_.send(proxy.address(), bytes_of(0)));
    const auto until = std::chrono::steady_clock::now() + PATIENCE;
    while (proxy.to_host().on_its_way == 0 && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(proxy.to_host().on_its_way, 1u);
  }
  EXPECT_LT(lund_now_us() - begin_us, 30'000'000u);
  EXPECT_FALSE(host_.receive(std::chrono::milliseconds(0)));
}

}  // namespace
