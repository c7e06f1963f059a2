// The session's number that an X display stands for. Pure.
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>

namespace host_service {

// Of "[host]:display[.screen]", X(7): display + 1. 0 for anything else, which is no session.
inline std::uint32_t session_of_display(std::string_view name) {
  const std::size_t colon = name.rfind(':');
  if (colon == std::string_view::npos) return 0;
  const char* const end = name.data() + name.size();
  std::uint32_t display = 0;
  const std::from_chars_result number = std::from_chars(name.data() + colon + 1, end, display);
  if (number.ec != std::errc() || display == UINT32_MAX) return 0;
  if (number.ptr == end) return display + 1;
  std::uint32_t screen = 0;
  const bool has_screen = *number.ptr == '.' &&
                          std::from_chars(number.ptr + 1, end, screen).ptr == end &&
                          number.ptr + 1 != end;
  return has_screen ? display + 1 : 0;
}

}  // namespace host_service
