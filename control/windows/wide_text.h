// Between the tree's UTF-8 and the system's UTF-16. Pure.
#pragma once

#include <string>
#include <string_view>

// What isn't valid becomes U+FFFD, as the system has it. Empty gives empty.
std::string to_utf8(std::wstring_view text);
std::wstring to_wide(std::string_view text);
