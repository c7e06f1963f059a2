#include "apps/terminal/linux/borrowed_terminal.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <utility>

namespace {

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

}  // namespace

BorrowedTerminal::BorrowedTerminal(tcflag_t modes_off) : modes_off_(modes_off) {
  assert(g_resumed == nullptr);
  g_resumed = &resumed_;
  handle(SIGCONT, on_continue);
  handle(SIGTSTP, on_suspend);
  // A read that comes too late, after the shell has taken the terminal, is an error then, and what
  // is printed in the background appears.
  handle(SIGTTIN, SIG_IGN);
  handle(SIGTTOU, SIG_IGN);
}

BorrowedTerminal::~BorrowedTerminal() {
  give_back();
  for (const Handled& former : handled_) sigaction(former.number, &former.action, nullptr);
  g_resumed = nullptr;
}

void BorrowedTerminal::handle(int number, void (*handler)(int)) {
  Handled former{number, {}};
  sigaction(number, nullptr, &former.action);
  if (former.action.sa_handler == SIG_IGN) return;
  install(number, handler,
          handler == on_fatal ? SA_RESTART | static_cast<int>(SA_RESETHAND) : SA_RESTART);
  handled_.push_back(former);
}

void BorrowedTerminal::end_on(int number) {
  handle(number, on_fatal);
}

BorrowedTerminal::Event BorrowedTerminal::wait(WakeEvent* wake) {
  for (;;) {
    const bool reading = !gone_ && take();
    if (gone_ && !told_gone_) {
      told_gone_ = true;
      return Event::Gone;
    }
    if (std::exchange(told_taken_, reading) != reading && reading) return Event::Taken;
    pollfd polled[] = {{wake != nullptr ? static_cast<int>(wake->native_handle()) : -1, POLLIN, 0},
                       {static_cast<int>(resumed_.native_handle()), POLLIN, 0},
                       {reading ? STDIN_FILENO : -1, POLLIN, 0}};
    if (ppoll(polled, 3, reading || gone_ ? nullptr : &FOREGROUND_CHECK, nullptr) < 0) continue;
    if (wake != nullptr && polled[0].revents != 0 && wake->wait(0)) return Event::Woken;
    if (polled[1].revents != 0) {
      resumed_.reset();
      told_taken_ = false;
    } else if (polled[2].revents != 0) {
      return Event::Readable;
    }
  }
}

void BorrowedTerminal::note_read(ssize_t size) {
  gone_ = size == 0 || (size < 0 && errno != EINTR && errno != EAGAIN && in_foreground());
}

// Again each time: a shell may have put back its own modes while the program was stopped. False in
// the background, where the terminal is another's.
bool BorrowedTerminal::take() {
  if (!in_foreground()) {
    g_taken = false;
    return false;
  }
  if (!g_taken && tcgetattr(STDIN_FILENO, &g_former) != 0) {
    gone_ = true;
    return false;
  }
  termios modes = g_former;
  modes.c_lflag &= ~modes_off_;
  if ((modes_off_ & ICANON) != 0) {
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
  }
  g_taken = true;
  tcsetattr(STDIN_FILENO, TCSANOW, &modes);
  return true;
}
