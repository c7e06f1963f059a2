#include "connection/netsock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "connection/netsock_internal.h"

namespace {

constexpr std::uint16_t DEFAULT_PORT = 9877;

int parse(const char* text) {
  lund_rv_endpoint out;
  return lund_addr_parse(&out, text, DEFAULT_PORT);
}

// The address of a text that must parse.
lund_rv_endpoint addr(const char* text) {
  lund_rv_endpoint out;
  EXPECT_EQ(lund_addr_parse(&out, text, DEFAULT_PORT), 0) << text;
  return out;
}

std::string format(const lund_rv_endpoint& address) {
  char text[LUND_ADDR_TEXT];
  const std::size_t length = lund_addr_format(text, sizeof(text), address);
  EXPECT_EQ(length, std::strlen(text));
  return text;
}

// How a text reads once parsed; "" when it doesn't parse.
std::string normal(const char* text) {
  lund_rv_endpoint out;
  return lund_addr_parse(&out, text, DEFAULT_PORT) == 0 ? format(out) : "";
}

std::vector<std::string> local_endpoints(const std::vector<const char*>& found, int max) {
  LocalEndpoints endpoints(7);
  for (const char* text : found) endpoints.add(addr(text));
  std::vector<lund_rv_endpoint> out(32);
  const int count = endpoints.hand_out(out.data(), max);
  std::vector<std::string> texts;
  for (int i = 0; i < count; ++i) texts.push_back(format(out[static_cast<std::size_t>(i)]));
  return texts;
}

}  // namespace

TEST(Netsock, PortIsOneTo65535InDigits) {
  EXPECT_EQ(parse("1.2.3.4:0"), -1);
  EXPECT_EQ(normal("1.2.3.4:65535"), "1.2.3.4:65535");
  EXPECT_EQ(parse("1.2.3.4:65536"), -1);
  EXPECT_EQ(parse("1.2.3.4:99999999999999999999"), -1);
  EXPECT_EQ(parse("1.2.3.4:"), -1);
  EXPECT_EQ(parse("1.2.3.4:+5"), -1);
  EXPECT_EQ(parse("1.2.3.4: 5"), -1);
  EXPECT_EQ(parse("1.2.3.4:5 "), -1);
  EXPECT_EQ(normal("1.2.3.4:00080"), "1.2.3.4:80");
}

TEST(Netsock, Ipv4LeadingZerosPass) {
  EXPECT_EQ(normal("001.002.003.004"), "1.2.3.4:9877");
  EXPECT_EQ(normal("010.0.0.1"), "10.0.0.1:9877");
}

TEST(Netsock, Ipv4IsExactlyFourPartsOfOneToThreeDigits) {
  for (const char* text :
       {"", "1", "1.2.3", "1.2.3.4.5", "1.2.3.", ".1.2.3", "1..2.3", "256.1.1.1", "1.2.3.999",
        "0001.2.3.4", "1.2.3.4a", " 1.2.3.4", "1.2.3.4 ", "a.b.c.d", "-1.2.3.4", "0x1.2.3.4"})
    EXPECT_EQ(parse(text), -1) << text;
  EXPECT_EQ(normal("255.255.255.255"), "255.255.255.255:9877");
}

TEST(Netsock, BracketsTakeTheDefaultPortOrTheirOwn) {
  EXPECT_EQ(normal("[::1]"), "[::1]:9877");
  EXPECT_EQ(normal("[::1]:80"), "[::1]:80");
  for (const char* text :
       {"[::1]x", "[::1]:", "[::1]:0", "[::1", "[]", "[1.2.3.4]", "[::1]80", "[[::1]]", "::1]:80"})
    EXPECT_EQ(parse(text), -1) << text;
}

TEST(Netsock, BareIpv6TakesTheDefaultPort) {
  EXPECT_EQ(normal("::1:80"), "[::1:80]:9877");
}

TEST(Netsock, Ipv6HasAtMostEightGroupsAndOneGap) {
  EXPECT_EQ(normal("1:2:3:4:5:6:7:8"), "[1:2:3:4:5:6:7:8]:9877");
  EXPECT_EQ(parse("1:2:3:4:5:6:7:8:9"), -1);
  EXPECT_EQ(parse("1:2:3:4:5:6:7"), -1);
  EXPECT_EQ(parse("1::2::3"), -1);
  EXPECT_EQ(normal("::"), "[::]:9877");
}

TEST(Netsock, Ipv6GapStandsForAtLeastOneGroup) {
  EXPECT_EQ(normal("1:2:3:4:5:6:7::"), "[1:2:3:4:5:6:7:0]:9877");
  EXPECT_EQ(parse("1:2:3:4:5:6:7:8::"), -1);
  EXPECT_EQ(parse("::1:2:3:4:5:6:7:8"), -1);
  EXPECT_EQ(parse("1:2:3:4::5:6:7:8"), -1);
  EXPECT_EQ(normal("::2:3:4:5:6:7:8"), "[0:2:3:4:5:6:7:8]:9877");
}

TEST(Netsock, Ipv6EndsInADottedAddress) {
  EXPECT_EQ(normal("::ffff:1.2.3.4"), "[::ffff:102:304]:9877");
  EXPECT_EQ(normal("::1.2.3.4"), "[::102:304]:9877");
  EXPECT_EQ(normal("1:2:3:4:5:6:1.2.3.4"), "[1:2:3:4:5:6:102:304]:9877");
  EXPECT_EQ(parse("1:2:3:4:5:6:7:1.2.3.4"), -1);
  EXPECT_EQ(parse("::1.2.3.4:5"), -1);
  EXPECT_EQ(parse("::1.2.3"), -1);
  EXPECT_EQ(parse("::1.2.3.256"), -1);
}

TEST(Netsock, Ipv6RefusesStrayColonsAndWideGroups) {
  for (const char* text :
       {":::", "::1:", "1::2:", ":1::2", "::12345", "::g", "fe80::1%eth0", "1:2:", "::1 "})
    EXPECT_EQ(parse(text), -1) << text;
  EXPECT_EQ(normal("::AbCd:0012"), "[::abcd:12]:9877");
}

TEST(Netsock, ParseZeroesTheRecordOnFailureAndForNull) {
  for (const char* text : {static_cast<const char*>(nullptr), "1.2.3.4:x", "[::1]x", "::1::2"}) {
    lund_rv_endpoint out = addr("[1:2::3]:4");
    EXPECT_EQ(lund_addr_parse(&out, text, DEFAULT_PORT), -1);
    EXPECT_TRUE(lund_rv_endpoint_equal(out, lund_rv_endpoint{}));
  }
}

TEST(Netsock, BareLiteralsHaveNeitherPortNorBrackets) {
  lund_rv_endpoint out;
  EXPECT_EQ(lund_addr_parse_ip(&out, "10.0.0.1"), 0);
  EXPECT_EQ(out.family, 4);
  EXPECT_EQ(lund_addr_parse_ip(&out, "fe80::1"), 0);
  EXPECT_EQ(out.family, 6);
  EXPECT_EQ(out.port, 0);
  EXPECT_EQ(lund_addr_parse_ip(&out, "10.0.0.1:5"), -1);
  EXPECT_EQ(lund_addr_parse_ip(&out, "[::1]"), -1);
}

TEST(Netsock, FormatShortensTheFirstOfEqualZeroRuns) {
  EXPECT_EQ(normal("1:0:0:2:0:0:3:4"), "[1::2:0:0:3:4]:9877");
}

TEST(Netsock, FormatShortensTheLongestZeroRunAndNoSingleGroup) {
  EXPECT_EQ(normal("1:0:0:2:0:0:0:3"), "[1:0:0:2::3]:9877");
  EXPECT_EQ(normal("1:0:2:3:4:5:6:7"), "[1:0:2:3:4:5:6:7]:9877");
  EXPECT_EQ(normal("0:0:1:2:3:4:0:0"), "[::1:2:3:4:0:0]:9877");
  EXPECT_EQ(normal("1:2:3:4:5:6:0:0"), "[1:2:3:4:5:6::]:9877");
}

TEST(Netsock, LongestAddressTextFitsLundAddrText) {
  EXPECT_EQ(normal("[ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff]:65535"),
            "[ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff]:65535");
}

TEST(Netsock, FormatOfNoFamilyIsADash) {
  EXPECT_EQ(format(lund_rv_endpoint{}), "-");
}

TEST(Netsock, FormatIsCutToTheCapacity) {
  char text[8] = "xxxxxxx";
  EXPECT_EQ(lund_addr_format(text, 0, addr("1.2.3.4:5")), 0u);
  EXPECT_STREQ(text, "xxxxxxx");
  EXPECT_EQ(lund_addr_format(text, 1, addr("1.2.3.4:5")), 0u);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(lund_addr_format(text, 5, addr("1.2.3.4:5")), 4u);
  EXPECT_STREQ(text, "1.2.");
}

TEST(Netsock, PathClassOfWellKnownAddresses) {
  EXPECT_EQ(lund_addr_path_class(addr("100.64.0.1")), LUND_PATH_DIRECT);
  EXPECT_EQ(lund_addr_path_class(addr("fd7a:115c:a1e0::1")), LUND_PATH_DIRECT);
  EXPECT_EQ(lund_addr_path_class(addr("192.168.1.1")), LUND_PATH_LAN);
  EXPECT_EQ(lund_addr_path_class(addr("fe80::1")), LUND_PATH_LAN);
  EXPECT_EQ(lund_addr_path_class(addr("8.8.8.8")), LUND_PATH_DIRECT);
  EXPECT_EQ(lund_addr_path_class(addr("fd7a:115c:a1e1::1")), LUND_PATH_LAN);
}

TEST(Netsock, PrivateRangesEndWhereTheyShould) {
  for (const char* text :
       {"10.0.0.0", "10.255.255.255", "127.0.0.1", "172.16.0.0", "172.31.255.255", "192.168.0.0",
        "169.254.9.9", "::1", "fc00::", "fdff::1", "fe80::", "febf::1"})
    EXPECT_TRUE(lund_addr_is_private(addr(text))) << text;
  for (const char* text : {"9.255.255.255", "11.0.0.0", "172.15.0.0", "172.32.0.0", "192.167.0.0",
                           "192.169.0.0", "169.253.0.0", "169.255.0.0", "100.64.0.1", "::", "::2",
                           "fbff::1", "fe00::1", "fec0::1", "2001:db8::1"})
    EXPECT_FALSE(lund_addr_is_private(addr(text))) << text;
  EXPECT_FALSE(lund_addr_is_private(lund_rv_endpoint{}));
}

TEST(Netsock, OverlayRangesEndWhereTheyShould) {
  for (const char* text : {"100.64.0.0", "100.127.255.255", "fd7a:115c:a1e0:ffff::1"})
    EXPECT_TRUE(lund_addr_is_tailscale(addr(text))) << text;
  for (const char* text : {"100.63.255.255", "100.128.0.0", "101.64.0.0", "fd7a:115c:a1df::1"})
    EXPECT_FALSE(lund_addr_is_tailscale(addr(text))) << text;
}

TEST(Netsock, PathNamesAndLimits) {
  const char* names[] = {"-", "LAN", "Direct", "P2P", "Relay", "-"};
  for (std::int32_t path = 0; path < 6; ++path) {
    EXPECT_STREQ(lund_path_name(path), names[path]);
    EXPECT_EQ(lund_path_max_datagram(path), path == LUND_PATH_LAN ? 1400 : 1200);
    EXPECT_EQ(lund_path_payload(path), path == LUND_PATH_LAN ? 1376 : 1176);
  }
  EXPECT_STREQ(lund_path_name(-1), "-");
}

TEST(Netsock, EqualityComparesFourBytesOfIpv4AndSixteenOfIpv6) {
  lund_rv_endpoint a = addr("1.2.3.4:5");
  lund_rv_endpoint b = a;
  b.address[15] = 9;
  b.reserved = 9;
  EXPECT_TRUE(lund_rv_endpoint_equal(a, b));
  b.address[3] = 9;
  EXPECT_FALSE(lund_rv_endpoint_equal(a, b));
  a = b = addr("[1::2]:5");
  EXPECT_TRUE(lund_rv_endpoint_equal(a, b));
  b.address[15] = 9;
  EXPECT_FALSE(lund_rv_endpoint_equal(a, b));
  EXPECT_FALSE(lund_rv_endpoint_equal(addr("1.2.3.4:5"), addr("1.2.3.4:6")));
  EXPECT_FALSE(lund_rv_endpoint_equal(addr("0.0.0.0:5"), addr("[::]:5")));
}

TEST(Netsock, LocalEndpointsLeaveOutWhatPeersCannotReach) {
  EXPECT_THAT(local_endpoints({"0.1.2.3", "127.0.0.1", "169.254.1.1", "::1", "10.0.0.1"}, 16),
              ::testing::ElementsAre("10.0.0.1:7"));
}

TEST(Netsock, LocalEndpointsComePrivateFirstEachOnce) {
  EXPECT_THAT(local_endpoints({"8.8.8.8", "10.0.0.1", "9.9.9.9", "8.8.8.8", "192.168.0.1"}, 16),
              ::testing::ElementsAre("10.0.0.1:7", "192.168.0.1:7", "8.8.8.8:7", "9.9.9.9:7"));
  EXPECT_THAT(local_endpoints({"8.8.8.8", "10.0.0.1"}, 1), ::testing::ElementsAre("10.0.0.1:7"));
  EXPECT_THAT(local_endpoints({"8.8.8.8"}, 0), ::testing::IsEmpty());
  EXPECT_THAT(local_endpoints({"8.8.8.8"}, -1), ::testing::IsEmpty());
}

TEST(Netsock, LocalEndpointsStopAtSixteen) {
  LocalEndpoints endpoints(7);
  for (int i = 1; i <= 20; ++i) endpoints.add(addr(("8.8.8." + std::to_string(i)).c_str()));
  endpoints.add(addr("10.0.0.1"));
  lund_rv_endpoint out[32];
  EXPECT_EQ(endpoints.hand_out(out, 32), 16);
  EXPECT_EQ(format(out[0]), "8.8.8.1:7");
}
