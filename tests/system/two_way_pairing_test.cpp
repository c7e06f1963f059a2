// Two computers of which each becomes the other's client by one pairing. Both are here: two stores,
// two hosts on one desktop, each with the client of its own store.
#include <signal.h>

#include "connection/netsock.h"
#include "tests/system/system_support.h"

namespace system_test {
namespace {

class TwoWayPairingTest : public SystemTest {
 protected:
  // The computer that offers; the other is the test's own host.
  void SetUp() override {
    SystemTest::SetUp();
    start_desktop(640, 480);
    their_environment_ = environment_;
    their_environment_["XDG_CONFIG_HOME"] = (directory_ / "their config").string();
    their_environment_["XDG_STATE_HOME"] = (directory_ / "their state").string();
  }

  void start_their_host() {
    their_host_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program("lunderhaze"), "--port", std::to_string(their_port_),
                                 "--codec", "h264"},
        their_environment_);
    ASSERT_TRUE(their_host_->wait_for_output("Listening on UDP port", seconds(20)))
        << their_host_->output();
  }
  std::unique_ptr<ChildProcess> start_offer() {
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{program("lunderhaze-client"), "pair", "--host", host_address(),
                                 "--pin", shown_pin(), "--back", "--back-port",
                                 std::to_string(their_port_)},
        their_environment_);
  }
  std::string their_code() const {
    const std::size_t at = their_host_->output().find("key code ");
    return their_host_->output().substr(at + 9, 9);
  }
  RunResult own_client(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program("lunderhaze-client"));
    return run_program(arguments, environment_, seconds(60));
  }

  void connect_to_them() {
    const RunResult known = own_client({"hosts"});
    EXPECT_NE(known.output.find(their_code()), std::string::npos) << known.output;
    lund_rv_endpoint network;
    if (lund_net_local_endpoints(&network, 1, 0) == 0)
      GTEST_SKIP() << "a computer without a network address has none to offer";
    const RunResult connected = own_client({"connect", "--host", their_code(), "--seconds", "1"});
    EXPECT_EQ(connected.status, 0) << connected.output << their_host_->output();
  }

  Environment their_environment_;
  std::unique_ptr<ChildProcess> their_host_;
  int their_port_ = free_port();
};

TEST_F(TwoWayPairingTest, AnAcceptedOfferLetsEachConnectToTheOther) {
  start_their_host();
  start_host({"--codec", "h264", "--accept-pair-back"});
  const auto offer = start_offer();
  EXPECT_EQ(offer->wait(seconds(30)), 0) << offer->output();
  EXPECT_TRUE(host_->wait_for_output("can be reached from this computer now", seconds(10)));
  connect_to_them();
}

TEST_F(TwoWayPairingTest, AnOfferMayComeBeforeItsHostIsStarted) {
  start_host({"--codec", "h264", "--accept-pair-back"});
  const auto offer = start_offer();
  EXPECT_EQ(offer->wait(seconds(30)), 0) << offer->output();
  EXPECT_NE(offer->output().find("may now connect to this computer"), std::string::npos);
  start_their_host();
  connect_to_them();
}

TEST_F(TwoWayPairingTest, ThePersonAtTheTerminalIsAskedAndYesIsAnswered) {
  start_their_host();
  start_host_on_a_terminal();
  const auto offer = start_offer();
  ASSERT_TRUE(host_->wait_for_output("accept? [y/N]", seconds(20))) << host_->output();
  EXPECT_NE(host_->output().find("(" + their_code() + ") at "), std::string::npos);
  host_->type("y");
  EXPECT_TRUE(host_->wait_for_output("can be reached from this computer now", seconds(10)));
  EXPECT_EQ(offer->wait(seconds(30)), 0) << offer->output();
  EXPECT_TRUE(host_->output().find("accept?") == host_->output().rfind("accept?"));
}

TEST_F(TwoWayPairingTest, ThePersonAtTheTerminalCanRefuse) {
  start_their_host();
  start_host_on_a_terminal();
  const auto offer = start_offer();
  ASSERT_TRUE(host_->wait_for_output("accept? [y/N]", seconds(20))) << host_->output();
  host_->type("n");
  EXPECT_TRUE(host_->wait_for_output("was not accepted", seconds(10)));
  offer->signal(SIGINT);
  EXPECT_EQ(offer->wait(seconds(30)), 4) << offer->output();
  EXPECT_EQ(own_client({"hosts"}).output.find(their_code()), std::string::npos);
}

TEST_F(TwoWayPairingTest, WithNobodyToAskNothingIsAccepted) {
  start_their_host();
  start_host();
  const auto offer = start_offer();
  ASSERT_TRUE(host_->wait_for_output("was not accepted", seconds(20)));
  offer->signal(SIGINT);
  EXPECT_EQ(offer->wait(seconds(30)), 4) << offer->output();
  EXPECT_NE(host_log().find("nobody can be asked here"), std::string::npos);
}

}  // namespace
}  // namespace system_test
