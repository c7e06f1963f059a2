#include "control/utf8.h"

#include <cstdint>

namespace {

struct Lead {
  std::uint8_t first, last;
  std::uint8_t length;  // of the sequence
  std::uint8_t second_min, second_max;
};

// Well-formed sequences of more than one byte (the Unicode Standard, table 3-7): what may follow
// the first byte shuts out long forms, surrogates, and what is past U+10FFFF.
constexpr Lead LEADS[] = {
    {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF}, {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF}, {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

std::uint8_t byte_at(std::string_view text, std::size_t i) {
  return static_cast<std::uint8_t>(text[i]);
}

}  // namespace

std::size_t utf8_sequence_length(std::string_view text) {
  const std::uint8_t first = byte_at(text, 0);
  if (first < 0x80) return 1;
  for (const Lead& lead : LEADS) {
    if (first < lead.first || first > lead.last) continue;
    if (text.size() < lead.length || byte_at(text, 1) < lead.second_min ||
        byte_at(text, 1) > lead.second_max)
      return 0;
    for (std::size_t i = 2; i < lead.length; ++i) {
      if ((byte_at(text, i) & 0xC0) != 0x80) return 0;
    }
    return lead.length;
  }
  return 0;
}

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = utf8_sequence_length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}
