#include "control/command_channel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "control/wake_event.h"
#include "tests/support/command_channel_fixture.h"
#include "tests/support/command_peer.h"

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds PEER_LIMIT{5};
constexpr std::chrono::seconds SLACK{5};  // for a machine that is busy

TEST_F(CommandChannel, ARequestIsAnswered) {
  start();
  expect_answers();
  expect_answers();
}

TEST_F(CommandChannel, AnEmptyAnswerIsAnAnswer) {
  start([](const std::string&) { return std::string(); });
  std::string answer = "x";
  EXPECT_EQ(ask("hello", &answer), CommandResult::Answered) << error_;
  EXPECT_EQ(answer, "");
}

TEST_F(CommandChannel, ALongAnswerArrivesWhole) {
  std::string longest(600'000, 'x');  // several times what a socket holds
  start([&](const std::string&) { return longest; });
  std::string answer;
  EXPECT_EQ(ask("hello", &answer), CommandResult::Answered) << error_;
  EXPECT_EQ(answer, longest);
}

TEST_F(CommandChannel, WithoutAHostNobodyRuns) {
  std::string answer;
  EXPECT_EQ(ask("hello", &answer), CommandResult::NotRunning);
  EXPECT_EQ(send_command(directory_ / "no such place", "hello", &answer, &error_),
            CommandResult::NotRunning);
  EXPECT_EQ(send_command({}, "hello", &answer, &error_), CommandResult::NotRunning);
  write_file(directory_ / "file", "");
  EXPECT_EQ(send_command(directory_ / "file", "hello", &answer, &error_),
            CommandResult::NotRunning);
}

TEST_F(CommandChannel, ASecondHostOnTheStoreIsRefusedAndTheFirstLivesOn) {
  start();
  std::unique_ptr<CommandServer> second;
  EXPECT_EQ(CommandServer::start(directory_.path(), echo, &second, &error_), Start::AnotherHost);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(error_, "another host runs on the store in " + directory_.path().string());
  expect_answers();
  server_.reset();
  start();
}

TEST_F(CommandChannel, APlaceThatCannotHaveOneIsAFailureNotAnotherHost) {
  std::unique_ptr<CommandServer> server;
  EXPECT_EQ(CommandServer::start({}, echo, &server, &error_), Start::Failed);
  write_file(directory_ / "file", "in the way");
  EXPECT_EQ(CommandServer::start(directory_ / "file", echo, &server, &error_), Start::Failed);
  EXPECT_NE(error_, "");
}

TEST_F(CommandChannel, ARequestOfTheLargestSizeIsTakenAndALongerOneIsNot) {
  std::atomic<int> handled = 0;
  start([&](const std::string& request) {
    ++handled;
    return std::to_string(request.size());
  });
  std::string answer;
  EXPECT_EQ(ask(std::string(4'096, 'x'), &answer), CommandResult::Answered) << error_;
  EXPECT_EQ(answer, "4096");
  EXPECT_EQ(ask(std::string(4'097, 'x'), &answer), CommandResult::Failed);
  const CommandPeer peer(directory_.path());
  EXPECT_TRUE(peer.write(std::string(4'097, 'x') + '\0'));
  EXPECT_EQ(peer.read(), "");
  EXPECT_EQ(handled, 1);
}

TEST_F(CommandChannel, ARequestWhoseSenderDiesMidwayIsNotHandled) {
  std::atomic<int> handled = 0;
  start([&](const std::string& request) {
    ++handled;
    return echo(request);
  });
  std::optional<CommandPeer> peer(directory_.path());
  EXPECT_TRUE(peer->write("authorize half a ke"));
  peer.reset();
  expect_answers();
  EXPECT_EQ(handled, 1);
}

TEST_F(CommandChannel, APeerThatLeavesBeforeItsAnswerHarmsNobody) {
  WakeEvent gone(WakeEvent::Reset::Manual);
  start([&](const std::string& request) {
    if (request == "leaves") gone.wait(60'000);
    return echo(request);
  });
  std::optional<CommandPeer> peer(directory_.path());
  EXPECT_TRUE(peer->write(std::string("leaves") + '\0'));
  peer.reset();
  gone.set();
  expect_answers();
}

TEST_F(CommandChannel, AByteASecondIsCutOffInTime) {
  start();
  const auto begin = steady_clock::now();
  const CommandPeer peer(directory_.path());
  while (peer.write("x") && steady_clock::now() - begin < PEER_LIMIT + SLACK)
    std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_LT(steady_clock::now() - begin, PEER_LIMIT + SLACK);
  EXPECT_EQ(peer.read(), "");
  expect_answers();
}

TEST_F(CommandChannel, ASilentPeerCostsTheNextOneNothingButTime) {
  start();
  const CommandPeer silent(directory_.path());
  expect_answers();
  EXPECT_EQ(silent.read(), "");
}

TEST_F(CommandChannel, APeerThatTakesNoAnswerIsCutOff) {
  start([&](const std::string& request) {
    return request == "much" ? std::string(4'000'000, 'x') : echo(request);
  });
  const CommandPeer peer(directory_.path());
  EXPECT_TRUE(peer.write(std::string("much") + '\0'));
  expect_answers();
  EXPECT_LT(peer.read().size(), 4'000'000u);
}

TEST_F(CommandChannel, AHostThatDiesMidwayGivesNoHalfAnswer) {
  CommandImpostor impostor(directory_.path());
  std::thread host([&] { EXPECT_TRUE(impostor.break_off_after("half an ans")); });
  std::string answer = "untouched";
  EXPECT_EQ(ask("hello", &answer), CommandResult::Failed);
  EXPECT_EQ(error_, "the running host did not answer");
  EXPECT_EQ(answer, "untouched");
  host.join();
}

TEST_F(CommandChannel, TheEndWaitsForARequestThatIsHandledAndNotForASilentPeer) {
  WakeEvent handling(WakeEvent::Reset::Manual);
  WakeEvent go_on(WakeEvent::Reset::Manual);
  std::atomic<bool> handled = false;
  start([&](const std::string& request) {
    handling.set();
    go_on.wait(60'000);
    handled = true;
    return echo(request);
  });
  const CommandPeer peer(directory_.path());
  EXPECT_TRUE(peer.write(std::string("slow") + '\0'));
  ASSERT_TRUE(handling.wait(60'000));
  std::thread ender([&] { server_.reset(); });
  EXPECT_FALSE(handled);
  go_on.set();
  ender.join();
  EXPECT_TRUE(handled);

  start();
  const CommandPeer silent(directory_.path());
  const auto begin = steady_clock::now();
  server_.reset();
  EXPECT_LT(steady_clock::now() - begin, PEER_LIMIT);
}

}  // namespace
