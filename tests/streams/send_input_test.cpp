#include "streams/send_input.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using send_input::Mouse;
using send_input::VirtualScreen;

constexpr std::int32_t LOWEST = -2'147'483'648;

// Where Windows puts the pointer along one axis.
std::int32_t landing(std::int32_t normalised, std::int32_t origin, std::int32_t extent) {
  return origin + static_cast<std::int32_t>(std::int64_t{normalised} * extent / 65'536);
}

TEST(SendInput, AnAbsoluteMoveLandsOnEachPixelOfEveryDesktop) {
  const std::vector<VirtualScreen> screens = {
      {0, 0, 1920, 1080},       {-1920, 0, 3840, 1080},      {-2560, -1440, 6400, 2520},
      {-1, -7, 1366, 768},      {-7680, -4320, 15360, 8640}, {0, 0, 1, 1},
      {-100, 200, 65'536, 333},
  };
  for (const VirtualScreen& screen : screens) {
    for (std::int32_t i = 0; i < screen.width; ++i) {
      const Mouse move = send_input::move_to({screen.x + i, screen.y}, screen);
      ASSERT_EQ(landing(move.dx, screen.x, screen.width), screen.x + i);
      ASSERT_EQ(landing(move.dy, screen.y, screen.height), screen.y);
    }
    for (std::int32_t i = 0; i < screen.height; ++i) {
      const Mouse move = send_input::move_to({screen.x, screen.y + i}, screen);
      ASSERT_EQ(landing(move.dy, screen.y, screen.height), screen.y + i);
    }
  }
}

TEST(SendInput, AnAbsoluteMoveIsAcrossTheVirtualDesktop) {
  // The centre of the pixel, of 65536 steps: (100.5 * 65536) / 1920 and (50.5 * 65536) / 1080.
  EXPECT_EQ(send_input::move_to({100, 50}, {0, 0, 1920, 1080}), (Mouse{0xC001, 3430, 3064, 0}));
  EXPECT_EQ(send_input::move_to({-1820, 50}, {-1920, 0, 1920, 1080}),
            (Mouse{0xC001, 3430, 3064, 0}));
}

TEST(SendInput, APixelOutsideTheDesktopGoesToItsEdge) {
  const VirtualScreen screen{-100, -100, 200, 200};
  EXPECT_EQ(send_input::move_to({-101, 100}, screen), (Mouse{0xC001, 0, 65'535, 0}));
  EXPECT_EQ(send_input::move_to({LOWEST, 2'147'483'647}, screen), (Mouse{0xC001, 0, 65'535, 0}));
}

TEST(SendInput, ADesktopWithoutExtentHasOnePlace) {
  EXPECT_EQ(send_input::move_to({5, 5}, {0, 0, 0, -1}), (Mouse{0xC001, 0, 0, 0}));
}

TEST(SendInput, ARelativeMoveIsSentAsItIs) {
  EXPECT_EQ(send_input::move_by(-3, 4), (Mouse{1, -3, 4, 0}));
}

TEST(SendInput, EveryButton) {
  const struct {
    std::uint32_t down, up, data;
  } expected[] = {
      {0x0002, 0x0004, 0}, {0x0008, 0x0010, 0}, {0x0020, 0x0040, 0},
      {0x0080, 0x0100, 1}, {0x0080, 0x0100, 2},
  };
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(send_input::button(i + 1, true), (Mouse{expected[i].down, 0, 0, expected[i].data}));
    EXPECT_EQ(send_input::button(i + 1, false), (Mouse{expected[i].up, 0, 0, expected[i].data}));
  }
}

TEST(SendInput, TheWheelCarriesItsDeltaAsItIs) {
  EXPECT_EQ(send_input::wheel(WheelAxis::Vertical, 120), (Mouse{0x0800, 0, 0, 120}));
  EXPECT_EQ(send_input::wheel(WheelAxis::Horizontal, -30), (Mouse{0x1000, 0, 0, 0xFFFFFFE2}));
}

// 8: by the scan code, 2: released, 1: behind the prefix E0.
TEST(SendInput, AKeyGoesByItsScanCodeUnlessItHasAVirtualKey) {
  using send_input::Key;
  constexpr WinKey LETTER{.scan = 0x1E, .extended = 0, .vk = 0};
  EXPECT_EQ(send_input::key(LETTER, true), (Key{0, 0x1E, 8}));
  EXPECT_EQ(send_input::key(LETTER, false), (Key{0, 0x1E, 8 | 2}));
  constexpr WinKey ARROW{.scan = 0x4B, .extended = 1, .vk = 0};
  EXPECT_EQ(send_input::key(ARROW, true), (Key{0, 0x4B, 8 | 1}));
  EXPECT_EQ(send_input::key(ARROW, false), (Key{0, 0x4B, 8 | 2 | 1}));
  constexpr WinKey PAUSE{.scan = 0x45, .extended = 0, .vk = 0x13};
  EXPECT_EQ(send_input::key(PAUSE, true), (Key{0x13, 0x45, 0}));
  EXPECT_EQ(send_input::key(PAUSE, false), (Key{0x13, 0x45, 2}));
  constexpr WinKey MUTE{.scan = 0x20, .extended = 1, .vk = 0xAD};
  EXPECT_EQ(send_input::key(MUTE, true), (Key{0xAD, 0x20, 1}));
  EXPECT_EQ(send_input::key(MUTE, false), (Key{0xAD, 0x20, 2 | 1}));
}

}  // namespace
