// The virtual display driver of a computer that has none. Nothing below the first question is ever
// asked of it but what there is to see.
#pragma once

#include "capture/vdd_leases.h"

class NoVirtualDisplayDriver final : public VirtualDisplayDriver {
 public:
  std::vector<Adapter> display_adapters() override { return {}; }
  std::optional<AdapterStatus> adapter_status(const std::string&) override { return {}; }
  Result change_adapter(const std::string&, AdapterChange) override { return {}; }
  bool elevated() override { return false; }
  std::string settings_folder() override { return {}; }
  bool read_file(const std::string&, std::size_t, std::string*) override { return false; }
  FileWrite write_file(const std::string&, const std::string&) override { return {}; }
  Result replace_file(const std::string&, const std::string&) override { return {}; }
  void delete_file(const std::string&) override {}
  Result wait_for_pipe(std::uint32_t) override { return {}; }
  std::unique_ptr<ControlPipe> open_pipe() override { return nullptr; }
  std::vector<std::string> attached_monitors() override { return {}; }
  bool find_display(const std::string&, DisplayInfo*) override { return false; }
  std::vector<OfferedMode> offered_modes(const std::string&) override { return {}; }
  std::optional<MonitorSettings> stored_settings(const std::string&) override { return {}; }
  std::optional<MonitorSettings> current_settings(const std::string&) override { return {}; }
  ModeChange store_settings(const std::string&, const DisplayMode&, const DesktopPoint*) override {
    return ModeChange::Error;
  }
  ModeChange apply_settings() override { return ModeChange::Error; }
  void extend_desktop() override {}
};

class NoVirtualDisplays final : public LeasedVirtualDisplays {
 public:
  NoVirtualDisplays() : LeasedVirtualDisplays(std::make_unique<NoVirtualDisplayDriver>()) {}
};
