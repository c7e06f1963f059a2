// A window that nobody sees, which hears of every change of the clipboard. It belongs to the thread
// that opens it, and all but wake and end are that thread's. No locks.
#pragma once

#include <atomic>
#include <cstdint>

#include "control/windows/handles.h"
#include "streams/clipboard_log.h"

class ListenerWindow {
 public:
  ListenerWindow() = default;
  ~ListenerWindow() { close(); }
  ListenerWindow(const ListenerWindow&) = delete;
  ListenerWindow& operator=(const ListenerWindow&) = delete;

  bool open(const ClipboardLog& log);
  void close();
  HWND get() const { return window_; }  // null before open and after the end

  // Sleeps until a message comes or the time has passed, and deals with all that have come. True
  // when the clipboard has changed since the last one that said so.
  bool wait(std::uint32_t timeout_ms);

  // Any thread. While there is no window they come to nothing.
  void wake();
  void end();

 private:
  static LRESULT CALLBACK procedure(HWND window, UINT message, WPARAM w, LPARAM l);
  LRESULT handle(HWND window, UINT message, WPARAM w, LPARAM l);
  void sleep(std::uint32_t timeout_ms);
  void post(UINT message);

  std::atomic<HWND> window_{nullptr};
  std::atomic<bool> ending_{false};
  bool changed_ = false;
};
