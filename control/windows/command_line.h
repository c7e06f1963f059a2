// A program's command line as its C run-time library takes it apart again. Pure.
#pragma once

#include <string>
#include <vector>

// The first word is the program. Each word is in quotes, so that the system, which takes an
// unquoted path for another at each of its blanks, never has a choice.
std::wstring command_line_of(const std::vector<std::string>& words);
