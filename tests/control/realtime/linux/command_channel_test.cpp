#include "control/command_channel.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "control/wake_event.h"
#include "tests/support/temp_directory.h"

namespace {

using Start = CommandServer::Start;
using std::chrono::steady_clock;

constexpr std::chrono::seconds PEER_LIMIT{5};
constexpr std::chrono::seconds SLACK{5};  // for a machine that is busy

std::string echo(const std::string& request) {
  return "you said " + request;
}

class CommandChannel : public testing::Test {
 protected:
  void start(CommandServer::Handler handler = echo) {
    ASSERT_EQ(CommandServer::start(directory_.path(), std::move(handler), &server_, &error_),
              Start::Running)
        << error_;
  }

  CommandResult ask(const std::string& request, std::string* answer) {
    return send_command(directory_.path(), request, answer, &error_);
  }

  void expect_answers() {
    std::string answer;
    EXPECT_EQ(ask("hello", &answer), CommandResult::Answered) << error_;
    EXPECT_EQ(answer, "you said hello");
  }

  // A peer that doesn't keep to the rules.
  int connect_raw() {
    const int peer = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, (directory_ / "control.sock").c_str(), sizeof name.sun_path - 1);
    EXPECT_EQ(connect(peer, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
    return peer;
  }
  static bool write_raw(int peer, const std::string& bytes) {
    return send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // Everything until the server ends the connection.
  static std::string read_raw(int peer) {
    std::string all;
    char bytes[256];
    for (ssize_t size; (size = recv(peer, bytes, sizeof bytes, 0)) > 0;)
      all.append(bytes, static_cast<std::size_t>(size));
    return all;
  }

  TempDirectory directory_;
  std::unique_ptr<CommandServer> server_;
  std::string error_;
};

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

TEST_F(CommandChannel, TheSocketIsTheUsersAloneAndGoesWithTheServer) {
  start();
  struct stat status {};
  ASSERT_EQ(stat((directory_ / "control.sock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  server_.reset();
  EXPECT_FALSE(std::filesystem::exists(directory_ / "control.sock"));
  std::string answer;
  EXPECT_EQ(ask("hello", &answer), CommandResult::NotRunning);
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

TEST_F(CommandChannel, ADirectoryLongerThanASocketsPathWorks) {
  const std::filesystem::path deep = directory_ / std::string(150, 'd') / std::string(150, 'e');
  std::unique_ptr<CommandServer> server;
  ASSERT_EQ(CommandServer::start(deep, echo, &server, &error_), Start::Running) << error_;
  EXPECT_TRUE(std::filesystem::is_socket(deep / "control.sock"));
  std::string answer;
  EXPECT_EQ(send_command(deep, "hello", &answer, &error_), CommandResult::Answered) << error_;
  EXPECT_EQ(answer, "you said hello");
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(deep / "control.sock"));
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

TEST_F(CommandChannel, TheSocketOfAKilledHostIsNobodyAndIsReplaced) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t killed = fork();
  if (killed == 0) {
    const auto started = CommandServer::start(directory_.path(), echo, &server_, &error_);
    const char byte = started == Start::Running ? 'y' : 'n';
    if (write(ready[1], &byte, 1) != 1) _exit(1);
    for (;;) pause();
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  expect_answers();
  kill(killed, SIGKILL);
  ASSERT_EQ(waitpid(killed, nullptr, 0), killed);
  close(ready[0]);
  close(ready[1]);
  EXPECT_TRUE(std::filesystem::is_socket(directory_ / "control.sock"));
  std::string answer;
  EXPECT_EQ(ask("hello", &answer), CommandResult::NotRunning);
  start();
  expect_answers();
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
  const int peer = connect_raw();
  EXPECT_TRUE(write_raw(peer, std::string(4'097, 'x') + '\0'));
  EXPECT_EQ(read_raw(peer), "");
  close(peer);
  EXPECT_EQ(handled, 1);
}

TEST_F(CommandChannel, ARequestWhoseSenderDiesMidwayIsNotHandled) {
  std::atomic<int> handled = 0;
  start([&](const std::string& request) {
    ++handled;
    return echo(request);
  });
  const int peer = connect_raw();
  EXPECT_TRUE(write_raw(peer, "authorize half a ke"));
  close(peer);
  expect_answers();
  EXPECT_EQ(handled, 1);
}

TEST_F(CommandChannel, APeerThatLeavesBeforeItsAnswerHarmsNobody) {
  WakeEvent gone(WakeEvent::Reset::Manual);
  start([&](const std::string& request) {
    if (request == "leaves") gone.wait(60'000);
    return echo(request);
  });
  const int peer = connect_raw();
  EXPECT_TRUE(write_raw(peer, std::string("leaves") + '\0'));
  close(peer);
  gone.set();
  expect_answers();
}

TEST_F(CommandChannel, AByteASecondIsCutOffInTime) {
  start();
  const auto begin = steady_clock::now();
  const int peer = connect_raw();
  while (write_raw(peer, "x") && steady_clock::now() - begin < PEER_LIMIT + SLACK)
    std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_LT(steady_clock::now() - begin, PEER_LIMIT + SLACK);
  EXPECT_EQ(read_raw(peer), "");
  close(peer);
  expect_answers();
}

TEST_F(CommandChannel, ASilentPeerCostsTheNextOneNothingButTime) {
  start();
  const int silent = connect_raw();
  expect_answers();
  EXPECT_EQ(read_raw(silent), "");
  close(silent);
}

TEST_F(CommandChannel, APeerThatTakesNoAnswerIsCutOff) {
  start([&](const std::string& request) {
    return request == "much" ? std::string(4'000'000, 'x') : echo(request);
  });
  const int peer = connect_raw();
  EXPECT_TRUE(write_raw(peer, std::string("much") + '\0'));
  expect_answers();
  EXPECT_LT(read_raw(peer).size(), 4'000'000u);
  close(peer);
}

TEST_F(CommandChannel, AHostThatDiesMidwayGivesNoHalfAnswer) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  std::strncpy(name.sun_path, (directory_ / "control.sock").c_str(), sizeof name.sun_path - 1);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  std::thread host([&] {
    const int peer = accept(listener, nullptr, nullptr);
    char request[64];
    EXPECT_GT(recv(peer, request, sizeof request, 0), 0);
    EXPECT_TRUE(write_raw(peer, "half an ans"));
    close(peer);
  });
  std::string answer = "untouched";
  EXPECT_EQ(ask("hello", &answer), CommandResult::Failed);
  EXPECT_EQ(error_, "the running host did not answer");
  EXPECT_EQ(answer, "untouched");
  host.join();
  close(listener);
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
  const int peer = connect_raw();
  EXPECT_TRUE(write_raw(peer, std::string("slow") + '\0'));
  ASSERT_TRUE(handling.wait(60'000));
  std::thread ender([&] { server_.reset(); });
  EXPECT_FALSE(handled);
  go_on.set();
  ender.join();
  EXPECT_TRUE(handled);
  close(peer);

  start();
  const int silent = connect_raw();
  const auto begin = steady_clock::now();
  server_.reset();
  EXPECT_LT(steady_clock::now() - begin, PEER_LIMIT);
  close(silent);
}

TEST_F(CommandChannel, AnotherUserGetsNoAnswer) {
  if (geteuid() != 0) GTEST_SKIP() << "becoming another user needs root";
  std::atomic<int> handled = 0;
  start([&](const std::string& request) {
    ++handled;
    return echo(request);
  });
  // The mode keeps others out already; this is the test behind it.
  ASSERT_EQ(chmod((directory_ / "control.sock").c_str(), 0777), 0);
  constexpr uid_t NOBODY = 65'534;
  const pid_t other = fork();
  if (other == 0) {
    if (setuid(NOBODY) != 0) _exit(2);
    std::string answer;
    _exit(ask("hello", &answer) == CommandResult::Failed ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(other, &status, 0), other);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(handled, 0);
}

}  // namespace
