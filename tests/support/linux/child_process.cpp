#include "tests/support/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <thread>

using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds EXIT{5};

// The test's end and the child's.
bool open_ends(ChildProcess::Streams streams, int (&ends)[2]) {
  if (streams == ChildProcess::Streams::Piped) return pipe2(ends, O_CLOEXEC) == 0;
  if (openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) != 0) return false;
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  return true;
}

void take_end(ChildProcess::Streams streams, int end) {
  if (streams == ChildProcess::Streams::Terminal) {
    setsid();
    ioctl(end, TIOCSCTTY, 0);
    dup2(end, STDIN_FILENO);
  }
  dup2(end, STDOUT_FILENO);
  dup2(end, STDERR_FILENO);
}

}  // namespace

struct ChildProcess::Parts {
  pid_t pid = -1;
  int pipe = -1;  // its output, or the other end of its terminal
};

ChildProcess::ChildProcess(std::vector<std::string> arguments,
                           const std::map<std::string, std::string>& environment, Streams streams)
    : parts_(std::make_unique<Parts>()) {
  int ends[2];
  if (!open_ends(streams, ends)) return;
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  parts_->pid = fork();
  if (parts_->pid == 0) {
    take_end(streams, ends[1]);
    for (const auto& [name, value] : environment) {
      if (value.empty())
        unsetenv(name.c_str());
      else
        setenv(name.c_str(), value.c_str(), 1);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(ends[1]);
  parts_->pipe = ends[0];
}

ChildProcess::~ChildProcess() {
  if (!status_ && parts_->pid > 0) {
    kill(parts_->pid, SIGKILL);
    reap(true);
  }
  if (parts_->pipe >= 0) close(parts_->pipe);
}

bool ChildProcess::read_some(Clock::time_point deadline) {
  if (parts_->pipe < 0) return false;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) return false;
  pollfd ready{parts_->pipe, POLLIN, 0};
  if (poll(&ready, 1, static_cast<int>(left.count())) <= 0) return errno == EINTR;
  char buffer[4096];
  const ssize_t size = read(parts_->pipe, buffer, sizeof buffer);
  if (size <= 0) {
    close(parts_->pipe);
    parts_->pipe = -1;
    return false;
  }
  output_.append(buffer, static_cast<std::size_t>(size));
  return true;
}

void ChildProcess::reap(bool block) {
  int status = 0;
  if (status_ || waitpid(parts_->pid, &status, block ? 0 : WNOHANG) != parts_->pid) return;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds deadline) {
  const auto until = Clock::now() + deadline;
  // The end of its output is the end of the program, but for its exit itself, for which there is
  // always a moment.
  while (read_some(until)) {
  }
  if (parts_->pipe >= 0) return status_;
  const auto exit_until = std::max(until, Clock::now() + EXIT);
  for (reap(false); !status_ && Clock::now() < exit_until; reap(false))
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return status_;
}

void ChildProcess::type(const std::string& keys) const {
  EXPECT_EQ(write(parts_->pipe, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void ChildProcess::signal(int number) const {
  if (!status_) kill(parts_->pid, number);
}

pid_t ChildProcess::pid() const {
  return parts_->pid;
}

// By its own clock, exact: what /proc/PID/stat counts is which process a tick of 10 ms met.
double ChildProcess::processor_seconds() const {
  clockid_t clock = 0;
  timespec used{};
  EXPECT_EQ(clock_getcpuclockid(parts_->pid, &clock), 0);
  EXPECT_EQ(clock_gettime(clock, &used), 0);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

std::string own_program(const std::string& name) {
  return std::string(LUND_BIN_DIR) + "/" + name;
}
