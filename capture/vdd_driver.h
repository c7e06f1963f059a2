// The virtual display driver and the calls of the system that reach it and its monitors: a run-time
// seam. An implementation makes one call and reports what came of it; which calls, in which order,
// how often, and what is said about them is decided above (vdd_control.cpp, vdd_leases.h). Called
// by any thread, by several at once. Strings are UTF-8; device names of monitors are compared
// without regard to case.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "capture/display.h"
#include "capture/vdd_settings.h"

struct MonitorSettings {
  DisplayMode mode;
  DesktopPoint position;
  bool operator==(const MonitorSettings&) const = default;
};

class VirtualDisplayDriver {
 public:
  struct Result {
    bool ok = false;
    unsigned long error = 0;  // the system's number of the reason
  };

  // A present device of the display adapter class.
  struct Adapter {
    std::string id;  // the device's instance
    std::vector<std::string> hardware_ids;
    std::string description;
  };
  struct AdapterStatus {
    bool has_problem = false;
    unsigned long problem = 0;  // the device manager's code
    bool started = false;
  };
  enum class AdapterChange : unsigned long {
    Enable = 1,
    Restart = 3
  };  // numbers of the set-up API

  struct FileWrite {
    bool created = false;
    bool complete = false;  // every byte is written and the file closed
    unsigned long error = 0;
  };

  class ControlPipe {
   public:
    enum class Waiting { Nothing, Something, Failed };

    virtual ~ControlPipe() = default;
    virtual bool write(std::u16string_view message) = 0;  // in one write
    virtual Waiting peek() = 0;
    virtual Result read(std::size_t max_bytes) = 0;  // and drops them
  };

  struct OfferedMode {
    DisplayMode mode;
    std::uint32_t bits_per_pixel = 0;
  };
  enum class ModeChange { Ok, Restart, BadParameter, NotUpdated, BadMode, Failed, Error };

  virtual ~VirtualDisplayDriver() = default;

  // ---- The driver's device
  virtual std::vector<Adapter> display_adapters() = 0;
  virtual std::optional<AdapterStatus> adapter_status(const std::string& id) = 0;
  virtual Result change_adapter(const std::string& id, AdapterChange change) = 0;
  virtual bool elevated() = 0;  // this process may change devices

  // ---- The driver's settings file
  virtual std::string settings_folder() = 0;  // as the driver registered it; empty without that
  // False too when the file has more than `limit` bytes.
  virtual bool read_file(const std::string& path, std::size_t limit, std::string* text) = 0;
  virtual FileWrite write_file(const std::string& path, const std::string& text) = 0;  // made anew
  virtual Result replace_file(const std::string& from, const std::string& to) = 0;
  virtual void delete_file(const std::string& path) = 0;

  // ---- The driver's control pipe, of messages
  virtual Result wait_for_pipe(std::uint32_t timeout_ms) = 0;  // until an instance is free
  virtual std::unique_ptr<ControlPipe> open_pipe() = 0;        // null when that fails

  // ---- Monitors
  virtual std::vector<std::string> attached_monitors() = 0;  // the driver's
  virtual bool find_display(const std::string& device, DisplayInfo* out) = 0;
  virtual std::vector<OfferedMode> offered_modes(const std::string& device) = 0;
  virtual std::optional<MonitorSettings> stored_settings(const std::string& device) = 0;
  virtual std::optional<MonitorSettings> current_settings(const std::string& device) = 0;
  // Stores what holds from the next apply_settings() on; null keeps the position.
  virtual ModeChange store_settings(const std::string& device, const DisplayMode& mode,
                                    const DesktopPoint* position) = 0;
  virtual ModeChange apply_settings() = 0;
  virtual void extend_desktop() = 0;  // to all displays
};
