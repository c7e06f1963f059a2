// The session that this computer's seat shows, as logind knows it (sd-login(3)). A seam: tests
// script it, and a build without libsystemd has none.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "control/wake_event.h"

struct LoginSession {
  std::string id;
  std::string type;     // "x11", "wayland", "tty", ...
  std::string display;  // as logind was told, often not at all
  uid_t uid = 0;
  std::string user;
  bool operator==(const LoginSession&) const = default;
};

class LoginSeat {
 public:
  virtual ~LoginSeat() = default;
  virtual std::optional<LoginSession> active() = 0;
  // Until logind reports a change, the event is set, or the time is over.
  virtual void wait_for_change(const WakeEvent& stop, std::uint32_t timeout_ms) = 0;
};

// Null and `error` without logind.
std::unique_ptr<LoginSeat> open_login_seat(std::string* error);
