#include "control/relay_list.h"

#include <gtest/gtest.h>

#include <sstream>

#include "connection/resolver.h"

namespace {

std::string link(const std::string& place) {
  return "lunderhaze-relay://" + place + "#secret-of-" + std::to_string(place.size());
}

struct RelayListTest : testing::Test {
  void add(const std::vector<std::string>& links) {
    ASSERT_EQ(add_relays(&relays, links, &text), ListChange::Done) << text;
  }
  lund_relay_config relays;
  std::string text;
};

TEST_F(RelayListTest, AnAddedServerIsListedByItsPlaceAlone) {
  add({link("one.example"), link("10.0.0.1:99"), link("[::1]")});
  EXPECT_EQ(text, "one.example:9877: added\n10.0.0.1:99: added\n[::1]:9877: added\n");
  EXPECT_EQ(relay_lines(relays), "1  one.example:9877\n2  10.0.0.1:99\n3  [::1]:9877\n");
}

TEST_F(RelayListTest, AServerThatIsListedGetsItsNewKey) {
  add({link("one.example")});
  add({"lunderhaze-relay://ONE.example#other"});
  EXPECT_EQ(text, "ONE.example:9877: replaced\n");
  ASSERT_EQ(relays.count, 1);
  EXPECT_EQ(relays.servers[0].key_size, 5u);
}

TEST_F(RelayListTest, OneBadLinkLeavesTheListAsItWasAndIsNotRepeated) {
  EXPECT_EQ(add_relays(&relays, {link("one.example"), "relay://two.example#hush-hush"}, &text),
            ListChange::BadArgument);
  EXPECT_EQ(text, "link 2 is no relay link (lunderhaze-relay://host[:port]#key)");
  EXPECT_EQ(relays.count, 0);
}

TEST_F(RelayListTest, ANinthServerIsRefusedAndNoneOfItsCommandIsAdded) {
  for (int i = 0; i < 7; ++i) add({link("r" + std::to_string(i))});
  EXPECT_EQ(add_relays(&relays, {link("r7"), link("r8")}, &text), ListChange::Full);
  EXPECT_EQ(text, "8 relay servers are listed already");
  EXPECT_EQ(relays.count, 7);
}

TEST_F(RelayListTest, AServerIsRemovedByNumberByNameOrByNameAndPort) {
  for (const std::string which : {"2", "two.example", "TWO.EXAMPLE:9877"}) {
    relays = {};
    add({link("one.example"), link("two.example"), link("three.example")});
    EXPECT_EQ(remove_relay(&relays, which, &text), ListChange::Done) << which;
    EXPECT_EQ(text, "two.example:9877: removed\n");
    EXPECT_EQ(relay_lines(relays), "1  one.example:9877\n2  three.example:9877\n");
  }
}

TEST_F(RelayListTest, WhatIsNotListedIsNotRemoved) {
  add({link("one.example")});
  for (const std::string which : {"0", "2", "", "one", "one.example:1", "-1"})
    EXPECT_EQ(remove_relay(&relays, which, &text), ListChange::BadArgument) << which;
  EXPECT_EQ(relays.count, 1);
  relays = {};
  EXPECT_EQ(remove_relay(&relays, "1", &text), ListChange::BadArgument);
}

TEST_F(RelayListTest, ANameThatStandsTwiceIsToBeSaidWithItsPort) {
  add({link("one.example:1"), link("one.example:2")});
  EXPECT_EQ(remove_relay(&relays, "one.example", &text), ListChange::BadArgument);
  EXPECT_EQ(text, "several relay servers have that name: say host:port");
  EXPECT_EQ(remove_relay(&relays, "one.example:2", &text), ListChange::Done);
  EXPECT_EQ(relay_lines(relays), "1  one.example:1\n");
}

TEST_F(RelayListTest, AnEmptyListSaysSo) {
  EXPECT_EQ(relay_lines(relays), "no relay servers\n");
}

TEST(RelayLinks, AreReadALineEachWithoutBlankOnes) {
  std::istringstream in("\n" + link("one.example") + "\r\n \t\n  " + link("[::1]:5"));
  const std::vector<std::string> links = read_links(in);
  ASSERT_EQ(links.size(), 2u);
  lund_relay_config relays;
  std::string text;
  EXPECT_EQ(add_relays(&relays, links, &text), ListChange::Done) << text;
  EXPECT_EQ(relay_lines(relays), "1  one.example:9877\n2  [::1]:5\n");
}

TEST(RelayCheck, EachResultHasItsText) {
  EXPECT_EQ(check_line("a:1", {LUND_RELAY_REACHABLE, 12'340}), "a:1: reachable (12.3 ms)");
  EXPECT_EQ(check_line("a:1", {LUND_RELAY_NO_ANSWER, 0}),
            "a:1: no answer: offline, blocked, or wrong secret");
  EXPECT_EQ(check_line("a:1", {LUND_RELAY_NO_NAME, 0}), "a:1: name not found");
  EXPECT_EQ(check_line("a:1", {LUND_RELAY_LOCAL_FAILURE, 0}),
            "a:1: could not be asked: a failure of this computer");
}

}  // namespace
