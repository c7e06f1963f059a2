#include "streams/linux/evdev_keys.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include "streams/keymap_hid.h"

namespace {

TEST(EvdevKeys, HasExactlyTheUsagesOfTheOtherTable) {
  for (std::uint32_t usage = 0; usage <= 0xFFFF; ++usage) {
    const auto u = static_cast<std::uint16_t>(usage);
    ASSERT_EQ(hid_to_evdev(u) != KEY_RESERVED, hid_to_win_key(u, nullptr)) << usage;
  }
}

TEST(EvdevKeys, EveryCodeIsAKeycodeOfX) {
  for (std::uint16_t usage = 0; usage <= 0xFF; ++usage) EXPECT_LE(hid_to_evdev(usage), 255 - 8);
}

// The kernel numbers the keys of the AT keyboard by their scan codes of set 1, up to F12.
TEST(EvdevKeys, AgreesWithTheScanCodesWhereTheKernelDoes) {
  int compared = 0;
  for (std::uint16_t usage = 0; usage <= 0xFF; ++usage) {
    WinKey key;
    if (!hid_to_win_key(usage, &key) || key.extended != 0 || key.vk != 0) continue;
    if (key.scan > KEY_F12) continue;
    EXPECT_EQ(hid_to_evdev(usage), key.scan) << usage;
    ++compared;
  }
  EXPECT_EQ(compared, 86);
}

TEST(EvdevKeys, TheOthersByName) {
  const struct {
    std::uint16_t usage, code;
  } named[] = {
      {0x46, KEY_SYSRQ},
      {0x48, KEY_PAUSE},
      {0x49, KEY_INSERT},
      {0x4A, KEY_HOME},
      {0x4B, KEY_PAGEUP},
      {0x4C, KEY_DELETE},
      {0x4D, KEY_END},
      {0x4E, KEY_PAGEDOWN},
      {0x4F, KEY_RIGHT},
      {0x50, KEY_LEFT},
      {0x51, KEY_DOWN},
      {0x52, KEY_UP},
      {0x53, KEY_NUMLOCK},
      {0x54, KEY_KPSLASH},
      {0x58, KEY_KPENTER},
      {0x65, KEY_COMPOSE},
      {0x67, KEY_KPEQUAL},
      {0x7F, KEY_MUTE},
      {0x80, KEY_VOLUMEUP},
      {0x81, KEY_VOLUMEDOWN},
      {0x85, KEY_KPCOMMA},
      {0x87, KEY_RO},
      {0x88, KEY_KATAKANAHIRAGANA},
      {0x89, KEY_YEN},
      {0x8A, KEY_HENKAN},
      {0x8B, KEY_MUHENKAN},
      {0x90, KEY_HANGEUL},
      {0x91, KEY_HANJA},
      {0xE3, KEY_LEFTMETA},
      {0xE4, KEY_RIGHTCTRL},
      {0xE6, KEY_RIGHTALT},
      {0xE7, KEY_RIGHTMETA},
      {0xE8, KEY_PLAYPAUSE},
      {0xEA, KEY_PREVIOUSSONG},
      {0xEB, KEY_NEXTSONG},
      {0xED, KEY_VOLUMEUP},
      {0xEE, KEY_VOLUMEDOWN},
      {0xEF, KEY_MUTE},
  };
  for (const auto& key : named) EXPECT_EQ(hid_to_evdev(key.usage), key.code) << key.usage;
  for (std::uint16_t f = 0; f < 12; ++f) EXPECT_EQ(hid_to_evdev(0x68 + f), KEY_F13 + f);
}

}  // namespace
