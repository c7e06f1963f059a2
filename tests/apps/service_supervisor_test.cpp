#include "apps/service/supervisor.h"

#include <set>

#include "tests/apps/service_rig.h"

namespace service_test {
namespace {

class SupervisorTest : public ServiceRig {};

TEST_F(SupervisorTest, StartsAWorkerForTheActiveSessionByPidAndChannel) {
  activate(session(8));
  step();
  ASSERT_EQ(starts(), 1u);
  ASSERT_EQ(worker().arguments.size(), 4u);
  EXPECT_EQ(worker().arguments[0], "--supervisor");
  EXPECT_EQ(worker().arguments[1], "4711");
  EXPECT_EQ(worker().arguments[2], "--channel");
  EXPECT_EQ(worker().arguments[3], channels_.back());
  EXPECT_EQ(worker().session, session(8));
  EXPECT_EQ(worker().attached_session, 8u);
  EXPECT_EQ(supervisor_.state().worker, worker().id);
  EXPECT_EQ(supervisor_.state().session, 8u);
  EXPECT_EQ(supervisor_.state().last_exit, "none");
}

TEST_F(SupervisorTest, AChannelsNameIsThePrefixAnd32LowerCaseHexadecimalDigits) {
  step();
  const std::string prefix = host_service::WORKER_PIPE_PREFIX;
  ASSERT_TRUE(channels_.back().starts_with(prefix));
  const std::string digits = channels_.back().substr(prefix.size());
  EXPECT_EQ(digits.size(), 32u);
  EXPECT_EQ(digits.find_first_not_of("0123456789abcdef"), digits.npos);
}

TEST_F(SupervisorTest, NoChannelIsUsedTwice) {
  step();
  for (int i = 0; i < 300; ++i) {
    worker().exit(0);
    run_ms(60'000);
  }
  EXPECT_EQ(channels_.size(), 301u);
  EXPECT_EQ(std::set<std::string>(channels_.begin(), channels_.end()).size(), 301u);
}

TEST_F(SupervisorTest, ARandomSourceThatFailsOrRepeatsItselfStartsNoWorker) {
  random_ = [](void*, std::size_t) { return -7; };
  step();
  EXPECT_EQ(starts(), 0u);
  EXPECT_EQ(said("the system's random source failed"), 1);
  random_ = [](void* bytes, std::size_t size) {
    std::fill_n(static_cast<unsigned char*>(bytes), size, static_cast<unsigned char>(7));
    return 0;
  };
  run_ms(1'000);
  EXPECT_EQ(starts(), 1u);
  worker().die(9);
  run_ms(10'000);
  EXPECT_EQ(starts(), 1u);
  random_ = lund_random_bytes;
  run_ms(60'000);
  EXPECT_EQ(starts(), 2u);
}

TEST_F(SupervisorTest, TheBackOffDoublesFromASecondToAMinute) {
  step();
  for (const std::uint64_t expected_ms :
       {1'000, 2'000, 4'000, 8'000, 16'000, 32'000, 60'000, 60'000, 60'000})
    EXPECT_EQ(pause_after_ms(5), expected_ms);
}

TEST_F(SupervisorTest, TheBackOffIsFreshAfterAMinuteOfRunning) {
  step();
  EXPECT_EQ(pause_after_ms(5), 1'000u);
  EXPECT_EQ(pause_after_ms(5), 2'000u);
  EXPECT_EQ(pause_after_ms(5, 59'000), 4'000u);
  EXPECT_EQ(pause_after_ms(5, 60'000), 1'000u);
  EXPECT_EQ(pause_after_ms(5), 2'000u);
}

TEST_F(SupervisorTest, AnEndThatNobodyAskedForRestartsAfterEachCodeThatMayPass) {
  step();
  for (const int code : {0, 3, 4, 5, 6, 99}) {
    EXPECT_GE(pause_after_ms(code), 1'000u) << code;
    EXPECT_EQ(said("exit code " + std::to_string(code) + ": "), 1) << code;
  }
  worker().die(11);
  const std::size_t before = starts();
  run_ms(60'000);
  EXPECT_EQ(starts(), before + 1);
  EXPECT_EQ(said("killed by signal 11"), 1);
}

TEST_F(SupervisorTest, AWorkerThatCannotStartIsNotStartedAgainAndStateSaysWhy) {
  for (const int code : {1, 2}) {
    activate(session(static_cast<std::uint32_t>(code)));
    step();
    const std::size_t before = starts();
    worker().exit(code);
    run_ms(600'000);
    EXPECT_EQ(starts(), before) << code;
    EXPECT_EQ(supervisor_.state().worker, 0u);
    EXPECT_EQ(supervisor_.state().last_exit, words_for(*worker().end));
    EXPECT_NE(supervisor_.state().doing.find("not starting the worker again"), std::string::npos);
    EXPECT_EQ(said("it is not started again before a restart is asked for"), code);
  }
}

// A process manager's "end task" gives 1, which a worker says of its arguments.
TEST_F(SupervisorTest, AWorkerThatWasUpIsStartedAgainWhateverCodeItWasEndedWith) {
  for (const int code : {1, 2}) {
    step();
    EXPECT_GE(pause_after_ms(code, 1'000), 1'000u) << code;
  }
}

TEST_F(SupervisorTest, ARestartTriesOnceMoreWhatWasGivenUp) {
  step();
  worker().exit(1);
  run_ms(60'000);
  EXPECT_TRUE(supervisor_.restart());
  step();
  EXPECT_EQ(starts(), 2u);
  worker().exit(1);
  run_ms(60'000);
  EXPECT_EQ(starts(), 2u);
}

TEST_F(SupervisorTest, AnotherSessionTriesOnceMoreWhatWasGivenUp) {
  step();
  worker().exit(2);
  run_ms(60'000);
  activate(session(2));
  step();
  EXPECT_EQ(starts(), 2u);
}

TEST_F(SupervisorTest, EachExitCodeHasItsOwnWords) {
  std::set<std::string> words;
  for (int code = 0; code <= 6; ++code) {
    words.insert(words_for({WorkerEnd::Kind::Exited, code}).substr(sizeof "exit code N: " - 1));
    EXPECT_EQ(words_for({WorkerEnd::Kind::Exited, code}).find(';'), std::string::npos);
  }
  EXPECT_EQ(words.size(), 7u);
  EXPECT_FALSE(words.contains("not one of a worker's"));
  EXPECT_EQ(words_for({WorkerEnd::Kind::Exited, 7}), "exit code 7: not one of a worker's");
  EXPECT_EQ(words_for({WorkerEnd::Kind::Exited, -1}), "exit code -1: not one of a worker's");
  EXPECT_EQ(words_for({WorkerEnd::Kind::Signalled, 9}), "killed by signal 9");
  EXPECT_EQ(words_for({WorkerEnd::Kind::Faulted, static_cast<int>(0xC0000005)}),
            "ended by the exception 0xC0000005");
  EXPECT_EQ(words_for({WorkerEnd::Kind::Killed, 1}), "killed");
}

TEST_F(SupervisorTest, AnotherActiveSessionStopsTheWorkerAndGetsItsOwnAtOnce) {
  step();
  activate(session(2, "bert"));
  run_ms(0);
  EXPECT_TRUE(workers_[0]->stop_asked);
  EXPECT_FALSE(workers_[0]->terminated);
  run_ms(1);
  ASSERT_EQ(starts(), 2u);
  EXPECT_EQ(worker().attached_session, 2u);
  EXPECT_EQ(said("the active session is now session 2 of bert"), 1);
}

TEST_F(SupervisorTest, ASessionThatComesBackWhileItsWorkerStopsGetsAFreshOne) {
  step();
  worker().obeys_stop = false;
  activate(session(2));
  step();
  activate(session(1));
  worker().exit(0);
  run_ms(1);
  ASSERT_EQ(starts(), 2u);
  EXPECT_EQ(worker().attached_session, 1u);
}

TEST_F(SupervisorTest, WithoutASessionTheWorkerIsStoppedAndTheWaitIsSaidOnce) {
  step();
  no_session("no session is active");
  run_ms(600'000);
  EXPECT_TRUE(worker().stop_asked);
  EXPECT_EQ(starts(), 1u);
  EXPECT_EQ(said("waiting for a graphical session: no session is active"), 1);
  EXPECT_EQ(supervisor_.state().session, 0u);
  activate(session(1));
  step();
  EXPECT_EQ(starts(), 2u);
}

TEST_F(SupervisorTest, AWaitForAnotherReasonIsSaidToo) {
  no_session("no session is active");
  run_ms(1'000);
  no_session("session 2 of anna is a Wayland session");
  run_ms(1'000);
  EXPECT_EQ(said("waiting for a graphical session"), 2);
  EXPECT_EQ(starts(), 0u);
}

TEST_F(SupervisorTest, ARestartOnDemandStopsTheWorkerAndStartsOneAtOnce) {
  run_ms(1'000);
  EXPECT_TRUE(supervisor_.restart());
  run_ms(1);
  EXPECT_TRUE(workers_[0]->stop_asked);
  ASSERT_EQ(starts(), 2u);
  run_ms(60'000);
  EXPECT_EQ(starts(), 2u);  // once
}

TEST_F(SupervisorTest, ARestartOnDemandCutsABackOffShort) {
  step();
  for (int i = 0; i < 6; ++i) pause_after_ms(5);
  worker().exit(5);
  run_ms(100);
  EXPECT_TRUE(supervisor_.restart());
  step();
  EXPECT_EQ(starts(), 8u);
  EXPECT_EQ(pause_after_ms(5), 1'000u);  // fresh
}

TEST_F(SupervisorTest, ARestartWithoutASessionIsRefused) {
  no_session("no session is active");
  step();
  EXPECT_FALSE(supervisor_.restart());
}

TEST_F(SupervisorTest, AnOrderlyStopAsksTheWorkerAndThenEnds) {
  run_ms(1'000);
  supervisor_.stop();
  run_ms(1);
  EXPECT_TRUE(worker().stop_asked);
  EXPECT_FALSE(worker().terminated);
  EXPECT_TRUE(worker().closed);
  EXPECT_TRUE(supervisor_.done());
  EXPECT_EQ(starts(), 1u);
}

TEST_F(SupervisorTest, AStopWithoutAWorkerEndsAtOnce) {
  no_session("no session is active");
  step();
  supervisor_.stop();
  step();
  EXPECT_TRUE(supervisor_.done());
}

TEST_F(SupervisorTest, AStopDuringABackOffStartsNoWorker) {
  step();
  worker().exit(5);
  run_ms(10);
  supervisor_.stop();
  step();
  EXPECT_TRUE(supervisor_.done());
  EXPECT_EQ(starts(), 1u);
}

TEST_F(SupervisorTest, AWorkerThatIgnoresStopGetsSigtermAfterTenSecondsAndIsLogged) {
  step();
  worker().obeys_stop = false;
  supervisor_.stop();
  run_ms(9'999);
  EXPECT_FALSE(worker().terminated);
  run_ms(2);
  EXPECT_EQ(worker().terminated_us - worker().stop_asked_us, 10'000'000u);
  EXPECT_TRUE(supervisor_.done());
  EXPECT_FALSE(worker().killed);
  EXPECT_EQ(said("did not end within 10 s of Stop: sending SIGTERM"), 1);
}

TEST_F(SupervisorTest, AWorkerThatIgnoresSigtermTooIsKilledAndLogged) {
  step();
  worker().obeys_stop = false;
  worker().obeys_sigterm = false;
  supervisor_.stop();
  run_ms(20'000);
  EXPECT_EQ(worker().killed_us - worker().terminated_us, 5'000'000u);
  EXPECT_EQ(said("did not end within 5 s of SIGTERM: killing it"), 1);
  EXPECT_TRUE(supervisor_.done());
}

TEST_F(SupervisorTest, AWorkerThatIgnoresStopAndCannotBeAskedOtherwiseIsKilledAtOnce) {
  step();
  worker().obeys_stop = false;
  worker().can_be_asked = false;
  supervisor_.stop();
  run_ms(20'000);
  EXPECT_EQ(worker().killed_us - worker().stop_asked_us, 10'000'000u);
  EXPECT_EQ(said("did not end within 10 s of Stop: killing it"), 1);
  EXPECT_EQ(said("SIGTERM"), 0);
  EXPECT_TRUE(supervisor_.done());
}

TEST_F(SupervisorTest, AWorkerWhoseHeartbeatsStopFor15SecondsIsKilledAndRestarted) {
  run_ms(5'000);
  worker().heartbeats = false;
  const std::uint64_t last_us = worker().last_heartbeat_us;
  run_ms(14'900);
  EXPECT_FALSE(workers_[0]->killed);
  run_ms(200);
  EXPECT_EQ(workers_[0]->killed_us - last_us, 15'000'000u);
  EXPECT_EQ(said("no sign of life for 15 s: killing it"), 1);
  EXPECT_EQ(starts(), 1u);
  run_ms(1'000);
  EXPECT_EQ(starts(), 2u);
}

TEST_F(SupervisorTest, AWorkerThatFallsSilentRightAfterItsFirstHeartbeatIsKilled15SecondsLater) {
  run_ms(100);
  worker().heartbeats = false;
  const std::uint64_t only_us = worker().last_heartbeat_us;
  ASSERT_NE(only_us, 0u);
  run_ms(20'000);
  EXPECT_EQ(workers_[0]->killed_us - only_us, 15'000'000u);
}

TEST_F(SupervisorTest, AWorkerHas30SecondsForItsFirstHeartbeat) {
  heartbeats_ = false;
  run_ms(29'900);
  EXPECT_FALSE(workers_[0]->killed);
  run_ms(200);
  EXPECT_TRUE(workers_[0]->killed);
}

TEST_F(SupervisorTest, AWorkerThatCannotBeStartedIsTriedAgainAfterABackOff) {
  start_error_ = "/nowhere/lunderhaze-worker: No such file or directory";
  run_ms(5'000);
  EXPECT_EQ(said("the worker can't be started: /nowhere/lunderhaze-worker: No such file"), 3);
  start_error_.clear();
  run_ms(10'000);
  EXPECT_EQ(starts(), 1u);
}

TEST_F(SupervisorTest, PipesThatCannotBeMadeAreTriedAgainUnderAnotherName) {
  pipes_ = false;
  run_ms(2'000);
  EXPECT_EQ(starts(), 0u);
  EXPECT_EQ(said("its pipes can't be made"), 2);
  ASSERT_EQ(channels_.size(), 2u);
  EXPECT_NE(channels_[0], channels_[1]);
}

TEST_F(SupervisorTest, TheWorkersLinkIsThereWhileItRunsAndClosedWithIt) {
  EXPECT_EQ(supervisor_.link(), nullptr);
  step();
  EXPECT_NE(supervisor_.link(), nullptr);
  worker().die(9);
  step();
  EXPECT_EQ(supervisor_.link(), nullptr);
  EXPECT_TRUE(worker().closed);
}

TEST_F(SupervisorTest, EveryDemandSetsItsEvent) {
  step();
  EXPECT_FALSE(wake_.wait(0));
  supervisor_.restart();
  EXPECT_TRUE(wake_.wait(0));
  supervisor_.stop();
  EXPECT_TRUE(wake_.wait(0));
}

TEST_F(SupervisorTest, AStopThatIsAskedForAgainSetsNothing) {
  supervisor_.stop();
  EXPECT_TRUE(wake_.wait(0));
  supervisor_.stop();
  EXPECT_FALSE(wake_.wait(0));
}

TEST_F(SupervisorTest, AnIdleServiceAsksForNoStepWithinAMinute) {
  no_session("no session is active");
  EXPECT_EQ(supervisor_.step(), 60'000u);
  activate(session(1));
  step();
  worker().exit(1);
  EXPECT_EQ(supervisor_.step(), 60'000u);
}

}  // namespace
}  // namespace service_test
