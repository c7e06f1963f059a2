#include "host/discover.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

std::uint32_t ip(const char* text) {
  lund_rv_endpoint endpoint;
  EXPECT_EQ(lund_addr_parse(&endpoint, text, 1), 0);
  std::uint32_t network_order = 0;
  std::memcpy(&network_order, endpoint.address.data(), sizeof network_order);
  return network_order;
}

LocalInterface local(const char* address, const char* mask, bool ethernet) {
  return {ip(address), ip(mask), ethernet};
}

Peer from(const char* sender, const char* destination = nullptr) {
  Peer peer;
  EXPECT_EQ(lund_addr_parse(&peer.address, sender, 5000), 0);
  if (destination) peer.source_ip = ip(destination);
  return peer;
}

const std::vector<LocalInterface> INTERFACES{
    local("10.0.0.5", "255.255.255.0", false),
    local("192.168.1.6", "255.255.255.0", false),
    local("192.168.1.5", "255.255.255.0", true),
};

}  // namespace

TEST(DiscoverSource, IsTheAddressThatWasAsked) {
  EXPECT_EQ(discover_source(INTERFACES, from("192.168.1.20", "10.0.0.5")), ip("10.0.0.5"));
}

TEST(DiscoverSource, OfABroadcastIsAnInterfaceInTheSendersSubnetEthernetFirst) {
  EXPECT_EQ(discover_source(INTERFACES, from("192.168.1.20", "192.168.1.255")), ip("192.168.1.5"));
  EXPECT_EQ(discover_source(INTERFACES, from("10.0.0.20")), ip("10.0.0.5"));
}

TEST(DiscoverSource, OfSeveralThatAreNoEthernetIsTheFirst) {
  const std::vector<LocalInterface> wifi{local("192.168.1.6", "255.255.255.0", false),
                                         local("192.168.1.7", "255.255.255.0", false)};
  EXPECT_EQ(discover_source(wifi, from("192.168.1.20")), ip("192.168.1.6"));
}

TEST(DiscoverSource, IsLeftToTheRoutesForAForeignSender) {
  EXPECT_EQ(discover_source(INTERFACES, from("172.16.0.9")), 0u);
  EXPECT_EQ(discover_source({}, from("192.168.1.20")), 0u);
}

TEST(DiscoverSource, SkipsAnInterfaceWithoutAMask) {
  EXPECT_EQ(discover_source({{ip("192.168.1.5"), 0, true}}, from("192.168.1.20")), 0u);
}
