#include "apps/client/known_hosts.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

lund_rv_endpoint at(const char* address) {
  lund_rv_endpoint endpoint;
  lund_addr_parse(&endpoint, address, 9876);
  return endpoint;
}

lund_host_list knowing(std::uint32_t lan_id, const char* address) {
  lund_host_list hosts;
  hosts.count = 1;
  std::memset(hosts.entries[0].key, 7, LUND_KEY_SIZE);
  hosts.entries[0].lan_id = lan_id;
  hosts.entries[0].lan_endpoint = at(address);
  return hosts;
}

std::vector<FoundHost> found(std::uint32_t lan_id, std::initializer_list<const char*> addresses) {
  FoundHost host;
  host.reply.lan_id = lan_id;
  for (const char* address : addresses) host.addresses.push_back(at(address));
  return {host};
}

TEST(KnownHosts, AHostThatHasMovedIsRecognisedByItsId) {
  const auto updated = updated_by(found(9, {"10.0.0.8", "127.0.0.1"}), knowing(9, "10.0.0.5"));
  ASSERT_EQ(updated.size(), 1u);
  EXPECT_TRUE(lund_rv_endpoint_equal(updated[0].lan_endpoint, at("10.0.0.8")));
  EXPECT_EQ(updated[0].key[0], 7);
}

TEST(KnownHosts, AHostWithoutAnIdIsRecognisedByItsAddressAndGetsOne) {
  const auto updated = updated_by(found(9, {"10.0.0.8", "10.0.0.5"}), knowing(0, "10.0.0.5"));
  ASSERT_EQ(updated.size(), 1u);
  EXPECT_EQ(updated[0].lan_id, 9u);
  EXPECT_TRUE(lund_rv_endpoint_equal(updated[0].lan_endpoint, at("10.0.0.5")));
}

TEST(KnownHosts, NothingNewIsNoUpdate) {
  EXPECT_TRUE(updated_by(found(9, {"10.0.0.8", "10.0.0.5"}), knowing(9, "10.0.0.5")).empty());
  EXPECT_TRUE(updated_by({}, knowing(9, "10.0.0.5")).empty());
}

TEST(KnownHosts, AnotherHostAtTheOldAddressIsNotTakenForIt) {
  EXPECT_TRUE(updated_by(found(8, {"10.0.0.5"}), knowing(9, "10.0.0.5")).empty());
}

TEST(KnownHosts, AHostWithoutAnAddressIsNotTakenForAnyone) {
  lund_host_list hosts = knowing(0, "10.0.0.5");
  hosts.entries[0].lan_endpoint = {};
  EXPECT_TRUE(updated_by(found(8, {"10.0.0.5"}), hosts).empty());
}

lund_conn_event path(std::int32_t path_class, const char* address) {
  lund_conn_event event;
  event.path = path_class;
  event.addr = at(address);
  return event;
}

TEST(KnownHosts, AfterASessionItIsKnownWhereTheHostWas) {
  PathHistory paths;
  paths.begin(path(LUND_PATH_RELAY, "203.0.113.1:9877"), 0, {});
  paths.begin(path(LUND_PATH_P2P, "198.51.100.7:5000"), 1, {});
  lund_host_entry host = knowing(9, "10.0.0.5").entries[0];
  learn(paths, LanSearch(), 1234, &host);
  EXPECT_EQ(host.last_used, 1234u);
  EXPECT_TRUE(lund_rv_endpoint_equal(host.wan_endpoint, at("198.51.100.7:5000")));
  EXPECT_TRUE(lund_rv_endpoint_equal(host.lan_endpoint, at("10.0.0.5"))) << "it may be back there";
  EXPECT_EQ(host.lan_id, 9u);
}

}  // namespace
