#include "apps/lunderhaze/terminal.h"

#include <cstring>

#include "tests/apps/realtime/linux/terminal_job.h"

namespace {

WakeEvent g_wake(WakeEvent::Reset::Auto);

// What the program does on its terminal: says each key in brackets, stops when it hangs up or is
// told to by q.
void echo_keys() {
  static bool stop = false;
  const std::unique_ptr<Terminal> terminal = Terminal::open([](int) {
    stop = true;
    g_wake.set();
  });
  const auto say = [](const std::string& text) {
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
  };
  if (!terminal) return say("no terminal");
  say("[ready]");
  while (!stop) {
    const auto key = terminal->wait(g_wake);
    if (!key) continue;
    say(std::string("[") + *key + "]");
    if (*key == 'q') break;
    if (*key == 'A') abort();
  }
}

class TerminalTest : public TerminalJobTest {
 protected:
  void start(bool foreground = true) { TerminalJobTest::start(echo_keys, "[ready]", foreground); }
  bool by_line() const {
    const tcflag_t now = modes();
    EXPECT_EQ((now & ICANON) != 0, (now & ECHO) != 0);
    return (now & ICANON) != 0;
  }
};

TEST_F(TerminalTest, KeysComeOneByOneWithoutEnterAndTheTerminalIsGivenBackAtTheEnd) {
  start();
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  type("p");
  EXPECT_TRUE(says("[p]"));
  type("sh");
  EXPECT_TRUE(says("[s][h]"));
  type("q");
  EXPECT_TRUE(says("[q]"));
  EXPECT_EQ(next_status(), 0);
  EXPECT_TRUE(by_line());
  EXPECT_EQ(output_, "[ready][p][s][h][q]");
}

TEST_F(TerminalTest, AKeyOfSeveralBytesIsNone) {
  start();
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  type("a\x1b[24q\x1bOpb\x1b[sc\x1bhd\x1b[1;5");
  EXPECT_TRUE(says("[d]"));
  EXPECT_EQ(output_, "[ready][a][b][c][d]");
}

TEST_F(TerminalTest, QuittingBySignalGivesTheTerminalBack) {
  start();
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  type("\x1c");  // Ctrl+backslash
  const int status = next_status();
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGQUIT);
  EXPECT_TRUE(by_line());
}

TEST_F(TerminalTest, AnAbortGivesTheTerminalBack) {
  start();
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  type("A");
  const int status = next_status();
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
  EXPECT_TRUE(by_line());
}

TEST_F(TerminalTest, SuspendingGivesTheTerminalBackAndContinuingTakesItAgain) {
  start();
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  type("\x1a");  // Ctrl+Z
  const int status = next_status();
  ASSERT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(WSTOPSIG(status), SIGTSTP);
  EXPECT_TRUE(by_line());
  kill(program_, SIGCONT);
  EXPECT_TRUE(WIFCONTINUED(next_status()));
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  type("p");
  EXPECT_TRUE(says("[p]"));
  // And the same a second time.
  type("\x1a");
  EXPECT_TRUE(WIFSTOPPED(next_status()));
  EXPECT_TRUE(by_line());
}

TEST_F(TerminalTest, InTheBackgroundItIsNotStoppedAndLeavesKeysAndModesToOthers) {
  start(false);
  type("p\n");
  int waiting = 0;
  ASSERT_TRUE(holds([&] { return ioctl(slave_, FIONREAD, &waiting) == 0 && waiting == 2; }));
  // It looks whether it has come to the foreground once a second: here it did so at least twice.
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2'500);
  holds([&] { return std::chrono::steady_clock::now() > until; });
  EXPECT_FALSE(changed_state());
  EXPECT_TRUE(by_line());
  EXPECT_EQ(ioctl(slave_, FIONREAD, &waiting), 0);
  EXPECT_EQ(waiting, 2);
  EXPECT_EQ(output_.find("[p]"), std::string::npos);
  // The shell brings it to the front: no signal tells it.
  ASSERT_EQ(tcflush(slave_, TCIFLUSH), 0);
  ASSERT_EQ(kill(shell_, SIGUSR1), 0);
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  type("s");
  EXPECT_TRUE(says("[s]"));
}

TEST_F(TerminalTest, ATerminalThatGoesAwayIsToldAndLeavesTheProgramToEndInOrder) {
  start();
  ASSERT_TRUE(holds([&] { return !by_line(); }));
  kill(program_, SIGHUP);
  EXPECT_EQ(next_status(), 0);
  EXPECT_TRUE(by_line());
}

TEST(TerminalOpen, WhatIsNoTerminalIsLeftAlone) {
  EXPECT_FALSE(said_without_terminal([] { return Terminal::open(SIG_DFL) != nullptr; }));
}

}  // namespace
