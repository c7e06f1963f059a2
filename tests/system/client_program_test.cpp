// The client as a person uses it: hosts by key code over a relay, what it remembers and forgets,
// and coming back to a host. Everything on the loopback.
#include <signal.h>

#include <regex>

#include "tests/system/system_support.h"

namespace system_test {
namespace {

void holds(const RunResult& result, int status, const std::string& part) {
  EXPECT_EQ(result.status, status) << result.output;
  EXPECT_NE(result.output.find(part), std::string::npos) << result.output;
}
void lacks(const RunResult& result, const std::string& part) {
  EXPECT_EQ(result.output.find(part), std::string::npos) << result.output;
}

class ClientProgramTest : public SystemTest {
 protected:
  void start_screen() {
    start_desktop(640, 480);
    screen_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
  }
  void TearDown() override {
    server_.reset();
    screen_.reset();
    SystemTest::TearDown();
  }
  void start_server() {
    server_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program("lunderhaze-rendezvous"), "--port", "0", "--host",
                                 "127.0.0.1"},
        environment_);
    ASSERT_TRUE(server_->wait_for_output("Listening", seconds(10))) << server_->output();
    std::smatch found;
    ASSERT_TRUE(
        std::regex_search(server_->output(), found, std::regex("lunderhaze-relay://(\\S+)#\\S+")));
    link_ = found[0].str();
    server_name_ = found[1].str();
  }
  // A host that is registered with the server.
  void start_registered_host() {
    start_server();
    holds(run_program({program("lunderhaze"), "relays", "add", link_}, environment_), 0,
          server_name_);
    start_screen();
    start_host();
    wait_until_reachable();
  }
  void wait_until_reachable() {
    for (int i = 0; i < 200; ++i) {
      const RunResult status = run_program({program("lunderhaze"), "status"}, environment_);
      if (status.output.find("reachable by key code") != std::string::npos) return;
    }
    FAIL() << "the host has not registered:\n" << host_->output();
  }
  std::string host_code() const {
    std::smatch found;
    std::regex_search(host_->output(), found, std::regex("key code (\\S{9})"));
    return found[1].str();
  }
  // With this as standard input.
  RunResult client_reading(const std::string& input, const std::string& arguments) {
    return run_program({"sh", "-c",
                        "printf '%s\\n' '" + input + "' | " + program("lunderhaze-client") +
                            " --store " + (directory_ / "client").string() + " " + arguments},
                       environment_);
  }

  std::unique_ptr<ChildProcess> screen_;
  std::unique_ptr<ChildProcess> server_;
  std::string link_, server_name_;
};

// ---- Through servers

TEST_F(ClientProgramTest, AHostIsPairedByItsKeyCodeAndStreamsThroughARelay) {
  start_registered_host();
  const RunResult paired = client(
      {"pair", "--host", host_code(), "--relay", link_, "--path", "relay", "--pin", shown_pin()});
  holds(paired, 0, "paired with");
  holds(paired, 0, "relay server " + server_name_ + " is remembered");
  holds(client({"relay", "list"}), 0, server_name_);
  const RunResult hosts = client({"hosts"});
  holds(hosts, 0, host_code());
  lacks(hosts, "127.0.0.1");  // a relay's address is not the host's

  const RunResult streamed = client({"connect", "--host", host_code(), "--path", "relay",
                                     "--seconds", "2", "--out", out().string()});
  holds(streamed, 0, "path: Relay " + server_name_);
  const auto json = report();
  EXPECT_GT(json["frames"].get<int>(), 10) << json.dump();
  EXPECT_EQ(json["path"]["class"], "Relay");
  ASSERT_EQ(json["paths"].size(), 1u) << json.dump();
  EXPECT_EQ(json["paths"][0]["address"], server_name_);
  EXPECT_EQ(json["paths"][0]["frames"], json["frames"]);
  EXPECT_EQ(json["reconnects"].size(), 0u);
}

TEST_F(ClientProgramTest, TheDirectWayIsTakenWhenTheServerShowsIt) {
  start_registered_host();
  holds(client_reading(link_, "pair --host " + host_code() + " --relay - --pin " + shown_pin()), 0,
        "paired with");
  const RunResult streamed =
      client({"connect", "--host", host_code(), "--seconds", "2", "--out", out().string()});
  holds(streamed, 0, "path: LAN ");
  EXPECT_EQ(report()["path"]["class"], "LAN") << report().dump();
  holds(client({"hosts"}), 0, host_address());
}

TEST_F(ClientProgramTest, AHostThatNoServerKnowsIsSaidToBeOff) {
  start_server();
  const RunResult unknown = client(
      {"pair", "--host", "0000-0001", "--relay", link_, "--path", "relay", "--pin", "123456"});
  holds(unknown, 2, "no server knows this host: is it switched on and registered?");
  lacks(unknown, "remembered");
}

TEST_F(ClientProgramTest, AServerIsCheckedByItsLinkAndByItsName) {
  start_server();
  holds(client({"relay", "check", link_}), 0, server_name_ + ": reachable (");
  holds(client({"relay", "check", link_ + "x"}), 2,
        server_name_ + ": no answer: offline, blocked, or wrong secret");
  holds(client({"relay", "check"}), 0, "no relay servers");
  holds(client_reading(link_, "relay add -"), 0, server_name_ + ": added");
  holds(client({"relay", "check"}), 0, "reachable");
  holds(client({"relay", "remove", server_name_}), 0, server_name_ + ": removed");
  holds(client({"relay", "list"}), 0, "no relay servers");
  const RunResult malformed = client({"relay", "add", "relay.example#top-secret"});
  holds(malformed, 1, "link 1 is no relay link");
  lacks(malformed, "top-secret");
}

// ---- What is remembered

TEST_F(ClientProgramTest, KnownHostsAreListedAndForgotten) {
  start_screen();
  start_host();
  holds(client({"hosts"}), 0, "no hosts are known");
  pair();
  holds(client({"hosts"}), 0, host_code());
  holds(client({"hosts"}), 0, host_address());
  holds(client({"forget", host_code()}), 0, "forgot");
  holds(client({"hosts"}), 0, "no hosts are known");
  holds(client({"connect", "--host", host_address()}), 3, "pair first");
  holds(client({"forget", host_code()}), 3, "no known host");
}

TEST_F(ClientProgramTest, DiscoveryLearnsWhereAKnownHostIsNow) {
  start_screen();
  start_host();
  pair();
  // The first answer tells by which id it may be recognised, a later one that it has moved.
  holds(client({"discover", "--port", std::to_string(port_)}), 0, "updated");
  lacks(client({"discover", "--port", std::to_string(port_)}), "updated");
  EXPECT_EQ(stop_host(), 0);
  port_ = free_port();
  start_host();
  holds(client({"discover", "--port", std::to_string(port_)}), 0, "updated");
  holds(client({"hosts"}), 0, ":" + std::to_string(port_));
  holds(client({"connect", "--host", host_code(), "--seconds", "1"}), 0, "path: ");
}

TEST_F(ClientProgramTest, ThisComputersOwnHostIsNotPairedWith) {
  start_screen();
  start_host();
  // Without --store the client has this user's host's identity.
  holds(run_program(
            {program("lunderhaze-client"), "pair", "--host", host_address(), "--pin", shown_pin()},
            environment_),
        4, "this computer's own host");
}

// ---- Coming back

TEST_F(ClientProgramTest, AClientComesBackToAHostThatWasKilled) {
  start_screen();
  start_host();
  pair();
  ChildProcess& receiver = start_receiver({"--reconnect", "--out", out().string()});
  host_->signal(SIGKILL);
  host_->wait(seconds(5));
  start_host();
  ASSERT_TRUE(receiver.wait_for_output("back after", seconds(30))) << receiver.output();
  EXPECT_NE(receiver.output().find("the host has fallen silent: connecting again"),
            std::string::npos);
  receiver.signal(SIGINT);
  EXPECT_EQ(receiver.wait(seconds(20)), 0) << receiver.output();

  const auto json = report();
  ASSERT_EQ(json["reconnects"].size(), 1u) << json.dump();
  EXPECT_EQ(json["reconnects"][0]["reason"], "the host has fallen silent");
  EXPECT_GT(json["reconnects"][0]["gap_ms"].get<double>(), 0);
  ASSERT_EQ(json["paths"].size(), 2u) << json.dump();
  EXPECT_GT(json["paths"][1]["frames"].get<int>(), 0);
  EXPECT_EQ(json["frames_undecodable"], 0);
  EXPECT_GE(json["keyframes"].get<int>(), 2);
  const RunResult decoded = decode_with_ffmpeg(recording());
  EXPECT_EQ(decoded.status, 0);
  EXPECT_EQ(decoded.output, "");
}

TEST_F(ClientProgramTest, AClientComesBackToAHostThatWasStopped) {
  start_screen();
  start_host();
  pair();
  ChildProcess& receiver = start_receiver({"--reconnect"});
  EXPECT_EQ(stop_host(), 0);
  ASSERT_TRUE(receiver.wait_for_output("the host ended the stream: connecting again", seconds(10)))
      << receiver.output();
  start_host();
  EXPECT_TRUE(receiver.wait_for_output("back after", seconds(30))) << receiver.output();
  receiver.signal(SIGINT);
  EXPECT_EQ(receiver.wait(seconds(20)), 0) << receiver.output();
}

TEST_F(ClientProgramTest, AHostThatDoesNotComeBackInTimeIsSaid) {
  start_screen();
  start_host();
  pair();
  ChildProcess receiver({program("lunderhaze-client"), "--store", (directory_ / "client").string(),
                         "connect", "--host", host_address(), "--seconds", "4", "--reconnect"},
                        environment_);
  ASSERT_TRUE(receiver.wait_for_output("fps", seconds(20))) << receiver.output();
  EXPECT_EQ(stop_host(), 0);
  EXPECT_EQ(receiver.wait(seconds(20)), 2) << receiver.output();
  EXPECT_NE(receiver.output().find("and did not come back"), std::string::npos)
      << receiver.output();
}

// ---- The way back

TEST_F(ClientProgramTest, AStoreWithAnIdentityOfItsOwnCannotOfferIt) {
  const RunResult refused = client({"pair", "--host", "127.0.0.1:9", "--pin", "123456", "--back"});
  holds(refused, 1, "--back needs the identity that this computer's own host has");
}

}  // namespace
}  // namespace system_test
