#include "apps/lunderhaze/pair_back.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "control/pair_back.h"
#include "tests/support/virtual_time.h"

namespace {

constexpr std::uint64_t MINUTE_MS = 60'000;

class PairBackOffersTest : public testing::Test {
 protected:
  void SetUp() override {
    virtual_time::reset();
    back_.back_value = 9876;
    offer_address("192.168.1.5");
    std::strcpy(back_.name, "desk");
    session_ = client(1);
  }

  static lund_session_info client(std::uint8_t key) {
    lund_session_info session;
    std::memset(session.client_key, key, sizeof session.client_key);
    std::strcpy(session.client_name, "as paired");
    return session;
  }
  void offer_address(const char* text) {
    lund_rv_endpoint address;
    ASSERT_EQ(lund_addr_parse(&address, text, 0), 0);
    back_.back_values[back_.back_count++] = pair_back_value(address);
  }
  int repeat() { return offers_.answer(back_, session_); }

  int news_ = 0;
  PairBackOffers offers_{[this] { ++news_; }};
  lund_pair_back back_;
  lund_session_info session_;
};

TEST_F(PairBackOffersTest, AnOfferIsAnsweredNoUntilItIsDecidedAndAskedOnce) {
  EXPECT_EQ(repeat(), 0);
  EXPECT_EQ(repeat(), 0);
  EXPECT_EQ(news_, 1);
  const auto offer = offers_.undecided();
  ASSERT_TRUE(offer);
  EXPECT_EQ(offer->name, "desk");
  EXPECT_EQ(offer->addresses, "192.168.1.5:9876");
  EXPECT_TRUE(std::equal(offer->key.begin(), offer->key.end(), session_.client_key));
  offers_.decide(*offer, true);
  EXPECT_FALSE(offers_.undecided());
  EXPECT_EQ(repeat(), 1);
  EXPECT_EQ(repeat(), 1);
  EXPECT_EQ(news_, 1);
}

TEST_F(PairBackOffersTest, ARefusalStandsWhileTheOfferIsRepeated) {
  repeat();
  offers_.decide(*offers_.undecided(), false);
  for (int i = 0; i < 10; ++i) {
    virtual_time::advance_ms(MINUTE_MS / 2);
    EXPECT_EQ(repeat(), 0);
    EXPECT_FALSE(offers_.undecided());
  }
  virtual_time::advance_ms(MINUTE_MS + 1);
  EXPECT_EQ(repeat(), 0);
  EXPECT_TRUE(offers_.undecided());
  EXPECT_EQ(news_, 2);
}

TEST_F(PairBackOffersTest, AnAcceptanceLasts) {
  repeat();
  offers_.decide(*offers_.undecided(), true);
  virtual_time::advance_ms(60 * MINUTE_MS);
  EXPECT_EQ(repeat(), 1);
}

TEST_F(PairBackOffersTest, AnAnswerBelongsToItsClient) {
  repeat();
  offers_.decide(*offers_.undecided(), true);
  session_ = client(2);
  EXPECT_EQ(repeat(), 0);
  ASSERT_TRUE(offers_.undecided());
  EXPECT_EQ(offers_.undecided()->key[0], 2);
}

TEST_F(PairBackOffersTest, AnotherAddressIsAnotherOfferAndAnAnswerToTheOldOneIsNone) {
  repeat();
  const PairBackOffer old = *offers_.undecided();
  back_.back_count = 0;
  offer_address("192.168.1.6");
  EXPECT_EQ(repeat(), 0);
  EXPECT_EQ(news_, 2);
  offers_.decide(old, true);
  EXPECT_EQ(repeat(), 0);
  ASSERT_TRUE(offers_.undecided());
  EXPECT_EQ(offers_.undecided()->addresses, "192.168.1.6:9876");
}

TEST_F(PairBackOffersTest, TheOldestIsDecidedFirst) {
  repeat();
  session_ = client(2);
  repeat();
  EXPECT_EQ(offers_.undecided()->key[0], 1);
  offers_.decide(*offers_.undecided(), false);
  EXPECT_EQ(offers_.undecided()->key[0], 2);
}

TEST_F(PairBackOffersTest, MoreClientsThanCanBePairedAtOnceDoNotAddUp) {
  for (int i = 0; i < 100; ++i) {
    session_ = client(static_cast<std::uint8_t>(i));
    repeat();
  }
  EXPECT_EQ(offers_.undecided()->key[0], 100 - LUND_CLIENTS_MAX);
}

TEST_F(PairBackOffersTest, WhatWouldSpoilTheTerminalIsTakenOutOfTheName) {
  std::strcpy(back_.name, "\x1b[2Jdesk\n");
  repeat();
  EXPECT_EQ(offers_.undecided()->name, " [2Jdesk ");
}

TEST_F(PairBackOffersTest, WithoutANameItIsTheOneOfItsPairing) {
  back_.name[0] = 0;
  repeat();
  EXPECT_EQ(offers_.undecided()->name, "as paired");
}

TEST_F(PairBackOffersTest, TheFirstAddressIsTheOneToRemember) {
  offer_address("10.0.0.5");
  repeat();
  const auto offer = offers_.undecided();
  EXPECT_EQ(offer->addresses, "192.168.1.5:9876, 10.0.0.5:9876");
  lund_rv_endpoint expected;
  ASSERT_EQ(lund_addr_parse(&expected, "192.168.1.5:9876", 0), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(offer->lan, expected));
}

TEST_F(PairBackOffersTest, WithoutAPortThereIsNoAddress) {
  back_.back_value = 0;
  repeat();
  EXPECT_EQ(offers_.undecided()->addresses, "");
  EXPECT_EQ(offers_.undecided()->lan.family, 0);
}

}  // namespace
