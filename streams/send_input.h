// How Windows' SendInput wants each event said: the fields of MOUSEINPUT and KEYBDINPUT, computed
// where every platform can test it. Pure.
#pragma once

#include <cstdint>

#include "capture/display.h"
#include "streams/input_sink.h"

namespace send_input {

inline constexpr std::uint32_t MOVE = 0x0001;
inline constexpr std::uint32_t WHEEL = 0x0800;
inline constexpr std::uint32_t HWHEEL = 0x1000;
inline constexpr std::uint32_t VIRTUALDESK = 0x4000;
inline constexpr std::uint32_t ABSOLUTE_MOVE = 0x8000;

inline constexpr std::uint32_t EXTENDEDKEY = 1;
inline constexpr std::uint32_t KEYUP = 2;
inline constexpr std::uint32_t SCANCODE = 8;

struct Mouse {
  std::uint32_t flags = 0;
  std::int32_t dx = 0;
  std::int32_t dy = 0;
  std::uint32_t data = 0;
  bool operator==(const Mouse&) const = default;
};

struct Key {
  std::uint16_t vk = 0;
  std::uint16_t scan = 0;
  std::uint32_t flags = 0;
  bool operator==(const Key&) const = default;
};

// As the system's metrics give it; its origin is negative with a monitor left of the primary one.
struct VirtualScreen {
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t width = 0;
  std::int32_t height = 0;
};

// Lands on the pixel under Windows' own rounding; 0 along an axis without extent.
Mouse move_to(DesktopPoint pixel, const VirtualScreen& screen);
Mouse move_by(std::int32_t dx, std::int32_t dy);
Mouse button(int button, bool down);  // 1 to 5
Mouse wheel(WheelAxis axis, std::int32_t delta);
Key key(const WinKey& key, bool down);

}  // namespace send_input
