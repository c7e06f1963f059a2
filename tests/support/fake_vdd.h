// A virtual display driver made of records: a device, a settings file, a pipe and monitors, each of
// which a test may break. Monitors come up as the driver's own do: some polls after the driver was
// reloaded, with the modes that the settings list. Header only, so that each test program takes the
// settings' reader from where it has it. Its own mutex guards it; `on_call` is called outside of
// that, ahead of every call, with its name.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/vdd_driver.h"
#include "control/text.h"

struct FakeMonitor {
  std::string device;
  MonitorSettings current;
  std::optional<MonitorSettings> stored;
  std::vector<VirtualDisplayDriver::OfferedMode> modes;
  bool readable = true;  // current_settings() succeeds
  bool found = true;     // find_display() succeeds
};

// What a driver is made of; outlives it.
struct FakeVdd {
  using Driver = VirtualDisplayDriver;

  static constexpr const char* DEVICE_ID = R"(ROOT\DISPLAY\0000)";
  static constexpr const char* PATH = R"(C:\VirtualDisplayDriver\vdd_settings.xml)";

  // ---- what there is
  std::vector<Driver::Adapter> adapters{{DEVICE_ID, {R"(Root\MttVDD)"}, "A display"}};
  std::optional<Driver::AdapterStatus> status = Driver::AdapterStatus{false, 0, true};
  bool elevated = true;
  std::string registered_folder;
  std::map<std::string, std::string> files;
  Driver::Result pipe{false, 2};  // what waiting for it gives; it can be opened when it is ok
  std::vector<std::string> pipe_answers;  // messages that wait to be read
  Driver::Result pipe_read{true, 0};
  std::vector<FakeMonitor> monitors;

  // ---- what fails
  std::map<Driver::AdapterChange, Driver::Result> changes;  // ok where none is named
  bool pipe_opens = true;
  bool pipe_writes = true;
  bool pipe_breaks = false;  // a look into it fails
  bool unreadable = false;
  Driver::FileWrite write{true, true, 0};
  Driver::Result replace{true, 0};
  Driver::ModeChange store = Driver::ModeChange::Ok;
  Driver::ModeChange apply = Driver::ModeChange::Ok;
  bool apply_is_idle = false;  // it says that it did, and didn't

  // ---- how it reloads
  bool reloads = true;        // it heeds restarts and commands
  int polls_until_ready = 1;  // looks at the monitors, from a reload on, that see the old ones
  bool detached = false;      // new monitors come up only once the desktop is extended
  bool keeps_modes =
      false;  // new monitors have the modes that the first had, whatever the file says

  std::vector<std::string> calls;  // those that change something, and waits for the pipe
  std::vector<std::u16string> commands;
  std::function<void(const char* call)> on_call;

  std::string& file() { return files[PATH]; }
  FakeMonitor& add_monitor(const std::string& device, std::vector<DisplayMode> modes) {
    const MonitorSettings settings = {modes.empty() ? DisplayMode{} : modes[0],
                                      {1920 * static_cast<int>(monitors.size()), 0}};
    FakeMonitor monitor{device, settings, settings, {}};
    for (const DisplayMode& mode : modes) monitor.modes.push_back({mode, 32});
    monitors.push_back(monitor);
    return monitors.back();
  }
  int called(const std::string& call) const {
    return static_cast<int>(std::ranges::count(calls, call));
  }

  std::mutex mutex;
  int pending_count = -1;  // of monitors, once the reload is through; -1: none is under way
  int pending_polls = 0;
};

class FakeVirtualDisplayDriver final : public VirtualDisplayDriver {
 public:
  explicit FakeVirtualDisplayDriver(std::shared_ptr<FakeVdd> record) : record_(std::move(record)) {}

  std::vector<Adapter> display_adapters() override {
    const auto lock = enter("display_adapters");
    return record_->adapters;
  }
  std::optional<AdapterStatus> adapter_status(const std::string&) override {
    const auto lock = enter("adapter_status");
    return record_->status;
  }
  Result change_adapter(const std::string& id, AdapterChange change) override {
    const auto lock = enter("change_adapter");
    record_->calls.push_back((change == AdapterChange::Enable ? "enable " : "restart ") + id);
    const auto failure = record_->changes.find(change);
    if (failure != record_->changes.end()) return failure->second;
    if (change == AdapterChange::Enable) record_->status = AdapterStatus{false, 0, true};
    if (change == AdapterChange::Restart) reload(vdd_xml_monitor_count(settings()));
    return {true, 0};
  }
  bool elevated() override {
    const auto lock = enter("elevated");
    return record_->elevated;
  }

  std::string settings_folder() override {
    const auto lock = enter("settings_folder");
    return record_->registered_folder;
  }
  bool read_file(const std::string& path, std::size_t limit, std::string* text) override {
    const auto lock = enter("read_file");
    const auto file = record_->files.find(path);
    if (record_->unreadable || file == record_->files.end() || file->second.size() > limit)
      return false;
    *text = file->second;
    return true;
  }
  FileWrite write_file(const std::string& path, const std::string& text) override {
    const auto lock = enter("write_file");
    record_->calls.push_back("write " + path);
    if (record_->write.created)
      record_->files[path] = record_->write.complete ? text : text.substr(0, text.size() / 2);
    return record_->write;
  }
  Result replace_file(const std::string& from, const std::string& to) override {
    const auto lock = enter("replace_file");
    record_->calls.push_back("replace " + to);
    if (record_->replace.ok) {
      record_->files[to] = record_->files[from];
      record_->files.erase(from);
    }
    return record_->replace;
  }
  void delete_file(const std::string& path) override {
    const auto lock = enter("delete_file");
    record_->calls.push_back("delete " + path);
    record_->files.erase(path);
  }

  Result wait_for_pipe(std::uint32_t timeout_ms) override {
    const auto lock = enter("wait_for_pipe");
    record_->calls.push_back("pipe " + std::to_string(timeout_ms));
    return record_->pipe;
  }
  std::unique_ptr<ControlPipe> open_pipe() override {
    const auto lock = enter("open_pipe");
    record_->calls.push_back("open pipe");
    if (!record_->pipe_opens) return nullptr;
    return std::make_unique<Pipe>(*this);
  }

  std::vector<std::string> attached_monitors() override {
    const auto lock = enter("attached_monitors");
    if (record_->pending_count >= 0 && !record_->detached && record_->pending_polls-- <= 0)
      come_up();
    std::vector<std::string> devices;
    for (const FakeMonitor& monitor : record_->monitors) devices.push_back(monitor.device);
    return devices;
  }
  bool find_display(const std::string& device, DisplayInfo* out) override {
    const auto lock = enter("find_display");
    const FakeMonitor* monitor = find(device);
    if (!monitor || !monitor->found) return false;
    const auto& [mode, position] = monitor->current;
    *out = {};
    out->device = monitor->device;
    out->name = "Virtual adapter";
    out->left = position.x;
    out->top = position.y;
    out->right = position.x + mode.width;
    out->bottom = position.y + mode.height;
    out->width = mode.width;
    out->height = mode.height;
    out->refresh_hz = mode.refresh;
    out->is_virtual = true;
    return true;
  }
  std::vector<OfferedMode> offered_modes(const std::string& device) override {
    const auto lock = enter("offered_modes");
    const FakeMonitor* monitor = find(device);
    return monitor ? monitor->modes : std::vector<OfferedMode>();
  }
  std::optional<MonitorSettings> stored_settings(const std::string& device) override {
    const auto lock = enter("stored_settings");
    const FakeMonitor* monitor = find(device);
    return monitor ? monitor->stored : std::nullopt;
  }
  std::optional<MonitorSettings> current_settings(const std::string& device) override {
    const auto lock = enter("current_settings");
    const FakeMonitor* monitor = find(device);
    if (!monitor || !monitor->readable) return std::nullopt;
    return monitor->current;
  }
  ModeChange store_settings(const std::string& device, const DisplayMode& mode,
                            const DesktopPoint* position) override {
    const auto lock = enter("store_settings");
    std::string call = "store " + device + " " + std::to_string(mode.width) + "x" +
                       std::to_string(mode.height) + "@" + std::to_string(mode.refresh);
    if (position) call += " at " + std::to_string(position->x) + "," + std::to_string(position->y);
    record_->calls.push_back(call);
    FakeMonitor* monitor = find(device);
    if (record_->store != ModeChange::Ok || !monitor) return record_->store;
    monitor->stored = {mode, position ? *position : monitor->current.position};
    return ModeChange::Ok;
  }
  ModeChange apply_settings() override {
    const auto lock = enter("apply_settings");
    record_->calls.push_back("apply");
    if (record_->apply != ModeChange::Ok || record_->apply_is_idle) return record_->apply;
    for (FakeMonitor& monitor : record_->monitors)
      if (monitor.stored) monitor.current = *monitor.stored;
    return ModeChange::Ok;
  }
  void extend_desktop() override {
    const auto lock = enter("extend_desktop");
    record_->calls.push_back("extend");
    record_->detached = false;
  }

 private:
  class Pipe final : public ControlPipe {
   public:
    explicit Pipe(FakeVirtualDisplayDriver& driver) : driver_(driver) {}
    bool write(std::u16string_view message) override {
      const auto lock = driver_.enter("pipe write");
      FakeVdd& record = *driver_.record_;
      record.commands.emplace_back(message);
      if (!record.pipe_writes) return false;
      std::string digits;
      for (const char16_t c : message)
        if (c >= u'0' && c <= u'9') digits += static_cast<char>(c);
      driver_.reload(std::stoi(digits));
      return true;
    }
    Waiting peek() override {
      const auto lock = driver_.enter("pipe peek");
      FakeVdd& record = *driver_.record_;
      record.calls.push_back("peek");
      if (record.pipe_breaks) return Waiting::Failed;
      return record.pipe_answers.empty() ? Waiting::Nothing : Waiting::Something;
    }
    Result read(std::size_t max_bytes) override {
      const auto lock = driver_.enter("pipe read");
      FakeVdd& record = *driver_.record_;
      record.calls.push_back("read " + std::to_string(max_bytes));
      record.pipe_answers.erase(record.pipe_answers.begin());
      return record.pipe_read;
    }

   private:
    FakeVirtualDisplayDriver& driver_;
  };

  std::unique_lock<std::mutex> enter(const char* call) {
    if (record_->on_call) record_->on_call(call);
    return std::unique_lock(record_->mutex);
  }

  FakeMonitor* find(const std::string& device) {
    for (FakeMonitor& monitor : record_->monitors)
      if (same_but_for_case(monitor.device, device)) return &monitor;
    return nullptr;
  }

  std::string settings() const {
    const auto file = record_->files.find(FakeVdd::PATH);
    return file == record_->files.end() ? std::string() : file->second;
  }

  void reload(int count) {
    if (!record_->reloads) return;
    record_->pending_count = count;
    record_->pending_polls = record_->polls_until_ready;
  }

  // The monitors that stay keep their names and settings.
  void come_up() {
    const std::vector<OfferedMode> old =
        record_->monitors.empty() ? std::vector<OfferedMode>() : record_->monitors[0].modes;
    const auto count = static_cast<std::size_t>(std::max(record_->pending_count, 0));
    record_->pending_count = -1;
    while (record_->monitors.size() > count) record_->monitors.pop_back();
    while (record_->monitors.size() < count)
      record_->add_monitor(R"(\\.\DISPLAY)" + std::to_string(5 + record_->monitors.size()),
                           vdd_xml_modes(settings()));
    for (FakeMonitor& monitor : record_->monitors) {
      monitor.modes.clear();
      for (const DisplayMode& mode : vdd_xml_modes(settings())) monitor.modes.push_back({mode, 32});
      if (record_->keeps_modes) monitor.modes = old;
    }
  }

  const std::shared_ptr<FakeVdd> record_;
};
