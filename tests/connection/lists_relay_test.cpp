#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "connection/lists.h"

namespace {

using ::testing::Each;

constexpr std::uint8_t KEY[] = {'k', 'e', 'y'};

int parse(const std::string& text) {
  lund_relay_server server;
  return lund_relay_link_parse(&server, text.c_str());
}

// The server of a link that must parse.
lund_relay_server link(const std::string& text) {
  lund_relay_server server;
  EXPECT_EQ(lund_relay_link_parse(&server, text.c_str()), 0) << text;
  return server;
}
std::string key_of(const lund_relay_server& server) {
  return {reinterpret_cast<const char*>(server.key), static_cast<std::size_t>(server.key_size)};
}

int set(const char* host, std::uint16_t port = 1) {
  lund_relay_server server;
  return lund_relay_server_set(&server, host, port, KEY, sizeof(KEY));
}
lund_relay_server server(const char* host, std::uint16_t port = 1) {
  lund_relay_server out;
  EXPECT_EQ(lund_relay_server_set(&out, host, port, KEY, sizeof(KEY)), 0) << host;
  return out;
}

std::string format(const lund_relay_server& one) {
  char text[1024];
  return {text, lund_relay_link_format(text, sizeof(text), &one)};
}

lund_relay_config full_config() {
  lund_relay_config config;
  for (int i = 0; i < LUND_RELAYS_MAX; ++i) {
    const lund_relay_server one = server(("relay" + std::to_string(i)).c_str());
    EXPECT_EQ(lund_relay_config_add(&config, &one), i);
  }
  return config;
}

std::string save(const lund_relay_config& config) {
  std::string text(LUND_LIST_TEXT_MAX, 'x');
  text.resize(lund_relay_config_save(&config, text.data(), text.size()));
  return text;
}

const std::string FIRST_LINE = "lunderhaze-relays-v1\n";

int load(lund_relay_config* config, const std::string& text) {
  return lund_relay_config_load(config, text.data(), text.size());
}
int load(const std::string& text) {
  lund_relay_config config;
  return load(&config, text);
}

}  // namespace

TEST(RelayLink, SchemeIsMatchedWithoutRegardToCase) {
  const lund_relay_server one = link("LUNDERHAZE-RELAY://example:1#k");
  EXPECT_STREQ(one.host, "example");
  EXPECT_EQ(one.port, 1);
  EXPECT_EQ(key_of(one), "k");
  EXPECT_EQ(one.endpoint.family, 0);
}

TEST(RelayLink, PortIsOneToFiveDigitsAndNotZero) {
  EXPECT_EQ(link("lunderhaze-relay://example#k").port, 9877);
  EXPECT_EQ(link("lunderhaze-relay://example:65535#k").port, 65535);
  EXPECT_EQ(link("lunderhaze-relay://example:00001#k").port, 1);
  for (const char* port : {":0", ":65536", ":", ":000001", ":1x", ":+1", ":1:2"})
    EXPECT_EQ(parse(std::string("lunderhaze-relay://example") + port + "#k"), -1) << port;
}

TEST(RelayLink, NeedsAHashAKeyAndAHost) {
  EXPECT_EQ(parse("lunderhaze-relay://example:1k"), -1);
  EXPECT_EQ(parse("lunderhaze-relay://example#"), -1);
  EXPECT_EQ(parse("lunderhaze-relay://#k"), -1);
  EXPECT_EQ(parse("lunderhaze-relay://:1#k"), -1);
  EXPECT_EQ(parse("lunderhaze-relay:/example:1#k"), -1);
  EXPECT_EQ(parse(""), -1);
  lund_relay_server one;
  EXPECT_EQ(lund_relay_link_parse(&one, nullptr), -1);
}

TEST(RelayLink, SurroundingWhiteSpaceIsIgnored) {
  EXPECT_STREQ(link(" \t\r\nlunderhaze-relay://example#k \n").host, "example");
  EXPECT_EQ(parse("lunderhaze-relay://example #k"), -1);
  EXPECT_EQ(parse("lunderhaze-relay://example# k"), -1);
}

TEST(RelayLink, OneSlashAheadOfTheHashIsDropped) {
  EXPECT_STREQ(link("lunderhaze-relay://example:7/#k").host, "example");
  EXPECT_EQ(link("lunderhaze-relay://[::1]/#k").port, 9877);
  EXPECT_EQ(parse("lunderhaze-relay://example//#k"), -1);
  EXPECT_EQ(parse("lunderhaze-relay://example/path#k"), -1);
}

TEST(RelayLink, HostPartRefusesUrlCharacters) {
  for (const char* host : {"a%62", "a/b", "a?b", "user@host", "[fe80::1%25e]", "[::1]?"})
    EXPECT_EQ(parse(std::string("lunderhaze-relay://") + host + "#k"), -1) << host;
}

TEST(RelayLink, BracketedIpv6HasThePortOrTheDefault) {
  const lund_relay_server one = link("lunderhaze-relay://[::1]#k");
  EXPECT_STREQ(one.host, "::1");
  EXPECT_EQ(one.port, 9877);
  EXPECT_EQ(one.endpoint.family, 6);
  EXPECT_EQ(one.endpoint.port, 9877);
  EXPECT_EQ(link("lunderhaze-relay://[::1]:5#k").endpoint.port, 5);
}

TEST(RelayLink, BracketsNeedAColonAndTheirMatch) {
  for (const char* host :
       {"[abc]", "[1.2.3.4]", "[::1", "::1]", "[::1]5", "[::1]:", "[]", "[x:y]", "::1"})
    EXPECT_EQ(parse(std::string("lunderhaze-relay://") + host + "#k"), -1) << host;
}

TEST(RelayLink, Ipv4LiteralHasItsEndpoint) {
  const lund_relay_server one = link("lunderhaze-relay://10.0.0.1:5#k");
  EXPECT_EQ(one.endpoint.family, 4);
  EXPECT_EQ(one.endpoint.port, 5);
  EXPECT_EQ(one.endpoint.address[0], 10);
}

TEST(RelayLink, KeyOf128BytesPassesAndOf129Fails) {
  EXPECT_EQ(link("lunderhaze-relay://h#" + std::string(128, 'k')).key_size, 128u);
  EXPECT_EQ(parse("lunderhaze-relay://h#" + std::string(129, 'k')), -1);
}

TEST(RelayLink, KeyBytesAreThemselvesOrEscaped) {
  EXPECT_EQ(key_of(link("lunderhaze-relay://h#!%00%fF%23~")), std::string("!\0\xFF#~", 5));
  for (const char* key : {"%zz", "%", "%1", "%1g", "a#b", "a b", "a\x7F", "\xC3\xA4"})
    EXPECT_EQ(parse(std::string("lunderhaze-relay://h#") + key), -1) << key;
}

TEST(RelayLink, LengthIsAtMost671) {
  const std::string host = std::string(60, 'a') + "." + std::string(60, 'b') + "." +
                           std::string(60, 'c') + "." + std::string(60, 'd');
  std::string key;
  for (int i = 0; i < 128; ++i) key += "%41";
  const std::string longest = "lunderhaze-relay://" + host + ":12345/#" + key;
  ASSERT_LT(longest.size(), 671u);
  EXPECT_EQ(parse(longest), 0);
  EXPECT_EQ(parse("lunderhaze-relay://h#" + std::string(651, 'k')), -1);
}

TEST(RelayLink, FailedParseLeavesTheServerAlone) {
  lund_relay_server one = server("old");
  EXPECT_EQ(lund_relay_link_parse(&one, "lunderhaze-relay://new#%zz"), -1);
  EXPECT_STREQ(one.host, "old");
  EXPECT_EQ(key_of(one), "key");
}

TEST(RelayLink, FormatEscapesAllButUnreservedCharacters) {
  lund_relay_server one = server("Example.org", 9877);
  const char key[] = "aZ09-._~!/%\x01\xAB";
  std::memcpy(one.key, key, sizeof(key) - 1);
  one.key_size = sizeof(key) - 1;
  EXPECT_EQ(format(one), "lunderhaze-relay://Example.org:9877#aZ09-._~%21%2F%25%01%AB");
}

TEST(RelayLink, FormatPutsIpv6InBrackets) {
  EXPECT_EQ(format(server("[::1]", 5)), "lunderhaze-relay://[::1]:5#key");
}

TEST(RelayLink, EveryKeyByteSurvivesFormatAndParse) {
  for (const std::uint8_t first : {std::uint8_t{0}, std::uint8_t{128}}) {
    lund_relay_server one = server("example.org", 77);
    one.key_size = LUND_RELAY_KEY_MAX;
    std::iota(std::begin(one.key), std::end(one.key), first);
    const lund_relay_server back = link(format(one));
    EXPECT_TRUE(lund_relay_server_same(&one, &back));
    EXPECT_EQ(key_of(one), key_of(back));
  }
}

TEST(RelayLink, FormatRefusesAnUnfinishedServer) {
  lund_relay_server one = server("h");
  one.host[0] = '\0';
  EXPECT_EQ(format(one), "");
  one = server("h");
  one.port = 0;
  EXPECT_EQ(format(one), "");
  one = server("h");
  one.key_size = 0;
  EXPECT_EQ(format(one), "");
  one.key_size = 129;
  EXPECT_EQ(format(one), "");
}

TEST(RelayLink, FormatWantsRoomForAFullyEscapedKey) {
  const lund_relay_server one = server("h");  // key of 3 bytes
  const std::size_t room = std::strlen("lunderhaze-relay://") + std::strlen("h:1") + 3 * 3 + 2;
  std::vector<char> text(room);
  EXPECT_GT(lund_relay_link_format(text.data(), room, &one), 0u);
  EXPECT_EQ(lund_relay_link_format(text.data(), room - 1, &one), 0u);
}

TEST(RelayServer, NameIsHostAndPort) {
  char text[300];
  lund_relay_server one = server("example.org", 5);
  EXPECT_EQ(lund_relay_server_name(text, sizeof(text), &one), 13u);
  EXPECT_STREQ(text, "example.org:5");
  EXPECT_EQ(lund_relay_server_name(text, 14, &one), 13u);
  EXPECT_EQ(lund_relay_server_name(text, 13, &one), 0u);
  one = server("fe80::1", 65535);
  lund_relay_server_name(text, sizeof(text), &one);
  EXPECT_STREQ(text, "[fe80::1]:65535");
}

TEST(RelayServer, HostNameRules) {
  const std::string label63(63, 'a');
  for (const std::string& host :
       {std::string("a"), std::string("A-b_c.9x"), std::string("1.2.3.x"), label63 + "." + label63,
        std::string("_x"), std::string("999.a1")})
    EXPECT_EQ(set(host.c_str()), 0) << host;
  for (const std::string& host :
       {std::string("-a"), std::string("a-"), std::string("a.-b"), std::string("a-.b"),
        std::string("a..b"), std::string(".a"), std::string("a."), std::string("a b"),
        std::string("a*"), std::string("\xC3\xA4"), label63 + "a", std::string("a.1"),
        std::string("1")})
    EXPECT_EQ(set(host.c_str()), -1) << host;
}

TEST(RelayServer, MistypedIpv4IsRefusedByTheDigitRule) {
  EXPECT_EQ(set("10.0.0.256"), -1);
}

TEST(RelayServer, HostIsAtMost253Characters) {
  std::string host = "a";
  while (host.size() < 253) host += ".a";
  ASSERT_EQ(host.size(), 253u);
  EXPECT_EQ(set(host.c_str()), 0);
  EXPECT_EQ(set(("b" + host).c_str()), -1);
}

TEST(RelayServer, SetTrimsAndStripsOnePairOfBrackets) {
  EXPECT_STREQ(server(" \texample ").host, "example");
  EXPECT_STREQ(server(" [fe80::1] ").host, "fe80::1");
  for (const char* host : {"", "   ", "[example]", "[10.0.0.1]", "[[::1]]", "[::1", "[", "[]",
                           "::1]", "example:5", "[::1]:5"})
    EXPECT_EQ(set(host), -1) << host;
}

TEST(RelayServer, SetRefusesNullsAndKeySizesOutOfRange) {
  lund_relay_server one;
  const std::uint8_t key[129] = {};
  EXPECT_EQ(lund_relay_server_set(nullptr, "h", 1, key, 1), -1);
  EXPECT_EQ(lund_relay_server_set(&one, nullptr, 1, key, 1), -1);
  EXPECT_EQ(lund_relay_server_set(&one, "h", 1, nullptr, 1), -1);
  EXPECT_EQ(lund_relay_server_set(&one, "h", 1, key, 0), -1);
  EXPECT_EQ(lund_relay_server_set(&one, "h", 1, key, 129), -1);
  EXPECT_EQ(lund_relay_server_set(&one, "h", 1, key, 128), 0);
}

TEST(RelayServer, PortZeroBecomesTheDefault) {
  EXPECT_EQ(server("h", 0).port, 9877);
  EXPECT_EQ(server("10.0.0.1", 0).endpoint.port, 9877);
}

TEST(RelayServer, SameMeansHostWithoutCaseAndPort) {
  const lund_relay_server a = server("Example", 1), b = server("eXAMPLE", 1);
  const lund_relay_server c = server("example", 2), d = server("examples", 1);
  EXPECT_TRUE(lund_relay_server_same(&a, &b));
  EXPECT_FALSE(lund_relay_server_same(&a, &c));
  EXPECT_FALSE(lund_relay_server_same(&a, &d));
}

TEST(RelayConfig, NinthServerIsRefused) {
  lund_relay_config config = full_config();
  const lund_relay_server ninth = server("ninth");
  EXPECT_EQ(lund_relay_config_add(&config, &ninth), -1);
  EXPECT_EQ(config.count, 8);
}

TEST(RelayConfig, ReAddingTheFirstReplacesItsKeyInPlace) {
  lund_relay_config config = full_config();
  EXPECT_EQ(lund_relay_config_add_link(&config, "lunderhaze-relay://RELAY0:1#other"), 0);
  EXPECT_EQ(config.count, 8);
  EXPECT_EQ(key_of(config.servers[0]), "other");
  EXPECT_STREQ(config.servers[0].host, "RELAY0");
}

TEST(RelayConfig, AddTakesOverAResolvedEndpoint) {
  lund_relay_config config;
  lund_relay_server one = server("example", 5);
  ASSERT_EQ(lund_addr_parse(&one.endpoint, "192.0.2.1:5", 0), 0);
  ASSERT_EQ(lund_relay_config_add(&config, &one), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(config.servers[0].endpoint, one.endpoint));
  lund_relay_server literal = server("10.0.0.1", 5);
  ASSERT_EQ(lund_addr_parse(&literal.endpoint, "192.0.2.1:5", 0), 0);
  ASSERT_EQ(lund_relay_config_add(&config, &literal), 1);
  EXPECT_EQ(config.servers[1].endpoint.address[0], 10);
}

TEST(RelayConfig, AddValidatesAgain) {
  lund_relay_config config;
  lund_relay_server bad = server("h");
  std::strcpy(bad.host, "not a host");
  EXPECT_EQ(lund_relay_config_add(&config, &bad), -1);
  bad = server("h");
  bad.key_size = 0;
  EXPECT_EQ(lund_relay_config_add(&config, &bad), -1);
  bad = server("h");
  std::memset(bad.host, 'a', sizeof(bad.host));  // without an end
  EXPECT_EQ(lund_relay_config_add(&config, &bad), -1);
  EXPECT_EQ(lund_relay_config_add_link(&config, "lunderhaze-relay://h#"), -1);
  EXPECT_EQ(config.count, 0);
}

TEST(RelayConfig, RemoveClosesTheGapAndForgetsTheKey) {
  lund_relay_config config = full_config();
  EXPECT_EQ(lund_relay_config_remove(&config, 8), -1);
  EXPECT_EQ(lund_relay_config_remove(&config, -1), -1);
  ASSERT_EQ(lund_relay_config_remove(&config, 2), 0);
  EXPECT_EQ(config.count, 7);
  EXPECT_STREQ(config.servers[1].host, "relay1");
  EXPECT_STREQ(config.servers[2].host, "relay3");
  EXPECT_STREQ(config.servers[6].host, "relay7");
  EXPECT_THAT(config.servers[7].key, Each(0));
  EXPECT_STREQ(config.servers[7].host, "");
}

TEST(RelayConfig, EmptyListSavesAs21BytesAndWants22) {
  const lund_relay_config config;
  char text[64];
  EXPECT_EQ(lund_relay_config_save(&config, text, 22), 21u);
  EXPECT_EQ(std::string(text), FIRST_LINE);
  EXPECT_EQ(lund_relay_config_save(&config, text, 21), 0u);
  EXPECT_EQ(lund_relay_config_save(&config, nullptr, 0), 0u);
}

TEST(RelayConfig, SaveWritesOneLinkALine) {
  lund_relay_config config;
  lund_relay_config_add_link(&config, "lunderhaze-relay://a:1#k");
  lund_relay_config_add_link(&config, "lunderhaze-relay://[::1]#%00");
  EXPECT_EQ(save(config),
            FIRST_LINE + "lunderhaze-relay://a:1#k\nlunderhaze-relay://[::1]:9877#%00\n");
}

TEST(RelayConfig, OverflowingSaveWipesTheOutput) {
  const lund_relay_config config = full_config();
  const std::size_t size = save(config).size();
  std::string text(size + 1, 'x');
  EXPECT_EQ(lund_relay_config_save(&config, text.data(), size + 1), size);
  EXPECT_EQ(lund_relay_config_save(&config, text.data(), size), 0u);
  EXPECT_THAT(text.substr(0, size), Each('\0'));
}

TEST(RelayConfig, SaveOfAnInvalidServerFails) {
  lund_relay_config config = full_config();
  config.servers[3].key_size = 0;
  EXPECT_EQ(save(config), "");
}

TEST(RelayConfig, SavedListLoadsTheSame) {
  const lund_relay_config config = full_config();
  lund_relay_config back;
  ASSERT_EQ(load(&back, save(config)), 0);
  EXPECT_EQ(save(back), save(config));
  EXPECT_EQ(back.count, 8);
}

TEST(RelayConfig, FirstLineWithATrailingBlankStillLoads) {
  EXPECT_EQ(load("lunderhaze-relays-v1 \n"), 0);
  EXPECT_EQ(load(" \tlunderhaze-relays-v1\r\n"), 0);
  EXPECT_EQ(load("lunderhaze-relays-v1"), 0);
  for (const char* text : {"", "\n", "lunderhaze-relays-v2\n", "lunderhaze-relays-v11\n",
                           "Lunderhaze-relays-v1\n", "\nlunderhaze-relays-v1\n"})
    EXPECT_EQ(load(text), -1) << text;
}

TEST(RelayConfig, LoadSkipsBlankLinesAndTakesCarriageReturns) {
  lund_relay_config config;
  ASSERT_EQ(
      load(&config, FIRST_LINE + "\r\n  \t\nlunderhaze-relay://a#k\r\n\nlunderhaze-relay://b#k"),
      0);
  ASSERT_EQ(config.count, 2);
  EXPECT_STREQ(config.servers[1].host, "b");
}

TEST(RelayConfig, LoadRefusesAZeroByteABadLinkAndAnOverlongLine) {
  EXPECT_EQ(load(FIRST_LINE + std::string("lunderhaze-relay://a#k\0\n", 24)), -1);
  EXPECT_EQ(load(FIRST_LINE + std::string("\0\n", 2)), -1);
  EXPECT_EQ(load(FIRST_LINE + "nonsense\n"), -1);
  const std::string one = "lunderhaze-relay://a#k";
  EXPECT_EQ(load(FIRST_LINE + one + std::string(679 - one.size(), ' ') + "\n"), 0);
  EXPECT_EQ(load(FIRST_LINE + one + std::string(680 - one.size(), ' ') + "\n"), -1);
  lund_relay_config config;
  EXPECT_EQ(lund_relay_config_load(&config, nullptr, 0), -1);
}

TEST(RelayConfig, LoadRefusesANinthServer) {
  const std::string eight = save(full_config());
  EXPECT_EQ(load(eight), 0);
  EXPECT_EQ(load(eight + "lunderhaze-relay://ninth#k\n"), -1);
  EXPECT_EQ(load(eight + "lunderhaze-relay://relay0:1#k\n"), 0);  // the first one again
}

TEST(RelayConfig, FailedLoadLeavesNoKeyBehind) {
  lund_relay_config config = full_config();
  EXPECT_EQ(load(&config, FIRST_LINE + "lunderhaze-relay://a#secret\nnonsense\n"), -1);
  EXPECT_EQ(config.count, 0);
  for (const lund_relay_server& one : config.servers) {
    EXPECT_EQ(one.key_size, 0u);
    EXPECT_THAT(one.key, Each(0));
    EXPECT_STREQ(one.host, "");
  }
}

TEST(RelayConfig, StoredStateChoosesBetweenTheBuiltInLinkAndTheBytes) {
  const std::string stored = FIRST_LINE + "lunderhaze-relay://a#k\n";
  lund_relay_config config = full_config();
  EXPECT_EQ(lund_relay_config_load_stored(&config, stored.data(), stored.size(), 1), 0);
  EXPECT_EQ(config.count, 1);
  EXPECT_EQ(lund_relay_config_load_stored(&config, stored.data(), stored.size(), 2), -1);
  EXPECT_EQ(config.count, 0);
  EXPECT_EQ(lund_relay_config_load_stored(&config, stored.data(), stored.size(), -1), -1);
  EXPECT_EQ(lund_relay_config_load_stored(&config, "bad", 3, 1), -1);
}

TEST(RelayConfig, NothingStoredGivesTheBuiltInLinkAlone) {
  lund_relay_config config = full_config();
  ASSERT_EQ(lund_relay_config_load_stored(&config, nullptr, 0, 0), 0);
  EXPECT_LE(config.count, 1);  // none, unless this build has one
  EXPECT_STRNE(config.servers[0].host, "relay0");
  EXPECT_STREQ(config.servers[1].host, "");
}

TEST(RelayConfig, EmptyBuiltInLinkAddsNothing) {
  lund_relay_config config;
  EXPECT_EQ(lund_relay_config_add_default(&config, ""), 0);
  EXPECT_EQ(config.count, 0);
  EXPECT_EQ(lund_relay_config_add_default(&config, "lunderhaze-relay://a#k"), 0);
  EXPECT_EQ(config.count, 1);
  EXPECT_EQ(lund_relay_config_add_default(&config, "nonsense"), -1);
}
