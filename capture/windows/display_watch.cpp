#include "capture/windows/display_watch.h"

#include "capture/windows/display_lists.h"
#include "capture/windows/vdd_monitors.h"

bool DisplayWatch::current(const std::vector<DisplayInfo>& monitors) const {
  return factory_ && factory_->IsCurrent() && monitors == monitors_;
}

bool DisplayWatch::find(const std::string& device, DisplayInfo* out) {
  std::vector<DisplayInfo> monitors = desktop_monitors();
  if (!current(monitors)) {
    factory_ = display_factory(api_);
    displays_ =
        merge_displays(adapter_outputs(factory_.Get()), monitors, virtual_display_devices());
    monitors_ = std::move(monitors);
  }
  return find_display(displays_, device, out);
}
