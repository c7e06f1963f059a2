#include "connection/byte_order.h"
#include "tests/apps/rendezvous_rig.h"

namespace {

using peer::at;
using peer::keypair_of;
using Bytes = RendezvousRig::Bytes;

class RendezvousLookup : public testing::Test {
 protected:
  RendezvousLookup() { host.register_fully(); }

  // Proves the client's address, as every client does with its first BIND.
  void prove() {
    client.look_up(host);
    client.bind();
    host.take_notification();
  }

  RendezvousRig rig;
  SimHost host{rig, keypair_of(1), at("198.51.100.7:9876")};
  SimClient client{rig, at("203.0.113.20:50000")};
};

TEST_F(RendezvousLookup, AHostIsFoundByItsKeyId) {
  const lund_rv_message answer = client.look_up(host);
  EXPECT_EQ(answer.type, LUND_RV_LOOKUP_RESULT);
  EXPECT_EQ(answer.status, 0);
  EXPECT_EQ(answer.nonce, client.nonce);
  EXPECT_EQ(std::memcmp(answer.key, host.key(), 32), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(answer.peer, host.address));
  EXPECT_TRUE(lund_rv_endpoint_equal(answer.observed, client.address));
}

TEST_F(RendezvousLookup, AHostIsFoundByItsKeyCode) {
  Bytes code = host.key_id();
  code.resize(5);
  EXPECT_EQ(std::memcmp(client.look_up(code).key, host.key(), 32), 0);
}

TEST_F(RendezvousLookup, EveryByteOfTheTargetCounts) {
  prove();
  for (std::size_t size = 5; size <= 16; ++size) {
    Bytes target = host.key_id();
    target.resize(size);
    ASSERT_EQ(client.look_up(target).status, 0) << size;
    for (std::size_t i = 0; i < size; ++i) {
      Bytes other = target;
      other[i] ^= 1;
      const lund_rv_message answer = client.look_up(other);
      ASSERT_EQ(answer.type, LUND_RV_LOOKUP_RESULT);
      ASSERT_NE(answer.status, 0) << size << ' ' << i;
      rig.wait_ms(50);
    }
    host.take_notification();
  }
}

TEST_F(RendezvousLookup, NobodyThereIsSaid) {
  const lund_rv_message answer = client.look_up(Bytes(16, 9));
  EXPECT_EQ(answer.type, LUND_RV_LOOKUP_RESULT);
  EXPECT_NE(answer.status, 0);
  EXPECT_EQ(answer.nonce, client.nonce);
  EXPECT_EQ(answer.allocation, 0u);
  EXPECT_EQ(rig.statistics().allocations, 0u);
}

TEST_F(RendezvousLookup, AHostThatLeftIsNobody) {
  rig.wait_s(65);
  EXPECT_NE(client.look_up(host).status, 0);
}

TEST_F(RendezvousLookup, BothSidesAreToldOfEachOther) {
  host.lan = {at("192.168.1.5:9876")};
  host.register_fully();
  client.lan = {at("10.0.0.9:50000")};
  client.look_up(host);
  ASSERT_TRUE(host.take_notification());
  EXPECT_TRUE(lund_rv_endpoint_equal(host.notice.peer, client.address));
  ASSERT_EQ(host.notice.lan_count, 1);
  EXPECT_TRUE(lund_rv_endpoint_equal(host.notice.lan[0], client.lan[0]));
  ASSERT_EQ(client.result.lan_count, 1);
  EXPECT_TRUE(lund_rv_endpoint_equal(client.result.lan[0], host.lan[0]));
  EXPECT_EQ(host.notice.allocation, client.result.allocation);
  EXPECT_EQ(std::memcmp(host.notice.punch_token, client.result.punch_token, 16), 0);
}

TEST_F(RendezvousLookup, EachSideHasATokenOfItsOwn) {
  client.look_up(host);
  ASSERT_TRUE(host.take_notification());
  EXPECT_NE(std::memcmp(host.notice.token, client.result.token, 16), 0);
  EXPECT_NE(std::memcmp(host.notice.token, host.notice.punch_token, 16), 0);
  EXPECT_NE(std::memcmp(client.result.token, client.result.punch_token, 16), 0);
}

TEST_F(RendezvousLookup, NobodyIsPointedAtAThirdPartyAsALanAddress) {
  host.lan = {at("192.0.2.80:53"), at("198.51.100.7:1111"), at("10.0.0.3:9876")};
  host.register_fully();
  client.lan = {at("192.0.2.80:53"), at("[fd00::5]:9"), at("203.0.113.20:2222"),
                at("[2001:db8::80]:53")};
  client.look_up(host);
  ASSERT_TRUE(host.take_notification());
  ASSERT_EQ(client.result.lan_count, 2);  // the host's own address and the one in no routed network
  EXPECT_TRUE(lund_rv_endpoint_equal(client.result.lan[0], host.lan[1]));
  EXPECT_TRUE(lund_rv_endpoint_equal(client.result.lan[1], host.lan[2]));
  ASSERT_EQ(host.notice.lan_count, 2);
  EXPECT_TRUE(lund_rv_endpoint_equal(host.notice.lan[0], client.lan[1]));
  EXPECT_TRUE(lund_rv_endpoint_equal(host.notice.lan[1], client.lan[2]));
}

TEST_F(RendezvousLookup, ARepeatedLookUpGivesTheSameAndNotifiesAgain) {
  client.look_up(host);
  ASSERT_TRUE(host.take_notification());
  const lund_rv_message first = client.result;
  const lund_rv_message noticed = host.notice;
  rig.wait_s(1);
  client.look_up(host);
  EXPECT_EQ(client.result.allocation, first.allocation);
  EXPECT_EQ(std::memcmp(client.result.token, first.token, 16), 0);
  EXPECT_EQ(std::memcmp(client.result.punch_token, first.punch_token, 16), 0);
  ASSERT_TRUE(host.take_notification());
  EXPECT_EQ(host.notice.allocation, noticed.allocation);
  EXPECT_EQ(std::memcmp(host.notice.token, noticed.token, 16), 0);
  EXPECT_NE(host.notice.nonce, noticed.nonce);
  EXPECT_EQ(rig.statistics().allocations, 1u);
}

TEST_F(RendezvousLookup, AnotherClientOrAnotherHostIsAnotherAllocation) {
  prove();
  SimHost second(rig, keypair_of(2), at("198.51.100.8:9876"));
  second.register_fully();
  client.look_up(host);
  const std::uint32_t first = client.result.allocation;
  client.look_up(second);
  EXPECT_NE(client.result.allocation, first);
  SimClient other(rig, at("203.0.113.20:50001"));
  other.look_up(host);
  EXPECT_NE(other.result.allocation, first);
  EXPECT_EQ(rig.statistics().allocations, 3u);
}

// The first two secrets, counted up from 1, whose key ids begin with the same 40 bits.
lund_keypair key_of_code_qcbe_66h7(std::uint32_t number) {
  std::uint8_t secret[LUND_KEY_SIZE] = {};
  store_le(secret + 1, number);
  lund_keypair keys;
  lund_keypair_from_secret(&keys, secret);
  return keys;
}
const lund_keypair SAME_CODE[2] = {key_of_code_qcbe_66h7(651'885),
                                   key_of_code_qcbe_66h7(1'108'583)};

TEST_F(RendezvousLookup, OfTwoHostsWithOneCodeTheOneRegisteredLongestIsFound) {
  for (const int longest : {0, 1}) {
    RendezvousRig here;
    SimHost first(here, SAME_CODE[longest], at("198.51.100.1:1"));
    SimHost second(here, SAME_CODE[1 - longest], at("198.51.100.2:1"));
    first.register_fully();
    here.wait_s(1);
    second.register_fully();
    here.wait_s(20);
    first.register_fully();  // a refresh is no new beginning
    Bytes code(5);
    ASSERT_EQ(lund_key_code_parse(code.data(), "QCBE-66H7"), 0);
    SimClient asking(here, client.address);
    EXPECT_EQ(std::memcmp(asking.look_up(code).key, first.key(), 32), 0);
    SimClient knowing(here, at("203.0.113.21:50000"));
    EXPECT_EQ(std::memcmp(knowing.look_up(second).key, second.key(), 32), 0);

    here.wait_s(45);
    second.register_fully();
    here.wait_s(21);  // the first has left
    EXPECT_EQ(std::memcmp(asking.look_up(code).key, second.key(), 32), 0);
  }
}

TEST_F(RendezvousLookup, AHostIsNotifiedAFewTimesASecondAtMost) {
  prove();
  int notified = 0;
  int refused = 0;
  for (int i = 0; i < 100; ++i) {  // ten seconds of a client gone wild
    const lund_rv_message answer = client.look_up(host);
    refused += answer.type == LUND_RV_ERROR && answer.status == 0;
    notified += host.take_notification();
    rig.wait_ms(100);
  }
  EXPECT_GE(notified, 4 * 10);
  EXPECT_LE(notified, 4 * 10 + 8);
  EXPECT_EQ(refused, 100 - notified);
}

TEST_F(RendezvousLookup, AnUnprovenAddressIsPunchedAtTwiceAndThenEachFiveSeconds) {
  int notified = 0;
  for (int i = 0; i < 40; ++i) {  // twenty seconds without ever binding
    client.lan = {at("10.0.0.1:1"), at("10.0.0.2:1"), at("10.0.0.3:1"), at("10.0.0.4:1")};
    client.look_up(host);
    notified += host.take_notification();
    rig.wait_ms(500);
  }
  EXPECT_GE(notified, 3);
  EXPECT_LE(notified, 2 + 20 / 5);
}

TEST_F(RendezvousLookup, NotifiedOrNotTheFirstBindOfAClientReachesItsHost) {
  // The unproven notifications of this host are used up by others.
  for (int i = 1; i <= 20; ++i) {
    SimClient spoofed(rig, at(("192.0.2." + std::to_string(i) + ":7").c_str()));
    spoofed.look_up(host);
  }
  rig.take(host.address);
  EXPECT_EQ(client.look_up(host).status, 0);
  EXPECT_FALSE(host.take_notification());
  EXPECT_EQ(client.bind().status, 0);
  ASSERT_TRUE(host.take_notification());
  EXPECT_EQ(host.notice.allocation, client.result.allocation);
  EXPECT_EQ(host.bind().status, 0);
  client.send(sealed_record());
  ASSERT_EQ(rig.sent.size(), 1u);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.sent[0].to, host.address));
}

TEST_F(RendezvousLookup, AClientAboutToShakeHandsIsNotPushedAsideByOnesThatMayBeSpoofed) {
  prove();
  SimClient spoofed(rig, at("192.0.2.1:7"));
  spoofed.look_up(host);
  EXPECT_FALSE(host.take_notification());
  rig.wait_s(5);
  spoofed.look_up(host);
  EXPECT_TRUE(host.take_notification());
}

TEST_F(RendezvousLookup, TooManyAllocationsAreSaidOnceAllAreInUse) {
  RendezvousRig small{{.allocations = 2}};
  SimHost there(small, keypair_of(1), host.address);
  there.register_fully();
  for (int i = 1; i <= 2; ++i) {
    SimClient one(small, at(("203.0.113." + std::to_string(i) + ":5").c_str()));
    one.look_up(there);
    EXPECT_EQ(one.bind().status, 0);
    small.wait_s(6);
  }
  SimClient third(small, client.address);
  const lund_rv_message answer = third.look_up(there);
  EXPECT_EQ(answer.type, LUND_RV_ERROR);
  EXPECT_EQ(answer.status, 4);
  EXPECT_EQ(small.statistics().allocations, 2u);
}

TEST_F(RendezvousLookup, AllocationsThatNoClientEverBoundMakeRoomForNewOnes) {
  RendezvousRig small{{.allocations = 2}};
  SimHost there(small, keypair_of(1), host.address);
  there.register_fully();
  for (int i = 1; i <= 10; ++i) {
    SimClient silent(small, at(("203.0.113." + std::to_string(i) + ":5").c_str()));
    silent.look_up(there);
    small.wait_s(1);
  }
  EXPECT_EQ(small.statistics().allocations, 2u);
  SimClient real(small, client.address);
  EXPECT_EQ(real.look_up(there).status, 0);
  EXPECT_EQ(real.bind().status, 0);
}

TEST_F(RendezvousLookup, TheAnswerToAnUnprovenAddressIsPaidByWhatItSent) {
  std::size_t answered = 0;
  for (int i = 0; i < 200; ++i) {
    answered += client.look_up(Bytes(16, 9)).type != 0;
    rig.wait_ms(100);
  }
  // 46 bytes for a request, 136 for an answer, 256 to begin with.
  EXPECT_EQ(answered, (256 + 200 * 46) / 136);
  EXPECT_EQ(rig.statistics().over_account, 200 - answered);
}

TEST_F(RendezvousLookup, AProvenAddressIsAlwaysAnswered) {
  prove();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(client.look_up(Bytes(16, 9)).type, LUND_RV_LOOKUP_RESULT);
    rig.wait_ms(100);
  }
}

}  // namespace
