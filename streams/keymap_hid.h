// USB HID keyboard usages (page 7) as Windows knows the keys. Pure.
#pragma once

#include <cstdint>

struct WinKey {
  std::uint16_t scan = 0;     // PC AT scan-code set 1
  std::uint8_t extended = 0;  // 1: behind the prefix E0
  std::uint16_t vk = 0;       // not 0: Windows takes this key by its virtual-key code alone
  bool operator==(const WinKey&) const = default;
};

// Whether the usage is a key; `out`, which may be null, is filled only then.
bool hid_to_win_key(std::uint16_t usage, WinKey* out);
