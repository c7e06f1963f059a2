// Valid UTF-8 (RFC 3629), for texts from outside. Pure.
#pragma once

#include <cstddef>
#include <string_view>

// Bytes of the well-formed sequence that `text`, which isn't empty, begins with; 0 when it begins
// with none.
std::size_t utf8_sequence_length(std::string_view text);

// Whether all of it is valid. A zero byte is.
bool is_utf8(std::string_view text);
