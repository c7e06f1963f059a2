// What happens to a stream when the ways between host and client change under it.
#include <functional>

#include "tests/system/reach_support.h"

namespace system_test {
namespace {

class ReachMovesTest : public ReachTest {
 protected:
  void prepare(Nat host, std::optional<Nat> client) {
    build(host, client);
    start_server();
    start_registered_host();
    pair_at_home();
  }
  // Ends the stream, and prints what the change has cost.
  nlohmann::json end_and_tell() {
    nlohmann::json json = end_stream();
    std::printf("frames: %s, lost: %s, paths: %s\n", json["frames"].dump().c_str(),
                json["frames_lost"].dump().c_str(), json["paths"].dump().c_str());
    RecordProperty("frames_lost", json["frames_lost"].dump());
    EXPECT_EQ(json["frames_undecodable"], 0);
    return json;
  }
  // A client behind this router streams from a host that anyone can reach; then its address as the
  // host sees it changes.
  void expect_no_break(Nat router, const std::function<void()>& change,
                       const std::string& host_log_line) {
    prepare(Nat::FULL_CONE, router);
    connect();
    await_path("P2P");
    await_lines(2);
    const std::size_t from = host_->output().size();
    change();
    ASSERT_TRUE(host_->wait_for_output(host_log_line, seconds(10), from)) << host_->output();
    await_lines(3);
    const auto json = end_and_tell();
    // The next packet from the client, one of which goes out each 0.2 s, moves the session.
    EXPECT_LE(json["frames_lost"].get<int>(), 2 * FRAMES_A_SECOND);
    EXPECT_TRUE(json["reconnects"].empty());
    EXPECT_GT(json["frames"].get<int>(), 30);
  }
  static constexpr int FRAMES_A_SECOND = 35;  // 30 are asked for, and pacing gives up to 34
};

TEST_F(ReachMovesTest, ALanPathThatAppearsInTheFirstSecondsIsTakenAtOnce) {
  prepare(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED);
  connect();
  plug_in_at_home();
  await_path("LAN");
  await_lines(1);
  EXPECT_NE(receiver_->output().find("-> LAN 192.168.1.10:9876 (better path,"), std::string::npos);
  const double after = logged_at("-> LAN") - logged_at(" up via ");
  std::printf("on the LAN %.3f s after the session's beginning\n", after);
  EXPECT_LT(after, 2.0);
  const auto json = end_and_tell();
  EXPECT_EQ(json["frames_lost"], 0);
  EXPECT_EQ(json["paths"].back()["class"], "LAN");
  EXPECT_GT(json["paths"].back()["frames"].get<int>(), 0);
}

TEST_F(ReachMovesTest, ALanPathThatAppearsLaterIsTakenAfterThreeSteadySeconds) {
  prepare(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED);
  connect();
  await_lines(3);  // past the first two seconds
  const Stopwatch before;
  plug_in_at_home();
  const Stopwatch plugged_in;
  await_path("LAN");
  EXPECT_NE(receiver_->output().find("P2P -> LAN 192.168.1.10:9876 (better path is back,"),
            std::string::npos);
  std::printf("on the LAN %.3f s after the cable\n", plugged_in.seconds());
  EXPECT_GE(before.seconds(), 3.0);
  EXPECT_LE(plugged_in.seconds(), 3.0 + 1.5);  // a probe each 0.2 s; the rest is slack
  await_lines(2);
  const auto json = end_and_tell();
  EXPECT_EQ(json["frames_lost"], 0);
  EXPECT_GT(json["paths"].back()["frames"].get<int>(), 0);
}

TEST_F(ReachMovesTest, AStreamLeavesALanThatIsGoneForTheNextBestPath) {
  prepare(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED);
  plug_in_at_home();
  connect();
  await_path("LAN");
  await_lines(3);
  const std::size_t from = said();
  const Stopwatch before;
  leave_home();
  await_path("P2P", from);
  std::printf("on P2P %.3f s after the cable was pulled\n", before.seconds());
  EXPECT_LE(before.seconds(), 1.2 + 1.5);  // silence counts after 1.2 s; the rest is slack
  await_lines(2);
  const auto json = end_and_tell();
  EXPECT_LE(json["frames_lost"].get<int>(), 3 * FRAMES_A_SECOND);
  EXPECT_GT(json["paths"].back()["frames"].get<int>(), 0);
  EXPECT_TRUE(json["reconnects"].empty());
}

TEST_F(ReachMovesTest, AStreamFromPeerToPeerDoesNotNeedTheServerAnyMore) {
  prepare(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED);
  connect();
  await_path("P2P");
  kill_server();
  await_lines(5);
  const auto json = end_and_tell();
  EXPECT_EQ(json["frames_lost"], 0);
  EXPECT_EQ(json["path"]["class"], "P2P");
  EXPECT_TRUE(json["reconnects"].empty());
}

TEST_F(ReachMovesTest, AStreamThatOnlyARelayCarriesComesBackAfterItsServerWasOutOfReach) {
  prepare(Nat::SYMMETRIC, Nat::SYMMETRIC);
  connect("all", {"--reconnect"});
  await_lines(2);
  lab_->block("client-router", SERVER);
  ASSERT_TRUE(
      receiver_->wait_for_output("the host has fallen silent: connecting again", seconds(10)))
      << receiver_->output();
  const Stopwatch reachable;
  lab_->unblock("client-router");
  ASSERT_TRUE(receiver_->wait_for_output("back after", seconds(30))) << receiver_->output();
  std::printf("back %.3f s after the server was in reach again\n", reachable.seconds());
  EXPECT_LE(reachable.seconds(), 3.0);  // handshakes go out each 0.25 s; the rest is slack
  await_lines(1);
  const auto json = end_and_tell();
  EXPECT_EQ(json["reconnects"].size(), 1U);
  EXPECT_EQ(json["path"]["class"], "Relay");
}

TEST_F(ReachMovesTest, AClientWithANewAddressOnItsLanGoesOn) {
  expect_no_break(
      Nat::PORT_RESTRICTED, [this] { lab_->change_address("client", "eth0", "192.168.2.21"); },
      "path -> Direct 198.51.100.2");
}

TEST_F(ReachMovesTest, AClientWhoseRouterMapsItAnewGoesOn) {
  expect_no_break(
      Nat::SYMMETRIC, [this] { lab_->forget_mappings("client-router"); },
      "path -> Direct 198.51.100.2");
}

TEST_F(ReachMovesTest, AClientWhoseRouterHasANewPublicAddressGoesOn) {
  expect_no_break(
      Nat::PORT_RESTRICTED,
      [this] { lab_->change_public_address("client-router", "198.51.100.99"); },
      "path -> Direct 198.51.100.99");
}

// The hole in the host's router is for the client's old mapping, and the relay knows the client by
// it too.
TEST_F(ReachMovesTest, AClientWithANewAddressThatTheHostsRouterKeepsOutComesBack) {
  prepare(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED);
  connect("all", {"--reconnect"});
  await_path("P2P");
  await_lines(2);
  const Stopwatch before;
  lab_->change_address("client", "eth0", "192.168.2.21");
  ASSERT_TRUE(receiver_->wait_for_output("back after", seconds(30))) << receiver_->output();
  std::printf("back %.3f s after the change\n", before.seconds());
  EXPECT_LE(before.seconds(), 5.0 + 3.0);  // silence of 5 s ends a session; the rest is slack
  await_path("P2P", receiver_->output().find("connecting again"));
  await_lines(1);
  const auto json = end_and_tell();
  EXPECT_EQ(json["reconnects"].size(), 1U);
}

}  // namespace
}  // namespace system_test
