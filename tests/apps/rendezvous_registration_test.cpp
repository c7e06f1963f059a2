#include "tests/apps/rendezvous_rig.h"

namespace {

using peer::at;
using peer::keypair_of;

const lund_rv_endpoint HOME = at("198.51.100.7:9876");

class RendezvousRegistration : public testing::Test {
 protected:
  RendezvousRig rig;
  SimHost host{rig, keypair_of(1), HOME};
};

TEST_F(RendezvousRegistration, AFirstRegisterIsChallengedWithTheServersKeyAndWhatItSees) {
  const lund_rv_message answer = host.register_once();
  EXPECT_EQ(answer.type, LUND_RV_CHALLENGE);
  EXPECT_TRUE(lund_rv_endpoint_equal(answer.observed, HOME));
  const RendezvousRig::Bytes zero(32);
  EXPECT_NE(std::memcmp(answer.token, zero.data(), 16), 0);
  EXPECT_NE(std::memcmp(answer.key, zero.data(), 32), 0);
  EXPECT_EQ(rig.statistics().hosts, 0u);
}

TEST_F(RendezvousRegistration, AProofRegistersForTwentySeconds) {
  const lund_rv_message answer = host.register_fully();
  EXPECT_EQ(answer.type, LUND_RV_REGISTERED);
  EXPECT_EQ(answer.lease_seconds, 20);
  EXPECT_TRUE(lund_rv_endpoint_equal(answer.observed, HOME));
  EXPECT_EQ(rig.statistics().hosts, 1u);
}

TEST_F(RendezvousRegistration, AnotherServersChallengeIsNoneOfOurs) {
  RendezvousRig other;
  SimHost there(other, keypair_of(1), HOME);
  there.register_once();
  host.challenge = there.challenge;
  EXPECT_EQ(host.register_once().type, LUND_RV_CHALLENGE);
}

TEST_F(RendezvousRegistration, AWrongProofStartsOver) {
  host.register_once();
  lund_rv_message message = host.register_message();
  message.proof[15] ^= 1;
  rig.receive(message, HOME);
  const lund_rv_message answer = rig.take_one(HOME);
  EXPECT_EQ(answer.type, LUND_RV_ERROR);
  EXPECT_EQ(answer.status, 2);
  EXPECT_EQ(rig.statistics().hosts, 0u);
  EXPECT_EQ(rig.statistics().bad_proof, 1u);
}

TEST_F(RendezvousRegistration, TheProofBindsTheLanEndpoints) {
  host.register_once();
  host.lan = {at("192.168.1.5:9876")};
  lund_rv_message message = host.register_message();
  message.lan[0] = at("192.168.1.6:9876");
  rig.receive(message, HOME);
  EXPECT_EQ(rig.take_one(HOME).status, 2);
}

TEST_F(RendezvousRegistration, AKeyOfLowOrderNeverPasses) {
  lund_keypair weak = keypair_of(1);
  std::memset(weak.public_key, 0, sizeof weak.public_key);
  SimHost cheat(rig, weak, HOME);
  cheat.register_once();
  lund_rv_message message = cheat.register_message();
  // The shared secret of a low-order key is zero for everybody: this proof needs no secret.
  lund_rv_register_proof(message.proof, weak.secret, weak.public_key, cheat.challenge->token,
                         weak.public_key, nullptr, 0);
  rig.receive(message, HOME);
  EXPECT_EQ(rig.take_one(HOME).status, 2);
  EXPECT_EQ(rig.statistics().hosts, 0u);
}

TEST_F(RendezvousRegistration, TheSameRegisterRefreshesWithoutANewProof) {
  host.register_fully();
  for (int i = 0; i < 10; ++i) {
    rig.wait_s(20);
    EXPECT_EQ(host.register_once().type, LUND_RV_REGISTERED);
  }
  EXPECT_EQ(rig.statistics().refreshes, 10u);
  EXPECT_EQ(rig.statistics().registrations, 1u);
}

TEST_F(RendezvousRegistration, ARefreshThatDiffersByABitIsProvedAnew) {
  host.register_fully();
  lund_rv_message message = host.register_message();
  message.proof[0] ^= 1;
  rig.receive(message, HOME);
  EXPECT_EQ(rig.take_one(HOME).status, 2);
  EXPECT_EQ(rig.statistics().hosts, 1u);  // the good one stands
}

TEST_F(RendezvousRegistration, AHostThatStaysIsNeverForgottenWhileChallengesRunOut) {
  host.register_fully();
  int challenged = 0;
  for (int i = 0; i < 90; ++i) {  // half an hour
    rig.wait_s(20);
    lund_rv_message answer = host.register_once();
    if (answer.type == LUND_RV_CHALLENGE) {
      ++challenged;
      answer = host.register_once();
    }
    ASSERT_EQ(answer.type, LUND_RV_REGISTERED) << i;
    ASSERT_EQ(rig.statistics().hosts, 1u);
  }
  EXPECT_GE(challenged, 2);  // good for 5 to 10 minutes each
  EXPECT_LE(challenged, 6);
}

TEST_F(RendezvousRegistration, ARegistrationOutlivesTwoLostRefreshesAndEndsThen) {
  host.register_fully();
  rig.wait_s(64);
  EXPECT_EQ(rig.statistics().hosts, 1u);
  rig.wait_s(1);
  EXPECT_EQ(rig.statistics().hosts, 0u);
}

TEST_F(RendezvousRegistration, AChallengeIsForOneAddressAndOneKey) {
  host.register_fully();
  host.address = at("198.51.100.7:40000");  // the same NAT, another mapping
  EXPECT_EQ(host.register_once().type, LUND_RV_CHALLENGE);
  EXPECT_EQ(host.register_once().type, LUND_RV_REGISTERED);
  EXPECT_EQ(rig.statistics().hosts, 1u);

  SimHost second(rig, keypair_of(2), host.address);
  second.challenge = host.challenge;
  EXPECT_EQ(second.register_once().type, LUND_RV_CHALLENGE);
}

TEST_F(RendezvousRegistration, AFullTableIsSaid) {
  RendezvousRig small{{.hosts = 2}};
  for (std::uint8_t seed = 1; seed <= 2; ++seed) {
    SimHost fits(small, keypair_of(seed), HOME);
    EXPECT_EQ(fits.register_fully().type, LUND_RV_REGISTERED);
  }
  SimHost third(small, keypair_of(3), HOME);
  const lund_rv_message answer = third.register_fully();
  EXPECT_EQ(answer.type, LUND_RV_ERROR);
  EXPECT_EQ(answer.status, 4);
  EXPECT_EQ(small.statistics().full, 1u);
  SimHost first(small, keypair_of(1), HOME);  // one that is in stays in
  EXPECT_EQ(first.register_fully().type, LUND_RV_REGISTERED);
  small.wait_s(65);
  EXPECT_EQ(third.register_fully().type, LUND_RV_REGISTERED);
}

TEST_F(RendezvousRegistration, ProofsAreLimitedAsTheyCostTheServerArithmetic) {
  RendezvousRig slow{{.requests_per_second = 1000, .proofs_per_second = 2}};
  int registered = 0;
  lund_rv_message last;
  for (std::uint8_t seed = 1; seed <= 5; ++seed) {
    SimHost one(slow, keypair_of(seed), HOME);
    last = one.register_fully();
    registered += last.type == LUND_RV_REGISTERED;
  }
  EXPECT_EQ(registered, 4);  // two seconds' worth at once
  EXPECT_EQ(last.type, LUND_RV_ERROR);
  EXPECT_EQ(last.status, 0);
  EXPECT_EQ(slow.statistics().busy, 1u);
}

TEST_F(RendezvousRegistration, RequestsOfOneAddressAreLimitedAndTheRefusalIsSaid) {
  RendezvousRig slow{{.requests_per_second = 2}};
  SimHost first(slow, keypair_of(1), HOME);
  first.register_fully();
  int refused = 0;
  for (int i = 0; i < 10; ++i) {
    const lund_rv_message answer = first.register_once();
    refused += answer.type == LUND_RV_ERROR && answer.status == 0;
  }
  EXPECT_EQ(refused, 6);  // 12 requests, 6 at once
  EXPECT_EQ(slow.statistics().over_rate, 6u);
  SimHost elsewhere(slow, keypair_of(2), at("198.51.100.8:9876"));
  EXPECT_EQ(elsewhere.register_fully().type, LUND_RV_REGISTERED);
  slow.wait_s(1);
  EXPECT_EQ(first.register_once().type, LUND_RV_REGISTERED);
}

TEST_F(RendezvousRegistration, AnIpv6SubscriberIsOneAddressWhateverHePicksOfHisNetwork) {
  RendezvousRig slow{{.requests_per_second = 1}};
  SimHost one(slow, keypair_of(1), at("[2001:db8:1:1::1]:9876"));
  one.register_fully();
  one.register_once();
  SimHost same(slow, keypair_of(2), at("[2001:db8:1:1:ffff::2]:9876"));
  EXPECT_EQ(same.register_once().type, LUND_RV_ERROR);
  SimHost other(slow, keypair_of(2), at("[2001:db8:1:2::1]:9876"));
  EXPECT_EQ(other.register_once().type, LUND_RV_CHALLENGE);
}

TEST_F(RendezvousRegistration, NothingIsAnsweredWithoutTheTag) {
  const RendezvousRig::Bytes good = rig.encode(host.register_message());
  for (std::size_t i = 0; i < good.size(); ++i) {
    if (i >= 4 && i < 8) continue;  // covered by the tag alone, as all the rest
    RendezvousRig::Bytes bad = good;
    bad[i] ^= 0x80;
    rig.receive(bad, HOME);
  }
  rig.receive(RendezvousRig::Bytes{}, HOME);
  rig.receive(RendezvousRig::Bytes(2048, 0x50), HOME);
  for (std::size_t size = 1; size < good.size(); ++size)
    rig.receive(RendezvousRig::Bytes(good.begin(), good.begin() + static_cast<int>(size)), HOME);
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(RendezvousRegistration, AServersOwnMessagesAreNotAnswered) {
  for (const std::uint8_t type :
       {LUND_RV_CHALLENGE, LUND_RV_REGISTERED, LUND_RV_LOOKUP_RESULT, LUND_RV_PUNCH_NOTIFY,
        LUND_RV_PUNCH, LUND_RV_PUNCH_ACK, LUND_RV_BOUND, LUND_RV_ERROR}) {
    lund_rv_message message;
    message.type = type;
    rig.receive(message, HOME);
  }
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_EQ(rig.statistics().not_for_us, 8u);
}

TEST_F(RendezvousRegistration, WhatTheSocketDoesNotTakeIsCounted) {
  rig.socket_fails = true;
  host.register_once();
  EXPECT_EQ(rig.statistics().send_failed, 1u);
}

TEST_F(RendezvousRegistration, TheStatisticsSayWhatIsThere) {
  host.register_fully();
  const std::string text = statistics_text(rig.statistics());
  EXPECT_NE(text.find("now: 1 hosts, 0 allocations\n"), std::string::npos) << text;
  EXPECT_NE(text.find("1 new, 0 refreshed, 1 challenges\n"), std::string::npos) << text;
}

}  // namespace
