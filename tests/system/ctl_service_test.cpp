// lunderhaze-ctl with the real service, its worker, and clients: what each command does to them.
#include <signal.h>

#include <regex>

#include "tests/support/temp_directory.h"
#include "tests/system/service_support.h"

namespace system_test {
namespace {

using nlohmann::json;

class CtlServiceTest : public ServiceTest {
 protected:
  RunResult ctl(const std::vector<std::string>& arguments) const {
    return lab_->run(at({}, "lunderhaze-ctl", arguments));
  }
  // Of a command that is done.
  json told(std::vector<std::string> arguments) const {
    arguments.emplace_back("--json");
    const RunResult result = ctl(arguments);
    EXPECT_EQ(result.status, 0) << result.output;
    return json::parse(result.output, nullptr, false);
  }
  // With this as a line of standard input.
  RunResult ctl_reading(const std::string& line, const std::string& arguments) const {
    write_file(directory_ / "input", line + "\n");
    return lab_->run(
        {"sh", "-c",
         program("lunderhaze-ctl") + " " + arguments + " <" + (directory_ / "input").string()});
  }
  static void holds(const RunResult& result, int status, const std::string& text) {
    EXPECT_EQ(result.status, status) << result.output;
    EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
  }
  bool pairs_by(const std::string& option, const std::string& secret) {
    const RunResult paired = client({"pair", "--host", host_address(), option, secret});
    return paired.status == 0;
  }
  void stream_as_a_paired_device() {
    moving_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
    ASSERT_TRUE(pairs_by("--pin", told({"pair", "--seconds", "60"})["pin"]));
    start_receiver();
  }
  // A worker that was started after this one has come to answer.
  void restarted_from(pid_t former) {
    ASSERT_TRUE(comes_true([&] { return worker() != former && worker_runs(); }, SLACK));
  }
};

TEST_F(CtlServiceTest, StatusAndDevicesShowAStreamingDeviceAndItsRemovalEndsTheStream) {
  start_service();
  stream_as_a_paired_device();
  const json status = told({"status"});
  EXPECT_EQ(status["service"]["worker_pid"], worker());
  EXPECT_EQ(status["service"]["starts"], 1);
  EXPECT_EQ(status["worker"]["connected"], true);
  EXPECT_EQ(status["worker"]["settings"], status["stored"]);
  ASSERT_EQ(status["worker"]["screens"].size(), 1U) << status;
  EXPECT_EQ(status["worker"]["screens"][0]["width"], 640);
  EXPECT_EQ(status["worker"]["screens"][0]["height"], 400);
  EXPECT_EQ(status["worker"]["screens"][0]["capture"], "X11 CPU");
  const json devices = told({"devices"})["devices"];
  ASSERT_EQ(devices.size(), 1U) << devices;
  EXPECT_EQ(devices, status["worker"]["devices"]);

  const std::string code = devices[0]["key_code"];
  holds(ctl({"remove-device", "0000-0000"}), 7, "no paired device answers to \"0000-0000\"");
  EXPECT_EQ(told({"remove-device", code})["removed"], devices[0]);
  EXPECT_EQ(receiver_->wait(seconds(20)), 3) << receiver_->output();
  holds(ctl({"devices"}), 0, "No paired devices\n");
  EXPECT_EQ(told({"status"})["worker"]["connected"], false);
}

TEST_F(CtlServiceTest, ARestartWaitsForTheClientToLeaveUnlessForced) {
  start_service();
  stream_as_a_paired_device();
  const pid_t former = worker();
  holds(ctl({"restart"}), 6, "a client is connected: --force");
  holds(ctl({"set", "fps=30", "--restart"}), 6, "a client is connected: nothing was stored");
  holds(ctl({"set-relays", "--none", "--restart"}), 6, "nothing was stored");
  EXPECT_EQ(told({"get", "fps"})["stored"]["fps"], 60);
  holds(ctl({"set", "fps=30"}), 0, "Stored: the next start of the worker applies it\n");
  EXPECT_EQ(told({"get", "fps"}),
            json::parse(R"({"result":"done","stored":{"fps":30},"running":{"fps":60}})"));
  EXPECT_EQ(worker(), former);
  holds(ctl({"restart", "--force"}), 0, "The worker restarts\n");
  restarted_from(former);
  EXPECT_EQ(told({"get", "fps"})["running"]["fps"], 30);
  EXPECT_EQ(told({"status"})["service"]["starts"], 2);
}

TEST_F(CtlServiceTest, SettingsAreMergedAndARestartAppliesThePort) {
  start_service();
  holds(ctl({"set", "codec=h264", "audio=off"}), 0, "codec=h264\naudio=off\n");
  holds(ctl({"set", "port=0", "fps=24"}), 2, "port must be 1 to 65535");
  const pid_t former = worker();
  port_ = 12'345;
  EXPECT_EQ(told({"set", "port=12345", "--restart"})["restarted"], true);
  restarted_from(former);
  const json settings = told({"get"});
  EXPECT_EQ(settings["stored"], settings["running"]);
  EXPECT_EQ(settings["running"]["port"], 12'345);
  EXPECT_EQ(settings["running"]["codec"], "h264");
  EXPECT_EQ(settings["running"]["audio"], "off");
  EXPECT_EQ(settings["running"]["fps"], 60);
  EXPECT_TRUE(pairs_by("--pin", told({"pair"})["pin"]));  // on that port
}

TEST_F(CtlServiceTest, StoredRelayServersAreRegisteredAtByTheNextWorker) {
  start_service();
  ChildProcess server(
      lab_->inside(at({}, "lunderhaze-rendezvous", {"--host", "127.0.0.1", "--key", "topsecret"})));
  ASSERT_TRUE(server.wait_for_output("Listening on UDP port", seconds(20))) << server.output();
  const pid_t former = worker();
  const RunResult result =
      ctl_reading("lunderhaze-relay://127.0.0.1#topsecret", "set-relays - --restart");
  holds(result, 0, "1  127.0.0.1:9877\nStored\nThe worker restarts\n");
  restarted_from(former);
  EXPECT_TRUE(comes_true([&] {
    const std::size_t from = server.output().size();
    server.signal(SIGUSR1);
    return server.wait_for_output("not sent", seconds(5), from) &&
           server.output().find("now: 1 hosts", from) != std::string::npos;
  })) << server.output();
  const std::filesystem::path store = lab_->path("/var/lib/lunderhaze/host");
  EXPECT_TRUE(std::filesystem::exists(store / "relays"));
  EXPECT_EQ((file_content(store / "relays") + worker_log() + service_->output()).find("topsecret"),
            std::string::npos);
  holds(ctl_reading("lunderhaze-relay://127.0.0.1", "set-relays -"), 2, "link 1 is no relay link");
}

TEST_F(CtlServiceTest, PairingAndThePasswordOpenAndClose) {
  start_service();
  const std::string pin = told({"pair", "--seconds", "300"})["pin"];
  EXPECT_EQ(told({"status"})["worker"]["pairing"]["open"], true);
  holds(ctl({"close-pairing"}), 0, "Pairing is closed\n");
  EXPECT_EQ(told({"status"})["worker"]["pairing"]["open"], false);
  EXPECT_FALSE(pairs_by("--pin", pin));

  holds(ctl_reading("correct horse", "set-password --stdin"), 0, "The pairing password is set\n");
  EXPECT_EQ(told({"status"})["worker"]["pairing"]["password"], true);
  EXPECT_TRUE(pairs_by("--password", "correct horse"));
  EXPECT_EQ((worker_log() + service_->output()).find("correct horse"), std::string::npos);
  holds(ctl({"clear-password"}), 0, "There is no pairing password any more\n");
  EXPECT_EQ(told({"status"})["worker"]["pairing"]["password"], false);
}

TEST_F(CtlServiceTest, StopEndsTheServiceAndLeavesNobodyToAsk) {
  start_service();
  holds(ctl({"stop"}), 0, "The worker and the service stop\n");
  EXPECT_EQ(end_of_service(), 0);
  EXPECT_EQ(worker(), 0);
  holds(ctl({"status"}), 4, "start it with \"systemctl start lunderhaze\"");
}

TEST_F(CtlServiceTest, WithoutAWorkerStatusTellsWhyAndTheRestIsUnavailable) {
  launch_service({"--worker", "/bin/false"}, "exit code 1");
  const RunResult status = ctl({"status"});
  holds(status, 4, "service running; no worker (");
  holds(status, 4, "last exit: exit code 1: ");
  holds(status, 4, "lunderhaze-ctl: the worker is not running");
  holds(ctl({"pair"}), 4, "lunderhaze-ctl: no worker is running: ");
  holds(ctl({"devices"}), 4, "lunderhaze-ctl: the worker is not running");
  EXPECT_EQ(told({"get", "port"})["running"], nullptr);
  EXPECT_EQ(told({"get", "port"})["stored"]["port"], 9876);
}

}  // namespace
}  // namespace system_test
