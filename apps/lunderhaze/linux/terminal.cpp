#include "apps/lunderhaze/terminal.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr char ESCAPE = 0x1B;
// No signal tells a program that the shell has moved it to the foreground while it ran.
constexpr timespec FOREGROUND_CHECK{1, 0};

// What the signal handlers need.
termios g_former;  // valid while taken
std::atomic<bool> g_taken{false};
static_assert(std::atomic<bool>::is_always_lock_free);
WakeEvent* g_resumed = nullptr;

// Also for a terminal that controls no jobs of this session.
bool in_foreground() {
  const pid_t group = tcgetpgrp(STDIN_FILENO);
  return group < 0 || group == getpgrp();
}

void give_back() {
  if (g_taken.exchange(false) && in_foreground()) tcsetattr(STDIN_FILENO, TCSANOW, &g_former);
}

void install(int number, void (*handler)(int), int flags = SA_RESTART) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigaction(number, &action, nullptr);
}

void on_suspend(int number) {
  const int error = errno;
  give_back();
  install(number, SIG_DFL);
  raise(number);
  sigset_t unblocked;
  sigemptyset(&unblocked);
  sigaddset(&unblocked, number);
  pthread_sigmask(SIG_UNBLOCK, &unblocked, nullptr);  // stops here, until it is continued
  install(number, on_suspend);
  errno = error;
}

void on_continue(int) {
  const int error = errno;
  g_resumed->set();
  errno = error;
}

// Installed to act once: the second time, when this returns, the signal ends the program.
void on_fatal(int number) {
  give_back();
  raise(number);
}

// Leaves out what keys without a character of their own send (ECMA-48): a control sequence up to
// its final byte, or the escape character and one or two more.
std::string without_sequences(std::string_view bytes) {
  std::string keys;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != ESCAPE) {
      keys += bytes[i];
      continue;
    }
    const char introducer = ++i < bytes.size() ? bytes[i] : 0;
    if (introducer == 'O') ++i;
    if (introducer == '[')
      while (++i < bytes.size() && (bytes[i] < '@' || bytes[i] > '~')) {
      }
  }
  return keys;
}

class SystemTerminal final : public Terminal {
 public:
  explicit SystemTerminal(void (*hang_up)(int)) {
    assert(g_resumed == nullptr);
    g_resumed = &resumed_;
    handle(SIGCONT, on_continue);
    handle(SIGTSTP, on_suspend);
    handle(SIGHUP, hang_up);
    handle(SIGQUIT, on_fatal, SA_RESETHAND);
    handle(SIGABRT, on_fatal, SA_RESETHAND);
    // A read that comes too late, after the shell has taken the terminal, is an error then, and
    // what is printed in the background appears.
    handle(SIGTTIN, SIG_IGN);
    handle(SIGTTOU, SIG_IGN);
  }
  ~SystemTerminal() override {
    give_back();
    for (const Handled& former : handled_) sigaction(former.number, &former.action, nullptr);
    g_resumed = nullptr;
  }

  std::optional<char> wait(WakeEvent& wake) override {
    for (;;) {
      if (!typed_.empty()) {
        const char key = typed_.front();
        typed_.erase(0, 1);
        return key;
      }
      const bool reading = !gone_ && take();
      pollfd polled[] = {{static_cast<int>(wake.native_handle()), POLLIN, 0},
                         {static_cast<int>(resumed_.native_handle()), POLLIN, 0},
                         {reading ? STDIN_FILENO : -1, POLLIN, 0}};
      if (ppoll(polled, 3, reading || gone_ ? nullptr : &FOREGROUND_CHECK, nullptr) < 0) continue;
      if (polled[0].revents != 0 && wake.wait(0)) return std::nullopt;
      if (polled[1].revents != 0) resumed_.reset();
      if (polled[2].revents != 0) read_keys();
    }
  }

 private:
  struct Handled {
    int number;
    struct sigaction action;
  };

  // A signal that the program's parent chose to have ignored stays ignored.
  void handle(int number, void (*handler)(int), int flags = SA_RESTART) {
    Handled former{number, {}};
    sigaction(number, nullptr, &former.action);
    if (former.action.sa_handler == SIG_IGN) return;
    install(number, handler, flags);
    handled_.push_back(former);
  }

  // Key by key from now on; false in the background, where the terminal is another's.
  bool take() {
    if (!in_foreground()) {
      g_taken = false;
      return false;
    }
    if (!g_taken && tcgetattr(STDIN_FILENO, &g_former) != 0) {
      gone_ = true;
      return false;
    }
    // Again each time: a shell may have put back its own while the program was stopped.
    termios keys = g_former;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VMIN] = 1;
    keys.c_cc[VTIME] = 0;
    g_taken = true;
    tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    return true;
  }

  void read_keys() {
    char bytes[64];
    const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
    if (size > 0) typed_ = without_sequences({bytes, static_cast<std::size_t>(size)});
    gone_ = size == 0 || (size < 0 && errno != EINTR && errno != EAGAIN && in_foreground());
  }

  WakeEvent resumed_{WakeEvent::Reset::Manual};
  std::vector<Handled> handled_;
  std::string typed_;
  bool gone_ = false;
};

}  // namespace

std::unique_ptr<Terminal> Terminal::open(void (*hang_up)(int)) {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) return nullptr;
  return std::make_unique<SystemTerminal>(hang_up);
}
