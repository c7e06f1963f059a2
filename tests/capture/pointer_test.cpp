// The pointer on a source of its own.
#include "capture/pointer.h"

#include <gtest/gtest.h>

#include "tests/capture/video_fixture.h"

namespace {

using capture_internal::PointerTracker;
using fake_capture::Icon;

constexpr std::uint64_t REPORT_US = 8'000;
constexpr std::uint64_t ROUTE_US = 4'000;
constexpr std::uint32_t CLEAR = 0, BLACK = 0xFF000000, WHITE = 0xFFFFFFFF;

std::uint32_t pixel(const CursorBitmap& image, int x, int y) {
  return load_le<std::uint32_t>(&image.pixels[static_cast<std::size_t>(y * image.width + x) * 4]);
}

// A tracker at a display of 1280 x 720 whose left top corner is at -1280, -200 of the desktop.
class PointerTest : public testing::Test {
 protected:
  PointerTest() {
    virtual_time::reset();
    place_display(-1280, -200, 1280, 720);
    settings_.width = 1280;
    settings_.height = 720;
    source_.system = DesktopPoint{-1000, 0};
    sinks_.pointer_sink = [this](std::uint16_t x, std::uint16_t y, std::uint8_t visible) {
      positions_.push_back({x, y, visible, lund_now_us()});
    };
    sinks_.cursor_sink = [this](const CursorBitmap& image) { images_.push_back(image); };
  }
  void place_display(std::int32_t left, std::int32_t top, std::int32_t width, std::int32_t height) {
    DisplayInfo& display = settings_.display;
    display.left = left;
    display.top = top;
    display.right = left + width;
    display.bottom = top + height;
    display.width = width;
    display.height = height;
  }
  void end_pass() {
    tracker_.route_cursor(source_, lund_now_us());
    tracker_.flush_pointer(lund_now_us());
  }
  // A pass of a notifying source that has told something, `after_us` after the one before.
  void acquired(std::uint64_t after_us = REPORT_US) {
    virtual_time::advance_us(after_us);
    tracker_.on_pointer(source_);
    tracker_.deliver_held_image();
    end_pass();
  }
  void polled(std::uint64_t after_us = REPORT_US) {
    virtual_time::advance_us(after_us);
    tracker_.gdi_pointer(source_);
    end_pass();
  }
  void look_only(std::uint64_t after_us = REPORT_US) {
    virtual_time::advance_us(after_us);
    end_pass();
  }
  void use_icon(std::uintptr_t handle, Icon icon) {
    source_.icons[handle] = std::move(icon);
    source_.cursor->handle = handle;
  }

  VideoSettings settings_;
  Sinks sinks_;
  fake_capture::FakePointer source_;
  PointerTracker tracker_{settings_, sinks_};
  std::vector<SeenPosition> positions_;
  std::vector<CursorBitmap> images_;
};

// ---- Position

TEST_F(PointerTest, AtTheRightAndBottomEdgeReports65535AndAtTheLeftAndTopZero) {
  source_.move(1279, 719);
  acquired();
  source_.move(0, 0);
  acquired();
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[0].x, 65'535);
  EXPECT_EQ(positions_[0].y, 65'535);
  EXPECT_EQ(positions_[1].x, 0);
  EXPECT_EQ(positions_[1].y, 0);
}

TEST_F(PointerTest, OnePixelWideReferenceGivesZero) {
  place_display(0, 0, 1, 1);
  source_.system = DesktopPoint{0, 0};
  source_.move(1, 5);
  acquired();
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 0);
  EXPECT_EQ(positions_[0].y, 0);
}

TEST_F(PointerTest, ScaleIsOfTheDisplayNotOfTheEncodedSize) {
  settings_.width = 640;
  settings_.height = 360;
  source_.move(640, 100);
  acquired();
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 32'793);  // 640 x 65535 / 1279 = 32793.1
  EXPECT_EQ(positions_[0].y, 9'115);   // 100 x 65535 / 719 = 9114.7
}

TEST_F(PointerTest, OutsideTheDisplayIsBroughtToItsEdge) {
  source_.move(-20, 5'000);
  acquired();
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 0);
  EXPECT_EQ(positions_[0].y, 65'535);
}

TEST_F(PointerTest, HotSpotCountsWhereThePositionIsTheImagesCorner) {
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE), 3, 2);
  source_.move(-3, 717);
  acquired();
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 0);
  EXPECT_EQ(positions_[0].y, 65'535);
}

TEST_F(PointerTest, HotSpotDoesNotCountWhereThePositionIsTheHotPoint) {
  source_.update.anchor = PointerAnchor::HotPoint;
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE), 3, 2);
  source_.move(1276, 0);
  acquired();
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 65'381);  // 1276 x 65535 / 1279
  EXPECT_EQ(positions_[0].y, 0);
  ASSERT_EQ(images_.size(), 1u);
  EXPECT_EQ(images_[0].hot_x, 3) << "the image keeps its own";
}

TEST_F(PointerTest, NewHotSpotMovesThePointThatAPointerAtRestReports) {
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE), 0, 0);
  source_.move(0, 0);
  acquired();
  source_.draw(4, std::vector<std::uint32_t>(16, BLACK), 3, 0);
  acquired();
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].x, 154);  // 3 x 65535 / 1279 = 153.7
}

TEST_F(PointerTest, HiddenReportsVisible0WithTheLastPosition) {
  source_.move(1279, 0);
  acquired();
  source_.update.position = {5, 5};
  source_.hide();
  acquired();
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].visible, 0);
  EXPECT_EQ(positions_[1].x, 65'535);
  EXPECT_EQ(positions_[1].y, 0);
}

TEST_F(PointerTest, SameReportIsNotSentAgain) {
  source_.move(10, 10);
  acquired();
  source_.move(10, 10);
  acquired();
  EXPECT_EQ(positions_.size(), 1u);
}

// ---- How often

TEST_F(PointerTest, MovingEveryMillisecondReportsEvery8MsAndNeverLosesTheLastPosition) {
  constexpr int STEPS = 1'000;
  for (int i = 0; i < STEPS; ++i) {
    source_.move(i, 0);
    acquired(1'000);
  }
  EXPECT_EQ(positions_.size(), 125u);
  for (std::size_t i = 1; i < positions_.size(); ++i) {
    EXPECT_EQ(positions_[i].at_us - positions_[i - 1].at_us, REPORT_US);
  }
  look_only();
  ASSERT_EQ(positions_.size(), 126u);
  EXPECT_EQ(positions_.back().x, 51'188);  // 999 x 65535 / 1279 = 51187.99
}

TEST_F(PointerTest, ChangeInside8MsIsDueAtTheirEnd) {
  source_.move(1, 1);
  acquired();
  EXPECT_FALSE(tracker_.due_us());
  const std::uint64_t sent_us = lund_now_us();
  source_.move(2, 1);
  acquired(3'000);
  EXPECT_EQ(tracker_.due_us(), sent_us + REPORT_US);
  look_only(4'999);
  EXPECT_EQ(positions_.size(), 1u);
  look_only(1);
  EXPECT_EQ(positions_.size(), 2u);
  EXPECT_FALSE(tracker_.due_us());
}

TEST_F(PointerTest, ReportThatSaysNothingNewDoesNotDelayTheNext) {
  source_.move(1, 1);
  acquired();
  source_.move(1, 1);
  acquired();  // nothing to say
  source_.move(2, 2);
  acquired(1'000);
  EXPECT_EQ(positions_.size(), 2u);
}

// ---- Which display

TEST_F(PointerTest, LeavingTheDisplayGivesOneReportOfVisible0AndReturningOneOf1) {
  source_.move(1279, 300);
  acquired();
  source_.hide();  // as a duplication says of a pointer on another display
  source_.system = DesktopPoint{10, 100};
  acquired();
  for (int i = 0; i < 20; ++i) {
    source_.system->x += 30;
    look_only();
  }
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].visible, 0);
  source_.move(1279, 300);
  source_.system = DesktopPoint{-1, 100};
  acquired();
  look_only();
  ASSERT_EQ(positions_.size(), 3u);
  EXPECT_EQ(positions_[2].visible, 1);
}

TEST_F(PointerTest, ReturningBetweenTwoLooksAtTheSystemsPointerIsStillOneReport) {
  source_.move(0, 0);
  acquired();
  source_.hide();
  source_.system = DesktopPoint{10, 100};
  acquired();
  look_only(REPORT_US + ROUTE_US / 2);  // a look, then the return before the next
  source_.system = DesktopPoint{-5, 100};
  source_.move(1275, 300);
  acquired(ROUTE_US / 2);
  EXPECT_EQ(positions_.size(), 2u) << "by the last look it is on the other display";
  look_only(ROUTE_US / 2);
  ASSERT_EQ(positions_.size(), 3u);
  EXPECT_EQ(positions_[2].visible, 1);
}

TEST_F(PointerTest, PolledPointerThatWandersAboutOnAnotherDisplayIsToldToHaveLeftOnce) {
  source_.cursor = CursorState{true, {-700, 10}, 0};
  source_.system = DesktopPoint{-700, 10};
  polled();
  for (int i = 0; i < 20; ++i) {
    source_.cursor->position = {i * 10, i * 10};
    source_.system = source_.cursor->position;
    polled();
  }
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].visible, 0);
  source_.cursor->position = {-1, 0};
  source_.system = source_.cursor->position;
  polled();
  ASSERT_EQ(positions_.size(), 3u);
  EXPECT_EQ(positions_[2].visible, 1);
  EXPECT_EQ(positions_[2].x, 65'535);
}

TEST_F(PointerTest, EdgesOfADisplayOfNegativeOriginBelongToItUpToTheLastPixel) {
  const std::pair<DesktopPoint, int> cases[] = {
      {{-1280, -200}, 1}, {{-1281, -200}, 0}, {{-1, 519}, 1},
      {{0, 519}, 0},      {{-1, 520}, 0},     {{-1280, -201}, 0},
  };
  for (const auto& [point, visible] : cases) {
    SCOPED_TRACE(testing::Message() << point.x << ", " << point.y);
    tracker_.desktop_changed();
    positions_.clear();
    source_.move(1, 1);
    source_.system = point;
    acquired();
    ASSERT_EQ(positions_.size(), 1u);
    EXPECT_EQ(positions_[0].visible, visible);
  }
}

TEST_F(PointerTest, SystemsPointerIsLookedAtAtMostEvery4Ms) {
  for (int i = 0; i < 100; ++i) look_only(1'000);
  EXPECT_EQ(source_.system_looks, 25);
}

TEST_F(PointerTest, PointerThatCannotBeLocatedCountsAsInside) {
  source_.system = DesktopPoint{500, 500};
  source_.move(1, 1);
  acquired();
  source_.system.reset();
  look_only();
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[0].visible, 0);
  EXPECT_EQ(positions_[1].visible, 1);
}

TEST_F(PointerTest, AnotherDesktopHidesItAndTellsTheClientAgain) {
  source_.move(1, 1);
  acquired();
  tracker_.desktop_changed();
  look_only();
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].visible, 0);
  tracker_.desktop_changed();
  look_only();
  EXPECT_EQ(positions_.size(), 3u) << "though it is the same report";
}

// ---- Image of a notifying source

TEST_F(PointerTest, ImageIsScaledAsThePictureIs) {
  settings_.width = 640;
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE), 2, 2);
  acquired();
  ASSERT_EQ(images_.size(), 1u);
  EXPECT_EQ(images_[0].width, 2);
  EXPECT_EQ(images_[0].height, 2);
  EXPECT_EQ(images_[0].hot_x, 1);
}

TEST_F(PointerTest, ImageWithoutADisplaysWidthIsNotScaled) {
  settings_.display.width = 0;
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE));
  acquired();
  ASSERT_EQ(images_.size(), 1u);
  EXPECT_EQ(images_[0].width, 4);
}

TEST_F(PointerTest, MonochromeAndMaskedShapesAreConverted) {
  source_.shape_data = {0x3F, 0x40};  // 8 x 1: black, white, and the rest transparent
  source_.shape = {CURSOR_MONOCHROME, 2, 8, 2, 1, 0, 0};
  source_.update.shape_bytes = 2;
  acquired();
  source_.draw(1, {0x00123456});
  source_.shape.type = CURSOR_MASKED_COLOUR;
  acquired();
  ASSERT_EQ(images_.size(), 2u);
  EXPECT_EQ(pixel(images_[0], 0, 0), BLACK);
  EXPECT_EQ(pixel(images_[0], 1, 0), WHITE);
  EXPECT_EQ(pixel(images_[0], 2, 0), CLEAR);
  EXPECT_EQ(pixel(images_[1], 0, 0), 0xFF123456u);
}

TEST_F(PointerTest, ShapeThatCannotBeReadOrConvertedChangesNothing) {
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE), 1, 1);
  source_.move(0, 0);
  acquired();
  source_.shape_reads = false;
  source_.draw(4, std::vector<std::uint32_t>(16, BLACK), 3, 3);
  acquired();
  source_.shape_reads = true;
  source_.draw(4, std::vector<std::uint32_t>(16, BLACK), 3, 3);
  source_.shape.type = 3;
  acquired();
  source_.draw(4, std::vector<std::uint32_t>(16, BLACK), 3, 3);
  source_.shape.size = 1'000'000;  // more than there is
  source_.shape.height = 5;
  acquired();
  EXPECT_EQ(images_.size(), 1u);
  EXPECT_EQ(positions_.size(), 1u) << "the hot spot is the former image's";
}

TEST_F(PointerTest, MotionCountsThoughItsShapeCannotBeRead) {
  source_.shape_reads = false;
  source_.draw(1, {WHITE});
  source_.move(1279, 0);
  acquired();
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 65'535);
}

TEST_F(PointerTest, SmallerShapeAfterALargerOneIsItselfAlone) {
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE));
  acquired();
  source_.draw(1, {BLACK});
  acquired();
  ASSERT_EQ(images_.size(), 2u);
  EXPECT_EQ(images_[1].pixels.size(), 4u);
  EXPECT_EQ(pixel(images_[1], 0, 0), BLACK);
}

TEST_F(PointerTest, HeldImageWaitsForItsSinkAndIsDeliveredOnce) {
  const auto sink = std::exchange(sinks_.cursor_sink, nullptr);
  source_.draw(1, {WHITE});
  acquired();
  EXPECT_TRUE(images_.empty());
  sinks_.cursor_sink = sink;
  tracker_.deliver_held_image();
  tracker_.deliver_held_image();
  EXPECT_EQ(images_.size(), 1u);
}

TEST_F(PointerTest, NewerHeldImageTakesTheOldersPlace) {
  source_.draw(1, {WHITE});
  tracker_.on_pointer(source_);
  source_.draw(1, {BLACK});
  tracker_.on_pointer(source_);
  tracker_.deliver_held_image();
  ASSERT_EQ(images_.size(), 1u);
  EXPECT_EQ(pixel(images_[0], 0, 0), BLACK);
}

// ---- Polled source

TEST_F(PointerTest, PolledPositionIsTheHotPointFromTheDisplaysCorner) {
  source_.cursor = CursorState{true, {-1, 519}, 0};
  polled();
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 65'535);
  EXPECT_EQ(positions_[0].y, 65'535);
  EXPECT_EQ(positions_[0].visible, 1);
}

TEST_F(PointerTest, PollingForgetsTheHotSpotOfADuplicationBefore) {
  source_.draw(4, std::vector<std::uint32_t>(16, WHITE), 3, 3);
  acquired();
  source_.cursor = CursorState{true, {-1280, -200}, 0};
  polled();
  ASSERT_FALSE(positions_.empty());
  EXPECT_EQ(positions_.back().x, 0);
}

TEST_F(PointerTest, CursorThatCannotBeAskedForIsHidden) {
  source_.cursor = CursorState{true, {-700, 0}, 0};
  polled();
  source_.cursor.reset();
  polled();
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].visible, 0);
  EXPECT_EQ(positions_[1].x, positions_[0].x);
}

TEST_F(PointerTest, PolledImageIsConvertedOnceForEachHandle) {
  settings_.width = 640;
  use_icon(7, {2, 2, std::vector<std::uint32_t>(4, WHITE), {}, 1, 1});
  for (int i = 0; i < 5; ++i) polled();
  EXPECT_EQ(source_.cursors_opened, 1);
  ASSERT_EQ(images_.size(), 1u);
  EXPECT_EQ(images_[0].width, 1) << "scaled as the picture is";
  use_icon(8, {1, 1, {BLACK}, {}, 0, 0});
  polled();
  EXPECT_EQ(source_.cursors_opened, 2);
  EXPECT_EQ(images_.size(), 2u);
  EXPECT_EQ(source_.cursors_open, 0);
}

TEST_F(PointerTest, NullHandleHasNoImage) {
  source_.cursor->handle = 0;
  polled();
  EXPECT_EQ(source_.cursors_opened, 0);
}

TEST_F(PointerTest, PolledImageWithoutASinkIsConvertedWhenThereIsOne) {
  const auto sink = std::exchange(sinks_.cursor_sink, nullptr);
  use_icon(7, {1, 1, {WHITE}, {}, 0, 0});
  polled();
  sinks_.cursor_sink = sink;
  polled();
  EXPECT_EQ(images_.size(), 1u);
}

TEST_F(PointerTest, CursorOf300PixelsIsIgnoredAndNoImageIsSent) {
  use_icon(7, {300, 300, std::vector<std::uint32_t>(300 * 300, WHITE), {}, 0, 0});
  source_.cursor->visible = true;
  polled();
  EXPECT_EQ(source_.cursors_opened, 1);
  EXPECT_EQ(source_.cursors_open, 0);
  EXPECT_TRUE(images_.empty());
  EXPECT_EQ(positions_.size(), 1u) << "its position goes on";
}

TEST_F(PointerTest, CursorThatCannotBeReadIsTriedAgain) {
  source_.cursor->handle = 7;
  polled();
  EXPECT_EQ(source_.cursors_opened, 1);
  use_icon(7, {1, 1, {WHITE}, {}, 0, 0});
  source_.icons[7].colour_reads = false;
  polled();
  EXPECT_TRUE(images_.empty());
  source_.icons[7].colour_reads = true;
  polled();
  EXPECT_EQ(images_.size(), 1u);
  EXPECT_EQ(source_.cursors_open, 0);
}

}  // namespace
