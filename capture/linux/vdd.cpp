// No driver for virtual displays exists here.
#include "capture/vdd.h"

#include <mutex>

#include "control/log.h"

namespace {

class NoVirtualDisplays final : public VirtualDisplays {
 public:
  std::string probe() override {
    const std::lock_guard lock(mutex_);
    status_ = enabled == 0 ? "Virtual display: off (--virtual-display off)"
                           : "Virtual display: driver not installed";
    return "not installed";
  }
  bool usable() override { return false; }
  bool acquire(int screen, int, int, int, const DesktopPoint*, DisplayInfo*,
               std::string* reason) override {
    if (enabled != 0) probe();
    const char* text = enabled == 0 ? "virtual displays are off (--virtual-display off)"
                                    : "no virtual display driver installed";
    hlog("vdd: screen %d: %s", screen, text);
    if (reason) *reason = text;
    return false;
  }
  void release(int) override {}
  void tick() override {}
  void restore_now() override {}
  std::string status_line() override {
    const std::lock_guard lock(mutex_);
    return status_;
  }

 private:
  std::mutex mutex_;
  std::string status_ = "Virtual display: not checked yet";
};

}  // namespace

std::unique_ptr<VirtualDisplays> make_virtual_displays() {
  return std::make_unique<NoVirtualDisplays>();
}
