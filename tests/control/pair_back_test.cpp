#include "control/pair_back.h"

#include <gtest/gtest.h>

#include "connection/protocol.h"

TEST(PairBack, AnAddressStandsOnTheWireInItsUsualOrder) {
  lund_rv_endpoint address;
  ASSERT_EQ(lund_addr_parse(&address, "192.168.1.5", 9876), 0);
  lund_pair_back offer;
  offer.back_value = 9876;
  offer.back_count = 1;
  offer.back_values[0] = pair_back_value(address);
  std::uint8_t packet[64];
  const lund_packet_header header;
  const std::size_t size = lund_encode_pair_back(packet, sizeof packet, &header, &offer, "desk");
  ASSERT_GE(size, 15u);
  EXPECT_EQ(packet[11], 192);
  EXPECT_EQ(packet[12], 168);
  EXPECT_EQ(packet[13], 1);
  EXPECT_EQ(packet[14], 5);
  EXPECT_TRUE(lund_rv_endpoint_equal(pair_back_address(offer.back_values[0], 9876), address));
}
