// How monitors and the driver's settings go back to what they were before the first lease.
#include <algorithm>
#include <utility>

#include "capture/vdd_control.h"
#include "capture/vdd_leases.h"
#include "control/log.h"

using namespace vdd_control;
using ModeChange = VirtualDisplayDriver::ModeChange;

void LeasedVirtualDisplays::restore_locked() {
  Saved saved;
  {
    const std::scoped_lock lock(state_mutex_);
    saved = std::exchange(saved_, {});
  }
  if (saved.nothing()) return;
  restore_modes(saved.modes);
  restore_settings(saved);
  probe();
}

void LeasedVirtualDisplays::restore_modes(const std::map<std::string, MonitorSettings>& modes) {
  bool any = false;
  for (const auto& [device, settings] : modes) {
    DisplayInfo display;
    if (!driver_->find_display(device, &display)) continue;
    if (driver_->current_settings(device) == settings) continue;
    const ModeChange result = driver_->store_settings(device, settings.mode, &settings.position);
    hlog("vdd: %s back to %dx%d@%d: %s", device.c_str(), settings.mode.width, settings.mode.height,
         settings.mode.refresh, change_word(result));
    any = any || result == ModeChange::Ok;
  }
  if (any) driver_->apply_settings();
}

void LeasedVirtualDisplays::restore_settings(const Saved& saved) {
  if (!saved.xml.empty() && !saved.path.empty()) {
    if (!write_settings(*driver_, saved.path, saved.xml)) return;
    hlog("vdd: vdd_settings.xml restored (monitors %d)", saved.settings_count);
    const VddState state = probe();
    if (state.installed && state.settings_count >= 0 &&
        state.active_monitors != saved.settings_count)
      reload_driver(*driver_, std::max(saved.settings_count, 1), state);
  } else if (saved.count >= 1) {
    hlog("vdd: monitor count back to %d", saved.count);
    reload_driver(*driver_, saved.count, probe());
  }
}
