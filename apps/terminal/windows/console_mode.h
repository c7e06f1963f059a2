// The console that a standard stream is, and some of whose input modes are off for a while. They
// are as before with the object's end, and when Ctrl+C or Ctrl+Break ends the program meanwhile.
// One object at a time, one thread.
#pragma once

#include "control/windows/handles.h"

// False for a file, a pipe, or nothing.
bool is_console(DWORD standard_stream);

class ConsoleMode {
 public:
  // `off`: of standard input's modes (SetConsoleMode).
  explicit ConsoleMode(DWORD off);
  ~ConsoleMode();
  ConsoleMode(const ConsoleMode&) = delete;
  ConsoleMode& operator=(const ConsoleMode&) = delete;

  HANDLE input() const { return input_; }

 private:
  const HANDLE input_;
};
