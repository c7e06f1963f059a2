// The host's sub-commands beside a running host and without one, and its keys on a terminal.
#include <signal.h>

#include <algorithm>
#include <regex>
#include <thread>

#include "control/client_store.h"
#include "control/command_channel.h"
#include "control/host_commands.h"
#include "control/keystore_internal.h"
#include "tests/support/linux/sound_server.h"
#include "tests/system/system_support.h"

namespace system_test {
namespace {

class HostProgramTest : public SystemTest {
 protected:
  RunResult run_host(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program("lunderhaze"));
    return run_program(arguments, environment_, seconds(30));
  }
  bool status_comes_to_show(const std::string& text) {
    const auto until = std::chrono::steady_clock::now() + seconds(20);
    for (;;) {
      const RunResult status = run_host({"status"});
      if (status.output.find(text) != std::string::npos) return true;
      if (std::chrono::steady_clock::now() < until) continue;
      ADD_FAILURE() << text << " is not in\n" << status.output;
      return false;
    }
  }
  bool log_comes_to_hold(const std::string& text) {
    const auto until = std::chrono::steady_clock::now() + seconds(20);
    while (host_log().find(text) == std::string::npos && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return host_log().find(text) != std::string::npos;
  }
  std::filesystem::path store() const { return directory_ / "config" / "lunderhaze"; }
};

bool holds(const RunResult& result, int status, const std::string& text) {
  EXPECT_EQ(result.status, status) << result.output;
  EXPECT_NE(result.output.find(text), std::string::npos) << text << " is not in\n" << result.output;
  return result.status == status && result.output.find(text) != std::string::npos;
}

// What is behind the last "PIN " of the text.
std::string pin_of(const std::string& text) {
  const std::size_t at = text.rfind("PIN ");
  return at == std::string::npos ? "" : text.substr(at + 4, 6);
}

TEST_F(HostProgramTest, TheUsageNamesTheSubCommands) {
  const RunResult usage = run_host({"--help"});
  holds(usage, 0, "usage: lunderhaze [--port 9876]");
  for (const char* line : {"lunderhaze status", "lunderhaze pair [SECONDS]", "relays add LINK...",
                           "relays remove", "relays list", "relays check", "--accept-pair-back",
                           "lunderhaze mute [on|off]", "lunderhaze clipboard [on|off]"})
    holds(usage, 0, line);
  holds(run_host({"relays"}), 1, "relays: list, add LINK...");
  holds(run_host({"relays", "list", "x"}), 1, "relays: list, add LINK...");
  holds(run_host({"status", "now"}), 1, "status takes no arguments");
  holds(run_host({"pair", "0"}), 1, "pair takes 1 to 86400 seconds");
  holds(run_host({"mute", "loud"}), 1, "mute takes on, off or nothing");
  holds(run_host({"clipboard", "on", "off"}), 1, "clipboard takes on, off or nothing");
  holds(run_host({"dance"}), 1, "unknown option dance");
}

TEST_F(HostProgramTest, RelaysOfARunningHostAreChangedAtOnceAndTheirKeysAreNotShown) {
  start_desktop(640, 480);
  start_host();
  const std::string place = "127.0.0.1:" + std::to_string(free_port());
  const RunResult added = run_host({"relays", "add", "lunderhaze-relay://" + place + "#hush-hush",
                                    "lunderhaze-relay://[::1]:5#hush"});
  holds(added, 0, place + ": added\n[::1]:5: added\napplied to the running host\n");
  const RunResult listed = run_host({"relays", "list"});
  holds(listed, 0, "1  " + place + "\n2  [::1]:5\n");
  const RunResult status = run_host({"status"});
  holds(status, 0, "Relay " + place + ": ");
  for (const RunResult* result : {&added, &listed, &status})
    EXPECT_EQ(result->output.find("hush"), std::string::npos) << result->output;

  holds(run_host({"relays", "remove", "::1"}), 0,
        "[::1]:5: removed\napplied to the running host\n");
  holds(run_host({"relays", "remove", "1"}), 0, "removed\napplied to the running host\n");
  holds(run_host({"relays", "list"}), 0, "no relay servers\n");
  holds(run_host({"status"}), 0, "no relay servers (LAN / direct only)");
  EXPECT_NE(host_log().find("relay servers: 2 (list changed)"), std::string::npos);
  EXPECT_NE(host_log().find("relay servers: 0 (list changed)"), std::string::npos);
  EXPECT_EQ(host_log().find("hush"), std::string::npos);
}

TEST_F(HostProgramTest, RelaysOfAHostThatIsNotRunningCountFromItsNextStart) {
  const std::string place = "127.0.0.1:" + std::to_string(free_port());
  holds(run_host({"relays", "add", "lunderhaze-relay://" + place + "#hush"}), 0,
        "the host is not running: counts from its next start\n");
  start_desktop(640, 480);
  start_host();
  holds(run_host({"status"}), 0, "Relay " + place + ": ");
}

TEST_F(HostProgramTest, LinksCanComeFromStandardInput) {
  const RunResult result =
      run_program({"sh", "-c",
                   "printf '%s\\n' lunderhaze-relay://a#k '' lunderhaze-relay://b#k | " +
                       program("lunderhaze") + " relays add - lunderhaze-relay://c#k"},
                  environment_);
  holds(result, 0, "a:9877: added\nb:9877: added\nc:9877: added\n");
}

TEST_F(HostProgramTest, AWrongLinkIsRefusedWithoutRepeatingIt) {
  const RunResult result = run_host({"relays", "add", "lunderhaze-relay://a b#hush"});
  holds(result, 1, "link 1 is no relay link (lunderhaze-relay://host[:port]#key)");
  EXPECT_EQ(result.output.find("hush"), std::string::npos);
  holds(run_host({"relays", "check", "nonsense"}), 1, "link 1 is no relay link");
  holds(run_host({"relays", "remove", "nobody"}), 1, "no such relay server is listed");
}

TEST_F(HostProgramTest, ARelayThatDoesNotAnswerGivesItsOwnStatus) {
  holds(run_host({"relays", "check"}), 0, "no relay servers\n");
  const std::string place = "127.0.0.1:" + std::to_string(free_port());
  holds(run_host({"relays", "check", "lunderhaze-relay://" + place + "#k"}), 6,
        place + ": no answer: offline, blocked, or wrong secret\n");
  run_host({"relays", "add", "lunderhaze-relay://" + place + "#k"});
  holds(run_host({"relays", "check"}), 6, place + ": no answer");
}

TEST_F(HostProgramTest, ARunningHostRegistersWithAServerThatIsAdded) {
  ChildProcess server({program("lunderhaze-rendezvous"), "--port", "0", "--host", "127.0.0.1"},
                      environment_);
  ASSERT_TRUE(server.wait_for_output("Listening", seconds(10))) << server.output();
  std::smatch link;
  ASSERT_TRUE(std::regex_search(server.output(), link, std::regex("lunderhaze-relay://\\S+")));
  start_desktop(640, 480);
  start_host();
  holds(run_host({"relays", "add", link.str()}), 0, "applied to the running host\n");
  const RunResult checked = run_host({"relays", "check"});
  EXPECT_EQ(checked.status, 0);
  EXPECT_TRUE(std::regex_match(checked.output,
                               std::regex("127\\.0\\.0\\.1:\\d+: reachable \\([0-9.]+ ms\\)\n")))
      << checked.output;
  EXPECT_TRUE(status_comes_to_show("Internet: reachable by key code (public 127.0.0.1:"));
  EXPECT_TRUE(status_comes_to_show(": Registered ("));
  holds(run_host({"relays", "check",
                  "lunderhaze-relay://" + checked.output.substr(0, checked.output.find(": ")) +
                      "#another-key"}),
        6, ": no answer: offline, blocked, or wrong secret\n");
}

TEST_F(HostProgramTest, StatusWithoutAHostShowsWhatIsStoredAndMakesNothing) {
  holds(run_host({"status"}), 5, "The host is not running\nNo identity yet");
  EXPECT_FALSE(std::filesystem::exists(store() / "identity"));
  holds(run_host({"pair"}), 5, "the host is not running");
  start_desktop(640, 480);
  start_host();
  pair();
  EXPECT_EQ(stop_host(), 0);
  const RunResult status = run_host({"status"});
  holds(status, 5, "Paired devices:\n");
  const std::regex lines(
      "The host is not running\nHost \\S{9}\nNo pairing password\nNo relay servers\n"
      "Paired devices:\n  \".*\" \\(\\S{9}\\), added \\d{4}-\\d\\d-\\d\\d\n");
  EXPECT_TRUE(std::regex_match(status.output, lines)) << status.output;
}

TEST_F(HostProgramTest, StatusOfAStreamingHostShowsTheStream) {
  start_desktop(640, 480);
  ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  start_host();
  holds(run_host({"status"}), 0, "Pairing: open until a device is paired, PIN " + shown_pin());
  pair();
  ChildProcess& receiver = start_receiver();
  const RunResult status = run_host({"status"});
  ASSERT_TRUE(holds(status, 0, "Client \""));
  EXPECT_TRUE(std::regex_search(
      status.output, std::regex("  Screen 0: \\S+, 640x480 at 60 fps, 20000 kbit/s, libopenh264, "
                                "X11 CPU, LAN 127\\.0\\.0\\.1:\\d+\n    [0-9.]+ fps, [0-9.]+ "
                                "Mbit/s, encode [0-9.]+ ms")))
      << status.output;
  holds(status, 0, ", connected\n");
  holds(status, 0, "Virtual display: driver not installed\n");
  receiver.signal(SIGINT);
  EXPECT_EQ(receiver.wait(seconds(20)), 0);
}

// ---- Switches

TEST_F(HostProgramTest, SwitchesOfAHostThatIsNotRunningCountFromItsNextStart) {
  holds(run_host({"mute"}), 0, "This computer's speakers are muted while a client streams\n");
  holds(run_host({"clipboard"}), 0, "The clipboard is shared with clients\n");
  holds(run_host({"mute", "off"}), 0,
        "This computer's speakers stay on while a client streams\n"
        "the host is not running: counts from its next start\n");
  holds(run_host({"clipboard", "off"}), 0,
        "The clipboard is not shared with clients\n"
        "the host is not running: counts from its next start\n");
  EXPECT_EQ(file_content(store() / "host.ini"), "[settings]\nmute_host=0\n");
  EXPECT_EQ(file_content(store() / "clipboard_sync"), "0\n");
  start_desktop(640, 480);
  start_host();
  holds(run_host({"mute"}), 0, "This computer's speakers stay on while a client streams\n");
  holds(run_host({"clipboard"}), 0, "The clipboard is not shared with clients\n");
}

TEST_F(HostProgramTest, SwitchesOfARunningHostAreAppliedAtOnceAndKept) {
  start_desktop(640, 480);
  start_host({"--no-mute-host"});
  holds(run_host({"mute"}), 0, "This computer's speakers stay on while a client streams\n");
  for (const auto& [word, setting] : {std::pair{"on", "1"}, {"off", "0"}}) {
    const std::string line = *setting == '1' ? "are muted" : "stay on";
    holds(run_host({"mute", word}), 0,
          "This computer's speakers " + line + " while a client streams\n");
    holds(run_host({"mute"}), 0, line);
    EXPECT_EQ(file_content(store() / "host.ini"),
              std::string("[settings]\nmute_host=") + setting + "\n");
  }
  holds(run_host({"clipboard", "off"}), 0, "The clipboard is not shared with clients\n");
  EXPECT_EQ(file_content(store() / "clipboard_sync"), "0\n");
  holds(run_host({"clipboard"}), 0, "The clipboard is not shared with clients\n");
}

TEST_F(HostProgramTest, TheSpeakersAreLookedAtWhileAClientStreamsAndNotBefore) {
  const std::string line = "audio: could not mute out";
  const SoundServer sound;
  for (const auto& [name, value] : sound.environment()) environment_[name] = value;
  start_desktop(640, 480);
  start_host();
  pair();
  EXPECT_EQ(host_log().find(line), std::string::npos) << host_log();
  start_receiver();
  // A muted null sink would be silent for the client too.
  EXPECT_TRUE(log_comes_to_hold(line)) << host_log();
  EXPECT_FALSE(sound.muted("out"));
  EXPECT_EQ(stop_host(), 0);
}

TEST_F(HostProgramTest, PairOpensTheWindowOfTheRunningHost) {
  start_desktop(640, 480);
  start_host();
  pair();  // which closes the window of a host without devices
  const RunResult opened = run_host({"pair", "77"});
  holds(opened, 0, ", open for 77 s\n");
  EXPECT_TRUE(host_->wait_for_output("open for 77 s", seconds(10)));
  const RunResult second =
      run_program({program("lunderhaze-client"), "--store", (directory_ / "second").string(),
                   "pair", "--host", host_address(), "--pin", pin_of(opened.output)},
                  environment_);
  EXPECT_EQ(second.status, 0) << second.output;
}

TEST_F(HostProgramTest, ASecondHostOnTheStoreIsRefusedWhateverItsPort) {
  start_desktop(640, 480);
  start_host();
  holds(run_host({"--port", std::to_string(free_port())}), 4,
        "another host runs on the store in " + store().string());
  holds(run_host({"status"}), 0, "on UDP port " + std::to_string(port_));
}

TEST_F(HostProgramTest, AKilledHostIsNotRunningAndTheNextOneTakesItsPlace) {
  start_desktop(640, 480);
  start_host();
  host_->signal(SIGKILL);
  EXPECT_EQ(host_->wait(seconds(10)), 128 + SIGKILL);
  EXPECT_TRUE(std::filesystem::is_socket(store() / "control.sock"));
  holds(run_host({"status"}), 5, "The host is not running\n");
  start_host();
  holds(run_host({"status"}), 0, "on UDP port " + std::to_string(port_));
}

TEST_F(HostProgramTest, ADeviceThatIsAuthorizedByCommandNeedsNoPairing) {
  start_desktop(640, 480);
  start_host();
  ClientStore client_store;
  std::string error;
  ASSERT_TRUE(client_store.open(directory_ / "client", &error)) << error;
  keystore::internal::reset_for_test(keystore::User, store());
  lund_keypair host_identity;
  ASSERT_TRUE(keystore::peek_identity(&host_identity));
  lund_host_entry host;
  std::copy_n(host_identity.public_key, LUND_KEY_SIZE, host.key);
  ASSERT_EQ(lund_addr_parse(&host.lan_endpoint, host_address().c_str(), 0), 0);
  ASSERT_TRUE(client_store.put(host, &error)) << error;

  HostRequest request;
  request.kind = HostRequest::Kind::Authorize;
  request.name = "the other way";
  std::copy_n(host_identity.public_key, LUND_KEY_SIZE, request.key.begin());
  std::string text;
  EXPECT_EQ(ask_host(store(), request, &text), HostReply::Refused);  // its own key
  std::copy_n(client_store.identity().public_key, LUND_KEY_SIZE, request.key.begin());
  EXPECT_EQ(ask_host(store(), request, &text), HostReply::Done) << text;
  EXPECT_EQ(text, "\"the other way\" may connect to this computer now");
  keystore::internal::reset_for_test(keystore::User, {});

  stream(1);
  holds(run_host({"status"}), 0, "  \"the other way\" (");
}

TEST_F(HostProgramTest, ARemovedDeviceIsCutOffAtOnceAndStaysOut) {
  start_desktop(640, 480);
  ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  start_host();
  pair();
  ChildProcess& receiver = start_receiver();
  const std::string status = run_host({"status"}).output;
  std::smatch device;
  ASSERT_TRUE(std::regex_search(status, device, std::regex("  \".*\" \\((\\S{9})\\), added")));
  holds(run_host({"devices", "remove", "0000-0000"}), 1, "no paired device answers to");
  holds(run_host({"devices", "remove", device[1]}), 0, "removed; the running host has ended");
  EXPECT_EQ(receiver.wait(seconds(20)), 3) << receiver.output();
  holds(run_host({"status"}), 0, "No paired devices\n");
  const RunResult again = client({"connect", "--host", host_address(), "--seconds", "1"});
  holds(again, 3, "the host does not know this device: pair first");
}

TEST_F(HostProgramTest, ADeviceIsRemovedWithoutARunningHostToo) {
  start_desktop(640, 480);
  start_host();
  pair();
  host_->signal(SIGINT);
  ASSERT_EQ(host_->wait(seconds(20)), 0);
  const std::string status = run_host({"status"}).output;
  std::smatch device;
  ASSERT_TRUE(std::regex_search(status, device, std::regex("  \"(.*)\" \\(\\S{9}\\), added")));
  holds(run_host({"devices", "remove", device[1]}), 0, "removed\n");
  holds(run_host({"status"}), 5, "No paired devices\n");
}

TEST_F(HostProgramTest, WhatIsNoCommandIsRefusedInWords) {
  start_desktop(640, 480);
  start_host();
  std::string answer;
  std::string error;
  ASSERT_EQ(send_command(store(), "dance", &answer, &error), CommandResult::Answered) << error;
  EXPECT_EQ(answer, "-the running host doesn't know this request");
}

TEST_F(HostProgramTest, KeysOnItsTerminalOpenPairingShowTheStatusAndStop) {
  start_desktop(640, 480);
  start_host_on_a_terminal();
  EXPECT_TRUE(host_->wait_for_output("Keys: p pairs a device, s status", seconds(10)));
  host_->type("?");
  EXPECT_TRUE(host_->wait_for_output("p  open pairing for 120 s", seconds(10)));
  host_->type("s");
  EXPECT_TRUE(host_->wait_for_output("No paired devices", seconds(10)));
  host_->type("p");
  ASSERT_TRUE(host_->wait_for_output(", open for 120 s", seconds(10)));
  const RunResult paired =
      client({"pair", "--host", host_address(), "--pin", pin_of(host_->output())});
  EXPECT_EQ(paired.status, 0) << paired.output;
  EXPECT_TRUE(host_->wait_for_output("Paired with", seconds(10)));
  host_->type("q");
  EXPECT_EQ(host_->wait(seconds(20)), 0);
  EXPECT_NE(host_->output().find("Stopped."), std::string::npos);
}

TEST_F(HostProgramTest, CtrlCOnItsTerminalStopsIt) {
  start_desktop(640, 480);
  start_host_on_a_terminal();
  host_->type("\x03");
  EXPECT_EQ(host_->wait(seconds(20)), 0);
}

}  // namespace
}  // namespace system_test
