// What takes its time: servers that are lost, start anew or move. Run by `make soak`.
#include "tests/system/reach_support.h"

namespace system_test {
namespace {

class ReachSoakTest : public ReachTest {
 protected:
  void prepare(Nat host, Nat client, const std::string& server) {
    build(host, client);
    lab_->add_internet_host("names", "203.0.113.53");
    lab_->serve_names("names");
    lab_->set_name("relay.test", SERVER);
    start_server(server);
    start_registered_host();
    pair_at_home();
  }
  void expect_status(const std::string& text) {
    const std::string status = host_status();
    EXPECT_NE(status.find(text), std::string::npos) << status;
  }
};

// A registration is refreshed each 20 s, and given up at the third time without an answer; from
// then on the host asks each 8 s.
TEST_F(ReachSoakTest, AHostTellsThatItsServerIsLostAndRegistersOnceItIsBack) {
  prepare(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED, SERVER);
  kill_server();
  const Stopwatch killed;
  ASSERT_TRUE(host_->wait_for_output("stopped answering", seconds(80) + seconds(5)))
      << host_->output();
  std::printf("lost %.1f s after its end\n", killed.seconds());
  expect_status("Relay 203.0.113.10:9877: No answer: offline, blocked, or wrong secret");
  const std::size_t said_by_host = host_->output().size();
  start_server();
  const Stopwatch back;
  ASSERT_TRUE(host_->wait_for_output("registered with", seconds(8) + seconds(4), said_by_host))
      << host_->output();
  std::printf("registered %.1f s after its start\n", back.seconds());
  expect_status("Relay 203.0.113.10:9877: Registered");
}

// The new server knows nobody. The host registers at its next refresh, within 20 s, or 5 s later
// when it is told to start over; the client asks each 3 s.
TEST_F(ReachSoakTest, ARelayedStreamComesBackAfterItsServerHasStartedAnew) {
  prepare(Nat::SYMMETRIC, Nat::SYMMETRIC, SERVER);
  connect("all", {"--reconnect"});
  await_lines(2);
  kill_server();
  start_server();
  const Stopwatch restarted;
  ASSERT_TRUE(receiver_->wait_for_output("back after", seconds(20 + 5 + 3) + seconds(7)))
      << receiver_->output();
  std::printf("back %.1f s after the server's new start\n", restarted.seconds());
  await_lines(2);
  const auto json = end_stream();
  EXPECT_EQ(json["path"]["class"], "Relay");
  EXPECT_GT(json["paths"].back()["frames"].get<int>(), 5) << json["paths"].dump();
}

// A name that was found is looked up again after 120 s.
TEST_F(ReachSoakTest, AServerThatMovesIsFoundByItsNameWhileAStreamGoesOn) {
  prepare(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED, "relay.test");
  connect();
  await_path("P2P");
  await_lines(2);
  const std::size_t said_by_host = host_->output().size();
  lab_->change_address("server", "eth0", "203.0.113.11");
  lab_->set_name("relay.test", "203.0.113.11");
  const Stopwatch moved;
  ASSERT_TRUE(
      host_->wait_for_output("relay.test:9877 is at 203.0.113.11:9877", seconds(120) + seconds(10)))
      << host_->output();
  ASSERT_TRUE(host_->wait_for_output("registered with", seconds(10), said_by_host))
      << host_->output();
  std::printf("registered %.1f s after the server's move\n", moved.seconds());
  await_lines(1);
  const auto json = end_stream();
  EXPECT_EQ(json["frames_lost"], 0) << json.dump();
  EXPECT_EQ(json["path"]["class"], "P2P");
  connect("relay");
  await_path("Relay 203.0.113.11:9877");
  await_lines(1);
  EXPECT_GT(end_stream()["frames"].get<int>(), 5);
}

}  // namespace
}  // namespace system_test
