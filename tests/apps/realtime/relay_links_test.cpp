#include "apps/client/relay_links.h"

#include <gtest/gtest.h>

#include <sstream>

#include "apps/client/commands.h"
#include "connection/resolver.h"
#include "tests/support/temp_directory.h"

using namespace client_app;

namespace {

constexpr char LINK[] = "lunderhaze-relay://relay.example#top-secret";

class RelayLinks : public testing::Test {
 protected:
  bool read(const std::string& text) {
    std::istringstream in(text);
    return read_relay_links(in, "standard input", &relays_, &error_);
  }
  lund_relay_config relays_;
  std::string error_;
};

TEST_F(RelayLinks, LinesAreReadAndBlankOnesSkipped) {
  ASSERT_TRUE(read(std::string("\n  ") + LINK + "  \r\n\nlunderhaze-relay://[::1]:5#k"));
  ASSERT_EQ(relays_.count, 2);
  EXPECT_EQ(relay_name(relays_.servers[0]), "relay.example:9877");
  EXPECT_EQ(relay_name(relays_.servers[1]), "[::1]:5");
}

TEST_F(RelayLinks, AMalformedLineIsNamedByItsNumberAndNotShown) {
  EXPECT_FALSE(read(std::string(LINK) + "\nlunderhaze-relay://x y#top-secret\n"));
  EXPECT_NE(error_.find("line 2 of standard input"), std::string::npos) << error_;
  EXPECT_EQ(error_.find("top-secret"), std::string::npos) << error_;
  EXPECT_FALSE(given_relays({"relay.example#top-secret"}, {}, &relays_, &error_));
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

TEST_F(RelayLinks, ANinthLinkIsSaid) {
  std::string text;
  for (int i = 1; i <= 9; ++i) text += "lunderhaze-relay://10.0.0." + std::to_string(i) + "#k\n";
  EXPECT_FALSE(read(text));
  EXPECT_EQ(error_, "more than 8 relay servers");
}

TEST_F(RelayLinks, WhatIsGivenComesBeforeWhatIsRemembered) {
  lund_relay_config remembered;
  for (int i = 1; i <= 8; ++i)
    lund_relay_config_add_link(&remembered,
                               ("lunderhaze-relay://10.0.0." + std::to_string(i) + "#old").c_str());
  ASSERT_TRUE(read("lunderhaze-relay://10.0.0.3#new\nlunderhaze-relay://relay.example#k\n"));
  const lund_relay_config all = relays_to_use(relays_, remembered);
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
  ASSERT_TRUE(read(LINK));
  std::string text;
  remember_relays(relays_, &store, &text);
  EXPECT_EQ(text, "relay server relay.example:9877 is remembered\n");
  text.clear();
  remember_relays(relays_, &store, &text);
  EXPECT_EQ(text, "");
  ASSERT_TRUE(read("lunderhaze-relay://relay.example#another-secret"));
  remember_relays(relays_, &store, &text);
  EXPECT_EQ(text, "relay server relay.example:9877 is remembered\n") << "its key has changed";
  ASSERT_TRUE(store.open(directory / "client", &error_));
  EXPECT_EQ(store.relays().count, 1);
  EXPECT_EQ(store.relays().servers[0].key[0], 'a');
}

TEST_F(RelayLinks, EachResultOfACheckHasItsTextAndStatus) {
  EXPECT_EQ(relay_check_text(LUND_RELAY_REACHABLE, 12'340), "reachable (rtt 12.3 ms)");
  EXPECT_EQ(relay_check_text(LUND_RELAY_NO_ANSWER, 0),
            "no answer: offline, blocked, or wrong secret");
  EXPECT_EQ(relay_check_text(LUND_RELAY_NO_NAME, 0), "name not found");
  EXPECT_EQ(relay_check_text(LUND_RELAY_LOCAL_FAILURE, 0).find("local failure"), 0u);
  EXPECT_EQ(relay_check_status(LUND_RELAY_REACHABLE), EXIT_OK);
  EXPECT_EQ(relay_check_status(LUND_RELAY_NO_ANSWER), EXIT_NO_ANSWER);
  EXPECT_EQ(relay_check_status(LUND_RELAY_NO_NAME), EXIT_NO_ANSWER);
  EXPECT_EQ(relay_check_status(LUND_RELAY_LOCAL_FAILURE), EXIT_LOCAL);
}

}  // namespace
