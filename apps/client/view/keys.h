// Keys as the host knows them: usages of the USB HID keyboard page (HID Usage Tables, page 7).
// Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

inline constexpr std::uint16_t USAGE_A = 0x04;
inline constexpr std::uint16_t USAGE_Z = 0x1D;
inline constexpr std::uint16_t USAGE_DELETE = 0x4C;
inline constexpr std::uint16_t USAGE_LEFT_CTRL = 0xE0;
inline constexpr std::uint16_t USAGE_LEFT_ALT = 0xE2;
inline constexpr std::uint16_t USAGE_RIGHT_CTRL = 0xE4;

// Of an SDL scancode; 0 when the host has no such key.
std::uint16_t usage_of_scancode(int scancode);

// Keys that can be the release key, by the names that the command line takes.
std::optional<std::uint16_t> release_key_by_name(const std::string& name);
std::string release_key_names();  // "right-ctrl, right-alt, ..."
// As a person says it: "Right Ctrl".
std::string release_key_label(std::uint16_t usage);
