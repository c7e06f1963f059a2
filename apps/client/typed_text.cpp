#include "apps/client/typed_text.h"

#include <string_view>

namespace {

// USB HID Usage Tables, page 7: each row is a run of keys with usages in order.
struct Row {
  std::uint16_t first_usage;
  std::string_view plain, shifted;
};
constexpr Row ROWS[] = {
    {0x04, "abcdefghijklmnopqrstuvwxyz", "ABCDEFGHIJKLMNOPQRSTUVWXYZ"},
    {0x1E, "1234567890", "!@#$%^&*()"},
    {0x28, "\n", ""},
    {0x2B, "\t -=[]\\", {"\0 _+{}|", 7}},
    {0x33, ";'`,./", ":\"~<>?"},
};

std::optional<KeyStroke> key_of(char c) {
  for (const Row& row : ROWS) {
    if (const auto i = row.plain.find(c); i != std::string_view::npos)
      return KeyStroke{static_cast<std::uint16_t>(row.first_usage + i), false};
    if (const auto i = row.shifted.find(c); i != std::string_view::npos && c != '\0')
      return KeyStroke{static_cast<std::uint16_t>(row.first_usage + i), true};
  }
  return std::nullopt;
}

// The bytes of the character that begins there, as a terminal may show them.
std::string shown(const std::string& text, std::size_t at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  if (byte >= 0xC2 && byte < 0xF5) {
    const std::size_t size = byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
    return "\"" + text.substr(at, size) + "\"";
  }
  constexpr char DIGITS[] = "0123456789ABCDEF";
  return std::string("the byte ") + DIGITS[byte >> 4] + DIGITS[byte & 15];
}

}  // namespace

std::optional<std::vector<KeyStroke>> key_strokes(const std::string& text, std::string* error) {
  std::vector<KeyStroke> strokes;
  strokes.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto stroke = key_of(text[i]);
    if (!stroke) {
      *error = "no key of a US keyboard types " + shown(text, i);
      return std::nullopt;
    }
    strokes.push_back(*stroke);
  }
  return strokes;
}
