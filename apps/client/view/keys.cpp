#include "apps/client/view/keys.h"

#include <iterator>

namespace {

struct MediaKey {
  int scancode;
  std::uint16_t usage;
};

// SDL numbers keys of the consumer page from 257. Keyboards and hosts know them on the keyboard
// page too, in its reserved range from 0xE8 (as the usual keyboard drivers number them).
constexpr MediaKey MEDIA_KEYS[] = {
    {258, 0xEB},  // next track
    {259, 0xEA},  // previous track
    {260, 0xE9},  // stop
    {261, 0xE8},  // play, pause
    {262, 0xEF},  // mute
    {264, 0xF0},  // web browser
    {266, 0xFB},  // calculator
    {268, 0xF4},  // search
    {270, 0xF1},  // back
    {271, 0xF2},  // forward
    {272, 0xF3},  // stop loading
    {273, 0xFA},  // refresh
    {281, 0xEC},  // eject
    {282, 0xF8},  // sleep
};

struct ReleaseChoice {
  const char* name;
  const char* label;
  std::uint16_t usage;
};
constexpr ReleaseChoice RELEASE_CHOICES[] = {
    {"right-ctrl", "Right Ctrl", USAGE_RIGHT_CTRL},
    {"right-alt", "Right Alt", 0xE6},
    {"right-shift", "Right Shift", 0xE5},
    {"right-super", "Right Super", 0xE7},
    {"left-super", "Left Super", 0xE3},
    {"menu", "Menu", 0x65},
    {"scroll-lock", "Scroll Lock", 0x47},
    {"pause", "Pause", 0x48},
    {"f12", "F12", 0x45},
};

}  // namespace

std::uint16_t usage_of_scancode(int scancode) {
  if (scancode >= USAGE_A && scancode <= 0xE7) return static_cast<std::uint16_t>(scancode);
  for (const MediaKey& key : MEDIA_KEYS)
    if (key.scancode == scancode) return key.usage;
  return 0;
}

std::optional<std::uint16_t> release_key_by_name(const std::string& name) {
  for (const ReleaseChoice& choice : RELEASE_CHOICES)
    if (name == choice.name) return choice.usage;
  return std::nullopt;
}

std::string release_key_names() {
  std::string names;
  for (const ReleaseChoice& choice : RELEASE_CHOICES)
    names += (names.empty() ? "" : ", ") + std::string(choice.name);
  return names;
}

std::string release_key_label(std::uint16_t usage) {
  for (const ReleaseChoice& choice : RELEASE_CHOICES)
    if (usage == choice.usage) return choice.label;
  return "";
}
