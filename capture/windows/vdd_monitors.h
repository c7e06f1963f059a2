// The virtual display driver's monitors as the system's display configuration has them, and what is
// changed at them. Stateless, any thread. Strings are UTF-8. The calls of the system stand in a
// record, so that a test can write down what they are given and say what comes of them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "capture/vdd_driver.h"
#include "control/windows/handles.h"

struct DisplayCalls {
  std::function<LONG(UINT32 flags, UINT32* paths, UINT32* modes)> buffer_sizes =
      GetDisplayConfigBufferSizes;
  std::function<LONG(UINT32 flags, UINT32* path_count, DISPLAYCONFIG_PATH_INFO* paths,
                     UINT32* mode_count, DISPLAYCONFIG_MODE_INFO* modes,
                     DISPLAYCONFIG_TOPOLOGY_ID* topology)>
      query = QueryDisplayConfig;
  std::function<LONG(DISPLAYCONFIG_DEVICE_INFO_HEADER* request)> device_info =
      DisplayConfigGetDeviceInfo;
  std::function<LONG(UINT32 path_count, DISPLAYCONFIG_PATH_INFO* paths, UINT32 mode_count,
                     DISPLAYCONFIG_MODE_INFO* modes, UINT32 flags)>
      set_config = SetDisplayConfig;
  std::function<BOOL(const wchar_t* device, DWORD index, DEVMODEW* mode)> settings =
      EnumDisplaySettingsW;
  std::function<LONG(const wchar_t* device, DEVMODEW* mode, HWND, DWORD flags, void* parameter)>
      change_settings = ChangeDisplaySettingsExW;
};

// GDI names of the driver's monitors that the desktop uses. Empty too when the system can't say.
std::vector<std::string> virtual_display_devices(const DisplayCalls& calls = {});

std::vector<VirtualDisplayDriver::OfferedMode> offered_modes(const DisplayCalls& calls,
                                                             const std::string& device);
// `index`: ENUM_CURRENT_SETTINGS or ENUM_REGISTRY_SETTINGS.
std::optional<MonitorSettings> monitor_settings(const DisplayCalls& calls,
                                                const std::string& device, DWORD index);
// Into the registry alone; null keeps the position.
VirtualDisplayDriver::ModeChange store_monitor_settings(const DisplayCalls& calls,
                                                        const std::string& device,
                                                        const DisplayMode& mode,
                                                        const DesktopPoint* position);
VirtualDisplayDriver::ModeChange apply_stored_settings(const DisplayCalls& calls);
void extend_to_all_displays(const DisplayCalls& calls);
