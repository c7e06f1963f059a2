// A window in the foreground, as large as the screen, that writes down what mouse and keyboard
// bring it, as any program would see it; a thread of its own runs it. One thread asks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "control/windows/handles.h"

class InputWindow {
 public:
  // Told of each event as it comes, and where the pointer is, on the window's thread.
  using Listener = std::function<void(const std::string& event, POINT at)>;

  // On the given desktop, or the process's. Returns when it has the focus.
  explicit InputWindow(HDESK desktop = nullptr, Listener listener = {})
      : listener_(std::move(listener)), thread_([this, desktop] { run(desktop); }) {
    window_ = made_.get_future().get();
  }
  ~InputWindow() {
    if (window_) PostMessageW(window_, WM_CLOSE, 0, 0);
    thread_.join();
  }
  InputWindow(const InputWindow&) = delete;
  InputWindow& operator=(const InputWindow&) = delete;

  bool has_focus() const { return window_ != nullptr; }

  // All that came up to now, once there are this many: "button 1 down", "wheel -120", "hwheel 30",
  // "key 41 1e down" (virtual key and scan code, hexadecimal, the latter with "e" if extended),
  // "char a".
  std::vector<std::string> take(std::size_t count) {
    std::unique_lock lock(mutex_);
    more_.wait_for(lock, DEADLINE, [&] { return events_.size() >= count; });
    return std::exchange(events_, {});
  }
  // Whether the window is told that the pointer is at this pixel.
  bool wait_for_pointer(POINT at) {
    std::unique_lock lock(mutex_);
    return more_.wait_for(lock, DEADLINE, [&] { return pointer_.x == at.x && pointer_.y == at.y; });
  }

 private:
  static constexpr std::chrono::seconds DEADLINE{20};
  static constexpr const wchar_t* CLASS = L"LunderhazeInputWindow";

  void run(HDESK desktop) {
    if (desktop && !SetThreadDesktop(desktop)) return made_.set_value(nullptr);
    WNDCLASSW kind{};
    kind.lpfnWndProc = procedure;
    kind.lpszClassName = CLASS;
    RegisterClassW(&kind);  // fails for all but the first
    const HWND window = CreateWindowExW(
        WS_EX_TOPMOST, CLASS, L"input", WS_POPUP | WS_VISIBLE, 0, 0, GetSystemMetrics(SM_CXSCREEN),
        GetSystemMetrics(SM_CYSCREEN), nullptr, nullptr, nullptr, nullptr);
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    SetForegroundWindow(window);
    SetFocus(window);
    made_.set_value(window && GetFocus() == window ? window : nullptr);
    MSG message;
    while (window && GetMessageW(&message, nullptr, 0, 0) > 0) {
      TranslateMessage(&message);
      DispatchMessageW(&message);
    }
  }

  static LRESULT CALLBACK procedure(HWND window, UINT message, WPARAM first, LPARAM second) {
    if (auto* self = reinterpret_cast<InputWindow*>(GetWindowLongPtrW(window, GWLP_USERDATA)))
      self->note(window, message, first, second);
    if (message == WM_DESTROY) PostQuitMessage(0);
    return DefWindowProcW(window, message, first, second);
  }

  void note_pointer(HWND window, LPARAM place) {
    POINT at{static_cast<short>(LOWORD(place)), static_cast<short>(HIWORD(place))};
    ClientToScreen(window, &at);
    const std::scoped_lock lock(mutex_);
    pointer_ = at;
    more_.notify_all();
  }

  void note(HWND window, UINT message, WPARAM first, LPARAM second) {
    // The wheel's places are the screen's, and of no use here.
    if (message >= WM_MOUSEMOVE && message <= WM_XBUTTONDBLCLK && message != WM_MOUSEWHEEL)
      note_pointer(window, second);
    switch (message) {
      case WM_LBUTTONDOWN:
      case WM_LBUTTONUP:
        return add(button("1", message == WM_LBUTTONDOWN));
      case WM_RBUTTONDOWN:
      case WM_RBUTTONUP:
        return add(button("2", message == WM_RBUTTONDOWN));
      case WM_MBUTTONDOWN:
      case WM_MBUTTONUP:
        return add(button("3", message == WM_MBUTTONDOWN));
      case WM_XBUTTONDOWN:
      case WM_XBUTTONUP:
        return add(button(HIWORD(first) == XBUTTON1 ? "4" : "5", message == WM_XBUTTONDOWN));
      case WM_MOUSEWHEEL:
      case WM_MOUSEHWHEEL:
        return add((message == WM_MOUSEWHEEL ? "wheel " : "hwheel ") +
                   std::to_string(static_cast<short>(HIWORD(first))));
      case WM_KEYDOWN:
      case WM_SYSKEYDOWN:
        held_.insert(position(second));
        return add(key(first, second, "down"));
      case WM_KEYUP:
      case WM_SYSKEYUP:
        // Wine lifts what its X server doesn't hold when a window has come under the pointer: the
        // key's own release then is a second one.
        if (held_.erase(position(second)) != 0) add(key(first, second, "up"));
        return;
      case WM_CHAR:
        return add(std::string("char ") + static_cast<char>(first));
    }
  }

  static std::string button(const char* number, bool down) {
    return std::string("button ") + number + (down ? " down" : " up");
  }
  static unsigned position(LPARAM fields) {  // scan code and whether extended
    return HIWORD(fields) & (KF_EXTENDED | 0xFFU);
  }
  static std::string key(WPARAM vk, LPARAM fields, const char* way) {
    const unsigned scan = LOBYTE(HIWORD(fields));
    const bool extended = (HIWORD(fields) & KF_EXTENDED) != 0;
    char text[64];
    std::snprintf(text, sizeof text, "key %02x %02x%s %s", static_cast<unsigned>(vk), scan,
                  extended ? "e" : "", way);
    return text;
  }
  void add(std::string event) {
    const std::scoped_lock lock(mutex_);
    if (listener_) listener_(event, pointer_);
    events_.push_back(std::move(event));
    more_.notify_all();
  }

  const Listener listener_;
  std::promise<HWND> made_;
  std::mutex mutex_;
  std::condition_variable more_;
  std::vector<std::string> events_;
  POINT pointer_{-1, -1};
  std::set<unsigned> held_;  // by position; the window's thread
  HWND window_ = nullptr;
  std::thread thread_;  // last: it uses all of them
};
