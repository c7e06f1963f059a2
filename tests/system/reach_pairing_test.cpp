// Pairing from afar, and names of servers.
#include "tests/system/reach_support.h"

namespace system_test {
namespace {

class ReachPairingTest : public ReachTest {
 protected:
  // By key code through the relay alone.
  RunResult pair(const std::vector<std::string>& secret) {
    std::vector<std::string> all = {"pair", "--host", key_code(), "--relay",
                                    link(), "--path", "relay"};
    all.insert(all.end(), secret.begin(), secret.end());
    return client(all);
  }
  void expect_streaming_by_relay() {
    connect("relay");
    await_lines(1);
    const auto json = end_stream();
    EXPECT_EQ(json["path"]["class"], "Relay");
    EXPECT_GT(json["frames"].get<int>(), 5);
  }
  void prepare(const std::vector<std::string>& host_arguments = {}) {
    build(Nat::SYMMETRIC, Nat::SYMMETRIC);
    start_server();
    start_registered_host(host_arguments);
    leave_home();
  }
};

TEST_F(ReachPairingTest, APinPairsThroughARelayAlone) {
  prepare();
  const RunResult paired = pair({"--pin", shown_pin()});
  ASSERT_EQ(paired.status, 0) << paired.output;
  expect_streaming_by_relay();
}

TEST_F(ReachPairingTest, APasswordPairsThroughARelayAlone) {
  prepare({"--pin", "correct-horse"});
  const RunResult wrong = pair({"--password", "wrong-horse"});
  EXPECT_EQ(wrong.status, 4) << wrong.output;
  EXPECT_NE(wrong.output.find("wrong PIN or password"), std::string::npos) << wrong.output;
  const RunResult paired = pair({"--password", "correct-horse"});
  ASSERT_EQ(paired.status, 0) << paired.output;
  expect_streaming_by_relay();
}

// A name is looked up again ten seconds after it was not found.
TEST_F(ReachPairingTest, AServerWhoseNameAppearsLateIsFound) {
  build(Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED);
  lab_->add_internet_host("names", "203.0.113.53");
  lab_->serve_names("names");
  start_server("relay.test");
  launch_host();
  ASSERT_TRUE(host_->wait_for_output("PIN ", seconds(10)));
  pair_at_home();
  EXPECT_NE(host_status().find("Relay relay.test:9877: Name not found"), std::string::npos)
      << host_status();
  const Stopwatch since_the_name;
  lab_->set_name("relay.test", SERVER);
  ASSERT_TRUE(host_->wait_for_output("registered with", seconds(20))) << host_->output();
  std::printf("registered %.3f s after the name was there\n", since_the_name.seconds());
  EXPECT_LE(since_the_name.seconds(), 10.0 + 2.0);
  EXPECT_NE(host_status().find("Relay relay.test:9877: Registered"), std::string::npos)
      << host_status();
  connect();  // the client asks for the same name
  await_path("P2P");
  await_lines(1);
  EXPECT_EQ(end_stream()["path"]["class"], "P2P");
}

}  // namespace
}  // namespace system_test
