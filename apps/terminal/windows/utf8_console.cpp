#include "apps/terminal/utf8_console.h"

#include <windows.h>

// The console stays when the program ends, and other programs print by the code page that it had.
Utf8Console::Utf8Console() : former_(GetConsoleOutputCP()) {
  if (former_ != 0) SetConsoleOutputCP(CP_UTF8);
}

Utf8Console::~Utf8Console() {
  if (former_ != 0) SetConsoleOutputCP(former_);
}
