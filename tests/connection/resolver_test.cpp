// Which names a resolver looks up, and when.
#include "connection/resolver.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "connection/resolver_internal.h"
#include "tests/support/virtual_time.h"

namespace {

constexpr std::uint64_t NOW = virtual_time::START_US;
constexpr std::uint64_t SECOND_US = 1'000'000;

// Hosts as they are given, without the checks that a link goes through.
lund_relay_config relays_of(const std::vector<std::pair<std::string, std::uint16_t>>& servers) {
  lund_relay_config config;
  for (const auto& [host, port] : servers) {
    lund_relay_server& server = config.servers[config.count++];
    host.copy(server.host, sizeof server.host - 1);
    server.port = port;
  }
  return config;
}

// Takes out all that is due, in order, with the look-up's outcome; "name:port" each.
std::vector<std::string> take_due(ResolverSchedule& schedule, std::uint64_t now_us,
                                  bool resolved = true) {
  std::vector<std::string> names;
  while (ResolverSchedule::Name* name = schedule.due(now_us)) {
    names.push_back(name->host + (":" + std::to_string(name->port)));
    schedule.looked_up(*name, resolved, now_us);
  }
  return names;
}

using Names = std::vector<std::string>;

}  // namespace

TEST(ResolverSchedule, EachNameIsDueAtOnceInTheListsOrder) {
  ResolverSchedule schedule(relays_of({{"b.example", 9877}, {"a.example", 9877}}), NOW);
  EXPECT_EQ(take_due(schedule, NOW), (Names{"b.example:9877", "a.example:9877"}));
}

TEST(ResolverSchedule, LiteralsAndEmptyHostsNeedNoLookup) {
  const ResolverSchedule schedule(
      relays_of({{"192.0.2.1", 9877}, {"2001:db8::1", 9877}, {"::ffff:1.2.3.4", 1}, {"", 9877}}),
      NOW);
  EXPECT_EQ(schedule.count(), 0);
}

TEST(ResolverSchedule, ALiteralInBracketsIsLookedUpAsAName) {
  ResolverSchedule schedule(relays_of({{"[::1]", 9877}}), NOW);
  EXPECT_EQ(take_due(schedule, NOW), Names{"[::1]:9877"});
}

TEST(ResolverSchedule, TheSameTextAndPortIsLookedUpOnce) {
  ResolverSchedule schedule(
      relays_of({{"a.example", 1}, {"b.example", 1}, {"a.example", 1}, {"a.example", 2}}), NOW);
  EXPECT_EQ(take_due(schedule, NOW), (Names{"a.example:1", "b.example:1", "a.example:2"}));
}

TEST(ResolverSchedule, NamesThatDifferInCaseAreTwoTexts) {
  ResolverSchedule schedule(relays_of({{"a.example", 1}, {"A.EXAMPLE", 1}}), NOW);
  EXPECT_EQ(take_due(schedule, NOW), (Names{"a.example:1", "A.EXAMPLE:1"}));
}

TEST(ResolverSchedule, OnlyTheFirstEightServersCount) {
  lund_relay_config config = relays_of(std::vector<std::pair<std::string, std::uint16_t>>(
      LUND_RELAYS_MAX, {"a.example", std::uint16_t{1}}));
  for (int i = 0; i < LUND_RELAYS_MAX; ++i) config.servers[i].port = static_cast<std::uint16_t>(i);
  config.count = LUND_RELAYS_MAX + 1;
  EXPECT_EQ(ResolverSchedule(config, NOW).count(), LUND_RELAYS_MAX);
  config.count = -1;
  EXPECT_EQ(ResolverSchedule(config, NOW).count(), 0);
}

TEST(ResolverSchedule, ANameIsDueAgain120SecondsAfterASuccess) {
  ResolverSchedule schedule(relays_of({{"a.example", 1}}), NOW);
  take_due(schedule, NOW);
  EXPECT_EQ(schedule.due(NOW + 120 * SECOND_US - 1), nullptr);
  EXPECT_NE(schedule.due(NOW + 120 * SECOND_US), nullptr);
}

TEST(ResolverSchedule, ANameIsDueAgain10SecondsAfterAFailureForEver) {
  ResolverSchedule schedule(relays_of({{"a.example", 1}}), NOW);
  take_due(schedule, NOW, false);
  std::uint64_t now = NOW;
  for (int i = 0; i < 1'000; ++i) {
    ASSERT_EQ(schedule.due(now + 10 * SECOND_US - 1), nullptr);
    now += 10 * SECOND_US;
    ASSERT_EQ(take_due(schedule, now, false), Names{"a.example:1"});
  }
}

TEST(ResolverSchedule, TheNextLookupCountsFromTheEndOfTheLast) {
  ResolverSchedule schedule(relays_of({{"a.example", 1}}), NOW);
  ResolverSchedule::Name* name = schedule.due(NOW);
  schedule.looked_up(*name, true, NOW + 30 * SECOND_US);
  EXPECT_EQ(schedule.due(NOW + 150 * SECOND_US - 1), nullptr);
  EXPECT_NE(schedule.due(NOW + 150 * SECOND_US), nullptr);
}

TEST(ResolverSchedule, NamesAreDueIndependently) {
  ResolverSchedule schedule(relays_of({{"a.example", 1}, {"b.example", 1}}), NOW);
  schedule.looked_up(*schedule.due(NOW), true, NOW);
  schedule.looked_up(*schedule.due(NOW), false, NOW);
  EXPECT_EQ(take_due(schedule, NOW + 10 * SECOND_US, true), Names{"b.example:1"});
  EXPECT_EQ(take_due(schedule, NOW + 120 * SECOND_US), Names{"a.example:1"});
  EXPECT_EQ(take_due(schedule, NOW + 130 * SECOND_US), Names{"b.example:1"});
}

TEST(ResolverSchedule, TheWaitIsToTheEarliestInWholeMillisecondsAndOneMore) {
  ResolverSchedule schedule(relays_of({{"a.example", 1}, {"b.example", 1}}), NOW);
  schedule.looked_up(*schedule.due(NOW), true, NOW);
  schedule.looked_up(*schedule.due(NOW), false, NOW);
  EXPECT_EQ(schedule.wait_ms(NOW), 10'001);
  EXPECT_EQ(schedule.wait_ms(NOW + 1), 10'000);
  EXPECT_EQ(schedule.wait_ms(NOW + 10 * SECOND_US - 1), 1);
}

TEST(ResolverSchedule, AWaitWhoseTimeHasPassedIs2Ms) {
  ResolverSchedule schedule(relays_of({{"a.example", 1}}), NOW);
  take_due(schedule, NOW, false);
  EXPECT_EQ(schedule.wait_ms(NOW + 10 * SECOND_US), 2);
  EXPECT_EQ(schedule.wait_ms(NOW + 11 * SECOND_US), 2);
}
