#include "capture/display.h"

#include "capture/windows/display_bounds.h"
#include "capture/windows/display_lists.h"
#include "capture/windows/vdd_monitors.h"
#include "control/windows/wide_text.h"

namespace {

void place(const RECT& rect, DisplayInfo* display) {
  display->left = rect.left;
  display->top = rect.top;
  display->right = rect.right;
  display->bottom = rect.bottom;
}

std::int32_t refresh_hz(const std::string& device) {
  const auto settings = monitor_settings({}, device, ENUM_CURRENT_SETTINGS);
  return settings ? settings->mode.refresh : 0;
}

bool monitor_info(HMONITOR monitor, MONITORINFOEXW* info) {
  *info = {};
  info->cbSize = sizeof *info;
  return GetMonitorInfoW(monitor, info);
}

bool is_primary(const MONITORINFOEXW& info) {
  return (info.dwFlags & MONITORINFOF_PRIMARY) != 0;
}

void append_outputs(IDXGIAdapter1& adapter, std::vector<DisplayInfo>* list) {
  DXGI_ADAPTER_DESC adapter_desc = {};
  if (FAILED(adapter.GetDesc(&adapter_desc))) return;
  ComPtr<IDXGIOutput> output;
  for (UINT i = 0; SUCCEEDED(adapter.EnumOutputs(i, &output)); ++i) {
    DXGI_OUTPUT_DESC desc = {};
    if (FAILED(output->GetDesc(&desc)) || !desc.AttachedToDesktop) continue;
    DisplayInfo display;
    display.device = to_utf8(desc.DeviceName);
    display.name = to_utf8(adapter_desc.Description);
    display.has_adapter = true;
    display.adapter_luid_low = adapter_desc.AdapterLuid.LowPart;
    display.adapter_luid_high = adapter_desc.AdapterLuid.HighPart;
    place(desc.DesktopCoordinates, &display);
    display.rotation = desc.Rotation;
    MONITORINFOEXW info;
    display.primary = monitor_info(desc.Monitor, &info) && is_primary(info);
    display.refresh_hz = refresh_hz(display.device);
    list->push_back(std::move(display));
  }
}

BOOL CALLBACK append_monitor(HMONITOR monitor, HDC, RECT*, LPARAM list) {
  MONITORINFOEXW info;
  if (!monitor_info(monitor, &info)) return TRUE;
  DisplayInfo display;
  display.device = to_utf8(info.szDevice);
  display.name = "GDI display";
  place(info.rcMonitor, &display);
  display.primary = is_primary(info);
  display.refresh_hz = refresh_hz(display.device);
  reinterpret_cast<std::vector<DisplayInfo>*>(list)->push_back(std::move(display));
  return TRUE;
}

}  // namespace

std::vector<DisplayInfo> adapter_outputs(IDXGIFactory1* factory) {
  std::vector<DisplayInfo> list;
  if (!factory) return list;
  ComPtr<IDXGIAdapter1> adapter;
  for (UINT i = 0; SUCCEEDED(factory->EnumAdapters1(i, &adapter)); ++i)
    append_outputs(*adapter.Get(), &list);
  return list;
}

std::vector<DisplayInfo> desktop_monitors() {
  std::vector<DisplayInfo> list;
  EnumDisplayMonitors(nullptr, nullptr, append_monitor, reinterpret_cast<LPARAM>(&list));
  return list;
}

ComPtr<IDXGIFactory1> display_factory(const Direct3d& api) {
  ComPtr<IDXGIFactory1> factory;
  if (FAILED(api.create_factory(IID_PPV_ARGS(&factory)))) return nullptr;
  return factory;
}

std::vector<DisplayInfo> list_displays() {
  return merge_displays(adapter_outputs(display_factory(system_direct3d()).Get()),
                        desktop_monitors(), virtual_display_devices());
}

bool display_bounds(const std::string& device, DesktopRect* bounds) {
  const auto settings = monitor_settings({}, device, ENUM_CURRENT_SETTINGS);
  if (!settings) return false;
  const DesktopPoint& at = settings->position;
  *bounds = {at.x, at.y, at.x + settings->mode.width, at.y + settings->mode.height};
  return true;
}

std::string display_obstacle() {
  if (!desktop_monitors().empty()) return {};
  return "no display is part of the desktop";
}

DesktopRect virtual_desktop_rect() {
  const int left = GetSystemMetrics(SM_XVIRTUALSCREEN);
  const int top = GetSystemMetrics(SM_YVIRTUALSCREEN);
  return {left, top, left + GetSystemMetrics(SM_CXVIRTUALSCREEN),
          top + GetSystemMetrics(SM_CYVIRTUALSCREEN)};
}
