// A program on a terminal, as a job of a shell's, as a test sees it: what it says, whether it is
// stopped, and which modes the terminal has. The program is a function of the test's, run in a
// process of its own. One thread.
#pragma once

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
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

// Whose job is brought to the foreground by SIGUSR1.
inline int g_shells_terminal = -1;
inline pid_t g_shells_job = -1;

// A terminal with a session whose leader stands for a shell, and the program as a job of it. The
// test keeps the terminal open, so that its modes can be read after the program's end.
class TerminalJobTest : public testing::Test {
 protected:
  static constexpr std::chrono::seconds DEADLINE{20};

  // Until the program has said `ready`.
  void start(void (*program)(), const std::string& ready, bool foreground = true) {
    ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(pipe2(orders_, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(reports_, O_CLOEXEC), 0);
    std::fflush(nullptr);  // what waits in the buffers is this process's alone to write
    shell_ = fork();
    if (shell_ == 0) be_the_shell(program, foreground);
    ASSERT_EQ(read(reports_[0], &program_, sizeof program_), static_cast<ssize_t>(sizeof program_));
    ASSERT_TRUE(says(ready));
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

  [[noreturn]] void be_the_shell(void (*run)(), bool foreground) {
    setsid();
    ioctl(slave_, TIOCSCTTY, 0);
    signal(SIGTTOU, SIG_IGN);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    const pid_t program = fork();
    if (program == 0) {
      while (getpgrp() != getpid()) setpgid(0, 0);
      // As a shell starts its jobs, whatever the test was started with.
      for (const int number : {SIGTTOU, SIGTTIN, SIGTSTP, SIGQUIT, SIGHUP, SIGINT, SIGTERM})
        signal(number, SIG_DFL);
      char go = 0;
      if (read(orders_[0], &go, 1) != 1) _exit(9);
      for (int target = 0; target < 3; ++target) dup2(slave_, target);
      close(master_);
      run();
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
    EXPECT_EQ(poll(&polled, 1, static_cast<int>(DEADLINE.count()) * 1'000), 1)
        << "program: " << state_of(program_) << "shell: " << state_of(shell_);
    if (polled.revents == 0) return status;
    EXPECT_EQ(read(reports_[0], &status, sizeof status), static_cast<ssize_t>(sizeof status));
    return status;
  }
  // What the kernel says of a process that hangs: whether it runs, its signals, where it waits.
  static std::string state_of(pid_t process) {
    const std::string directory = "/proc/" + std::to_string(process) + "/";
    std::string state;
    std::ifstream status(directory + "status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with("State") || line.starts_with("Sig") || line.starts_with("ShdPnd"))
        state += line + "; ";
    for (const char* name : {"wchan", "syscall"}) {
      std::ifstream file(directory + name);
      std::string line;
      std::getline(file, line);
      state += std::string(name) + ": " + line + "; ";
    }
    return state + "\n";
  }
  bool changed_state() {
    pollfd polled{reports_[0], POLLIN, 0};
    return poll(&polled, 1, 0) != 0;
  }

  void type(const std::string& keys) {
    ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  bool holds(const std::function<bool()>& condition) {
    const auto until = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > until) return false;
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
  tcflag_t modes() const {  // c_lflag
    termios now{};
    EXPECT_EQ(tcgetattr(slave_, &now), 0);
    return now.c_lflag;
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

// What this says in a process whose standard input is no terminal.
inline bool said_without_terminal(bool (*question)()) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[0], STDIN_FILENO);
    _exit(question() ? 1 : 0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  for (const int end : ends) close(end);
  return status != 0;
}
