#include "streams/send_input.h"

#include <algorithm>
#include <cassert>
#include <iterator>

namespace send_input {
namespace {

struct Button {
  std::uint32_t down;
  std::uint32_t up;
  std::uint32_t data;  // which of the extra buttons
};

constexpr Button BUTTONS[] = {
    {0x0002, 0x0004, 0}, {0x0008, 0x0010, 0}, {0x0020, 0x0040, 0},
    {0x0080, 0x0100, 1}, {0x0080, 0x0100, 2},
};

// The position across the virtual screen, in 65536 steps, of a pixel's centre. With the centre and
// 65536 rather than 65535, Windows arrives at this pixel and no neighbour.
std::int32_t normalised(std::int32_t pixel, std::int32_t origin, std::int32_t extent) {
  constexpr double STEPS = 65536;
  if (extent <= 0) return 0;
  const double centre = static_cast<double>(pixel) - origin + 0.5;
  return static_cast<std::int32_t>(std::clamp(centre * STEPS / extent, 0.0, STEPS - 1));
}

}  // namespace

Mouse move_to(DesktopPoint pixel, const VirtualScreen& screen) {
  return {MOVE | VIRTUALDESK | ABSOLUTE_MOVE, normalised(pixel.x, screen.x, screen.width),
          normalised(pixel.y, screen.y, screen.height), 0};
}

Mouse move_by(std::int32_t dx, std::int32_t dy) {
  return {MOVE, dx, dy, 0};
}

Mouse button(int button, bool down) {
  assert(button >= 1 && button <= static_cast<int>(std::size(BUTTONS)));
  const Button& fields = BUTTONS[button - 1];
  return {down ? fields.down : fields.up, 0, 0, fields.data};
}

Mouse wheel(WheelAxis axis, std::int32_t delta) {
  return {axis == WheelAxis::Vertical ? WHEEL : HWHEEL, 0, 0, static_cast<std::uint32_t>(delta)};
}

Key key(const WinKey& key, bool down) {
  std::uint32_t flags = key.extended != 0 ? EXTENDEDKEY : 0;
  if (key.vk == 0) flags |= SCANCODE;
  if (!down) flags |= KEYUP;
  return {key.vk, key.scan, flags};
}

}  // namespace send_input
