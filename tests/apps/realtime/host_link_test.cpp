#include "apps/client/host_link.h"

#include <gtest/gtest.h>

#include "apps/client/host_choice.h"
#include "tests/support/engine_peer.h"
#include "tests/support/socket_host.h"

namespace {

constexpr std::uint8_t CLIENT = 2, HOST = 1;
constexpr std::uint64_t QUESTIONS_US = 1'800'000;  // after the third: at 0, 0.5 and 1.5 s

class HostLinkTest : public testing::Test {
 protected:
  void SetUp() override { host_.be_discoverable(9, "desk"); }

  void open() {
    lund_client_config config;
    config.identity = peer::keypair_of(CLIENT);
    config.has_host_key = 1;
    std::memcpy(config.host_key, peer::keypair_of(HOST).public_key, LUND_KEY_SIZE);
    std::string error;
    ASSERT_TRUE(link_.open(config, &error)) << error;
  }
  void look_for_host(std::uint32_t lan_id) {
    LanWanted wanted{LanWanted::By::LanId, lan_id, "desk", host_.address().port};
    link_.look_for(wanted);
  }
  // True when a session came up in that time.
  bool connect_for(std::uint64_t us, bool until_up) {
    bool up = false;
    lund_client_connect(link_.engine());
    link_.run(
        lund_now_us() + us, [](const std::uint8_t*, std::size_t, const PacketOrder&) {},
        [&](const lund_conn_event& event) { up |= event.type == LUND_EV_CLIENT_SESSION_UP; },
        [&] { return up && until_up; });
    return up;
  }
  void admit() {
    lund_host_add_client(host_.engine(), peer::keypair_of(CLIENT).public_key, "laptop");
  }

  SocketHost host_{peer::keypair_of(HOST), "desk"};
  HostLink link_;
};

TEST_F(HostLinkTest, AKnownHostIsReachedAtTheAddressThatItAnswersFrom) {
  admit();
  open();
  look_for_host(9);
  EXPECT_TRUE(connect_for(10'000'000, true));
  EXPECT_EQ(link_.lan_search().lan_id_at(host_.address()), 9u);
}

TEST_F(HostLinkTest, AnotherHostsAnswerIsNoAddressToTry) {
  admit();
  open();
  look_for_host(10);
  EXPECT_FALSE(connect_for(QUESTIONS_US, true));
  EXPECT_GT(host_.questions(), 0);
}

TEST_F(HostLinkTest, OnALanPathNobodyIsAsked) {
  admit();
  open();
  ASSERT_EQ(lund_client_add_candidate(link_.engine(), &host_.address(), 0), 0);
  ASSERT_TRUE(connect_for(10'000'000, true));
  look_for_host(9);
  connect_for(QUESTIONS_US, false);
  EXPECT_EQ(host_.questions(), 0);
}

}  // namespace
