// Leases over a driver made of records, on the virtual clock, with the log's lines.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "capture/vdd_leases.h"
#include "connection/clock.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_vdd.h"
#include "tests/support/virtual_time.h"

class VddFixture : public testing::Test {
 protected:
  VddFixture() {
    virtual_time::reset();
    vdd->file() = settings(1);
  }

  // As the driver's settings are laid out: 1920x1080 at 60 Hz and 1280x720 at 60 Hz.
  static std::string settings(int count) {
    return "<monitors><count>" + std::to_string(count) +
           "</count></monitors>\n<global><g_refresh_rate>60</g_refresh_rate></global>\n"
           "<resolutions>\n  <resolution><width>1920</width><height>1080</height></resolution>\n"
           "  <resolution><width>1280</width><height>720</height></resolution>\n</resolutions>\n";
  }

  FakeMonitor& monitor(const std::string& device = R"(\\.\DISPLAY5)") {
    return vdd->add_monitor(device, {{1920, 1080, 60}, {1280, 720, 60}});
  }

  bool acquire(int screen, int width = 1920, int height = 1080, int fps = 60,
               const DesktopPoint* position = nullptr) {
    reason.clear();
    return displays->acquire(screen, width, height, fps, position, &out, &reason);
  }
  // The device that a screen gets; empty when it gets none.
  std::string leased(int screen, int width = 1920, int height = 1080, int fps = 60) {
    return acquire(screen, width, height, fps) ? out.device : "";
  }

  // The lines of the log since the last call, without their time.
  std::vector<std::string> lines() {
    std::vector<std::string> found;
    std::istringstream text(log_.text().substr(log_seen_));
    log_seen_ = log_.text().size();
    for (std::string line; std::getline(text, line);)
      if (const std::size_t at = line.find("vdd: "); at != std::string::npos)
        found.push_back(line.substr(at, line.find('\r') - at));
    return found;
  }

  // The changing calls since the last call.
  std::vector<std::string> calls() { return std::exchange(vdd->calls, {}); }

  static std::uint64_t elapsed_ms() { return (lund_now_us() - virtual_time::START_US) / 1000; }

  void tick_after_ms(std::uint64_t ms) {
    virtual_time::advance_ms(ms);
    displays->tick();
  }

  const std::shared_ptr<FakeVdd> vdd = std::make_shared<FakeVdd>();
  const std::unique_ptr<LeasedVirtualDisplays> displays =
      std::make_unique<LeasedVirtualDisplays>(std::make_unique<FakeVirtualDisplayDriver>(vdd));
  DisplayInfo out;
  std::string reason;

 private:
  const CapturedLog log_;
  std::size_t log_seen_ = log_.text().size();
};
