#include <cstdlib>

#include "capture/linux/x11.h"
#include "capture/linux/x11_source.h"

namespace {

// The desktop with the input is the display that can be reached. It is another one whenever the
// connection had to be made anew.
class X11Desktop final : public InputDesktop {
 public:
  Look look() override {
    if (held_) {
      while (x11::own(xcb_poll_for_event(*held_))) {
      }
      if (held_->ok()) return Look::Same;
    }
    found_ = std::make_unique<x11::Connection>();
    if (found_->ok()) return Look::Other;
    found_.reset();
    return Look::Unreachable;
  }
  bool enter() override {
    held_ = std::move(found_);
    const char* display = std::getenv("DISPLAY");
    name_ = display ? display : "";
    return held_ != nullptr;
  }
  bool matches() override { return held_ && held_->ok(); }
  std::string name() const override { return name_; }
  void leave() override {
    held_.reset();
    name_.clear();
  }

 private:
  std::unique_ptr<x11::Connection> held_;
  std::unique_ptr<x11::Connection> found_;
  std::string name_;
};

}  // namespace

std::unique_ptr<InputDesktop> make_x11_desktop() {
  return std::make_unique<X11Desktop>();
}
