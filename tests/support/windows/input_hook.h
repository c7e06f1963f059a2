// Sees each event of the keyboard's or the mouse's ahead of all windows, and keeps it from them, so
// that a test presses no key and moves no pointer. A thread of its own serves it; SendInput returns
// when that has seen the event. One at a time: the system calls a hook without saying whose.
#pragma once

#include <future>
#include <mutex>
#include <thread>

#include "control/windows/handles.h"

// KBDLLHOOKSTRUCT with WH_KEYBOARD_LL, MSLLHOOKSTRUCT with WH_MOUSE_LL.
template <int Kind, class Event>
class InputHook {
 public:
  InputHook() : thread_([this] { run(); }) { hooked_ = ready_.get_future().get(); }
  ~InputHook() {
    PostThreadMessageW(thread_id_, WM_QUIT, 0, 0);
    thread_.join();
  }
  InputHook(const InputHook&) = delete;
  InputHook& operator=(const InputHook&) = delete;

  bool hooked() const { return hooked_; }

  // The last event that a program has sent.
  Event last() const {
    const std::scoped_lock lock(mutex_);
    return last_;
  }

 private:
  // LLKHF_INJECTED or LLMHF_INJECTED
  static constexpr DWORD SENT = Kind == WH_KEYBOARD_LL ? 0x10 : 0x01;

  void run() {
    thread_id_ = GetCurrentThreadId();
    // Makes the thread's queue: without one it is passed over.
    MSG message;
    PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);
    const HHOOK hook = SetWindowsHookExW(Kind, procedure, GetModuleHandleW(nullptr), 0);
    ready_.set_value(hook != nullptr);
    while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    }
    UnhookWindowsHookEx(hook);
  }
  static LRESULT CALLBACK procedure(int code, WPARAM first, LPARAM second) {
    const auto& event = *reinterpret_cast<const Event*>(second);
    if (code != HC_ACTION || (event.flags & SENT) == 0)
      return CallNextHookEx(nullptr, code, first, second);
    const std::scoped_lock lock(mutex_);
    last_ = event;
    return 1;
  }

  inline static std::mutex mutex_;
  inline static Event last_{};
  std::promise<bool> ready_;
  bool hooked_ = false;
  DWORD thread_id_ = 0;
  std::thread thread_;  // last: it uses all of them
};

using KeyboardHook = InputHook<WH_KEYBOARD_LL, KBDLLHOOKSTRUCT>;
using MouseHook = InputHook<WH_MOUSE_LL, MSLLHOOKSTRUCT>;
