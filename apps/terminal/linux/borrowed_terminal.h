// The terminal on standard input, some of whose modes a program switches off for a while. The modes
// are as they were before whenever the program is suspended, in the background, or has ended, be it
// by a signal that was to end it; in the background nothing is read, and the program is not stopped
// for trying. One object at a time, one thread; signal handlers are the process's own and are put
// back with it.
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <termios.h>

#include <vector>

#include "control/wake_event.h"

class BorrowedTerminal {
 public:
  // `modes_off`: of c_lflag (termios(3)). Without ICANON each byte counts for itself.
  explicit BorrowedTerminal(tcflag_t modes_off);
  ~BorrowedTerminal();
  BorrowedTerminal(const BorrowedTerminal&) = delete;
  BorrowedTerminal& operator=(const BorrowedTerminal&) = delete;

  // A signal that the program's parent chose to have ignored stays ignored by each of these.
  void handle(int number, void (*handler)(int));
  void end_on(int number);  // gives the terminal back, and then the signal ends the program

  enum class Event {
    Taken,  // the terminal is the program's now: at first, after a stop, after the background
    Readable,
    Woken,  // `wake` is set; one that resets itself is reset
    Gone,   // there is no terminal any more
  };
  // Waits for one of these; `wake` may be null. Of a terminal that has gone it is told once, then
  // only `wake` ends the wait.
  Event wait(WakeEvent* wake);

  // What read(2) gave on standard input, for this object to learn when the terminal is gone.
  void note_read(ssize_t size);

 private:
  bool take();

  struct Handled {
    int number;
    struct sigaction action;
  };

  tcflag_t modes_off_;
  WakeEvent resumed_{WakeEvent::Reset::Manual};
  std::vector<Handled> handled_;
  bool told_taken_ = false;
  bool gone_ = false;
  bool told_gone_ = false;
};
