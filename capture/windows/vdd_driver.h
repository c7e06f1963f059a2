// The virtual display driver as Windows reaches it. Any thread, several at once.
#pragma once

#include "capture/vdd_driver.h"
#include "capture/windows/vdd_device.h"
#include "capture/windows/vdd_monitors.h"

class WindowsVddDriver final : public VirtualDisplayDriver {
 public:
  explicit WindowsVddDriver(DeviceCalls devices = {}, DisplayCalls displays = {});

  std::vector<Adapter> display_adapters() override;
  std::optional<AdapterStatus> adapter_status(const std::string& id) override;
  Result change_adapter(const std::string& id, AdapterChange change) override;
  bool elevated() override;

  std::string settings_folder() override;
  bool read_file(const std::string& path, std::size_t limit, std::string* text) override;
  FileWrite write_file(const std::string& path, const std::string& text) override;
  Result replace_file(const std::string& from, const std::string& to) override;
  void delete_file(const std::string& path) override;

  Result wait_for_pipe(std::uint32_t timeout_ms) override;
  std::unique_ptr<ControlPipe> open_pipe() override;

  std::vector<std::string> attached_monitors() override;
  bool find_display(const std::string& device, DisplayInfo* out) override;
  std::vector<OfferedMode> offered_modes(const std::string& device) override;
  std::optional<MonitorSettings> stored_settings(const std::string& device) override;
  std::optional<MonitorSettings> current_settings(const std::string& device) override;
  ModeChange store_settings(const std::string& device, const DisplayMode& mode,
                            const DesktopPoint* position) override;
  ModeChange apply_settings() override;
  void extend_desktop() override;

 private:
  const DeviceCalls devices_;
  const DisplayCalls displays_;
};
