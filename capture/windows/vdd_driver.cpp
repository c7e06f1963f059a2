#include "capture/windows/vdd_driver.h"

#include "capture/windows/vdd_pipe.h"
#include "control/windows/token.h"
#include "control/windows/wide_text.h"

namespace {

using Driver = VirtualDisplayDriver;

constexpr const wchar_t* REGISTERED_UNDER = LR"(SOFTWARE\MikeTheTech\VirtualDisplayDriver)";
constexpr const wchar_t* FOLDER_VALUE = L"VDDPATH";

Driver::Result result_of(BOOL done) {
  if (done) return {true, 0};
  return {false, GetLastError()};
}

}  // namespace

WindowsVddDriver::WindowsVddDriver(DeviceCalls devices, DisplayCalls displays)
    : devices_(std::move(devices)), displays_(std::move(displays)) {}

// ---- The driver's device

std::vector<Driver::Adapter> WindowsVddDriver::display_adapters() {
  return ::display_adapters(devices_);
}

std::optional<Driver::AdapterStatus> WindowsVddDriver::adapter_status(const std::string& id) {
  return ::adapter_status(devices_, id);
}

Driver::Result WindowsVddDriver::change_adapter(const std::string& id, AdapterChange change) {
  return ::change_adapter(devices_, id, change);
}

bool WindowsVddDriver::elevated() {
  const Handle token = process_token(GetCurrentProcess(), TOKEN_QUERY);
  return token && is_elevated(token.get());
}

// ---- The driver's settings file

std::string WindowsVddDriver::settings_folder() {
  std::wstring folder(MAX_PATH, L'\0');
  while (true) {
    auto size = static_cast<DWORD>(folder.size() * sizeof(wchar_t));
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, REGISTERED_UNDER, FOLDER_VALUE,
                                        RRF_RT_REG_SZ, nullptr, folder.data(), &size);
    if (status == ERROR_SUCCESS) return to_utf8(folder.c_str());
    if (status != ERROR_MORE_DATA) return {};
    folder.resize(2 * folder.size());
  }
}

bool WindowsVddDriver::read_file(const std::string& path, std::size_t limit, std::string* text) {
  const Handle file = owned_file(CreateFileW(
      to_wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return false;
  std::string bytes(limit + 1, '\0');
  std::size_t size = 0;
  while (size < bytes.size()) {
    DWORD count = 0;
    if (!ReadFile(file.get(), bytes.data() + size, static_cast<DWORD>(bytes.size() - size), &count,
                  nullptr))
      return false;
    if (count == 0) break;
    size += count;
  }
  if (size > limit) return false;
  bytes.resize(size);
  *text = std::move(bytes);
  return true;
}

Driver::FileWrite WindowsVddDriver::write_file(const std::string& path, const std::string& text) {
  const Handle file = owned_file(CreateFileW(to_wide(path).c_str(), GENERIC_WRITE, 0, nullptr,
                                             CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return {false, false, GetLastError()};
  DWORD written = 0;
  if (!WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr))
    return {true, false, GetLastError()};
  return {true, written == text.size(), ERROR_SUCCESS};
}

Driver::Result WindowsVddDriver::replace_file(const std::string& from, const std::string& to) {
  return result_of(
      MoveFileExW(to_wide(from).c_str(), to_wide(to).c_str(), MOVEFILE_REPLACE_EXISTING));
}

void WindowsVddDriver::delete_file(const std::string& path) {
  DeleteFileW(to_wide(path).c_str());
}

// ---- The driver's control pipe

Driver::Result WindowsVddDriver::wait_for_pipe(std::uint32_t timeout_ms) {
  return wait_for_vdd_pipe(timeout_ms);
}

std::unique_ptr<Driver::ControlPipe> WindowsVddDriver::open_pipe() {
  return open_vdd_pipe();
}

// ---- Monitors

std::vector<std::string> WindowsVddDriver::attached_monitors() {
  return virtual_display_devices(displays_);
}

bool WindowsVddDriver::find_display(const std::string& device, DisplayInfo* out) {
  return ::find_display(device, out);
}

std::vector<Driver::OfferedMode> WindowsVddDriver::offered_modes(const std::string& device) {
  return ::offered_modes(displays_, device);
}

std::optional<MonitorSettings> WindowsVddDriver::stored_settings(const std::string& device) {
  return monitor_settings(displays_, device, ENUM_REGISTRY_SETTINGS);
}

std::optional<MonitorSettings> WindowsVddDriver::current_settings(const std::string& device) {
  return monitor_settings(displays_, device, ENUM_CURRENT_SETTINGS);
}

Driver::ModeChange WindowsVddDriver::store_settings(const std::string& device,
                                                    const DisplayMode& mode,
                                                    const DesktopPoint* position) {
  return store_monitor_settings(displays_, device, mode, position);
}

Driver::ModeChange WindowsVddDriver::apply_settings() {
  return apply_stored_settings(displays_);
}

void WindowsVddDriver::extend_desktop() {
  extend_to_all_displays(displays_);
}
