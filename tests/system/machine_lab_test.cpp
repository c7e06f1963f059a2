// The lab itself: what is inside stays inside, what a program there needs from outside reaches it,
// and nothing outlives it.
#include "tests/support/linux/machine_lab.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <optional>

#include "connection/netsock.h"
#include "tests/support/temp_directory.h"
#include "tests/support/xvfb.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class MachineLabTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineLab::missing().empty()) GTEST_SKIP() << MachineLab::missing();
    lab_.emplace();
  }
  std::optional<MachineLab> lab_;
};

bool runs(pid_t pid) {
  return fs::exists("/proc/" + std::to_string(pid) + "/exe");
}

TEST_F(MachineLabTest, StartsWithNothingInTheMachinesOwnDirectories) {
  EXPECT_TRUE(fs::is_empty(lab_->path("/run")));
  EXPECT_TRUE(fs::is_empty(lab_->path("/var/lib")));
  EXPECT_EQ(lab_->run({"ls", "-A", "/run", "/var/lib"}).output, "/run:\n\n/var/lib:\n");
}

TEST_F(MachineLabTest, SharesFilesWithTheTestAloneAndNotWithTheMachineOrAnotherLab) {
  const MachineLab other;
  ASSERT_EQ(lab_->run({"sh", "-c", "echo of the inside >/run/lund-lab-test"}).status, 0);
  EXPECT_EQ(file_content(lab_->path("/run/lund-lab-test")), "of the inside\n");
  write_file(lab_->path("/var/lib/lund-lab-test"), "of the test");
  EXPECT_EQ(lab_->run({"cat", "/var/lib/lund-lab-test"}).output, "of the test");
  lab_->call([] { EXPECT_EQ(file_content("/var/lib/lund-lab-test"), "of the test"); });
  for (const fs::path path : {"/run/lund-lab-test", "/var/lib/lund-lab-test"}) {
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(fs::exists(other.path(path)));
  }
}

TEST_F(MachineLabTest, CarriesDatagramsBetweenProgramsInsideAndToNobodyElse) {
  lund_socket inside = LUND_NO_SOCKET;
  lab_->call([&] { inside = lund_udp_open(4, nullptr, 0); });
  ASSERT_NE(inside, LUND_NO_SOCKET);
  lund_rv_endpoint address;
  ASSERT_EQ(lund_addr_parse(&address, "127.0.0.1", lund_udp_local_port(inside)), 0);
  const lund_socket outside = lund_udp_open(4, nullptr, 0);
  lund_udp_send(outside, address, "from outside", 12);
  lab_->call([&] {
    const lund_socket neighbour = lund_udp_open(4, nullptr, 0);
    lund_udp_send(neighbour, address, "inside", 6);
    lund_udp_close(neighbour);
  });
  char buffer[64];
  lund_rv_endpoint from;
  ASSERT_EQ(lund_udp_wait(&inside, 1, 5000), 1);
  EXPECT_EQ(lund_udp_recv(inside, buffer, sizeof buffer, &from), 6);
  lund_udp_close(outside);
  lund_udp_close(inside);
}

TEST_F(MachineLabTest, ReachesAScreenOutside) {
  const Xvfb screen(320, 240);
  ASSERT_TRUE(screen.running());
  const RunResult result = lab_->run({"xrandr", "--query"});
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_NE(result.output.find("320x240"), std::string::npos) << result.output;
}

TEST_F(MachineLabTest, KnowsAProgramInsideByTheIdThatAllKnowItBy) {
  // The shell itself waits, and has no child meanwhile.
  ChildProcess program(
      lab_->inside({"sh", "-c", "mkfifo /run/gate && echo $$ && read line </run/gate"}));
  ASSERT_TRUE(program.wait_for_output(std::to_string(program.pid()) + "\n", 10s));
  const std::string shell = fs::canonical("/bin/sh").filename();
  EXPECT_EQ(lab_->processes(shell), std::vector<pid_t>{program.pid()});
  EXPECT_TRUE(lab_->processes("lunderhaze").empty());
}

TEST_F(MachineLabTest, EndsWithAllThatRunsInIt) {
  // A program that has left its parent, and one that its own starter holds on to.
  ChildProcess program(
      lab_->inside({"sh", "-c", "(setsid sleep infinity & echo $! left); exec sleep infinity"}));
  ASSERT_TRUE(program.wait_for_output(" left\n", 10s));
  const pid_t left = std::stoi(program.output());
  EXPECT_TRUE(runs(left));
  lab_.reset();
  EXPECT_FALSE(runs(left));
  EXPECT_EQ(program.wait(10s), 128 + SIGKILL);
}

}  // namespace
