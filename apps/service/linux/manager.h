// What a program started by systemd may tell it (sd_notify(3)): a datagram to the socket that
// NOTIFY_SOCKET names. Any thread.
#pragma once

#include <string>

namespace service_platform {

// False without a manager, or when it can't be reached.
bool notify_manager(const std::string& message);

}  // namespace service_platform
