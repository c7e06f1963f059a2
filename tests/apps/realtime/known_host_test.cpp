#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "apps/lunderhaze/pair_back.h"
#include "control/client_store.h"
#include "tests/support/temp_directory.h"

namespace {

class KnownHost : public testing::Test {
 protected:
  static lund_rv_endpoint address(const char* text) {
    lund_rv_endpoint parsed;
    EXPECT_EQ(lund_addr_parse(&parsed, text, 0), 0);
    return parsed;
  }
  void remember() { ASSERT_TRUE(remember_host(offer_, directory_.path(), &error_)) << error_; }
  // As the client finds it.
  lund_host_entry known(const std::string& selector) {
    ClientStore store;
    EXPECT_TRUE(store.open(directory_.path(), &error_)) << error_;
    EXPECT_EQ(store.hosts().count, 1);
    const lund_host_entry* host = store.find(selector);
    EXPECT_NE(host, nullptr);
    return host != nullptr ? *host : lund_host_entry{};
  }

  TempDirectory directory_;
  PairBackOffer offer_{{7}, "desk", "10.0.0.1:9876", address("10.0.0.1:9876")};
  std::string error_;
};

TEST_F(KnownHost, AnAcceptedOfferIsAHostForTheClient) {
  remember();
  const lund_host_entry host = known("desk");
  EXPECT_TRUE(std::equal(offer_.key.begin(), offer_.key.end(), host.key));
  EXPECT_TRUE(lund_rv_endpoint_equal(host.lan_endpoint, offer_.lan));
  EXPECT_NE(host.added_at, 0u);
}

TEST_F(KnownHost, AHostThatWasKnownKeepsWhatTheOfferDoesNotSay) {
  lund_host_entry former;
  std::ranges::copy(offer_.key, former.key);
  std::strcpy(former.name, "old name");
  former.lan_id = 5;
  former.lan_endpoint = address("10.0.0.9:1");
  former.wan_endpoint = address("1.2.3.4:5");
  former.added_at = 1'000;
  former.last_used = 2'000;
  {
    ClientStore store;
    ASSERT_TRUE(store.open(directory_.path(), &error_)) << error_;
    ASSERT_TRUE(store.put(former, &error_)) << error_;
  }
  remember();
  lund_host_entry host = known("desk");
  EXPECT_TRUE(lund_rv_endpoint_equal(host.lan_endpoint, offer_.lan));
  EXPECT_TRUE(lund_rv_endpoint_equal(host.wan_endpoint, former.wan_endpoint));
  EXPECT_EQ(host.lan_id, 5u);
  EXPECT_EQ(host.added_at, 1'000u);
  EXPECT_EQ(host.last_used, 2'000u);

  offer_.lan = {};
  remember();
  host = known("desk");
  EXPECT_TRUE(lund_rv_endpoint_equal(host.lan_endpoint, address("10.0.0.1:9876")));
}

TEST_F(KnownHost, AClientStoreThatCannotBeWrittenIsNamed) {
  EXPECT_FALSE(remember_host(offer_, "/proc/no/such/place", &error_));
  EXPECT_NE(error_.find("/proc/no/such/place"), std::string::npos) << error_;
}

}  // namespace
