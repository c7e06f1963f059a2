#include "capture/display.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "control/text.h"

namespace {

constexpr int IDENTITY_ROTATION = 1;

bool any_named(const std::vector<std::string>& names, const std::string& name) {
  return std::any_of(names.begin(), names.end(),
                     [&](const std::string& other) { return same_but_for_case(other, name); });
}

void append(std::vector<DisplayInfo>* list, DisplayInfo display) {
  display.index = static_cast<std::int32_t>(list->size());
  display.width = display.right - display.left;
  display.height = display.bottom - display.top;
  if (display.refresh_hz <= 1) display.refresh_hz = 0;  // 0 and 1 stand for "the default"
  list->push_back(std::move(display));
}

}  // namespace

std::vector<DisplayInfo> merge_displays(const std::vector<DisplayInfo>& adapter_outputs,
                                        const std::vector<DisplayInfo>& monitors,
                                        const std::vector<std::string>& virtual_devices) {
  std::vector<DisplayInfo> list;
  for (const DisplayInfo& output : adapter_outputs) {
    const bool known = std::any_of(list.begin(), list.end(), [&](const DisplayInfo& other) {
      return other.device == output.device;
    });
    if (!known) append(&list, output);
  }
  for (const DisplayInfo& monitor : monitors) {
    const bool known = std::any_of(list.begin(), list.end(), [&](const DisplayInfo& other) {
      return same_but_for_case(other.device, monitor.device);
    });
    if (known || monitor.right <= monitor.left || monitor.bottom <= monitor.top) continue;
    append(&list, monitor);
  }
  for (DisplayInfo& display : list) {
    display.is_virtual = any_named(virtual_devices, display.device);
  }
  return list;
}

bool find_display(const std::vector<DisplayInfo>& displays, const std::string& device,
                  DisplayInfo* out) {
  const auto found = std::find_if(
      displays.begin(), displays.end(),
      [&](const DisplayInfo& display) { return same_but_for_case(display.device, device); });
  if (found == displays.end()) return false;
  *out = *found;
  return true;
}

bool find_display(const std::string& device, DisplayInfo* out) {
  return find_display(list_displays(), device, out);
}

bool refresh_display(DisplayInfo* info) {
  return find_display(info->device, info);
}

bool select_display(const std::string& selector, DisplayInfo* out) {
  return select_display(list_displays(), selector, out);
}

bool select_display(const std::vector<DisplayInfo>& displays, const std::string& selector,
                    DisplayInfo* out) {
  if (displays.empty()) return false;
  if (selector.empty()) {
    const auto primary = std::find_if(displays.begin(), displays.end(),
                                      [](const DisplayInfo& display) { return display.primary; });
    *out = primary == displays.end() ? displays.front() : *primary;
    return true;
  }
  char* end = nullptr;
  const long index = std::strtol(selector.c_str(), &end, 10);
  if (*end == '\0' && index >= 0 && static_cast<unsigned long>(index) < displays.size()) {
    *out = displays[static_cast<std::size_t>(index)];
    return true;
  }
  return find_display(displays, selector, out);
}

std::vector<MonitorEntry> to_monitor_entries(const std::vector<DisplayInfo>& displays) {
  std::vector<MonitorEntry> entries;
  entries.reserve(displays.size());
  for (const DisplayInfo& d : displays) {
    entries.push_back({d.device, d.left, d.top, d.right, d.bottom, d.primary, d.is_virtual});
  }
  return entries;
}

std::string describe_display(const DisplayInfo& d) {
  const char* format = "%d: %s %dx%d @ %d Hz at (%ld,%ld)%s%s on %s%s";
  const auto print = [&](char* to, std::size_t size) {
    return std::snprintf(to, size, format, d.index, d.device.c_str(), d.width, d.height,
                         d.refresh_hz, static_cast<long>(d.left), static_cast<long>(d.top),
                         d.primary ? " [primary]" : "",
                         d.is_virtual ? " [virtual display driver]" : "", d.name.c_str(),
                         d.rotation > IDENTITY_ROTATION ? " (rotated: not supported)" : "");
  };
  std::string line(static_cast<std::size_t>(print(nullptr, 0)), '\0');
  print(line.data(), line.size() + 1);
  return line;
}
