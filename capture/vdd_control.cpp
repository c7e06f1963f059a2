#include "capture/vdd_control.h"

#include <algorithm>

#include "connection/clock.h"
#include "control/log.h"
#include "control/text.h"
#include "control/wake_event.h"

namespace vdd_control {
namespace {

using Driver = VirtualDisplayDriver;

// Hardware ids have no case.
constexpr const char* HARDWARE_ID = R"(root\mttvdd)";
constexpr const char* DESCRIPTIONS[] = {"Virtual Display Driver", "IddSampleDriver Device HDR"};

constexpr const char* DEFAULT_FOLDER = R"(C:\VirtualDisplayDriver)";
constexpr const char* SETTINGS_NAME = R"(\vdd_settings.xml)";
constexpr const char* TEMPORARY_SUFFIX = ".lunderhaze-tmp";

constexpr unsigned long PROBLEM_DISABLED = 22;        // CM_PROB_DISABLED
constexpr unsigned long ERROR_ALL_PIPES_BUSY = 121;   // ERROR_SEM_TIMEOUT: there is one, in use
constexpr unsigned long ERROR_REST_OF_MESSAGE = 234;  // ERROR_MORE_DATA

constexpr std::uint32_t PIPE_PROBE_MS = 1;
constexpr std::uint32_t PIPE_WAIT_MS = 1000;
constexpr std::uint64_t DRAIN_US = 300'000;
constexpr std::uint32_t DRAIN_PAUSE_MS = 10;
constexpr std::size_t DRAIN_BYTES = 512;

constexpr std::uint32_t TRUE_COLOUR_BITS = 24;

bool is_the_drivers(const Driver::Adapter& adapter) {
  return std::ranges::any_of(
             adapter.hardware_ids,
             [](const std::string& id) { return same_but_for_case(id, HARDWARE_ID); }) ||
         std::ranges::find(DESCRIPTIONS, adapter.description) != std::end(DESCRIPTIONS);
}

// The id of the driver's first device.
std::optional<std::string> find_vdd_device(Driver& driver) {
  const std::vector<Driver::Adapter> adapters = driver.display_adapters();
  const auto found = std::ranges::find_if(adapters, is_the_drivers);
  if (found == adapters.end()) return std::nullopt;
  return found->id;
}

bool pipe_exists(Driver& driver) {
  const Driver::Result result = driver.wait_for_pipe(PIPE_PROBE_MS);
  return result.ok || result.error == ERROR_ALL_PIPES_BUSY;
}

// What the driver answers is of no use, but unread it could hold the driver up.
void drain(Driver::ControlPipe& pipe) {
  using Waiting = Driver::ControlPipe::Waiting;
  for (const std::uint64_t end_us = lund_now_us() + DRAIN_US; lund_now_us() < end_us;) {
    const Waiting waiting = pipe.peek();
    if (waiting == Waiting::Failed) return;
    if (waiting == Waiting::Nothing) {
      pause_ms(DRAIN_PAUSE_MS);
      continue;
    }
    const Driver::Result read = pipe.read(DRAIN_BYTES);
    if (!read.ok && read.error != ERROR_REST_OF_MESSAGE) return;
  }
}

bool send_display_count(Driver& driver, int count) {
  std::u16string command = u"SETDISPLAYCOUNT ";
  for (const char digit : std::to_string(count)) command += static_cast<char16_t>(digit);
  command += u'\0';
  if (!driver.wait_for_pipe(PIPE_WAIT_MS).ok) return false;
  const std::unique_ptr<Driver::ControlPipe> pipe = driver.open_pipe();
  if (!pipe || !pipe->write(command)) return false;
  drain(*pipe);
  return true;
}

}  // namespace

VddState inspect(VirtualDisplayDriver& driver) {
  VddState state;
  if (const auto id = find_vdd_device(driver)) {
    state.installed = true;
    state.device_id = *id;
    if (const auto status = driver.adapter_status(state.device_id)) {
      state.enabled = !(status->has_problem && status->problem == PROBLEM_DISABLED);
      state.started = status->started;
    }
  }
  std::string folder = driver.settings_folder();
  if (folder.empty()) folder = DEFAULT_FOLDER;
  state.settings_path = folder + SETTINGS_NAME;
  std::string text;
  if (read_settings(driver, state.settings_path, &text))
    state.settings_count = vdd_xml_monitor_count(text);
  state.pipe_up = state.installed && pipe_exists(driver);
  state.active_monitors = static_cast<std::int32_t>(driver.attached_monitors().size());
  return state;
}

bool change_vdd_device(VirtualDisplayDriver& driver, VirtualDisplayDriver::AdapterChange change) {
  const std::optional<std::string> id = find_vdd_device(driver);
  if (!id) return false;
  const Driver::Result result = driver.change_adapter(*id, change);
  if (!result.ok)
    hlog("vdd: device state change %lu failed (error %lu)", static_cast<unsigned long>(change),
         result.error);
  return result.ok;
}

bool read_settings(VirtualDisplayDriver& driver, const std::string& path, std::string* text) {
  return driver.read_file(path, SETTINGS_LIMIT_BYTES, text);
}

bool write_settings(VirtualDisplayDriver& driver, const std::string& path,
                    const std::string& text) {
  const std::string temporary = path + TEMPORARY_SUFFIX;
  const Driver::FileWrite written = driver.write_file(temporary, text);
  if (!written.created) {
    hlog("vdd: cannot write %s (error %lu)", temporary.c_str(), written.error);
    return false;
  }
  Driver::Result replaced = {false, written.error};
  if (written.complete) replaced = driver.replace_file(temporary, path);
  if (replaced.ok) return true;
  hlog("vdd: cannot replace %s (error %lu)", path.c_str(), replaced.error);
  driver.delete_file(temporary);
  return false;
}

bool reload_driver(VirtualDisplayDriver& driver, int count, const VddState& state) {
  if (driver.elevated()) {
    hlog("vdd: restarting the driver's device %s (administrator)", state.device_id.c_str());
    if (change_vdd_device(driver, Driver::AdapterChange::Restart)) return true;
  }
  if (state.pipe_up || pipe_exists(driver)) {
    hlog("vdd: SETDISPLAYCOUNT %d over the driver's pipe (re-initializes its adapter)", count);
    if (send_display_count(driver, count)) return true;
  }
  hlog("vdd: cannot reload the driver (no admin rights, no control pipe)");
  return false;
}

std::vector<DisplayMode> device_modes(VirtualDisplayDriver& driver, const std::string& device) {
  std::vector<DisplayMode> modes;
  for (const Driver::OfferedMode& offered : driver.offered_modes(device))
    if (offered.bits_per_pixel == 0 || offered.bits_per_pixel >= TRUE_COLOUR_BITS)
      modes.push_back(offered.mode);
  return modes;
}

bool has_mode(const std::vector<DisplayMode>& modes, const DisplayMode& mode) {
  return std::ranges::find(modes, mode) != modes.end();
}

const char* change_word(VirtualDisplayDriver::ModeChange change) {
  using Change = Driver::ModeChange;
  switch (change) {
    case Change::Ok:
      return "ok";
    case Change::Restart:
      return "needs a restart";
    case Change::BadParameter:
      return "bad parameter";
    case Change::NotUpdated:
      return "registry not updated";
    case Change::BadMode:
      return "mode not supported";
    case Change::Failed:
      return "driver failed";
    case Change::Error:
      break;
  }
  return "error";
}

void pause_ms(std::uint32_t ms) {
  WakeEvent(WakeEvent::Reset::Manual).wait(ms);
}

}  // namespace vdd_control
