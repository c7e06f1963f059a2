#include "apps/client/view/alt_gr.h"

#include <gtest/gtest.h>

namespace {

constexpr HookedKey MADE_UP_DOWN{0x21D, false}, MADE_UP_UP{0x21D, true};
constexpr bool OURS = true, ANOTHERS = false, CTRL_DOWN = true, CTRL_UP = false;

TEST(AltGr, ItsMadeUpCtrlIsDropped) {
  EXPECT_TRUE(is_alt_grs_ctrl_to_drop(MADE_UP_DOWN, OURS, CTRL_UP));
  EXPECT_TRUE(is_alt_grs_ctrl_to_drop(MADE_UP_UP, OURS, CTRL_UP));
}

TEST(AltGr, KeysThatAHandPressesAreNot) {
  for (const std::uint32_t scan_code : {0x1Du, 0x38u, 0x10u, 0x11Du, 0x0u})
    for (const bool up : {false, true})
      EXPECT_FALSE(is_alt_grs_ctrl_to_drop({scan_code, up}, OURS, CTRL_UP)) << scan_code;
}

TEST(AltGr, OtherProgramsGetIt) {
  EXPECT_FALSE(is_alt_grs_ctrl_to_drop(MADE_UP_DOWN, ANOTHERS, CTRL_UP));
  EXPECT_FALSE(is_alt_grs_ctrl_to_drop(MADE_UP_UP, ANOTHERS, CTRL_UP));
}

// AltGr was down, and repeats, when the window got the focus.
TEST(AltGr, WhatWindowsHoldsDownItIsLeftToRelease) {
  EXPECT_TRUE(is_alt_grs_ctrl_to_drop(MADE_UP_DOWN, OURS, CTRL_DOWN));
  EXPECT_FALSE(is_alt_grs_ctrl_to_drop(MADE_UP_UP, OURS, CTRL_DOWN));
}

}  // namespace
