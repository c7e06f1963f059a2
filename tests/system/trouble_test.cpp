// Bad input and bad luck: each gives a clear text and the right exit status, and nothing is lost.
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>

#include "connection/netsock.h"
#include "tests/system/system_support.h"

namespace system_test {
namespace {

class TroubleTest : public SystemTest {
 protected:
  RunResult run_host(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {program("lunderhaze"), "--port", std::to_string(port_)};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program(all, environment_, seconds(20));
  }
};

void expect_said(const RunResult& result, int status, const std::string& text) {
  EXPECT_EQ(result.status, status) << result.output;
  EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
}

TEST_F(TroubleTest, APortInUseIsNamed) {
  start_desktop(640, 480);
  const lund_socket taken = lund_udp_open(4, nullptr, static_cast<std::uint16_t>(port_));
  ASSERT_NE(taken, LUND_NO_SOCKET);
  const std::string port = std::to_string(port_);
  expect_said(run_host({}), 4,
              "bind failed (errno 98) on UDP port " + port + "; \"lunderhaze doctor --port " +
                  port + "\" looks for the reason");
  lund_udp_close(taken);
}

TEST_F(TroubleTest, WithoutADisplayTheHostSaysSo) {
  expect_said(run_host({}), 2, "DISPLAY");
}

TEST_F(TroubleTest, AWaylandSessionIsRefusedByName) {
  environment_["WAYLAND_DISPLAY"] = "wayland-0";
  environment_["XDG_SESSION_TYPE"] = "wayland";
  expect_said(run_host({}), 2, "Wayland");
}

TEST_F(TroubleTest, ADisplayThatIsNotThereIsRefused) {
  start_desktop(640, 480);
  expect_said(run_host({"--display", "nowhere"}), 2, "there is no display \"nowhere\"");
}

TEST_F(TroubleTest, AWrongOptionShowsItsMessageAndTheUsage) {
  expect_said(run_host({"--fps", "0"}), 1, "--fps must be 1..240");
  expect_said(run_host({"--fly"}), 1, "unknown option --fly");
}

TEST_F(TroubleTest, DisplaysAreListed) {
  start_desktop(800, 600);
  expect_said(run_host({"--list-displays"}), 0, "800x600");
}

TEST_F(TroubleTest, AWrongPinIsRefusedAndTheRightOneStillPairs) {
  start_desktop(640, 480);
  start_host();
  const std::string wrong = shown_pin() == "000000" ? "000001" : "000000";
  expect_said(client({"pair", "--host", host_address(), "--pin", wrong}), 4,
              "wrong PIN or password");
  pair();
}

TEST_F(TroubleTest, TheTextOfPinIsThePasswordOfThisRun) {
  start_desktop(640, 480);
  start_host({"--codec", "h264", "--pin", "correct-horse"});
  ASSERT_TRUE(host_->wait_for_output("PIN ", seconds(10)));
  expect_said(client({"pair", "--host", host_address(), "--password", "wrong-horse"}), 4,
              "wrong PIN or password");
  const RunResult paired =
      client({"pair", "--host", host_address(), "--password", "correct-horse"});
  EXPECT_EQ(paired.status, 0) << paired.output;
  EXPECT_FALSE(std::filesystem::exists(directory_ / "config" / "lunderhaze" / "pairing_password"));
}

TEST_F(TroubleTest, ADeviceThatTheHostDoesNotKnowIsTold) {
  start_desktop(640, 480);
  start_host();
  pair();
  EXPECT_EQ(stop_host(), 0);
  std::filesystem::remove(directory_ / "config" / "lunderhaze" / "authorized_clients");
  start_host();
  expect_said(client({"connect", "--host", host_address(), "--seconds", "1"}), 3,
              "does not know this device");
}

TEST_F(TroubleTest, ANewHostKeyAtTheOldAddressGivesNoStream) {
  start_desktop(640, 480);
  start_host();
  pair();
  EXPECT_EQ(stop_host(), 0);
  std::filesystem::remove(directory_ / "config" / "lunderhaze" / "identity");
  start_host();
  expect_said(client({"connect", "--host", host_address(), "--seconds", "1"}), 2,
              "no answer from the host");
}

TEST_F(TroubleTest, AStreamThatNoEncoderTakesIsRefusedInWords) {
  start_desktop(8200, 64);  // wider than any encoder here takes
  start_host();
  pair();
  expect_said(client({"connect", "--host", host_address(), "--seconds", "1"}), 3,
              "the host could not start the stream");
  EXPECT_NE(host_log().find("session rejected: no working capture/encoder"), std::string::npos);
}

TEST_F(TroubleTest, AScreenThatDoesNotExistIsRefused) {
  start_desktop(640, 480);
  start_host();
  pair();
  expect_said(client({"connect", "--host", host_address(), "--seconds", "1", "--screen", "2"}), 3,
              "no such screen");
  EXPECT_NE(host_log().find("see README: Virtual displays"), std::string::npos);
}

TEST_F(TroubleTest, ADisplayThatVanishesNeitherCrashesNorHangsTheHost) {
  start_desktop(640, 480);
  ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  start_host();
  pair();
  ChildProcess& receiver = start_receiver();
  desktop_->kill();
  ASSERT_TRUE(receiver.wait_for_output("  0.0 fps", seconds(10))) << receiver.output();
  EXPECT_EQ(stop_host(), 0) << host_->output();
}

TEST_F(TroubleTest, AHostThatIsKilledEndsTheClientWithWords) {
  start_desktop(640, 480);
  ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  start_host();
  pair();
  ChildProcess& receiver = start_receiver();
  host_->signal(SIGKILL);
  EXPECT_EQ(receiver.wait(seconds(15)), 2) << receiver.output();
  EXPECT_NE(receiver.output().find("the host has fallen silent"), std::string::npos);
}

TEST_F(TroubleTest, NobodyAtTheAddressIsANamedFailure) {
  expect_said(client({"pair", "--host", host_address(), "--pin", "123456"}), 2, "no host answered");
}

TEST_F(TroubleTest, ADamagedIdentityIsKeptAsideAndDevicesPairAgain) {
  start_desktop(640, 480);
  start_host();
  pair();
  EXPECT_EQ(stop_host(), 0);
  const auto identity = directory_ / "config" / "lunderhaze" / "identity";
  std::fstream file(identity, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(-1, std::ios::end);
  file.put('\x55');
  file.put('\x55');
  file.close();
  start_host();
  EXPECT_TRUE(std::filesystem::exists(identity.parent_path() / "identity.bad"));
  EXPECT_NE(host_log().find("kept as identity.bad"), std::string::npos);
}

TEST_F(TroubleTest, AnUnreadableStoreStillGivesAHostAndSaysWhatItLost) {
  start_desktop(640, 480);
  std::filesystem::create_directories(directory_ / "config" / "lunderhaze");
  std::ofstream(directory_ / "config" / "lunderhaze" / "authorized_clients") << "nonsense\n";
  start_host();
  EXPECT_NE(host_log().find("authorized_clients is malformed: no paired devices loaded"),
            std::string::npos);
}

TEST_F(TroubleTest, AFullDiskForTheLogStopsNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a small file system needs root";
  const auto state = directory_ / "state";
  std::filesystem::create_directories(state);
  ASSERT_EQ(mount("tmpfs", state.c_str(), "tmpfs", 0, "size=4096"), 0);
  start_desktop(640, 480);
  ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  std::filesystem::create_directories(state / "lunderhaze");
  std::ofstream(state / "filler") << std::string(8192, 'x');
  start_host();
  pair();
  stream(1);
  EXPECT_EQ(stop_host(), 0);
  EXPECT_EQ(umount2(state.c_str(), MNT_DETACH), 0);
}

TEST_F(TroubleTest, AFullDiskForTheRecordingIsSaid) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a small file system needs root";
  start_desktop(640, 480);
  ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  start_host();
  pair();
  std::filesystem::create_directories(out());
  ASSERT_EQ(mount("tmpfs", out().c_str(), "tmpfs", 0, "size=65536"), 0);
  const RunResult result =
      client({"connect", "--host", host_address(), "--seconds", "3", "--out", out().string()});
  expect_said(result, 5, "the disk full");
  EXPECT_EQ(umount2(out().c_str(), MNT_DETACH), 0);
}

}  // namespace
}  // namespace system_test
