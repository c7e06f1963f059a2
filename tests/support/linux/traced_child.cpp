#include "tests/support/linux/traced_child.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int SYSTEM_CALL_STOP = SIGTRAP | 0x80;  // with PTRACE_O_TRACESYSGOOD

void kill_and_reap(pid_t child) {
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

// The signal that it stopped for; nothing more to wait for when it has ended.
bool wait_for_stop(pid_t child, int* signal) {
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "ended with status " << status;
    return false;
  }
  *signal = WSTOPSIG(status);
  return true;
}

}  // namespace

TracedEnd kill_at(int stop, const std::function<void()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(0);
    raise(SIGSTOP);
    body();
    _exit(0);
  }
  int signal = 0;
  if (!wait_for_stop(child, &signal)) return TracedEnd::NotTraced;
  if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD) != 0) {
    kill_and_reap(child);
    return TracedEnd::NotTraced;
  }
  signal = 0;
  for (int reached = 0; reached < stop;) {
    ptrace(PTRACE_SYSCALL, child, nullptr, signal);
    if (!wait_for_stop(child, &signal)) return TracedEnd::Finished;
    if (signal != SYSTEM_CALL_STOP) continue;  // a signal of its own: handed on
    signal = 0;
    ++reached;
  }
  kill_and_reap(child);
  return TracedEnd::Killed;
}
