// The rules that need no system: which adapters are shown and in what order, and a host id's text.
#include "control/sysinfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>

#include "control/adapters.h"

namespace {

using testing::ElementsAre;

enum class Kind { Ethernet, Wifi, Other };

Adapter adapter(std::array<std::uint8_t, 4> address, const char* name, Kind kind) {
  Adapter result;
  result.address = std::bit_cast<std::uint32_t>(address);
  result.name = name;
  result.up = true;
  result.ethernet = kind == Kind::Ethernet;
  result.wifi = kind == Kind::Wifi;
  return result;
}

TEST(RankedAddresses, EthernetComesBeforeWifiWhateverTheSystemsOrder) {
  EXPECT_THAT(ranked_address_texts({adapter({10, 8, 0, 1}, "tun0", Kind::Other),
                                    adapter({192, 168, 1, 6}, "wlan0", Kind::Wifi),
                                    adapter({192, 168, 1, 5}, "eth0", Kind::Ethernet)}),
              ElementsAre("192.168.1.5 (eth0)", "192.168.1.6 (wlan0)", "10.8.0.1 (tun0)"));
}

TEST(RankedAddresses, AdaptersOfOneKindKeepTheSystemsOrderAndNothingIsMerged) {
  EXPECT_THAT(ranked_address_texts({adapter({10, 0, 0, 9}, "b", Kind::Ethernet),
                                    adapter({10, 0, 0, 1}, "a", Kind::Ethernet),
                                    adapter({10, 0, 0, 9}, "b", Kind::Ethernet)}),
              ElementsAre("10.0.0.9 (b)", "10.0.0.1 (a)", "10.0.0.9 (b)"));
}

TEST(RankedAddresses, AnEmptyNameGivesTheBareAddress) {
  EXPECT_THAT(ranked_address_texts({adapter({1, 2, 3, 4}, "", Kind::Other)}),
              ElementsAre("1.2.3.4"));
}

TEST(ReachableAdapters, LoopbackDownAndLinkLocalOnesAreLeftOut) {
  Adapter loopback = adapter({127, 0, 0, 1}, "lo", Kind::Other);
  loopback.loopback = true;
  Adapter down = adapter({10, 0, 0, 1}, "eth1", Kind::Ethernet);
  down.up = false;
  const std::vector<Adapter> kept = reachable_adapters(
      {loopback, adapter({169, 254, 7, 7}, "eth2", Kind::Ethernet), down,
       adapter({169, 253, 7, 7}, "eth3", Kind::Ethernet), adapter({10, 0, 0, 2}, "w", Kind::Wifi)});
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].name, "eth3");
  EXPECT_EQ(kept[1].name, "w");
}

TEST(HostIdText, DigitsMayBeFollowedByALineEnd) {
  EXPECT_EQ(parse_host_id("1", "\r\n"), 1u);
  EXPECT_EQ(parse_host_id("4294967295\r\n", "\r\n"), 0xFFFF'FFFFu);
  EXPECT_EQ(parse_host_id("12 \n", "\r\n "), 12u);
}

TEST(HostIdText, AnythingElseIsMalformed) {
  for (const char* text :
       {"", "0", "4294967296", "12a", "a12", "-1", " 12", "+12", "12\n3", "\n"}) {
    EXPECT_EQ(parse_host_id(text, "\r\n"), 0u) << text;
  }
  EXPECT_EQ(parse_host_id("12 ", "\r\n"), 0u);
  EXPECT_EQ(parse_host_id(std::string("12\0", 3), "\r\n"), 0u);
}

}  // namespace
