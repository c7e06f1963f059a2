// Where a command channel's pipe is, and whose.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "control/windows/security_attributes.h"

namespace command_pipe {

inline constexpr wchar_t FILE_NAME[] =
    L"control.pipe";                             // in the store's directory; it holds the name
inline constexpr std::size_t NAME_DIGITS = 32;   // hexadecimal, lower case
using Name = std::array<char, NAME_DIGITS + 1>;  // zero-ended

std::wstring path(const Name& name);

// Of the file and the pipe: this process's user's own, and that user's and the system's alone.
SecurityAttributes attributes();

}  // namespace command_pipe
