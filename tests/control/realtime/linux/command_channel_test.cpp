#include "control/command_channel.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "tests/support/command_channel_fixture.h"

namespace {

class CommandSocket : public CommandChannel {};

TEST_F(CommandSocket, TheSocketIsTheUsersAloneAndGoesWithTheServer) {
  start();
  struct stat status {};
  ASSERT_EQ(stat((directory_ / "control.sock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  server_.reset();
  EXPECT_FALSE(std::filesystem::exists(directory_ / "control.sock"));
  std::string answer;
  EXPECT_EQ(ask("hello", &answer), CommandResult::NotRunning);
}

TEST_F(CommandSocket, ADirectoryLongerThanASocketsPathWorks) {
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

TEST_F(CommandSocket, TheSocketOfAKilledHostIsNobodyAndIsReplaced) {
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

TEST_F(CommandSocket, AnotherUserGetsNoAnswer) {
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
