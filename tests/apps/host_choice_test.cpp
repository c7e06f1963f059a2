#include "apps/client/host_choice.h"

#include <gtest/gtest.h>

namespace {

using Kind = HostChoice::Kind;

TEST(HostChoice, AnAddressAKeyCodeAndANameAreToldApart) {
  EXPECT_EQ(parse_host("192.168.1.5").kind, Kind::Address);
  EXPECT_EQ(parse_host("192.168.1.5").address.port, 9876);
  EXPECT_EQ(parse_host("[fd00::1]:99").address.port, 99);
  EXPECT_EQ(parse_host("7K2M-Q9TX").kind, Kind::Code);
  EXPECT_EQ(parse_host("nara-0avv").kind, Kind::Code);
  EXPECT_EQ(parse_host("7k2mq9tx").kind, Kind::Code);
  EXPECT_EQ(parse_host("desk").kind, Kind::Name);
  EXPECT_EQ(parse_host("desk.example:9000").kind, Kind::Name);
}

TEST(HostChoice, ANameOfSuchLettersIsStillAName) {
  EXPECT_EQ(parse_host("desktops").kind, Kind::Name);
  EXPECT_EQ(parse_host("living-pc").kind, Kind::Name);
  EXPECT_EQ(parse_host("pc-1-2-3-4").kind, Kind::Name);
}

TEST(HostChoice, APairingLooksOnTheLanForANameOrForAnyoneWithTheCode) {
  const auto by = [](const char* text, std::uint32_t mode = LUND_PATHS_ALL) {
    return wanted_for_pairing(parse_host(text), nullptr, mode).by;
  };
  EXPECT_EQ(by("192.168.1.5"), LanWanted::By::Nothing);
  EXPECT_EQ(by("7K2M-Q9TX"), LanWanted::By::Any);
  EXPECT_EQ(by("desk"), LanWanted::By::Name);
  EXPECT_EQ(by("desk", LUND_PATHS_RELAY), LanWanted::By::Nothing);
}

TEST(HostChoice, AConnectionLooksForTheHostWhereItListened) {
  lund_host_entry host;
  host.lan_id = 5;
  EXPECT_EQ(wanted_for_connecting(host, LUND_PATHS_ALL).port, 9876);
  lund_addr_parse(&host.lan_endpoint, "10.0.0.1:1234", 0);
  EXPECT_EQ(wanted_for_connecting(host, LUND_PATHS_ALL).port, 1234);
  EXPECT_EQ(wanted_for_connecting(host, LUND_PATHS_NO_SERVERS).lan_id, 5u);
  EXPECT_EQ(wanted_for_connecting(host, LUND_PATHS_RELAY).by, LanWanted::By::Nothing);
}

TEST(HostChoice, TheTextNamesWhomNobodyAnsweredFor) {
  EXPECT_EQ(nobody_answered(parse_host("10.0.0.1:5")), "no host answered at 10.0.0.1:5");
  EXPECT_EQ(nobody_answered(parse_host("7K2M-Q9TX")),
            "no host with the key code 7K2M-Q9TX answered");
  EXPECT_EQ(nobody_answered(parse_host("desk")), "no host called \"desk\" answered");
}

}  // namespace
