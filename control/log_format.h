// The shape of the log's lines, apart from where they go. Pure.
#pragma once

#include <cstddef>

#include "control/log_platform.h"

inline constexpr std::size_t LOG_MESSAGE_BYTES = 2048;  // with the terminator
inline constexpr std::size_t LOG_LINE_BYTES = 2400;     // with the terminator
// A file that has grown past this is set aside.
inline constexpr std::int64_t LOG_ROTATE_BYTES = 0x9FFFFF;

// "[2024-01-31 12:00:00.000] message\r\n"; what doesn't fit is cut, the line end included. Returns
// the length.
std::size_t log_format_line(char (&out)[LOG_LINE_BYTES], const log_platform::LocalTime& time,
                            const char* message);
