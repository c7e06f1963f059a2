// Stands between this process and the system's calls for desktops. While one lives, desktops are
// made up: each handle is a number, counted from 1, and each call that opens, attaches or closes
// one is told as a line. Otherwise the system answers. One thread.
#pragma once

#include <string>
#include <vector>

class DesktopCalls {
 public:
  DesktopCalls();
  ~DesktopCalls();
  DesktopCalls(const DesktopCalls&) = delete;
  DesktopCalls& operator=(const DesktopCalls&) = delete;

  std::wstring input = L"Default";  // the desktop that has the input
  // ---- what fails
  bool opens = true;
  bool tells_names = true;
  bool attaches = true;

  void leave();  // the thread is back on its own desktop

  // Since the last time: "open 181: 1" with the access asked for, "attach 1", "close 1". The
  // thread's own desktop is 0.
  std::vector<std::string> take();
  int open_handles() const;
};
