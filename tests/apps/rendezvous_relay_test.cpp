#include <algorithm>

#include "tests/apps/rendezvous_rig.h"

namespace {

using peer::at;
using peer::keypair_of;
using Bytes = RendezvousRig::Bytes;

class RendezvousRelay : public testing::Test {
 protected:
  RendezvousRelay() {
    host.register_fully();
    client.look_up(host);
    host.take_notification();
  }

  void bind_both() {
    ASSERT_EQ(client.bind().status, 0);
    ASSERT_EQ(host.bind().status, 0);
  }
  // Refreshes as the engines do, for so long.
  void keep_alive_s(std::uint64_t seconds) {
    for (std::uint64_t s = 0; s < seconds; s += 15) {
      rig.wait_s(15);
      host.register_fully();
      host.bind();
      client.bind();
    }
  }
  // The only datagram sent, which must have gone there.
  Bytes relayed_to(const lund_rv_endpoint& to) {
    if (rig.sent.size() != 1 || !lund_rv_endpoint_equal(rig.sent[0].to, to)) return {};
    Bytes out = rig.sent[0].bytes;
    rig.sent.clear();
    return out;
  }
  bool client_reaches_host() {
    rig.sent.clear();
    client.send(sealed_record());
    return !relayed_to(host.address).empty();
  }
  bool host_reaches_client() {
    rig.sent.clear();
    host.send(sealed_record());
    return !relayed_to(client.address).empty();
  }

  RendezvousRig rig;
  SimHost host{rig, keypair_of(1), at("198.51.100.7:9876")};
  SimClient client{rig, at("203.0.113.20:50000")};
};

TEST_F(RendezvousRelay, ABindIsConfirmedWithTheAddressSeen) {
  const lund_rv_message answer = client.bind();
  EXPECT_EQ(answer.type, LUND_RV_BOUND);
  EXPECT_EQ(answer.status, 0);
  EXPECT_EQ(answer.allocation, client.result.allocation);
  EXPECT_TRUE(lund_rv_endpoint_equal(answer.observed, client.address));
}

TEST_F(RendezvousRelay, NothingIsRelayedBeforeBothHaveBound) {
  client.bind();
  EXPECT_FALSE(client_reaches_host());
  EXPECT_EQ(rig.statistics().unbound, 1u);
  host.bind();
  EXPECT_TRUE(client_reaches_host());
  EXPECT_TRUE(host_reaches_client());
}

TEST_F(RendezvousRelay, WhateverIsSentArrivesUnchanged) {
  bind_both();
  const Bytes samples[] = {{0},
                           {0x50},
                           peer::packet(LUND_PKT_HS_INIT, 0, Bytes(104, 3)),
                           sealed_record(1400),
                           Bytes(2048, 0xAA),
                           {0x50, 1, LUND_RV_PUNCH}};
  for (const Bytes& bytes : samples) {
    client.send(bytes);
    EXPECT_EQ(relayed_to(host.address), bytes);
    host.send(bytes);
    EXPECT_EQ(relayed_to(client.address), bytes);
  }
  EXPECT_EQ(rig.statistics().relayed, 2 * std::size(samples));
}

TEST_F(RendezvousRelay, WhatCarriesTheTagIsTheServersOwnWordAndIsNeverRelayed) {
  bind_both();
  for (const std::uint8_t type :
       {LUND_RV_CHALLENGE, LUND_RV_REGISTERED, LUND_RV_LOOKUP_RESULT, LUND_RV_PUNCH_NOTIFY,
        LUND_RV_PUNCH, LUND_RV_BOUND, LUND_RV_ERROR}) {
    lund_rv_message message;
    message.type = type;
    rig.receive(message, client.address);
  }
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(RendezvousRelay, APunchThatWentToTheServerIsPassedOn) {
  bind_both();
  lund_rv_message punch;
  punch.type = LUND_RV_PUNCH;
  Bytes bytes(LUND_RV_MESSAGE_MAX);
  bytes.resize(lund_rv_encode(bytes.data(), bytes.size(), nullptr, &punch));
  client.send(bytes);
  EXPECT_EQ(relayed_to(host.address), bytes);
}

TEST_F(RendezvousRelay, AStrangerIsNotRelayed) {
  bind_both();
  rig.receive(sealed_record(), at("203.0.113.20:50001"));
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_EQ(rig.statistics().unbound, 1u);
}

TEST_F(RendezvousRelay, AWrongTokenSideOrAllocationIsGone) {
  const lund_rv_message good = client.bind_message();
  lund_rv_message bad = good;
  bad.token[0] ^= 1;
  rig.receive(bad, client.address);
  EXPECT_EQ(rig.take_one(client.address).status, 1);
  for (const std::uint8_t side : {std::uint8_t{0}, std::uint8_t{2}, std::uint8_t{255}}) {
    bad = good;
    bad.side = side;
    rig.receive(bad, client.address);
    EXPECT_EQ(rig.take_one(client.address).status, 1) << int{side};
  }
  bad = good;
  bad.allocation ^= 1;
  rig.receive(bad, client.address);
  const lund_rv_message answer = rig.take_one(client.address);
  EXPECT_EQ(answer.type, LUND_RV_BOUND);
  EXPECT_EQ(answer.status, 1);
  EXPECT_EQ(answer.allocation, bad.allocation);
  EXPECT_EQ(rig.statistics().gone, 5u);
}

TEST_F(RendezvousRelay, ANewMappingOfTheSameNatTakesTheSideOver) {
  bind_both();
  const lund_rv_endpoint old = client.address;
  client.address = at("203.0.113.20:61000");
  EXPECT_FALSE(client_reaches_host());
  EXPECT_EQ(client.bind().status, 0);
  EXPECT_TRUE(client_reaches_host());
  EXPECT_TRUE(host_reaches_client());
  client.address = old;
  EXPECT_FALSE(client_reaches_host());

  host.address = at("198.51.100.7:61001");
  EXPECT_EQ(host.bind().status, 0);
  client.address = at("203.0.113.20:61000");
  EXPECT_TRUE(host_reaches_client());
  EXPECT_TRUE(client_reaches_host());
}

TEST_F(RendezvousRelay, AClientThatMovedToAnotherNetworkLooksUpAnewAndGoesOnAtOnce) {
  bind_both();
  client_reaches_host();
  host_reaches_client();  // in live use
  client.address = at("192.0.2.99:4000");
  EXPECT_EQ(client.bind().status, 1);
  EXPECT_EQ(client.look_up(host).status, 0);
  ASSERT_TRUE(host.take_notification());
  bind_both();
  EXPECT_TRUE(client_reaches_host());
  EXPECT_TRUE(host_reaches_client());
}

TEST_F(RendezvousRelay, AHostThatMovedToAnotherNetworkBindsOnceItHasRegisteredThere) {
  bind_both();
  host.address = at("192.0.2.99:4000");
  EXPECT_EQ(host.bind().type, 0);  // no answer: it tries again
  EXPECT_EQ(rig.statistics().moved, 1u);
  EXPECT_EQ(host.register_fully().type, LUND_RV_REGISTERED);
  EXPECT_EQ(host.bind().status, 0);
  EXPECT_TRUE(client_reaches_host());
  EXPECT_TRUE(host_reaches_client());
}

TEST_F(RendezvousRelay, NobodyCanPointARelayAtAThirdParty) {
  bind_both();
  const lund_rv_endpoint victim = at("192.0.2.80:443");
  rig.receive(client.bind_message(), victim);  // the attacker's own token, a forged source
  rig.take(victim);
  for (int i = 0; i < 100; ++i) host.send(sealed_record());
  for (const RendezvousRig::Sent& sent : rig.sent)
    EXPECT_FALSE(lund_rv_endpoint_equal(sent.to, victim));
}

TEST_F(RendezvousRelay, TheTwoSidesAreNeverOneAddress) {
  rig.wait_s(31);
  SimClient same(rig, host.address);  // who looks itself up gets both sides' tokens
  same.look_up(host);
  ASSERT_EQ(same.last_answers.size(), 2u);
  same.result = same.last_answers[0];
  host.notice = same.last_answers[1];
  ASSERT_EQ(host.notice.type, LUND_RV_PUNCH_NOTIFY);
  EXPECT_EQ(same.bind().status, 0);
  EXPECT_EQ(host.bind().status, 1);
  host.send(sealed_record());  // it would go round for ever
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(RendezvousRelay, AnAddressRelaysForTheAllocationThatItBoundLast) {
  bind_both();
  SimClient second(rig, at("203.0.113.30:50000"));
  rig.wait_s(6);  // the first client's relay isn't in use
  second.look_up(host);
  const lund_rv_message first_notice = host.notice;
  ASSERT_TRUE(host.take_notification());
  ASSERT_EQ(second.bind().status, 0);
  EXPECT_TRUE(host_reaches_client());  // until the host has bound the new one
  ASSERT_EQ(host.bind().status, 0);
  rig.sent.clear();
  host.send(sealed_record());
  EXPECT_FALSE(relayed_to(second.address).empty());
  EXPECT_TRUE(client_reaches_host());  // the first client's own allocation stands

  host.notice = first_notice;
  ASSERT_EQ(host.bind().status, 0);
  EXPECT_TRUE(host_reaches_client());
}

TEST_F(RendezvousRelay, AnUnboundAllocationLastsThirtySeconds) {
  rig.wait_s(29);
  EXPECT_EQ(rig.statistics().allocations, 1u);
  rig.wait_s(1);
  EXPECT_EQ(rig.statistics().allocations, 0u);
  EXPECT_EQ(host.bind().status, 1);
}

TEST_F(RendezvousRelay, ARepeatedLookUpBeginsTheThirtySecondsAnew) {
  rig.wait_s(20);
  client.look_up(host);
  rig.wait_s(20);
  EXPECT_EQ(rig.statistics().allocations, 1u);
}

TEST_F(RendezvousRelay, AllocationsLastWhileBothSidesBind) {
  bind_both();
  keep_alive_s(300);
  EXPECT_TRUE(client_reaches_host());
  EXPECT_TRUE(host_reaches_client());
  EXPECT_EQ(rig.statistics().allocations, 1u);
}

TEST_F(RendezvousRelay, ASideThatStopsBindingEndsTheAllocationAfterFortyFiveSeconds) {
  bind_both();
  for (int i = 0; i < 2; ++i) {
    rig.wait_s(20);
    client.bind();
  }
  rig.wait_s(4);
  EXPECT_TRUE(client_reaches_host());
  rig.wait_s(1);  // 45 s after the host's
  EXPECT_FALSE(client_reaches_host());
  EXPECT_EQ(rig.statistics().allocations, 0u);
  EXPECT_EQ(host.bind().status, 1);
}

TEST_F(RendezvousRelay, TheClientsNextBindBringsAnAllocationBackThatHasRunOut) {
  bind_both();
  rig.wait_s(20);
  host.register_fully();
  rig.wait_s(25);
  ASSERT_EQ(rig.statistics().allocations, 0u);
  EXPECT_EQ(client.bind().status, 0);
  ASSERT_TRUE(host.take_notification());
  EXPECT_EQ(host.notice.allocation, client.result.allocation);
  EXPECT_EQ(host.bind().status, 0);
  EXPECT_TRUE(client_reaches_host());
}

TEST_F(RendezvousRelay, WithoutItsHostAnAllocationDoesNotComeBack) {
  bind_both();
  rig.wait_s(65);
  EXPECT_EQ(client.bind().status, 1);
}

TEST_F(RendezvousRelay, ARestartedServerKnowsNoAllocation) {
  RendezvousRig restarted;
  restarted.receive(client.bind_message(), client.address);
  EXPECT_EQ(restarted.take_one(client.address).status, 1);
}

// Both sides' records within the last three seconds: the relay is somebody's stream.
class RendezvousRelayInUse : public RendezvousRelay {
 protected:
  RendezvousRelayInUse() {
    bind_both();
    host_reaches_client();
    client_reaches_host();
    rig.sent.clear();
  }
  SimClient second{rig, at("203.0.113.30:50000")};
};

TEST_F(RendezvousRelayInUse, AnotherClientIsToldToWait) {
  const lund_rv_message answer = second.look_up(host);
  EXPECT_EQ(answer.type, LUND_RV_ERROR);
  EXPECT_EQ(answer.status, 0);
  EXPECT_EQ(answer.nonce, second.nonce);
  EXPECT_FALSE(host.take_notification());
  EXPECT_EQ(rig.statistics().busy, 1u);
}

TEST_F(RendezvousRelayInUse, ItsOwnClientMayLookUpAgain) {
  EXPECT_EQ(client.look_up(host).type, LUND_RV_LOOKUP_RESULT);
  EXPECT_TRUE(host.take_notification());
}

TEST_F(RendezvousRelayInUse, ThreeSecondsOfSilenceOfEitherSideFreeTheHost) {
  rig.wait_s(2);
  client.send(sealed_record());
  rig.wait_ms(1000);
  EXPECT_EQ(second.look_up(host).type, LUND_RV_ERROR);
  rig.wait_ms(1);
  EXPECT_EQ(second.look_up(host).type, LUND_RV_LOOKUP_RESULT);
}

TEST_F(RendezvousRelayInUse, PlainPacketsAreNoStream) {
  rig.wait_s(4);
  client.send(peer::packet(LUND_PKT_HS_INIT, 0, Bytes(104)));
  host.send(peer::packet(LUND_PKT_HS_RESP, 0, Bytes(52)));
  EXPECT_EQ(second.look_up(host).type, LUND_RV_LOOKUP_RESULT);
}

TEST_F(RendezvousRelayInUse, ABindOfAnOlderLookUpDoesNotTakeTheHostAway) {
  rig.wait_s(6);
  second.look_up(host);
  const lund_rv_message older = second.result;
  rig.wait_s(31);  // it has run out unused; the first client goes on
  host.register_fully();
  client.bind();
  client.look_up(host);
  host.take_notification();
  bind_both();
  host_reaches_client();
  client_reaches_host();
  rig.sent.clear();
  second.result = older;
  EXPECT_EQ(second.bind().status, 1);
  EXPECT_FALSE(host.take_notification());
}

TEST(RendezvousRelayRate, EachAllocationAndDirectionHasItsOwn) {
  RendezvousRig rig{{.relay_bytes_per_second = 100'000}};
  SimHost host(rig, keypair_of(1), at("198.51.100.7:9876"));
  SimClient client(rig, at("203.0.113.20:50000"));
  host.register_fully();
  client.look_up(host);
  host.take_notification();
  client.bind();
  host.bind();
  const auto flood = [&](auto& side, const lund_rv_endpoint& to) {
    rig.sent.clear();
    for (int i = 0; i < 1000; ++i) side.send(sealed_record(1000));
    return static_cast<std::size_t>(
        std::count_if(rig.sent.begin(), rig.sent.end(),
                      [&](const auto& sent) { return lund_rv_endpoint_equal(sent.to, to); }));
  };
  EXPECT_EQ(flood(host, client.address), 65u);  // the burst of 65,536 bytes
  EXPECT_EQ(flood(client, host.address), 65u);
  EXPECT_EQ(rig.statistics().over_bytes, 2u * (1000 - 65));
  rig.wait_ms(100);
  EXPECT_EQ(flood(host, client.address), 10u);

  SimHost other_host(rig, keypair_of(2), at("198.51.100.8:9876"));
  SimClient other_client(rig, at("203.0.113.21:50000"));
  other_host.register_fully();
  other_client.look_up(other_host);
  other_host.take_notification();
  other_client.bind();
  other_host.bind();
  EXPECT_EQ(flood(other_host, other_client.address), 65u);
}

TEST(RendezvousRelayRate, ZeroIsNoLimit) {
  RendezvousRig rig{{.relay_bytes_per_second = 0}};
  SimHost host(rig, keypair_of(1), at("198.51.100.7:9876"));
  SimClient client(rig, at("203.0.113.20:50000"));
  host.register_fully();
  client.look_up(host);
  host.take_notification();
  client.bind();
  host.bind();
  for (int i = 0; i < 100'000; ++i) {
    host.send(sealed_record(1400));
    rig.sent.clear();
  }
  EXPECT_EQ(rig.statistics().relayed, 100'000u);
}

}  // namespace
