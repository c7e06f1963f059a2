#include "capture/windows/vdd_monitors.h"

#include <algorithm>

#include "control/windows/wide_text.h"

namespace {

using ModeChange = VirtualDisplayDriver::ModeChange;

constexpr std::string_view MONITOR_MARKER = "mtt1337";  // in the monitor's device path, in any case
constexpr int QUERIES = 4;  // displays may come between the call for sizes and the query

constexpr DWORD SIZE_AND_RATE = DM_PELSWIDTH | DM_PELSHEIGHT | DM_DISPLAYFREQUENCY;

std::string lower_case(std::string text) {
  std::ranges::transform(text, text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text;
}

std::vector<DISPLAYCONFIG_PATH_INFO> active_paths(const DisplayCalls& calls) {
  for (int i = 0; i < QUERIES; ++i) {
    UINT32 path_count = 0;
    UINT32 mode_count = 0;
    if (calls.buffer_sizes(QDC_ONLY_ACTIVE_PATHS, &path_count, &mode_count) != ERROR_SUCCESS)
      return {};
    std::vector<DISPLAYCONFIG_PATH_INFO> paths(path_count);
    std::vector<DISPLAYCONFIG_MODE_INFO> modes(mode_count);
    const LONG result = calls.query(QDC_ONLY_ACTIVE_PATHS, &path_count, paths.data(), &mode_count,
                                    modes.data(), nullptr);
    if (result == ERROR_INSUFFICIENT_BUFFER) continue;
    if (result != ERROR_SUCCESS) return {};
    paths.resize(path_count);
    return paths;
  }
  return {};
}

// A DISPLAYCONFIG_..._NAME of what the adapter knows by this id; nothing when the system can't say.
template <class Name>
std::optional<Name> device_name(const DisplayCalls& calls, DISPLAYCONFIG_DEVICE_INFO_TYPE type,
                                const LUID& adapter, UINT32 id) {
  Name name = {};
  name.header.type = type;
  name.header.size = sizeof(name);
  name.header.adapterId = adapter;
  name.header.id = id;
  if (calls.device_info(&name.header) != ERROR_SUCCESS) return std::nullopt;
  return name;
}

bool is_the_drivers(const DisplayCalls& calls, const DISPLAYCONFIG_PATH_TARGET_INFO& target) {
  const auto name = device_name<DISPLAYCONFIG_TARGET_DEVICE_NAME>(
      calls, DISPLAYCONFIG_DEVICE_INFO_GET_TARGET_NAME, target.adapterId, target.id);
  return name &&
         lower_case(to_utf8(name->monitorDevicePath)).find(MONITOR_MARKER) != std::string::npos;
}

ModeChange change_of(LONG result) {
  switch (result) {
    case DISP_CHANGE_SUCCESSFUL:
      return ModeChange::Ok;
    case DISP_CHANGE_RESTART:
      return ModeChange::Restart;
    case DISP_CHANGE_BADPARAM:
      return ModeChange::BadParameter;
    case DISP_CHANGE_NOTUPDATED:
      return ModeChange::NotUpdated;
    case DISP_CHANGE_BADMODE:
      return ModeChange::BadMode;
    case DISP_CHANGE_FAILED:
      return ModeChange::Failed;
    default:
      return ModeChange::Error;
  }
}

DEVMODEW empty_mode() {
  DEVMODEW mode = {};
  mode.dmSize = sizeof(mode);
  return mode;
}

DisplayMode display_mode(const DEVMODEW& mode) {
  return {static_cast<std::int32_t>(mode.dmPelsWidth), static_cast<std::int32_t>(mode.dmPelsHeight),
          static_cast<std::int32_t>(mode.dmDisplayFrequency)};
}

}  // namespace

std::vector<std::string> virtual_display_devices(const DisplayCalls& calls) {
  std::vector<std::string> devices;
  for (const DISPLAYCONFIG_PATH_INFO& path : active_paths(calls)) {
    if (!is_the_drivers(calls, path.targetInfo)) continue;
    const auto source = device_name<DISPLAYCONFIG_SOURCE_DEVICE_NAME>(
        calls, DISPLAYCONFIG_DEVICE_INFO_GET_SOURCE_NAME, path.sourceInfo.adapterId,
        path.sourceInfo.id);
    if (source) devices.push_back(to_utf8(source->viewGdiDeviceName));
  }
  return devices;
}

std::vector<VirtualDisplayDriver::OfferedMode> offered_modes(const DisplayCalls& calls,
                                                             const std::string& device) {
  const std::wstring name = to_wide(device);
  std::vector<VirtualDisplayDriver::OfferedMode> modes;
  for (DWORD index = 0;; ++index) {
    DEVMODEW mode = empty_mode();
    if (!calls.settings(name.c_str(), index, &mode)) return modes;
    modes.push_back({display_mode(mode), mode.dmBitsPerPel});
  }
}

std::optional<MonitorSettings> monitor_settings(const DisplayCalls& calls,
                                                const std::string& device, DWORD index) {
  DEVMODEW mode = empty_mode();
  if (!calls.settings(to_wide(device).c_str(), index, &mode)) return std::nullopt;
  return MonitorSettings{display_mode(mode), {mode.dmPosition.x, mode.dmPosition.y}};
}

ModeChange store_monitor_settings(const DisplayCalls& calls, const std::string& device,
                                  const DisplayMode& mode, const DesktopPoint* position) {
  DEVMODEW settings = empty_mode();
  settings.dmFields = SIZE_AND_RATE;
  settings.dmPelsWidth = static_cast<DWORD>(mode.width);
  settings.dmPelsHeight = static_cast<DWORD>(mode.height);
  settings.dmDisplayFrequency = static_cast<DWORD>(mode.refresh);
  if (position) {
    settings.dmFields |= DM_POSITION;
    settings.dmPosition = {position->x, position->y};
  }
  return change_of(calls.change_settings(to_wide(device).c_str(), &settings, nullptr,
                                         CDS_UPDATEREGISTRY | CDS_NORESET, nullptr));
}

ModeChange apply_stored_settings(const DisplayCalls& calls) {
  return change_of(calls.change_settings(nullptr, nullptr, nullptr, 0, nullptr));
}

void extend_to_all_displays(const DisplayCalls& calls) {
  calls.set_config(0, nullptr, 0, nullptr, SDC_APPLY | SDC_TOPOLOGY_EXTEND);
}
