// USB HID keyboard usages (page 7) as Linux knows the keys. Pure.
#pragma once

#include <cstdint>

// The KEY_ code of <linux/input-event-codes.h>; 0, which is no key's, for a usage that isn't in the
// table. It has the same usages as that of keymap_hid, and every code, raised by 8, is a keycode of
// X.
std::uint16_t hid_to_evdev(std::uint16_t usage);
