// What somebody who doesn't hold a server's key, or isn't at its address, can do in its name:
// nothing. Each forgery is met with silence and leaves every byte of the engine as it was.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/support/served_host.h"

namespace {

constexpr std::uint32_t ALLOCATION = 0xAA51;  // punch token 0x51
const lund_rv_endpoint CLIENT = peer::at("203.0.113.7:6000");
const lund_rv_endpoint ELSEWHERE = peer::at("203.0.113.99:1234");

// Registered with both servers, each with an announced client; a session is up.
class HostForgery : public ::testing::Test, protected served_host {
 protected:
  HostForgery() {
    for (const server_peer* server : {&a, &b}) {
      register_with(*server);
      hear(*server, server->notify(CLIENT, ALLOCATION));
      hear(*server, server->bound(ALLOCATION));
    }
    engine_peer client = rig.client(2);
    EXPECT_TRUE(rig.connect(client, CLIENT));
    forget();
    virtual_time::advance_us(300'000);  // a message that gets through leaves its time
  }

  // Everything in the engine but its lock.
  peer::bytes engine() const {
    const auto* begin = reinterpret_cast<const std::uint8_t*>(&rig.host->base.keypair);
    return {begin, reinterpret_cast<const std::uint8_t*>(rig.host + 1)};
  }
  bool refused(const peer::bytes& datagram, const lund_rv_endpoint& from) {
    const peer::bytes before = engine();
    const int result = rig.receive(datagram, from);
    return result == LUND_RX_NONE && rig.sent.empty() && rig.lines.empty() && engine() == before;
  }
  // `true_one` is a message of `a` that `a` could send now, and that would have an effect.
  void expect_only_a_can_say(const lund_rv_message& message) {
    const peer::bytes true_one = a.say(message);
    ASSERT_FALSE(true_one.empty());

    lund_rv_endpoint other_port = a.address;
    ++other_port.port;
    lund_rv_endpoint other_family = a.address;
    other_family.family = 6;
    for (const lund_rv_endpoint& from :
         {ELSEWHERE, CLIENT, b.address, other_port, other_family, lund_rv_endpoint{}})
      EXPECT_TRUE(refused(true_one, from)) << "from " << int{from.family} << ' ' << from.port;

    const server_peer stranger("a.example", "198.51.100.1:9877", 0x66);
    EXPECT_TRUE(refused(stranger.say(message), a.address)) << "a wrong key";
    EXPECT_TRUE(refused(b.say(message), a.address)) << "the other server's key";
    peer::bytes untagged(LUND_RV_MESSAGE_MAX);
    untagged.resize(lund_rv_encode(untagged.data(), untagged.size(), nullptr, &message));
    EXPECT_TRUE(refused(untagged, a.address)) << "no tag";
    for (std::size_t bit = 0; bit < true_one.size() * 8; ++bit) {
      peer::bytes changed = true_one;
      changed[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
      ASSERT_TRUE(refused(changed, a.address)) << "bit " << bit;
    }
    peer::bytes longer = true_one;
    longer.push_back(0);
    EXPECT_TRUE(refused(longer, a.address));
    EXPECT_TRUE(refused(peer::bytes(true_one.begin(), true_one.end() - 1), a.address));

    const peer::bytes before = engine();
    rig.receive(true_one, a.address);
    EXPECT_NE(engine(), before) << "the message of the server itself has an effect";
  }
};

}  // namespace

TEST_F(HostForgery, ForgedChallenge) {
  lund_rv_message message = server_peer::of_type(LUND_RV_CHALLENGE);
  std::memset(message.token, 0x77, sizeof message.token);
  std::memcpy(message.key, a.keys.public_key, sizeof message.key);
  expect_only_a_can_say(message);
  EXPECT_EQ(take(a).size(), 1U);
}

TEST_F(HostForgery, ForgedRegistered) {
  lund_rv_message message = server_peer::of_type(LUND_RV_REGISTERED);
  message.observed = ELSEWHERE;
  message.lease_seconds = 65'535;
  expect_only_a_can_say(message);
}

TEST_F(HostForgery, ForgedError) {
  lund_rv_message message = server_peer::of_type(LUND_RV_ERROR);
  message.status = 2;
  expect_only_a_can_say(message);
}

TEST_F(HostForgery, ForgedBoundThatConfirms) {
  lund_rv_message message = server_peer::of_type(LUND_RV_BOUND);
  message.allocation = ALLOCATION;
  expect_only_a_can_say(message);
}

TEST_F(HostForgery, ForgedBoundThatEnds) {
  lund_rv_message message = server_peer::of_type(LUND_RV_BOUND);
  message.allocation = ALLOCATION;
  message.status = 1;
  expect_only_a_can_say(message);
}

TEST_F(HostForgery, ForgedNotificationOfTheCurrentClient) {
  expect_only_a_can_say(server_peer::notification(ELSEWHERE, ALLOCATION));
}

TEST_F(HostForgery, ForgedNotificationOfANewClient) {
  expect_only_a_can_say(server_peer::notification(ELSEWHERE, ALLOCATION + 1));
}

TEST_F(HostForgery, PunchWithAGuessedToken) {
  std::uint8_t token[16];
  std::memset(token, 0x51, sizeof token);
  for (std::size_t bit = 0; bit < sizeof token * 8; ++bit) {
    token[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
    for (const std::uint8_t type : {LUND_RV_PUNCH, LUND_RV_PUNCH_ACK})
      for (const lund_rv_endpoint& from : {CLIENT, ELSEWHERE, a.address})
        ASSERT_TRUE(refused(peer::punch(type, token, 1), from)) << "bit " << bit;
    token[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
  }
  std::memset(token, 0, sizeof token);
  EXPECT_TRUE(refused(peer::punch(LUND_RV_PUNCH, token, 1), CLIENT));
}

TEST_F(HostForgery, PunchWithTheTokenOfAnEntryThatIsGone) {
  std::uint8_t token[16];
  std::memset(token, 0x51, sizeof token);
  hear(a, a.bound(ALLOCATION, 1));
  hear(b, b.bound(ALLOCATION, 1));
  forget();
  EXPECT_TRUE(refused(peer::punch(LUND_RV_PUNCH, token, 1), CLIENT));
}

TEST_F(HostForgery, PunchWithAStolenTokenGainsAnAnswerOfItsOwnSizeAndNothingElse) {
  std::uint8_t token[16];
  std::memset(token, 0x51, sizeof token);
  const peer::bytes before = engine();
  const peer::bytes punch = peer::punch(LUND_RV_PUNCH, token, 1);
  EXPECT_EQ(rig.answer(punch, ELSEWHERE).size(), punch.size());
  EXPECT_EQ(engine(), before);
  rig.sent.clear();
  EXPECT_TRUE(refused(peer::punch(LUND_RV_PUNCH_ACK, token, 1), ELSEWHERE));
}

TEST_F(HostForgery, AServerCannotSpeakForAnotherOnesAllocation) {
  // Both announced the same number; the word of one leaves the other's entry alone.
  hear(b, b.bound(ALLOCATION, 1));
  EXPECT_EQ(rig.host->work[0].used, 1U);
  EXPECT_EQ(rig.host->work[0].bound, 1U);
  EXPECT_EQ(rig.host->work[1].used, 0U);
}
