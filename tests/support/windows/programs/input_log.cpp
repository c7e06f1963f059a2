// A window over the whole screen that says what mouse and keyboard bring it, a line each, as
// InputWindow has it; a button's with the pixel that it came to: "button 1 down 20,10". It says
// "has focus" first, and runs until it is ended.
#include <cstdio>
#include <string>

#include "tests/support/windows/input_window.h"

int main() {
  const InputWindow window(nullptr, [](const std::string& event, POINT at) {
    if (event.starts_with("button"))
      std::printf("%s %ld,%ld\n", event.c_str(), at.x, at.y);
    else
      std::printf("%s\n", event.c_str());
    std::fflush(stdout);
  });
  if (!window.has_focus()) return 1;
  std::puts("has focus");
  std::fflush(stdout);
  Sleep(INFINITE);
}
