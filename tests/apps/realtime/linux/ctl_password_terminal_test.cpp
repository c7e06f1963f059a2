#include "apps/ctl/password.h"

#include "tests/apps/realtime/linux/terminal_job.h"

namespace ctl {
namespace {

void say(const std::string& text) {
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
}

// Asks for two passwords, and gives them away for the test to compare.
void ask_twice() {
  const auto passwords = passwords_of_terminal();
  if (!passwords) return say("no terminal");
  for (const char* prompt : {"first: ", "second: "}) {
    Password password;
    if (!passwords->read(prompt, &password)) return say("[nothing]");
    say("[" + std::to_string(password.bytes().size()) + ":" + std::string(password.bytes()) + "]");
  }
}

void ask_and_abort() {
  const auto passwords = passwords_of_terminal();
  signal(SIGUSR2, [](int) { abort(); });
  Password password;
  passwords->read("first: ", &password);
}

class CtlPasswordTerminalTest : public TerminalJobTest {
 protected:
  void start(bool foreground = true) {
    TerminalJobTest::start(ask_twice, "", foreground);
    if (foreground) {
      ASSERT_TRUE(says("first: "));
    }
  }
  bool echoes() const {
    EXPECT_NE(modes() & ICANON, 0U);  // Backspace works
    return (modes() & ECHO) != 0;
  }
  void ends_by(int number) {
    const int status = next_status();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), number);
    EXPECT_TRUE(echoes());
  }
};

TEST_F(CtlPasswordTerminalTest, IsNotEchoedFromTheFirstPromptToTheEnd) {
  start();
  EXPECT_FALSE(echoes());
  type("top secret\n");
  EXPECT_TRUE(says("[10:top secret]"));
  EXPECT_TRUE(says("second: "));
  EXPECT_FALSE(echoes());
  type("again\x7f\x7fX\n");
  EXPECT_TRUE(says("[4:agaX]"));
  EXPECT_EQ(next_status(), 0);
  EXPECT_TRUE(echoes());
  EXPECT_EQ(output_, "first: \r\n[10:top secret]second: \r\n[4:agaX]");
}

TEST_F(CtlPasswordTerminalTest, BothMayBePastedAtOnce) {
  start();
  type("one\ntwo\n");
  EXPECT_TRUE(says("[3:two]"));
  EXPECT_EQ(next_status(), 0);
  EXPECT_EQ(output_, "first: \r\n[3:one]second: \r\n[3:two]");
}

TEST_F(CtlPasswordTerminalTest, AnEndOfInputIsNoPassword) {
  start();
  type("\x04");  // Ctrl+D
  EXPECT_TRUE(says("[nothing]"));
  EXPECT_EQ(next_status(), 0);
  EXPECT_TRUE(echoes());
}

TEST_F(CtlPasswordTerminalTest, EverySignalThatEndsItGivesTheEchoBack) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    start();
    EXPECT_FALSE(echoes());
    kill(program_, number);
    ends_by(number);
    TearDown();
    output_.clear();
    seen_ = 0;
  }
}

TEST_F(CtlPasswordTerminalTest, CtrlCGivesTheEchoBack) {
  start();
  type("half\x03");
  ends_by(SIGINT);
}

TEST_F(CtlPasswordTerminalTest, AnAbortGivesTheEchoBack) {
  TerminalJobTest::start(ask_and_abort, "first: ");
  EXPECT_FALSE(echoes());
  kill(program_, SIGUSR2);
  ends_by(SIGABRT);
}

TEST_F(CtlPasswordTerminalTest, SuspendedItGivesTheEchoBackAndAsksAnewWhenContinued) {
  start();
  type("half\x1a");  // Ctrl+Z
  const int status = next_status();
  ASSERT_TRUE(WIFSTOPPED(status));
  EXPECT_TRUE(echoes());
  kill(program_, SIGCONT);
  EXPECT_TRUE(WIFCONTINUED(next_status()));
  EXPECT_TRUE(says("first: "));
  EXPECT_FALSE(echoes());
  type("whole\n");
  EXPECT_TRUE(says("[5:whole]"));
}

TEST_F(CtlPasswordTerminalTest, InTheBackgroundItWaitsUntilTheShellBringsItToTheFront) {
  start(false);
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1'500);
  holds([&] { return std::chrono::steady_clock::now() > until; });
  EXPECT_EQ(output_, "");
  EXPECT_FALSE(changed_state());
  EXPECT_TRUE(echoes());
  ASSERT_EQ(kill(shell_, SIGUSR1), 0);
  EXPECT_TRUE(says("first: "));
  EXPECT_FALSE(echoes());
}

TEST(CtlPasswordTerminal, NobodyIsAskedWithoutATerminal) {
  EXPECT_FALSE(said_without_terminal([] { return passwords_of_terminal() != nullptr; }));
}

}  // namespace
}  // namespace ctl
