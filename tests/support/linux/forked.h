// A process of a test's own that runs a function: as another user, in a process id namespace of its
// own. Killed and reaped with its scope. One thread.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

inline constexpr uid_t ORDINARY_USER = 65'534;

class Forked {
 public:
  // Ends with what `body` returns.
  explicit Forked(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nobody behind
      _exit(body());
    }
    EXPECT_GT(pid_, 0);
    // Its parent's death is that of the thread that forks (prctl(2)).
    EXPECT_EQ(gettid(), getpid()) << "made by a thread that may end before it";
  }
  ~Forked() { end(); }
  Forked(const Forked&) = delete;
  Forked& operator=(const Forked&) = delete;

  pid_t pid() const { return pid_; }
  // Exit status, or -1 for another end.
  int wait() {
    int status = 0;
    const bool reaped = pid_ > 0 && waitpid(pid_, &status, 0) == pid_;
    pid_ = -1;
    return reaped && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    wait();
  }

 private:
  pid_t pid_;
};

inline bool become_ordinary() {
  return setgroups(0, nullptr) == 0 &&
         setresgid(ORDINARY_USER, ORDINARY_USER, ORDINARY_USER) == 0 &&
         setresuid(ORDINARY_USER, ORDINARY_USER, ORDINARY_USER) == 0;
}

// One side of a wait between two processes: made before the fork.
class Signal {
 public:
  Signal() { EXPECT_EQ(pipe(ends_), 0); }
  ~Signal() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void give() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
  void take() const {
    char byte;
    EXPECT_EQ(read(ends_[0], &byte, 1), 1);
  }

 private:
  int ends_[2] = {-1, -1};
};

inline constexpr int NO_NAMESPACE = 77;

// Runs `body` as the first process of a namespace of process ids with a /proc of its own, where the
// next id can be chosen. NO_NAMESPACE where this isn't allowed.
inline int in_pid_namespace(const std::function<int()>& body) {
  return Forked([&body] {
           if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0 ||
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
             return NO_NAMESPACE;
           return Forked([&body] {
                    return mount("proc", "/proc", "proc", 0, nullptr) == 0 ? body() : NO_NAMESPACE;
                  })
               .wait();
         })
      .wait();
}

// The next process of this namespace gets `id`, if it is free.
inline bool choose_next_id(pid_t id) {
  std::FILE* last = std::fopen("/proc/sys/kernel/ns_last_pid", "w");
  if (last == nullptr) return false;
  const bool written = std::fprintf(last, "%d", id - 1) > 0;
  return std::fclose(last) == 0 && written;
}
