#include <gtest/gtest.h>

#include "apps/client/view/pointer_view.h"

namespace {

constexpr WirePoint NEAR{100, 100};
constexpr std::uint64_t MS = 1000;

PointerPosition at(std::uint16_t x, std::uint16_t y, bool visible = true) {
  return {x, y, visible, 77};
}

struct Pointer {
  PointerView view;
  PointerShown shown(std::uint64_t ms, bool over = true, bool relative = false) const {
    return view.shown(relative, over, NEAR, ms * MS);
  }
};

TEST(PointerView, OverThePictureTheOwnPointerIsTheHosts) {
  Pointer p;
  p.view.sent({1000, 1000}, 0);
  p.view.reported(at(1000, 1000));
  EXPECT_EQ(p.shown(1000), (PointerShown{true, false, {}}));
}

TEST(PointerView, AnOldReportOnItsWayPaintsNothing) {
  Pointer p;
  p.view.reported(at(1000, 1000));
  p.view.sent({30000, 30000}, 5 * MS);
  EXPECT_FALSE(p.shown(100).painted);
  p.view.reported(at(30000, 30000));
  EXPECT_FALSE(p.shown(1000).painted);
}

TEST(PointerView, APointerThatTheHostHasMovedIsPaintedWhereItIs) {
  Pointer p;
  p.view.sent({1000, 1000}, 0);
  p.view.reported(at(1000, 1000));
  p.view.reported(at(40000, 50000));
  EXPECT_EQ(p.shown(600), (PointerShown{true, true, {40000, 50000}}));
  p.view.sent({1010, 1000}, 700 * MS);
  EXPECT_FALSE(p.shown(701).painted) << "our next motion takes it back";
}

TEST(PointerView, AHostThatDoesNotTakeOurMotionIsNoticedByTimeAlone) {
  Pointer p;
  p.view.reported(at(40000, 50000));
  p.view.sent({1000, 1000}, 100 * MS);
  EXPECT_FALSE(p.shown(200).painted);
  EXPECT_EQ(p.view.changes_at_us(), 500 * MS);
  EXPECT_TRUE(p.shown(500).painted);
}

TEST(PointerView, APixelOfRoundingIsNoMotionOfTheHosts) {
  Pointer p;
  p.view.sent({1000, 1000}, 0);
  p.view.reported(at(1100, 900));
  EXPECT_FALSE(p.shown(1000).painted);
  p.view.reported(at(1101, 1000));
  EXPECT_TRUE(p.shown(1000).painted);
}

TEST(PointerView, WithTheMouseElsewhereTheHostsPointerIsPainted) {
  Pointer p;
  p.view.sent({1000, 1000}, 0);
  p.view.reported(at(1000, 1000));
  EXPECT_EQ(p.shown(1000, false), (PointerShown{false, true, {1000, 1000}}));
}

TEST(PointerView, InRelativeModeItIsPaintedAndTheOwnIsAway) {
  Pointer p;
  p.view.reported(at(1000, 2000));
  EXPECT_EQ(p.shown(1000, true, true), (PointerShown{false, true, {1000, 2000}}));
}

TEST(PointerView, HiddenByTheHostItIsNowhere) {
  Pointer p;
  p.view.reported(at(1000, 2000, false));
  EXPECT_EQ(p.shown(1000, true, false), PointerShown{});
  EXPECT_EQ(p.shown(1000, true, true), PointerShown{});
  EXPECT_EQ(p.shown(1000, false, false), PointerShown{});
}

TEST(PointerView, BeforeTheFirstReportThereIsTheOwnPointerOnly) {
  Pointer p;
  EXPECT_EQ(p.shown(0), (PointerShown{true, false, {}}));
  EXPECT_EQ(p.shown(0, false), PointerShown{});
  EXPECT_EQ(p.view.changes_at_us(), 0U);
}

TEST(PointerView, AnotherStreamStartsAnew) {
  Pointer p;
  p.view.reported(at(1000, 2000, false));
  p.view.forget();
  EXPECT_TRUE(p.shown(1000).own);
}

}  // namespace
