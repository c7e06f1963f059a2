// Which displays exist. Every query is a fresh enumeration; a display is known by its device name,
// never by its position in the list. Stateless, any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct DesktopRect {
  std::int32_t left = 0;
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
  bool operator==(const DesktopRect&) const = default;
};

struct DesktopPoint {
  std::int32_t x = 0;
  std::int32_t y = 0;
  bool operator==(const DesktopPoint&) const = default;
};

// Strings are UTF-8.
struct DisplayInfo {
  std::int32_t index = 0;    // in the list at enumeration time
  std::string device;        // the display's identity
  std::string name;          // the adapter's description, or the screen's
  bool has_adapter = false;  // has a GPU device that can capture it
  std::uint32_t adapter_luid_low = 0;
  std::int32_t adapter_luid_high = 0;
  std::int32_t left = 0, top = 0, right = 0, bottom = 0;  // on the virtual desktop
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t refresh_hz = 0;  // 0 if unknown
  std::int32_t rotation = 1;    // 1: identity
  bool primary = false;
  bool is_virtual = false;  // a monitor of the virtual display driver
  bool operator==(const DisplayInfo&) const = default;
};

struct MonitorEntry {
  std::string name;  // the display's device
  std::int32_t left = 0, top = 0, right = 0, bottom = 0;
  bool primary = false;
  bool is_virtual = false;
};

std::vector<DisplayInfo> list_displays();

// Why no display can be captured here, in words for a person; empty when one can be.
std::string display_obstacle();

// The two views that a system may have of its displays, as one list: the outputs of adapters first,
// each device once, then the monitors that no adapter knows and that have an area. Marks those that
// `virtual_devices` names.
std::vector<DisplayInfo> merge_displays(const std::vector<DisplayInfo>& adapter_outputs,
                                        const std::vector<DisplayInfo>& monitors,
                                        const std::vector<std::string>& virtual_devices);

bool find_display(const std::string& device, DisplayInfo* out);  // without regard to case
bool find_display(const std::vector<DisplayInfo>& displays, const std::string& device,
                  DisplayInfo* out);
bool refresh_display(DisplayInfo* info);  // false, with `info` as it was, when it is gone

// An empty selector: the primary display, else the first. A number: that index. Else a device name.
bool select_display(const std::string& selector, DisplayInfo* out);
bool select_display(const std::vector<DisplayInfo>& displays, const std::string& selector,
                    DisplayInfo* out);

std::vector<MonitorEntry> to_monitor_entries(const std::vector<DisplayInfo>& displays);
std::string describe_display(const DisplayInfo& display);  // one line for a person
DesktopRect virtual_desktop_rect();
