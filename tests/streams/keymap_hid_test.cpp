#include "streams/keymap_hid.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "streams/send_input.h"

namespace {

// Usage=scan code of set 1, both hexadecimal; "e" marks the prefix E0.
constexpr const char* BY_SCAN_CODE =
    "04=1E 05=30 06=2E 07=20 08=12 09=21 0A=22 0B=23 0C=17 0D=24 0E=25 0F=26 10=32 11=31 12=18 "
    "13=19 14=10 15=13 16=1F 17=14 18=16 19=2F 1A=11 1B=2D 1C=15 1D=2C "
    "1E=02 1F=03 20=04 21=05 22=06 23=07 24=08 25=09 26=0A 27=0B "
    "28=1C 29=01 2A=0E 2B=0F 2C=39 2D=0C 2E=0D 2F=1A 30=1B 31=2B 32=2B 33=27 34=28 35=29 36=33 "
    "37=34 38=35 39=3A "
    "3A=3B 3B=3C 3C=3D 3D=3E 3E=3F 3F=40 40=41 41=42 42=43 43=44 44=57 45=58 "
    "46=37e 47=46 49=52e 4A=47e 4B=49e 4C=53e 4D=4Fe 4E=51e 4F=4De 50=4Be 51=50e 52=48e "
    "54=35e 55=37 56=4A 57=4E 58=1Ce 59=4F 5A=50 5B=51 5C=4B 5D=4C 5E=4D 5F=47 60=48 61=49 62=52 "
    "63=53 "
    "64=56 65=5De 67=59 "
    "68=64 69=65 6A=66 6B=67 6C=68 6D=69 6E=6A 6F=6B 70=6C 71=6D 72=6E 73=76 "
    "85=7E 87=73 88=70 89=7D 8A=79 8B=7B 90=F2 91=F1 "
    "E0=1D E1=2A E2=38 E3=5Be E4=1De E5=36 E6=38e E7=5Ce";

const std::map<std::uint16_t, WinKey> BY_VIRTUAL_KEY = {
    {0x48, {0x45, 0, 0x13}},  // Pause
    {0x53, {0x45, 1, 0x90}},  // Num Lock
    {0x7F, {0x20, 1, 0xAD}},  // Mute
    {0x80, {0x30, 1, 0xAF}},  // Volume Up
    {0x81, {0x2E, 1, 0xAE}},  // Volume Down
    {0xE8, {0x22, 1, 0xB3}},  // media: play or pause
    {0xEA, {0x10, 1, 0xB1}},  // previous
    {0xEB, {0x19, 1, 0xB0}},  // next
    {0xED, {0x30, 1, 0xAF}},  // volume up
    {0xEE, {0x2E, 1, 0xAE}},  // volume down
    {0xEF, {0x20, 1, 0xAD}},  // mute
};

std::map<std::uint16_t, WinKey> all_keys() {
  std::map<std::uint16_t, WinKey> keys = BY_VIRTUAL_KEY;
  std::istringstream rows(BY_SCAN_CODE);
  for (std::string row; rows >> row;) {
    const auto number = [&](std::size_t at) {
      return static_cast<std::uint16_t>(std::stoi(row.substr(at, 2), nullptr, 16));
    };
    keys[number(0)] = {number(3), std::uint8_t{row.ends_with('e')}, 0};
  }
  return keys;
}

TEST(HidToWinKey, EveryRowOfTheTable) {
  const auto keys = all_keys();
  ASSERT_EQ(keys.size(), 136u);
  for (const auto& [usage, expected] : keys) {
    WinKey key;
    ASSERT_TRUE(hid_to_win_key(usage, &key)) << usage;
    EXPECT_EQ(key, expected) << usage;
  }
}

TEST(HidToWinKey, EveryOtherUsageIsNoKeyAndLeavesTheResultAlone) {
  const auto keys = all_keys();
  for (std::uint32_t usage = 0; usage <= 0xFFFF; ++usage) {
    const auto u = static_cast<std::uint16_t>(usage);
    if (keys.contains(u)) continue;
    WinKey key{1, 2, 3};
    ASSERT_FALSE(hid_to_win_key(u, &key)) << usage;
    ASSERT_EQ(key, (WinKey{1, 2, 3})) << usage;
  }
}

TEST(HidToWinKey, MembershipAloneCanBeAsked) {
  EXPECT_TRUE(hid_to_win_key(0x04, nullptr));
  EXPECT_FALSE(hid_to_win_key(0x03, nullptr));
}

TEST(HidToWinKey, GoesByScanCodeExactlyWithoutAVirtualKey) {
  for (const auto& [usage, key] : all_keys()) {
    const send_input::Key press = send_input::key(key, true);
    EXPECT_EQ(press.scan, key.scan);
    EXPECT_EQ(press.vk, key.vk);
    EXPECT_EQ(press.flags, (BY_VIRTUAL_KEY.contains(usage) ? 0u : 8u) + key.extended) << usage;
    EXPECT_EQ(send_input::key(key, false).flags, press.flags + 2);
  }
}

}  // namespace
