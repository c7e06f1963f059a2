#include "capture/vdd.h"

#include "capture/vdd_control.h"
#include "capture/vdd_leases.h"
#include "connection/clock.h"
#include "control/text.h"

namespace {

constexpr std::uint64_t RESTORE_DELAY_US = 5'000'000;  // a client that reconnects finds its monitor

std::string status_text(int mode, const VddState& state, std::size_t leases) {
  const std::string start = "Virtual display: ";
  if (mode == 0) return start + "off (--virtual-display off)";
  if (!state.installed) return start + "driver not installed";
  if (!state.enabled) return start + "driver disabled in Device Manager";
  if (!state.started) return start + "driver not running";
  return start + "ready, " + std::to_string(state.active_monitors) + " monitor" +
         plural(state.active_monitors) + ", " + std::to_string(leases) + " streamed";
}

}  // namespace

std::string VddState::describe() const {
  if (!installed) return "not installed";
  std::string text = enabled ? "enabled" : "DISABLED in Device Manager";
  if (!started) text += " but not started";
  text += ", " + std::to_string(active_monitors) + " monitor" + plural(active_monitors) +
          " active, settings " + (settings_path.empty() ? "?" : settings_path) + " (count " +
          std::to_string(settings_count) + "), pipe " + (pipe_up ? "up" : "absent") + ", " +
          device_id;
  return text;
}

VddState LeasedVirtualDisplays::probe() {
  VddState state = vdd_control::inspect(*driver_);
  set_status(state);
  return state;
}

void LeasedVirtualDisplays::set_status(const VddState& state) {
  const std::scoped_lock lock(state_mutex_);
  cached_ = state;
  status_ = status_text(enabled, state, leases_.size());
}

bool LeasedVirtualDisplays::usable() {
  if (enabled == 0) return false;
  std::optional<VddState> state;
  {
    const std::scoped_lock lock(state_mutex_);
    state = cached_;
  }
  if (!state || !state->installed) state = probe();
  return state->installed && (state->enabled || driver_->elevated());
}

void LeasedVirtualDisplays::release(int screen) {
  const std::scoped_lock lock(state_mutex_);
  if (leases_.erase(screen) != 0 && leases_.empty()) restore_at_ = lund_now_us() + RESTORE_DELAY_US;
}

bool LeasedVirtualDisplays::restore_due() {
  return restore_at_ != 0 && lund_now_us() >= restore_at_ && leases_.empty();
}

void LeasedVirtualDisplays::tick() {
  {
    const std::scoped_lock lock(state_mutex_);
    if (!restore_due()) return;
  }
  const std::unique_lock operation(op_mutex_, std::try_to_lock);
  if (!operation) return;
  {
    // An acquire() may have come and gone in between.
    const std::scoped_lock lock(state_mutex_);
    if (!restore_due()) return;
    restore_at_ = 0;
  }
  restore_locked();
}

void LeasedVirtualDisplays::restore_now() {
  const std::scoped_lock operation(op_mutex_);
  {
    const std::scoped_lock lock(state_mutex_);
    leases_.clear();
    restore_at_ = 0;
  }
  restore_locked();
}

std::string LeasedVirtualDisplays::status_line() {
  const std::scoped_lock lock(state_mutex_);
  return status_;
}
