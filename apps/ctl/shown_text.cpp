#include "apps/ctl/shown_text.h"

#include <cstdint>

#include "control/utf8.h"

namespace ctl {

namespace {

struct Range {
  char32_t first, last;
};
constexpr Range CONTROLS[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C},
    {0x200E, 0x200F}, {0x2028, 0x202E},  // line and paragraph separator, embeddings and overrides
    {0x2066, 0x2069},                    // isolates
};

char32_t code_point(std::string_view sequence) {
  constexpr char32_t LEAD_BITS[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  char32_t value = static_cast<std::uint8_t>(sequence[0]) & LEAD_BITS[sequence.size()];
  for (const char byte : sequence.substr(1)) value = value << 6 | (byte & 0x3F);
  return value;
}

bool is_control(char32_t value) {
  for (const Range& range : CONTROLS)
    if (value >= range.first && value <= range.last) return true;
  return false;
}

}  // namespace

std::string shown_text(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t length = utf8_sequence_length(text);
    const std::string_view sequence = text.substr(0, length);
    if (length == 0 || is_control(code_point(sequence)))
      shown += '?';
    else
      shown += sequence;
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return shown;
}

}  // namespace ctl
