#include "capture/windows/session_desktop.h"

#include "capture/windows/input_desktop.h"

namespace {

constexpr ACCESS_MASK CAPTURE_ACCESS =
    DESKTOP_READOBJECTS | DESKTOP_WRITEOBJECTS | DESKTOP_SWITCHDESKTOP;

class SessionDesktop final : public InputDesktop {
 public:
  Look look() override {
    found_ = open_input_desktop(CAPTURE_ACCESS);
    if (!found_ || !read_desktop_name(found_.get(), &found_name_)) {
      found_.reset();
      return Look::Unreachable;
    }
    if (!held_ || found_name_ != name_) return Look::Other;
    found_.reset();
    return Look::Same;
  }

  bool enter() override {
    HDESK const former = GetThreadDesktop(GetCurrentThreadId());
    if (!found_ || !SetThreadDesktop(found_.get())) {
      found_.reset();
      return false;
    }
    if (!held_) threads_own_ = former;
    held_ = std::move(found_);
    name_ = found_name_;
    return true;
  }

  bool matches() override {
    if (!held_) return false;
    const DesktopHandle now = open_input_desktop(DESKTOP_READOBJECTS);
    return now && read_desktop_name(now.get(), &found_name_) && found_name_ == name_;
  }

  std::string name() const override { return name_; }

  // A desktop that a thread is on can't be closed, so the thread returns to where it began.
  void leave() override {
    if (held_) SetThreadDesktop(threads_own_);
    held_.reset();
    found_.reset();
    name_.clear();
  }

 private:
  HDESK threads_own_ = nullptr;  // while one is held; the system's, not to be closed
  DesktopHandle held_;
  std::string name_;  // of the one held
  DesktopHandle found_;
  std::string found_name_;
};

}  // namespace

std::unique_ptr<InputDesktop> make_session_desktop() {
  return std::make_unique<SessionDesktop>();
}
