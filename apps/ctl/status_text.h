// What the service's answer to Status says. The lines that the service puts in front of the
// worker's, and the worker's own:
//
//   service running; worker PID 4242; session 1; starts 3; last exit: WORDS
//   stored 9876 60 20000 1 1 1 1 1400         the settings of the worker's next start
//   worker running; code 7K2M-Q9TX; idle      or connected; "worker: WHY" when it didn't answer
//   defaults 9876 60 20000 1 1 1 1 1400       the settings that it runs with
//   pairing closed; password unset; lockout inactive
//   screen 0; X11 CPU / libopenh264; 1920x1080
//   device KEY 7K2M-Q9TX NAME                 KEY in 64 hexadecimal digits
//
// Pure. Lines of other forms, and parts of the first that aren't known, are skipped; a last line
// without its line feed was cut off and is not read. Texts are as they came: shown_text before they
// are shown.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connection/secure.h"
#include "control/ipc_protocol.h"

namespace ctl {

struct ServiceStatus {
  std::string line;  // the whole of it, for a person
  std::optional<std::uint32_t> worker_pid, session, starts;
  std::string last_exit;
};

struct ScreenLine {
  std::uint32_t screen = 0;
  std::string capture, encoder;
  std::uint32_t width = 0, height = 0;
};

struct DeviceLine {
  std::array<std::uint8_t, LUND_KEY_SIZE> key{};
  std::string code;
  std::string name;  // may be empty
};

struct PairingLine {
  bool open = false;
  bool password = false;
  bool lockout = false;
};

struct WorkerStatus {
  std::string key_code;
  bool connected = false;
};

struct HostReport {
  std::optional<ServiceStatus> service;
  std::optional<host_service::Settings> stored;
  std::optional<WorkerStatus> worker;  // nothing when none runs, or it didn't answer
  std::string worker_trouble;          // why one that runs didn't
  std::optional<host_service::Settings> running;
  std::optional<PairingLine> pairing;
  std::vector<ScreenLine> screens;
  std::vector<DeviceLine> devices;
  bool cut = false;
};
HostReport parse_status(std::string_view text);

}  // namespace ctl
