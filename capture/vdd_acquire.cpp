// How a screen gets a virtual monitor: one that is there and offers the mode, or else a changed
// driver and a wait.
#include <algorithm>
#include <limits>

#include "capture/vdd_control.h"
#include "capture/vdd_leases.h"
#include "connection/clock.h"
#include "control/log.h"
#include "control/text.h"

namespace {

using namespace vdd_control;
using AdapterChange = VirtualDisplayDriver::AdapterChange;
using ModeChange = VirtualDisplayDriver::ModeChange;

constexpr DisplayMode DEFAULT_MODE = {1920, 1080, 60};

constexpr std::uint32_t ENABLE_PAUSE_MS = 1500;
constexpr std::uint32_t MONITOR_POLL_MS = 250;
constexpr int MONITOR_POLLS = 40;
// The poll, after some 3 s, from which on a monitor is taken without the mode, and at which the
// desktop is extended when there is none: Windows may have the new monitor detached.
constexpr int MONITOR_LATE_POLL = 12;
constexpr std::uint32_t MODE_POLL_MS = 50;
constexpr int MODE_POLLS = 20;

constexpr const char* SWITCHED_OFF = "virtual displays are off (--virtual-display off)";
constexpr const char* NOT_INSTALLED =
    "no virtual display driver installed (tray > Install virtual display driver)";
constexpr const char* DISABLED =
    "the virtual display driver is disabled in Device Manager (enable it, or run as "
    "administrator)";
constexpr const char* NO_FREE_MONITOR =
    "the virtual display driver has no free monitor (raise <count> in vdd_settings.xml, or run "
    "Lunderhaze as administrator once so it can restart the driver)";
constexpr const char* NO_MODES = "the virtual monitor reports no modes";
constexpr const char* MODE_NOT_SET = "could not set the virtual monitor's mode";

DisplayMode with_defaults(int width, int height, int fps) {
  DisplayMode mode = {width, height, fps < 1 ? DEFAULT_MODE.refresh : fps};
  if (width < 1 || height < 1) {
    mode.width = DEFAULT_MODE.width;
    mode.height = DEFAULT_MODE.height;
  }
  return mode;
}

bool offers(VirtualDisplayDriver& driver, const std::string& device, const DisplayMode& mode) {
  return has_mode(device_modes(driver, device), mode);
}

// The monitors that nobody leases, the screen's last one first.
std::vector<std::string> free_monitors(VirtualDisplayDriver& driver,
                                       const std::vector<std::string>& busy,
                                       const std::string& previous) {
  std::vector<std::string> monitors = driver.attached_monitors();
  std::erase_if(monitors, [&](const std::string& device) {
    return std::ranges::any_of(
        busy, [&](const std::string& other) { return same_but_for_case(other, device); });
  });
  std::stable_partition(monitors.begin(), monitors.end(), [&](const std::string& device) {
    return same_but_for_case(device, previous);
  });
  return monitors;
}

// Looks until `look` finds a monitor with the mode; gives what it found last. `started`: the driver
// runs, and so may have a monitor that the desktop doesn't use.
template <typename Look>
std::vector<std::string> await_monitor(VirtualDisplayDriver& driver, Look look, bool started,
                                       const DisplayMode& wanted) {
  std::vector<std::string> monitors;
  for (int poll = 0; poll < MONITOR_POLLS; ++poll) {
    pause_ms(MONITOR_POLL_MS);
    monitors = look();
    if (!monitors.empty()) {
      if (poll >= MONITOR_LATE_POLL || offers(driver, monitors[0], wanted)) break;
    } else if (poll == MONITOR_LATE_POLL && started) {
      hlog("vdd: no virtual monitor active after 3 s; extending the desktop to all displays");
      driver.extend_desktop();
    }
  }
  return monitors;
}

// Of the modes that the monitor offers, the nearest to what is wanted.
std::optional<DisplayMode> pick_mode(VirtualDisplayDriver& driver, const std::string& device,
                                     const DisplayMode& wanted) {
  const std::vector<DisplayMode> modes = device_modes(driver, device);
  const int best = pick_best_mode(modes, wanted.width, wanted.height, wanted.refresh);
  if (best < 0) return std::nullopt;
  const DisplayMode mode = modes[static_cast<std::size_t>(best)];
  if (mode != wanted)
    hlog(
        "vdd: %s doesn't offer %dx%d@%d (driver not reloaded with the new mode: run Lunderhaze as "
        "administrator, or restart the driver in Virtual Driver Control); using %dx%d@%d",
        device.c_str(), wanted.width, wanted.height, wanted.refresh, mode.width, mode.height,
        mode.refresh);
  return mode;
}

// False when the monitor hasn't the mode in the end. One that has it and can't be placed will do.
bool set_mode(VirtualDisplayDriver& driver, const std::string& device, const DisplayMode& mode,
              const DesktopPoint* position) {
  const std::optional<MonitorSettings> current = driver.current_settings(device);
  const bool has_mode_already = current && current->mode == mode;
  if (has_mode_already && (!position || current->position == *position)) return true;
  ModeChange result = driver.store_settings(device, mode, position);
  if (result == ModeChange::Ok) result = driver.apply_settings();
  hlog("vdd: %s -> %dx%d@%d%s: %s", device.c_str(), mode.width, mode.height, mode.refresh,
       position ? " (placed right of the desktop)" : "", change_word(result));
  return result == ModeChange::Ok || has_mode_already;
}

// The display once it shows the size, or as it is when that takes too long.
DisplayInfo await_mode(VirtualDisplayDriver& driver, const std::string& device,
                       const DisplayMode& mode) {
  DisplayInfo display;
  display.device = device;
  display.is_virtual = true;
  display.width = display.right = mode.width;
  display.height = display.bottom = mode.height;
  display.refresh_hz = mode.refresh;
  for (int poll = 0; poll < MODE_POLLS; ++poll) {
    if (poll > 0) pause_ms(MODE_POLL_MS);
    const bool found = driver.find_display(device, &display);
    if (found && display.width == mode.width && display.height == mode.height) break;
  }
  return display;
}

}  // namespace

bool LeasedVirtualDisplays::acquire(int screen, int width, int height, int fps,
                                    const DesktopPoint* position, DisplayInfo* out,
                                    std::string* reason) {
  const char* failure = SWITCHED_OFF;
  if (enabled != 0) {
    const std::scoped_lock operation(op_mutex_);
    failure = provide(screen, with_defaults(width, height, fps), position, out);
  }
  if (!failure) return true;
  hlog("vdd: screen %d: %s", screen, failure);
  if (reason) *reason = failure;
  return false;
}

const char* LeasedVirtualDisplays::provide(int screen, const DisplayMode& wanted,
                                           const DesktopPoint* position, DisplayInfo* out) {
  const std::uint64_t start_us = lund_now_us();
  {
    const std::scoped_lock lock(state_mutex_);
    restore_at_ = 0;
    leases_.erase(screen);
  }
  VddState state;
  if (const char* failure = ready_driver(&state)) return failure;

  const Others others = others_of(screen);
  const auto look = [&] { return free_monitors(*driver_, others.busy, others.previous); };
  std::vector<std::string> monitors = look();
  if (monitors.empty() || !offers(*driver_, monitors[0], wanted)) {
    const int needed = static_cast<int>(others.busy.size()) + 1;
    const int count = change_settings(state, needed, wanted);
    if (reload_driver(*driver_, count, state))
      monitors = await_monitor(*driver_, look, state.started, wanted);
  }
  if (monitors.empty()) {
    probe();
    return NO_FREE_MONITOR;
  }

  const std::string& device = monitors[0];
  const std::optional<DisplayMode> mode = pick_mode(*driver_, device, wanted);
  if (!mode) return NO_MODES;
  remember_settings(device);
  if (!set_mode(*driver_, device, *mode, position)) return MODE_NOT_SET;
  *out = await_mode(*driver_, device, *mode);
  {
    const std::scoped_lock lock(state_mutex_);
    leases_[screen] = {device};
    last_device_[screen] = device;
  }
  probe();
  hlog("vdd: screen %d -> virtual monitor %s (%.0f ms)", screen, describe_display(*out).c_str(),
       static_cast<double>(lund_now_us() - start_us) / 1000.0);
  return nullptr;
}

const char* LeasedVirtualDisplays::ready_driver(VddState* state) {
  *state = probe();
  if (!state->installed) return NOT_INSTALLED;
  if (state->enabled) return nullptr;
  if (!driver_->elevated() || !change_vdd_device(*driver_, AdapterChange::Enable)) return DISABLED;
  hlog("vdd: enabled the driver's device");
  pause_ms(ENABLE_PAUSE_MS);
  *state = probe();
  return nullptr;
}

LeasedVirtualDisplays::Others LeasedVirtualDisplays::others_of(int screen) {
  const std::scoped_lock lock(state_mutex_);
  Others others;
  for (const auto& [other, lease] : leases_) others.busy.push_back(lease.device);
  const auto previous = last_device_.find(screen);
  if (previous != last_device_.end()) others.previous = previous->second;
  return others;
}

// ---- What is changed, and what it was

// Gives the number of monitors that the driver is to have.
int LeasedVirtualDisplays::change_settings(const VddState& state, int needed,
                                           const DisplayMode& wanted) {
  std::string text;
  const bool readable =
      read_settings(*driver_, state.settings_path, &text) && vdd_xml_monitor_count(text) >= 0;
  if (!readable)
    hlog("vdd: %s unreadable or not in the expected format; only the monitor count can be changed",
         state.settings_path.c_str());
  const int active = static_cast<int>(driver_->attached_monitors().size());
  return readable ? edit_settings(state, text, std::max(needed - active, 0), wanted)
                  : raise_count(active, needed);
}

int LeasedVirtualDisplays::raise_count(int active, int needed) {
  if (active >= needed) return active;
  const std::scoped_lock lock(state_mutex_);
  if (saved_.count < 0) saved_.count = std::max(active, 1);
  return needed;
}

int LeasedVirtualDisplays::edit_settings(const VddState& state, const std::string& text, int added,
                                         const DisplayMode& wanted) {
  const int count = vdd_xml_monitor_count(text);
  const int new_count = count + std::min(added, std::numeric_limits<int>::max() - count);
  const bool listed = has_mode(vdd_xml_modes(text), wanted);

  std::string changed = text;
  if (added > 0) vdd_xml_set_monitor_count(&changed, new_count);
  if (!listed) vdd_xml_add_mode(&changed, wanted.width, wanted.height, wanted.refresh);
  if (changed == text) return new_count;
  {
    const std::scoped_lock lock(state_mutex_);
    if (saved_.xml.empty()) {
      saved_.xml = text;
      saved_.path = state.settings_path;
      saved_.settings_count = count;
    }
  }
  if (write_settings(*driver_, state.settings_path, changed))
    hlog("vdd: vdd_settings.xml: monitors %d -> %d, mode %dx%d@%d %s", count, new_count,
         wanted.width, wanted.height, wanted.refresh, listed ? "already listed" : "added");
  return new_count;
}

void LeasedVirtualDisplays::remember_settings(const std::string& device) {
  {
    const std::scoped_lock lock(state_mutex_);
    if (saved_.modes.contains(device)) return;
  }
  std::optional<MonitorSettings> settings = driver_->stored_settings(device);
  if (!settings) settings = driver_->current_settings(device);
  if (!settings) return;
  const std::scoped_lock lock(state_mutex_);
  saved_.modes.emplace(device, *settings);
}
