// The terminal that the program was started on, read key by key, without the Enter key and without
// an echo; keys that stop or suspend a program keep doing so. The terminal is as it was before
// whenever the program is suspended, in the background, or has ended, be it by a signal; in the
// background it reads nothing and is not stopped for trying. One object at a time, one thread.
#pragma once

#include <memory>
#include <optional>

#include "control/wake_event.h"

class Terminal {
 public:
  // Null unless both standard input and standard output are a terminal: otherwise whatever is there
  // is left alone. `hang_up`, a signal handler, is called when the terminal goes away.
  static std::unique_ptr<Terminal> open(void (*hang_up)(int));
  virtual ~Terminal() = default;

  // The next key, or nothing once `wake` (auto reset) is set. Keys that send more than one byte
  // (arrows and the like) are no keys here.
  virtual std::optional<char> wait(WakeEvent& wake) = 0;
};
