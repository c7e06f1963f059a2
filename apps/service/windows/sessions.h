// Terminal sessions as the service counts them. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "apps/service/seams.h"

namespace service_platform {

inline constexpr std::uint32_t SERVICES_SESSION = 0;  // it has no desktop that anybody sees
inline constexpr std::uint32_t NO_CONSOLE_SESSION = 0xFFFF'FFFF;  // one is just coming or going

// `number` as WTSGetActiveConsoleSessionId gives it.
SessionView console_view(std::uint32_t number);
// What a person wrote; nothing where it isn't the number of a session with a desktop.
std::optional<std::uint32_t> session_number(const std::string& text);

}  // namespace service_platform
