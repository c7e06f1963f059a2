#include "apps/client/lan_search.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t SECOND_US = 1'000'000;

lund_rv_endpoint at(const std::string& address) {
  lund_rv_endpoint endpoint;
  EXPECT_EQ(lund_addr_parse(&endpoint, address.c_str(), 40'000), 0);
  return endpoint;
}

struct Reply {
  std::uint8_t bytes[128];
  std::size_t size = 0;
};

Reply reply(std::uint32_t nonce, std::uint32_t lan_id, const char* name,
            std::uint16_t port = 9876) {
  Reply made;
  lund_discover_reply record;
  record.nonce = nonce;
  record.lan_id = lan_id;
  record.port = port;
  const lund_packet_header header;
  made.size = lund_encode_discover_reply(made.bytes, sizeof made.bytes, &header, &record, name);
  return made;
}

class LanSearchTest : public testing::Test {
 protected:
  void search(LanWanted wanted) {
    search_ = LanSearch(std::move(wanted), 0);
    std::uint8_t packet[64];
    lund_discover question;
    const std::size_t size = search_.ask(0, packet, sizeof packet);
    ASSERT_EQ(lund_decode_discover(packet, size, &question), 0);
    nonce_ = question.nonce;
  }
  const lund_rv_endpoint* take(const Reply& answer, const std::string& from) {
    return search_.take(answer.bytes, answer.size, at(from));
  }
  LanSearch search_;
  std::uint32_t nonce_ = 0;
};

LanWanted wanted(LanWanted::By by, std::uint32_t lan_id = 0, std::string name = {}) {
  return {by, lan_id, std::move(name), 9876};
}

TEST_F(LanSearchTest, AsksAtOnceThenSoonThenSeldom) {
  LanSearch search(wanted(LanWanted::By::Any), 5 * SECOND_US);
  std::vector<double> asked;
  for (std::uint64_t now = 5 * SECOND_US; now <= 30 * SECOND_US; now += 100'000) {
    if (!search.due(now)) continue;
    std::uint8_t packet[64];
    EXPECT_GT(search.ask(now, packet, sizeof packet), 0u);
    asked.push_back(static_cast<double>(now - 5 * SECOND_US) / 1e6);
  }
  EXPECT_EQ(asked, (std::vector<double>{0, 0.5, 1.5, 3.5, 5.5, 7.5, 9.5, 11.5, 16.5, 21.5}));
}

TEST_F(LanSearchTest, ASearchOfNothingNeverAsks) {
  EXPECT_FALSE(LanSearch().due(60 * SECOND_US));
}

TEST_F(LanSearchTest, AKnownHostIsFoundByItsIdAtThePortThatItSays) {
  search(wanted(LanWanted::By::LanId, 77, "desk"));
  EXPECT_EQ(take(reply(nonce_, 78, "desk"), "10.0.0.5"), nullptr);
  const lund_rv_endpoint* found = take(reply(nonce_, 77, "renamed", 9999), "10.0.0.6");
  ASSERT_NE(found, nullptr);
  EXPECT_TRUE(lund_rv_endpoint_equal(*found, at("10.0.0.6:9999")));
}

TEST_F(LanSearchTest, AKnownHostWithoutAnIdIsFoundByItsName) {
  search(wanted(LanWanted::By::LanId, 0, "desk"));
  EXPECT_EQ(take(reply(nonce_, 78, "attic"), "10.0.0.5"), nullptr);
  EXPECT_NE(take(reply(nonce_, 77, "desk"), "10.0.0.6"), nullptr);
}

TEST_F(LanSearchTest, AnAddressIsGivenOnce) {
  search(wanted(LanWanted::By::Name, 0, "desk"));
  EXPECT_NE(take(reply(nonce_, 1, "desk"), "10.0.0.5"), nullptr);
  EXPECT_EQ(take(reply(nonce_, 1, "desk"), "10.0.0.5"), nullptr);
  EXPECT_NE(take(reply(nonce_, 1, "desk"), "10.0.0.6"), nullptr);
}

TEST_F(LanSearchTest, NobodyFillsTheEngineWithAddresses) {
  search(wanted(LanWanted::By::Any));
  int given = 0;
  for (std::uint32_t i = 1; i <= 200; ++i)
    given += take(reply(nonce_, i, "flood"), "10.0.0." + std::to_string(i)) != nullptr;
  EXPECT_EQ(given, 6);
}

TEST_F(LanSearchTest, WhatDoesNotAnswerTheLastQuestionIsNoAnswer) {
  search(wanted(LanWanted::By::Any));
  EXPECT_EQ(take(reply(nonce_ + 1, 1, "desk"), "10.0.0.5"), nullptr);
  EXPECT_EQ(take(reply(nonce_, 1, "desk", 0), "10.0.0.5"), nullptr);
  EXPECT_EQ(search_.lan_id_at(at("10.0.0.5:9876")), 0u);
}

TEST_F(LanSearchTest, EveryAnswerTellsWhichIdAnAddressHas) {
  search(wanted(LanWanted::By::LanId, 0, "desk"));
  take(reply(nonce_, 55, "attic"), "10.0.0.5");
  EXPECT_EQ(search_.lan_id_at(at("10.0.0.5:9876")), 55u);
  EXPECT_EQ(search_.lan_id_at(at("10.0.0.5:9877")), 0u);
}

TEST(DiscoverReplies, AHostWithSeveralAddressesIsOneAndItsLoopbackComesLast) {
  std::vector<FoundHost> found;
  for (const char* from : {"127.0.0.1", "10.0.0.5", "192.168.1.5", "10.0.0.5"}) {
    const Reply answer = reply(3, 9, "desk");
    EXPECT_NE(take_discover_reply(&found, 3, answer.bytes, answer.size, at(from)), nullptr);
  }
  ASSERT_EQ(found.size(), 1u);
  ASSERT_EQ(found[0].addresses.size(), 3u);
  EXPECT_TRUE(lund_rv_endpoint_equal(found[0].addresses[0], at("10.0.0.5:9876")));
  EXPECT_TRUE(lund_rv_endpoint_equal(found[0].addresses[2], at("127.0.0.1:9876")));
}

TEST(DiscoverReplies, ANameCannotPlayWithTheTerminal) {
  std::vector<FoundHost> found;
  const Reply answer = reply(3, 9, "\x1b[2Jdesk\n");
  ASSERT_NE(take_discover_reply(&found, 3, answer.bytes, answer.size, at("10.0.0.5")), nullptr);
  EXPECT_STREQ(found[0].reply.name, " [2Jdesk ");
}

}  // namespace
