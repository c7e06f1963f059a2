// `lunderhaze doctor` on a desktop that is well, and on one with a single fault each: the line that
// belongs to it says so, and what else is well stays so.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "connection/netsock.h"
#include "tests/support/linux/sound_server.h"
#include "tests/support/temp_directory.h"
#include "tests/system/system_support.h"

namespace system_test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr int EXIT_FINE = 0;
constexpr int EXIT_PROBLEM_FOUND = 9;
constexpr int EXIT_WRONG_USAGE = 1;

class DoctorTest : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    // A firewall of the computer that runs the tests is none of theirs.
    std::filesystem::create_directories(directory_ / "bin");
    for (const auto& [name, value] : sound_.environment()) environment_[name] = value;
    start_desktop(640, 480);
    painter_->fill(0x336699, 0, 0, 320, 480);
  }

  RunResult doctor(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"doctor", "--port", std::to_string(port_)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_program(at(host_place_, "lunderhaze", arguments), environment_, seconds(20));
  }

  // Examines, and takes the report apart.
  void examine(int expected_status) {
    const RunResult result = doctor({"--json"});
    EXPECT_EQ(result.status, expected_status) << result.output;
    report_ = nlohmann::json::parse(result.output, nullptr, false);
    ASSERT_TRUE(report_.is_object()) << result.output;
  }

  // Of a check with one line.
  nlohmann::json line(const std::string& check) const {
    nlohmann::json found;
    for (const auto& each : report_["checks"]) {
      if (each["check"] != check) continue;
      EXPECT_TRUE(found.is_null()) << "several lines for " << check << ": " << report_.dump(2);
      found = each;
    }
    EXPECT_FALSE(found.is_null()) << "no line for " << check << ": " << report_.dump(2);
    return found;
  }
  std::string text(const std::string& check) const { return line(check).value("text", ""); }
  std::string advice(const std::string& check) const { return line(check).value("advice", ""); }

  void expect(const std::string& check, const std::string& verdict, const std::string& text_part) {
    EXPECT_EQ(line(check).value("verdict", ""), verdict) << text(check);
    EXPECT_THAT(text(check), HasSubstr(text_part));
  }
  // All that is not named is well. How long a frame takes here says more of what else the computer
  // is doing than of what is tested.
  void expect_well_but_for(const std::vector<std::string>& checks) {
    for (const auto& each : report_["checks"]) {
      const std::string check = each["check"];
      if (std::ranges::find(checks, check) != checks.end()) continue;
      if (check == "encoder" && each["verdict"] == "warning")
        EXPECT_THAT(each.value("text", ""), HasSubstr("of them a second"));
      else
        EXPECT_EQ(each["verdict"], "ok") << each.dump();
    }
  }

  std::filesystem::path store() const { return directory_ / "config" / "lunderhaze"; }
  // A host was here before: its store is filled.
  void make_store() {
    start_host();
    EXPECT_EQ(stop_host(), 0);
  }
  // Everything below the user's directories with its content.
  std::map<std::string, std::string> kept() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_))
      files[entry.path()] = entry.is_regular_file() ? file_content(entry.path()) : "";
    return files;
  }

  SoundServer sound_;
  nlohmann::json report_;
};

TEST_F(DoctorTest, OnADesktopThatIsWellEverythingIsOk) {
  examine(EXIT_FINE);
  expect_well_but_for({});
  EXPECT_EQ(report_["problems"], 0);
  EXPECT_EQ(report_["port"], port_);
  expect("display", "ok", desktop_->display() + ", 1 monitor: screen 640x480");
  expect("capture", "ok", "took a picture of screen, 640x480");
  expect("capture", "ok", "; 50 % of it isn't black");
  EXPECT_THAT(text("encoder"), HasSubstr("libopenh264"));
  expect("input", "ok", "XTest");
  expect("clipboard", "ok", "shared with clients");
  expect("port", "ok", "UDP port " + std::to_string(port_) + " is free");
  expect("relays", "ok", "none");
  expect("sound", "ok", "what out plays can be recorded; the speakers stay on");
  expect("store", "ok", "none yet: the first start makes " + store().string());
}

TEST_F(DoctorTest, ItLeavesEverythingAsItIs) {
  make_store();
  const auto before = kept();
  examine(EXIT_FINE);
  EXPECT_EQ(kept(), before);
  EXPECT_FALSE(sound_.muted("out"));
}

TEST_F(DoctorTest, ForAPersonThereIsALineForEachAndACount) {
  const RunResult result = doctor();
  EXPECT_EQ(result.status, EXIT_FINE);
  EXPECT_THAT(result.output, StartsWith("ok       display    the X server "));
  EXPECT_THAT(result.output, HasSubstr("\nok       store      none yet"));
  EXPECT_THAT(result.output, HasSubstr("\n0 problems, "));
}

TEST_F(DoctorTest, WrongArgumentsAreRefused) {
  EXPECT_EQ(doctor({"--fix"}).status, EXIT_WRONG_USAGE);
  EXPECT_EQ(doctor({"--port", "0"}).status, EXIT_WRONG_USAGE);
}

TEST_F(DoctorTest, BesideARunningHostAllIsWellAndItStreamsOn) {
  start_host();
  pair();
  ChildProcess& receiver = start_receiver();
  examine(EXIT_FINE);
  expect_well_but_for({});
  expect("port", "ok", "is this user's running host's");
  expect("store", "ok", "is whole: identity, authorized_clients");
  // Without being told, it looks at the port that the host has.
  const RunResult result =
      run_program(at({}, "lunderhaze", {"doctor", "--json"}), environment_, seconds(20));
  EXPECT_EQ(nlohmann::json::parse(result.output)["port"], port_);
  EXPECT_TRUE(receiver.wait_for_output("fps", seconds(20), receiver.output().size()));
  EXPECT_EQ(stop_host(), 0);
}

// ---- One fault each

TEST_F(DoctorTest, WithoutADisplay) {
  environment_["DISPLAY"] = "";
  examine(EXIT_PROBLEM_FOUND);
  expect("display", "problem", "DISPLAY is not set");
  EXPECT_THAT(advice("display"), HasSubstr("DISPLAY=:0 lunderhaze doctor"));
  for (const char* check : {"capture", "input", "clipboard"})
    expect(check, "warning", "not tried: there is no display");
  expect_well_but_for({"display", "capture", "input", "clipboard"});
}

TEST_F(DoctorTest, AWaylandSessionIsNamed) {
  environment_["DISPLAY"] = "";
  environment_["WAYLAND_DISPLAY"] = "wayland-7";
  environment_["XDG_SESSION_TYPE"] = "wayland";
  examine(EXIT_PROBLEM_FOUND);
  expect("display", "problem", "this is a Wayland session");
  EXPECT_THAT(advice("display"), HasSubstr("wayland-7"));
  EXPECT_THAT(advice("display"), HasSubstr("choose an X11 (Xorg) session"));
}

TEST_F(DoctorTest, AnXServerThatIsGone) {
  desktop_->kill();
  examine(EXIT_PROBLEM_FOUND);
  expect("display", "problem", "cannot connect to the X display " + desktop_->display());
}

TEST_F(DoctorTest, AnXServerThatHangsEndsNothingButItsOwnChecks) {
  desktop_->pause();
  examine(EXIT_PROBLEM_FOUND);
  desktop_->resume();
  expect("display", "problem", "no result after 4 s: the X server doesn't answer");
  expect("capture", "warning", "not tried");
  expect_well_but_for({"display", "capture", "input", "clipboard"});
}

TEST_F(DoctorTest, AScreenThatIsBlackThroughout) {
  painter_->fill(0, 0, 0, 640, 480);
  examine(EXIT_FINE);
  expect("capture", "warning", "all of it is black");
  EXPECT_THAT(advice("capture"), StartsWith("right if the screen is empty or switched off"));
  expect_well_but_for({"capture"});
}

TEST_F(DoctorTest, AnXServerWithoutXTest) {
  painter_.reset();
  desktop_ = std::make_unique<Xvfb>(640, 480, 24, std::vector<std::string>{"-extension", "XTEST"});
  environment_["DISPLAY"] = desktop_->display();
  RootPainter(desktop_->display()).fill(0x336699, 0, 0, 640, 480);
  examine(EXIT_PROBLEM_FOUND);
  expect("input", "problem", "keyboard and mouse can't be played");
  EXPECT_THAT(advice("input"), HasSubstr("lacks XTEST"));
  expect_well_but_for({"input"});
}

TEST_F(DoctorTest, APortThatAnotherProgramHasNamesIt) {
  const lund_socket taken = lund_udp_open(4, nullptr, static_cast<std::uint16_t>(port_));
  ASSERT_NE(taken, LUND_NO_SOCKET);
  examine(EXIT_PROBLEM_FOUND);
  lund_udp_close(taken);
  expect("port", "problem",
         "UDP port " + std::to_string(port_) + " is taken by system_test (process " +
             std::to_string(getpid()) + ")");
  EXPECT_THAT(advice("port"), HasSubstr("--port"));
  expect_well_but_for({"port"});
}

TEST_F(DoctorTest, APortThatAHostOnAnotherStoreHas) {
  start_host();
  environment_["XDG_CONFIG_HOME"] = directory_ / "other-config";
  examine(EXIT_PROBLEM_FOUND);
  expect("port", "problem",
         "is taken by lunderhaze (process " + std::to_string(host_->pid()) + ")");
}

TEST_F(DoctorTest, AHostThatHangs) {
  start_host();
  host_->signal(SIGSTOP);
  examine(EXIT_PROBLEM_FOUND);
  host_->signal(SIGCONT);
  expect("port", "problem", "no result after 9 s: this user's running host doesn't answer");
  EXPECT_EQ(stop_host(), 0);
}

TEST_F(DoctorTest, WithoutASoundServer) {
  sound_.kill();
  examine(EXIT_FINE);
  expect("sound", "warning", "cannot reach the sound server: clients hear nothing");
  EXPECT_THAT(advice("sound"), HasSubstr("systemctl --user start pipewire-pulse"));
  expect_well_but_for({"sound"});
}

TEST_F(DoctorTest, AnOutputThatIsMutedWhereThatSilencesTheRecording) {
  sound_.set_mute("out", true);
  examine(EXIT_FINE);
  expect("sound", "warning", "out is muted, which silences its recording here");
  EXPECT_TRUE(sound_.muted("out"));
}

TEST_F(DoctorTest, ASoundServerThatHangsEndsNothingButItsOwnCheck) {
  sound_.hang();
  examine(EXIT_FINE);
  sound_.carry_on();
  expect("sound", "warning", "clients hear nothing");
  expect_well_but_for({"sound"});
}

TEST_F(DoctorTest, AStoreThatCannotBeMade) {
  std::filesystem::create_directories(directory_ / "config");
  write_file(store(), "in the way");
  examine(EXIT_PROBLEM_FOUND);
  expect("store", "problem", store().string() + " is no directory");
  expect_well_but_for({"store"});
}

TEST_F(DoctorTest, AStoreOnADiskThatIsMountedReadOnly) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
  make_store();
  host_place_ = {"unshare",
                 "--mount",
                 "sh",
                 "-c",
                 "mount --bind \"$1\" \"$1\" && mount -o remount,ro,bind \"$1\" && shift && "
                 "exec \"$@\"",
                 "sh",
                 store()};
  examine(EXIT_PROBLEM_FOUND);
  expect("store", "problem", store().string() + " can't be written");
  expect_well_but_for({"store"});
}

TEST_F(DoctorTest, AStoreWhoseSecretIsDamagedIsLeftForTheHostToDealWith) {
  make_store();
  std::string bytes = file_content(store() / "identity");
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  write_file(store() / "identity", bytes);
  examine(EXIT_PROBLEM_FOUND);
  expect("store", "problem", "identity is damaged");
  EXPECT_THAT(advice("store"), HasSubstr("pair the devices again"));
  EXPECT_EQ(file_content(store() / "identity"), bytes);
  expect_well_but_for({"store"});
}

TEST_F(DoctorTest, AStoreThatOthersCanRead) {
  make_store();
  ASSERT_EQ(chmod((store() / "store.key").c_str(), 0644), 0);
  examine(EXIT_PROBLEM_FOUND);
  expect("store", "problem", "others than its owner can get at store.key");
  EXPECT_THAT(advice("store"), StartsWith("chmod -R go= "));
}

TEST_F(DoctorTest, ARelayServerThatDoesNotAnswer) {
  const std::string name = "127.0.0.1:" + std::to_string(free_port());
  const RunResult added = run_program(
      at({}, "lunderhaze", {"relays", "add", "lunderhaze-relay://" + name + "#a-secret-key"}),
      environment_);
  ASSERT_EQ(added.status, 0) << added.output;
  examine(EXIT_PROBLEM_FOUND);
  expect("relays", "problem", name + ": no answer");
  EXPECT_THAT(advice("relays"), HasSubstr("lunderhaze relays remove " + name));
  expect_well_but_for({"relays"});
}

// ---- The firewall

TEST_F(DoctorTest, AFirewallThatLetsNoClientIn) {
  if (geteuid() != 0) GTEST_SKIP() << "ufw answers root alone";
  write_file(directory_ / "bin" / "ufw",
             "#!/bin/sh\necho 'Status: active'\necho '22/tcp  ALLOW IN  Anywhere'\n");
  std::filesystem::permissions(directory_ / "bin" / "ufw", std::filesystem::perms::owner_all);
  environment_["PATH"] = (directory_ / "bin").string() + ":/usr/bin:/bin";
  examine(EXIT_PROBLEM_FOUND);
  expect("firewall", "problem",
         "ufw is active and has no rule that lets UDP port " + std::to_string(port_) + " in");
  EXPECT_THAT(advice("firewall"), HasSubstr("lunderhaze firewall on"));
  expect_well_but_for({"firewall"});
}

}  // namespace
}  // namespace system_test
