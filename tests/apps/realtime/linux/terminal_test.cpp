#include "apps/lunderhaze/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds DEADLINE{20};

WakeEvent g_wake(WakeEvent::Reset::Auto);

// The shell's, whose job is brought to the foreground by SIGUSR1.
int g_shells_terminal = -1;
pid_t g_shells_job = -1;

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

// A terminal with a session whose leader stands for a shell, and the program as a job of it. The
// test keeps the terminal open, so that its modes can be read after the program's end.
class TerminalTest : public testing::Test {
 protected:
  void start(bool foreground = true) {
    ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(pipe2(orders_, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(reports_, O_CLOEXEC), 0);
    shell_ = fork();
    if (shell_ == 0) be_the_shell(foreground);
    ASSERT_EQ(read(reports_[0], &program_, sizeof program_), static_cast<ssize_t>(sizeof program_));
    ASSERT_TRUE(says("[ready]"));
  }
  void TearDown() override {
    if (program_ > 0) kill(program_, SIGKILL);
    if (shell_ > 0) {
      kill(shell_, SIGKILL);
      waitpid(shell_, nullptr, 0);
    }
    for (const int descriptor : {master_, slave_, orders_[0], orders_[1], reports_[0], reports_[1]})
      if (descriptor >= 0) close(descriptor);
  }

  [[noreturn]] void be_the_shell(bool foreground) {
    setsid();
    ioctl(slave_, TIOCSCTTY, 0);
    signal(SIGTTOU, SIG_IGN);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    const pid_t program = fork();
    if (program == 0) {
      while (getpgrp() != getpid()) setpgid(0, 0);
      // As a shell starts its jobs, whatever the test was started with.
      for (const int number : {SIGTTOU, SIGTTIN, SIGTSTP, SIGQUIT, SIGHUP}) signal(number, SIG_DFL);
      char go = 0;
      if (read(orders_[0], &go, 1) != 1) _exit(9);
      for (int target = 0; target < 3; ++target) dup2(slave_, target);
      close(master_);
      echo_keys();
      _exit(0);
    }
    setpgid(program, program);
    if (foreground) tcsetpgrp(slave_, program);
    g_shells_terminal = slave_;
    g_shells_job = program;
    signal(SIGUSR1, [](int) { tcsetpgrp(g_shells_terminal, g_shells_job); });
    [[maybe_unused]] ssize_t written = write(orders_[1], "g", 1);
    written = write(reports_[1], &program, sizeof program);
    for (;;) {
      int status = 0;
      if (waitpid(program, &status, WUNTRACED | WCONTINUED) != program) continue;
      written = write(reports_[1], &status, sizeof status);
      if (WIFEXITED(status) || WIFSIGNALED(status))
        for (;;) pause();
    }
  }

  // The program's next change of state, as waitpid tells it to the shell.
  int next_status() {
    pollfd polled{reports_[0], POLLIN, 0};
    int status = -1;
    EXPECT_EQ(poll(&polled, 1, static_cast<int>(DEADLINE.count()) * 1'000), 1);
    if (polled.revents == 0) return status;
    EXPECT_EQ(read(reports_[0], &status, sizeof status), static_cast<ssize_t>(sizeof status));
    return status;
  }
  bool changed_state() {
    pollfd polled{reports_[0], POLLIN, 0};
    return poll(&polled, 1, 0) != 0;
  }

  void type(const std::string& keys) {
    ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  bool holds(const std::function<bool()>& condition) {
    const auto until = steady_clock::now() + DEADLINE;
    while (!condition()) {
      if (steady_clock::now() > until) return false;
      pollfd polled{master_, POLLIN, 0};
      if (poll(&polled, 1, 5) <= 0) continue;
      char bytes[256];
      const ssize_t size = read(master_, bytes, sizeof bytes);
      if (size > 0) output_.append(bytes, static_cast<std::size_t>(size));
    }
    return true;
  }
  // The text comes, once more than it was waited for before.
  bool says(const std::string& text) {
    const bool found = holds([&] { return output_.find(text, seen_) != std::string::npos; });
    if (found) seen_ = output_.find(text, seen_) + text.size();
    return found;
  }
  bool by_line() const {
    termios now{};
    EXPECT_EQ(tcgetattr(slave_, &now), 0);
    const bool canonical = (now.c_lflag & ICANON) != 0;
    EXPECT_EQ(canonical, (now.c_lflag & ECHO) != 0);
    return canonical;
  }

  int master_ = -1;
  int slave_ = -1;
  int orders_[2] = {-1, -1};
  int reports_[2] = {-1, -1};
  pid_t shell_ = -1;
  pid_t program_ = -1;
  std::string output_;
  std::size_t seen_ = 0;
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
  const auto until = steady_clock::now() + std::chrono::milliseconds(2'500);
  holds([&] { return steady_clock::now() > until; });
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
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[0], STDIN_FILENO);
    _exit(Terminal::open(SIG_DFL) == nullptr ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
