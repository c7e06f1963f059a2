// The leases of virtual monitors: what one screen after the other gets, what the driver must be
// changed to for it, and how everything goes back to what it was 5 s after the last lease has
// ended.
//
// Any thread may call anything. Two locks, `op_mutex_` before `state_mutex_`. The first makes
// acquire(), restore_now() and the work of tick() one after the other; they take seconds, and
// tick() doesn't wait for it. The second guards the fields and is never held across a call of the
// driver, so that the other functions wait for nobody.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/vdd.h"
#include "capture/vdd_driver.h"

class LeasedVirtualDisplays : public VirtualDisplays {
 public:
  explicit LeasedVirtualDisplays(std::unique_ptr<VirtualDisplayDriver> driver)
      : driver_(std::move(driver)) {}

  VddState probe() override;
  bool usable() override;
  bool acquire(int screen, int width, int height, int fps, const DesktopPoint* position,
               DisplayInfo* out, std::string* reason) override;
  void release(int screen) override;
  void tick() override;
  void restore_now() override;
  std::string status_line() override;

 private:
  struct Lease {
    std::string device;
  };

  // What a screen has to heed of the others, and of its own past.
  struct Others {
    std::vector<std::string> busy;  // devices that are leased
    std::string previous;           // the screen's last one; empty without one
  };

  // The first state of whatever was changed since nothing was leased: later changes leave it.
  struct Saved {
    std::map<std::string, MonitorSettings> modes;  // by device
    std::string xml;                               // the settings file; empty: unchanged
    std::string path;
    std::int32_t settings_count = 0;  // the file's
    std::int32_t count = -1;          // of monitors, where the file couldn't be edited; -1: none

    bool nothing() const { return modes.empty() && xml.empty() && count < 0; }
  };

  void set_status(const VddState& state);

  // ---- acquire(), with op_mutex_ held: texts of failure, null for success
  const char* provide(int screen, const DisplayMode& wanted, const DesktopPoint* position,
                      DisplayInfo* out);
  const char* ready_driver(VddState* state);
  Others others_of(int screen);
  int change_settings(const VddState& state, int needed, const DisplayMode& wanted);
  int raise_count(int active, int needed);
  int edit_settings(const VddState& state, const std::string& text, int added,
                    const DisplayMode& wanted);
  void remember_settings(const std::string& device);

  // ---- restoring, with op_mutex_ held
  bool restore_due();  // with state_mutex_ held
  void restore_locked();
  void restore_modes(const std::map<std::string, MonitorSettings>& modes);
  void restore_settings(const Saved& saved);

  const std::unique_ptr<VirtualDisplayDriver> driver_;

  std::mutex op_mutex_;
  std::mutex state_mutex_;
  std::map<int, Lease> leases_;             // by screen
  std::map<int, std::string> last_device_;  // what each screen had last; outlives its lease
  Saved saved_;
  std::uint64_t restore_at_ = 0;    // µs; 0: no restoration is pending
  std::optional<VddState> cached_;  // of the last probe
  std::string status_ = "Virtual display: not checked yet";
};
