#include "apps/client/path_history.h"

#include <gtest/gtest.h>

namespace {

lund_conn_event path(std::int32_t path_class, const char* address, std::uint32_t rtt_us) {
  lund_conn_event event;
  event.type = LUND_EV_PATH_CHANGED;
  event.path = path_class;
  event.rtt_us = rtt_us;
  lund_addr_parse(&event.addr, address, 9876);
  return event;
}

TEST(PathHistory, EachPathGivesALineForAPerson) {
  PathHistory paths;
  EXPECT_EQ(paths.begin(path(LUND_PATH_LAN, "192.168.1.5", 400), 0, {}),
            "path: LAN 192.168.1.5:9876 (rtt 0.4 ms)");
  EXPECT_EQ(paths.begin(path(LUND_PATH_RELAY, "[2001:db8::1]:9877", 31'260), 1, {}),
            "path: Relay [2001:db8::1]:9877 (rtt 31.3 ms)");
}

TEST(PathHistory, FramesAndLossesAreCountedByPath) {
  PathHistory paths;
  paths.begin(path(LUND_PATH_RELAY, "203.0.113.1:9877", 30'000), 0.1, {0, 0});
  paths.begin(path(LUND_PATH_P2P, "198.51.100.7:5000", 20'000), 1.2346, {60, 3});
  const auto json = paths.report({100, 4});
  ASSERT_EQ(json.size(), 2u);
  EXPECT_EQ(json[0]["class"], "Relay");
  EXPECT_EQ(json[0]["frames"], 60);
  EXPECT_EQ(json[0]["frames_lost"], 3);
  EXPECT_EQ(json[1]["class"], "P2P");
  EXPECT_EQ(json[1]["address"], "198.51.100.7:5000");
  EXPECT_EQ(json[1]["at_s"], 1.235);
  EXPECT_EQ(json[1]["rtt_ms"], 20.0);
  EXPECT_EQ(json[1]["frames"], 40);
  EXPECT_EQ(json[1]["frames_lost"], 1);
  EXPECT_EQ(paths.path_class(), LUND_PATH_P2P);
  EXPECT_EQ(paths.address(), "198.51.100.7:5000");
}

TEST(PathHistory, APathThatIsNotKnownYetIsNone) {
  PathHistory paths;
  EXPECT_EQ(paths.begin(path(LUND_PATH_NONE, "10.0.0.1", 0), 0, {}), "");
  EXPECT_TRUE(paths.empty());
  EXPECT_EQ(paths.address(), "-");
}

TEST(PathHistory, ARelaysAddressIsNeverTheHosts) {
  PathHistory paths;
  paths.begin(path(LUND_PATH_RELAY, "203.0.113.1:9877", 1), 0, {});
  EXPECT_FALSE(paths.last_lan());
  EXPECT_FALSE(paths.last_outside());
  paths.begin(path(LUND_PATH_LAN, "10.0.0.1", 1), 1, {});
  paths.begin(path(LUND_PATH_DIRECT, "203.0.113.2:9876", 1), 2, {});
  paths.begin(path(LUND_PATH_LAN, "10.0.0.2", 1), 3, {});
  paths.begin(path(LUND_PATH_RELAY, "203.0.113.1:9877", 1), 4, {});
  ASSERT_TRUE(paths.last_lan());
  EXPECT_EQ(paths.last_lan()->address[3], 2);
  ASSERT_TRUE(paths.last_outside());
  EXPECT_EQ(paths.last_outside()->address[0], 203);
}

}  // namespace
