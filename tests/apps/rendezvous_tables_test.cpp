// The parts beneath the rendezvous server: its hash, its limits, its tables.
#include <gtest/gtest.h>

#include <set>

#include "apps/rendezvous/accounts.h"
#include "apps/rendezvous/allocations.h"
#include "apps/rendezvous/hosts.h"
#include "apps/rendezvous/tickets.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/engine_peer.h"

namespace {

using peer::at;

constexpr SipKey KEY{0x0706050403020100, 0x0f0e0d0c0b0a0908};
constexpr std::uint64_t SECOND = 1'000'000;
constexpr std::uint64_t START = 1'000 * SECOND;

lund_rv_endpoint numbered(std::uint32_t number) {
  lund_rv_endpoint out;
  out.family = 4;
  out.port = 9876;
  store_le(out.address.data(), number);
  return out;
}

TEST(RendezvousHash, GivesThePublishedValuesOfSipHash) {
  std::uint8_t input[15];
  for (std::uint8_t i = 0; i < sizeof input; ++i) input[i] = i;
  EXPECT_EQ(siphash(KEY, input, 15), 0xa129ca6149be45e5);  // the paper's appendix
  EXPECT_EQ(siphash(KEY, input, 0), 0x726fdb47dd0e0e31);   // and its authors' table
  EXPECT_EQ(siphash(KEY, input, 1), 0x74f839c593dc67fd);
  EXPECT_EQ(siphash(KEY, input, 8), 0x93f5f5799a932462);
}

TEST(RendezvousHash, EveryPartOfAnAddressCounts) {
  const AddressHash hash{KEY};
  std::set<std::size_t> seen;
  lund_rv_endpoint address = at("[2001:db8::1]:9876");
  seen.insert(hash(address));
  for (std::uint8_t& byte : address.address) {
    byte ^= 1;
    seen.insert(hash(address));
  }
  address.port ^= 0x100;
  seen.insert(hash(address));
  address.family = 4;
  seen.insert(hash(address));
  EXPECT_EQ(seen.size(), 19u);
}

TEST(RendezvousRate, ABucketBeginsFullAndFillsAtItsRate) {
  constexpr Rate RATE{10, 20};
  TokenBucket bucket;
  int taken = 0;
  while (bucket.take(RATE, START)) ++taken;
  EXPECT_EQ(taken, 20);
  EXPECT_FALSE(bucket.take(RATE, START + SECOND / 10 - 1));
  EXPECT_TRUE(bucket.take(RATE, START + SECOND / 10));
  for (taken = 0; bucket.take(RATE, START + 3600 * SECOND); ++taken) {
  }
  EXPECT_EQ(taken, 20);
}

TEST(RendezvousRate, WhatIsTooDearTakesNothing) {
  constexpr Rate RATE{1, 10};
  TokenBucket bucket;
  EXPECT_FALSE(bucket.take(RATE, START, 11));
  EXPECT_TRUE(bucket.take(RATE, START, 10));
}

TEST(RendezvousRate, NothingOverflowsAtGigabytesASecondAndAfterYears) {
  constexpr Rate RATE{12'500'000'000, 12'500'000'000};
  TokenBucket bucket;
  EXPECT_TRUE(bucket.take(RATE, START, RATE.burst));
  EXPECT_FALSE(bucket.take(RATE, START, 20'000));
  EXPECT_TRUE(bucket.take(RATE, START + 2, 20'000));
  EXPECT_TRUE(bucket.take(RATE, START + 100'000'000 * SECOND, RATE.burst));
  EXPECT_FALSE(bucket.take(RATE, START + 100'000'000 * SECOND, 1));
}

TEST(RendezvousAccounts, ANewOneHasOneAnswersWorthAndEarnsWhatItSends) {
  Account account;
  EXPECT_TRUE(account.can_pay(256, START));
  EXPECT_FALSE(account.can_pay(257, START));
  account.pay(256);
  account.earn(46);
  EXPECT_TRUE(account.can_pay(46, START));
  EXPECT_FALSE(account.can_pay(47, START));
}

TEST(RendezvousAccounts, ProofLastsAMinute) {
  Account account;
  account.prove(START);
  EXPECT_TRUE(account.can_pay(100'000, START + 60 * SECOND - 1));
  EXPECT_FALSE(account.can_pay(100'000, START + 60 * SECOND));
}

TEST(RendezvousAccounts, AFullTableForgetsTheOneHeardOfLongestAgo) {
  AccountTable table(3, KEY);
  for (std::uint32_t i = 0; i < 3; ++i) table.of(numbered(i)).prove(START);
  table.of(numbered(0));
  table.of(numbered(3));  // in place of 1
  EXPECT_EQ(table.size(), 3u);
  EXPECT_TRUE(table.of(numbered(0)).proven(START));
  EXPECT_TRUE(table.of(numbered(2)).proven(START));
  EXPECT_FALSE(table.of(numbered(1)).proven(START));
  EXPECT_EQ(table.size(), 3u);
}

TEST(RendezvousAccounts, PortsOfOneAddressShareAnAccountAndFamiliesDoNot) {
  AccountTable table(10, KEY);
  table.of(at("1.2.3.4:1")).prove(START);
  EXPECT_TRUE(table.of(at("1.2.3.4:2")).proven(START));
  EXPECT_FALSE(table.of(at("[102:304::]:1")).proven(START));  // the same bytes
}

TEST(RendezvousAccounts, AFloodOfAddressesTakesNoMemoryOnceTheTableIsFull) {
  AccountTable table(1000, KEY);
  for (std::uint32_t i = 0; i < 1000; ++i) table.of(numbered(i));
  const AllocationCount allocations;
  for (std::uint32_t i = 1000; i < 200'000; ++i) table.of(numbered(i));
  EXPECT_EQ(allocations.count(), 0u);
  EXPECT_EQ(table.size(), 1000u);
}

TEST(RendezvousTickets, AChallengeLivesFiveToTenMinutes) {
  const Tickets tickets;
  ASSERT_TRUE(tickets.ready());
  const lund_keypair keys = peer::keypair_of(1);
  for (const std::uint64_t offset : {std::uint64_t{0}, 299 * SECOND, 150 * SECOND}) {
    const std::uint64_t now = 3'000 * SECOND + offset;  // a multiple of 300 s
    const Token challenge = tickets.challenge(numbered(1), keys.public_key, now);
    const auto good = [&](std::uint64_t then) {
      return tickets.is_current(challenge.data(), numbered(1), keys.public_key, then);
    };
    EXPECT_TRUE(good(now));
    EXPECT_TRUE(good(now + 300 * SECOND));
    EXPECT_FALSE(good(now + 600 * SECOND));
    EXPECT_FALSE(good(now - 300 * SECOND));
  }
}

TEST(RendezvousTickets, AGrantIsOfOneClientOneHostAndOneRegistration) {
  const Tickets tickets;
  const Tickets others;
  const KeyId host{1}, other_host{2};
  const Grant grant = tickets.grant(numbered(1), host, 7);
  EXPECT_EQ(tickets.registration_of(grant.allocation, numbered(1)), 7u);
  EXPECT_EQ(tickets.grant(numbered(1), host, 7).bind_tokens[CLIENT_SIDE],
            grant.bind_tokens[CLIENT_SIDE]);
  std::set<Token> seen = {grant.punch_token, grant.bind_tokens[HOST_SIDE],
                          grant.bind_tokens[CLIENT_SIDE]};
  for (const Grant& different :
       {tickets.grant(numbered(2), host, 7), tickets.grant(numbered(1), other_host, 7),
        tickets.grant(numbered(1), host, 8), others.grant(numbered(1), host, 7)}) {
    seen.insert(different.punch_token);
    seen.insert(different.bind_tokens[HOST_SIDE]);
    seen.insert(different.bind_tokens[CLIENT_SIDE]);
  }
  EXPECT_EQ(seen.size(), 15u);
}

Registration registration_numbered(std::uint32_t number) {
  Registration out;
  store_le(out.key.data(), number);
  out.address = numbered(number);
  return out;
}

TEST(RendezvousHosts, EachIsFoundEveryWayUntilItsTimeRunsOut) {
  constexpr std::uint32_t HOSTS = 1000;
  HostTable table(HOSTS, KEY);
  for (std::uint32_t i = 0; i < HOSTS; ++i)
    ASSERT_NE(table.put(registration_numbered(i), START + i * 1000), nullptr);
  EXPECT_EQ(table.put(registration_numbered(HOSTS), START), nullptr);
  for (std::uint32_t i = 0; i < HOSTS; ++i) {
    Host* host = table.find(registration_numbered(i).key);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(table.find_number(host->number), host);
    EXPECT_EQ(table.look_up(host->id.data(), 16), host);
    if (i % 2 == 1) table.refresh(*host, START + 10 * SECOND);
  }
  table.expire(START + 66 * SECOND);
  EXPECT_EQ(table.size(), HOSTS / 2);
  for (std::uint32_t i = 0; i < HOSTS; ++i)
    EXPECT_EQ(table.find(registration_numbered(i).key) != nullptr, i % 2 == 1);
  table.expire(START + 75 * SECOND);
  EXPECT_EQ(table.size(), 0u);
  EXPECT_NE(table.put(registration_numbered(1), START), nullptr);
}

TEST(RendezvousAllocations, TakenApartInAnyOrderTheTableIsEmptyAgain) {
  constexpr std::uint32_t COUNT = 200;
  AllocationTable table(COUNT, KEY);
  const PublicKey host{1};
  for (std::uint32_t round = 0; round < 5; ++round) {
    std::uint64_t now = START + round * 1000 * SECOND;
    for (std::uint32_t i = 0; i < COUNT; ++i) {
      Grant grant;
      grant.allocation = i + 1;
      Allocation* made = table.put(grant, host, numbered(i), now);
      ASSERT_NE(made, nullptr);
      if (i % 2 == 0) {
        EXPECT_TRUE(table.bind(*made, CLIENT_SIDE, numbered(i), now));
      }
      if (i % 3 == 0) {
        EXPECT_TRUE(table.bind(*made, HOST_SIDE, numbered(1'000 + i % 10), now));
      }
    }
    for (std::uint32_t i = round; i < COUNT; i += 7) table.remove(*table.find(i + 1));
    table.expire(now + 29 * SECOND);
    EXPECT_GT(table.size(), COUNT / 2);
    table.expire(now + 30 * SECOND);
    for (std::uint32_t i = 0; i < COUNT; ++i)
      EXPECT_EQ(table.find(i + 1) != nullptr, i % 6 == 0 && (i + 7 - round) % 7 != 0) << i;
    table.expire(now + 45 * SECOND);
    EXPECT_EQ(table.size(), 0u);
    for (std::uint32_t i = 0; i < 2'000; ++i) EXPECT_EQ(table.route(numbered(i)), nullptr);
  }
}

}  // namespace
