#include "apps/client/relay_links.h"

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"

using namespace client_app;

namespace {

constexpr char LINK[] = "lunderhaze-relay://relay.example#top-secret";

class RelayLinks : public testing::Test {
 protected:
  bool give(const std::vector<std::string>& links) {
    return given_relays(links, {}, &relays_, &error_);
  }
  lund_relay_config relays_;
  std::string error_;
};

TEST_F(RelayLinks, OneThatIsMalformedIsNamedByItsNumberAndNotShown) {
  EXPECT_FALSE(give({LINK, "lunderhaze-relay://x y#top-secret"}));
  EXPECT_NE(error_.find("link 2"), std::string::npos) << error_;
  EXPECT_EQ(error_.find("top-secret"), std::string::npos) << error_;
}

TEST_F(RelayLinks, TheCommandLineAndAFileAreAddedUp) {
  const TempDirectory directory;
  write_file(directory / "links", "lunderhaze-relay://other.example#k\n");
  ASSERT_TRUE(given_relays({LINK}, directory / "links", &relays_, &error_)) << error_;
  EXPECT_EQ(relays_.count, 2);
  EXPECT_FALSE(given_relays({}, directory / "missing", &relays_, &error_));
  EXPECT_NE(error_.find("missing"), std::string::npos) << error_;
}

TEST_F(RelayLinks, WhatIsGivenComesBeforeWhatIsRemembered) {
  lund_relay_config remembered;
  for (int i = 1; i <= 8; ++i)
    lund_relay_config_add_link(&remembered,
                               ("lunderhaze-relay://10.0.0." + std::to_string(i) + "#old").c_str());
  ASSERT_TRUE(give({"lunderhaze-relay://10.0.0.3#new", "lunderhaze-relay://relay.example#k"}));
  lund_relay_config all;
  relays_to_use(relays_, remembered, &all);
  ASSERT_EQ(all.count, 8);
  EXPECT_EQ(relay_name(all.servers[0]), "10.0.0.3:9877");
  EXPECT_EQ(all.servers[0].key[0], 'n');
  EXPECT_EQ(relay_name(all.servers[1]), "relay.example:9877");
  EXPECT_EQ(relay_name(all.servers[2]), "10.0.0.1:9877");
}

TEST_F(RelayLinks, OnlyWhatIsNewIsRememberedAndSaid) {
  const TempDirectory directory;
  ClientStore store;
  ASSERT_TRUE(store.open(directory / "client", &error_)) << error_;
  ASSERT_TRUE(give({LINK}));
  const std::string news = "relay server relay.example:9877 is remembered\n";
  EXPECT_EQ(remember_relays(relays_, &store), news);
  EXPECT_EQ(remember_relays(relays_, &store), "");
  ASSERT_TRUE(give({"lunderhaze-relay://relay.example#another-secret"}));
  EXPECT_EQ(remember_relays(relays_, &store), news) << "its key has changed";
  ASSERT_TRUE(store.open(directory / "client", &error_));
  EXPECT_EQ(store.relays().count, 1);
  EXPECT_EQ(store.relays().servers[0].key[0], 'a');
}

}  // namespace
