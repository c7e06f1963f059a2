// What the worker's process accepts as its arguments, and when it asks for the displays. Its life
// is in realtime/.
#include "worker/worker.h"

#include <gmock/gmock.h>

#include "control/ipc_transport.h"
#include "tests/support/captured_log.h"

using host_app::DisplayWake;
using host_app::parse_worker_arguments;
using host_app::WorkerArguments;
using host_app::WorkerSystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string DIGITS = "0123456789abcdef0123456789abcdef";
const std::string CHANNEL = host_service::WORKER_PIPE_PREFIX + DIGITS;

bool accepts(const std::vector<std::string>& arguments) {
  WorkerArguments parsed;
  return parse_worker_arguments(arguments, &parsed);
}
bool accepts_pid(const std::string& pid) {
  return accepts({"--supervisor", pid, "--channel", CHANNEL});
}
bool accepts_channel(const std::string& channel) {
  return accepts({"--supervisor", "12", "--channel", channel});
}

class Screens final : public WorkerSystem {
 public:
  void restrict_library_directories() override {}
  Lock take_lock() override { return Lock::Held; }
  void release_lock() override {}
  void stop_on_signals(WakeEvent*) override {}
  bool keep_display_awake(bool on) override {
    asked.push_back(on);
    return available;
  }
  std::vector<bool> asked;
  bool available = true;
};

}  // namespace

TEST(WorkerArguments, TheOnlyOnesAccepted) {
  WorkerArguments parsed;
  ASSERT_TRUE(parse_worker_arguments({"--supervisor", "4711", "--channel", CHANNEL}, &parsed));
  EXPECT_EQ(parsed.supervisor, 4711u);
  EXPECT_EQ(parsed.channel, CHANNEL);
}

TEST(WorkerArguments, SwappedOptionsAFifthArgumentOrTooFewAreRefused) {
  EXPECT_FALSE(accepts({"--channel", CHANNEL, "--supervisor", "12"}));
  EXPECT_FALSE(accepts({"--supervisor", "12", "--channel", CHANNEL, "--console"}));
  EXPECT_FALSE(accepts({"--supervisor", "12", "--channel"}));
  EXPECT_FALSE(accepts({}));
  EXPECT_FALSE(accepts({"--Supervisor", "12", "--channel", CHANNEL}));
  EXPECT_FALSE(accepts({"--supervisor", "12", "--channels", CHANNEL}));
}

TEST(WorkerArguments, AProcessIdOf0OrWithMoreThanDigitsOrEmptyIsRefused) {
  EXPECT_FALSE(accepts_pid("0"));
  EXPECT_FALSE(accepts_pid("12x"));
  EXPECT_FALSE(accepts_pid(""));
  EXPECT_FALSE(accepts_pid("x"));
  EXPECT_FALSE(accepts_pid("12 "));
  EXPECT_TRUE(accepts_pid("4294967295"));
}

TEST(WorkerArguments, AChannelNameIsThePrefixAnd32LowerCaseDigits) {
  EXPECT_TRUE(accepts_channel(CHANNEL));
  EXPECT_FALSE(accepts_channel(host_service::WORKER_PIPE_PREFIX + DIGITS.substr(1)));
  EXPECT_FALSE(accepts_channel(CHANNEL + "0"));
  EXPECT_FALSE(accepts_channel(host_service::WORKER_PIPE_PREFIX + DIGITS.substr(1) + "A"));
  EXPECT_FALSE(accepts_channel(host_service::WORKER_PIPE_PREFIX + DIGITS.substr(1) + "g"));
  EXPECT_FALSE(accepts_channel("/run/lunderhaze/host-worker-v2-" + DIGITS));
  EXPECT_FALSE(accepts_channel(DIGITS));
  EXPECT_FALSE(accepts_channel(""));
}

TEST(DisplayWake, AsksOnceAtEachChangeAndNotOncePerPoll) {
  Screens screens;
  DisplayWake wake(screens);
  for (const bool active : {false, false, true, true, true, false, false}) wake.follow(active);
  EXPECT_THAT(screens.asked, ElementsAre(true, false));
}

TEST(DisplayWake, ARequestThatFailsIsSaidAndNotRepeated) {
  const CapturedLog log;
  Screens screens;
  screens.available = false;
  DisplayWake wake(screens);
  for (int i = 0; i < 3; ++i) wake.follow(true);
  EXPECT_THAT(screens.asked, ElementsAre(true));
  EXPECT_EQ(log.count("Host worker display wake request unavailable"), 1);
}
