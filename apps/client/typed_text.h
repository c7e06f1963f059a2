// Text as the keys of a US keyboard type it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct KeyStroke {
  std::uint16_t usage = 0;  // USB HID usage, page 7
  bool shift = false;
  bool operator==(const KeyStroke&) const = default;
};

inline constexpr std::uint16_t USAGE_LEFT_SHIFT = 0xE1;

// Printable ASCII, line feed (Enter) and tab. Nothing with `error`, which shows the character, when
// the text has one that no key gives.
std::optional<std::vector<KeyStroke>> key_strokes(const std::string& text, std::string* error);
