// What GDI captures of a desktop with known colours.
#include "capture/windows/gdi_source.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/captured_log.h"
#include "tests/support/windows/few_gdi_objects.h"
#include "tests/support/windows/painted_window.h"

namespace {

using namespace std::chrono_literals;

constexpr PaintedWindow::Place PLACE{100, 80, 256, 64};

// No two pixels are the same.
std::uint32_t pattern(int x, int y) {
  return static_cast<std::uint32_t>(x << 16 | y * 4 << 8 | (x ^ y));
}
std::uint32_t inverse(int x, int y) {
  return pattern(x, y) ^ 0xFFFFFF;
}

DisplayInfo part_of_desktop(int left, int top, int width, int height) {
  DisplayInfo display;
  display.left = left;
  display.top = top;
  display.right = left + width;
  display.bottom = top + height;
  display.width = width;
  display.height = height;
  return display;
}
DisplayInfo behind_window() {
  return part_of_desktop(PLACE.left, PLACE.top, PLACE.width, PLACE.height);
}

std::uint32_t pixel(const MemoryPicture& picture, int x, int y) {
  const std::uint8_t* p = picture.bgra + std::ptrdiff_t{y} * picture.stride + x * 4;
  return static_cast<std::uint32_t>(p[2] << 16 | p[1] << 8 | p[0]);
}

class GdiSourceTest : public testing::Test {
 protected:
  bool open(const DisplayInfo& display, int width = 640, int height = 360) {
    return source_->open({display, width, height, 60});
  }
  void capture() {
    AcquiredPicture acquired;
    ASSERT_EQ(source_->acquire(0, wake_, &acquired), AcquireResult::Picture);
    ASSERT_TRUE(source_->hold());
    ASSERT_TRUE(source_->picture(&picture_));
    source_->release();
    EXPECT_EQ(acquired.width, picture_.width);
    EXPECT_EQ(acquired.height, picture_.height);
  }
  // How many of the window's pixels aren't `expected`, with its corner at (left, top) of the
  // picture.
  int differing(const PaintedWindow::Picture& expected, int left, int top) const {
    int count = 0;
    for (int y = 0; y < PLACE.height; ++y) {
      for (int x = 0; x < PLACE.width; ++x)
        count += pixel(picture_, left + x, top + y) != expected(x, y);
    }
    return count;
  }
  // What a window has drawn reaches the screen a little later.
  int captured_until_shown(const PaintedWindow::Picture& expected, int left = 0, int top = 0) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    int count = -1;
    while (count != 0 && std::chrono::steady_clock::now() < deadline) {
      capture();
      if (HasFatalFailure()) return -1;
      count = differing(expected, left, top);
      if (count != 0) std::this_thread::sleep_for(5ms);
    }
    return count;
  }

  std::unique_ptr<CaptureSource> source_ = make_gdi_source();
  WakeEvent wake_{WakeEvent::Reset::Manual};
  MemoryPicture picture_;
};

TEST_F(GdiSourceTest, IsPolledAndItsPicturesLieInMemory) {
  EXPECT_STREQ(source_->traits().backend, "GDI CPU");
  EXPECT_FALSE(source_->traits().notifying);
  EXPECT_FALSE(source_->traits().gpu);
  EXPECT_FALSE(source_->has_picture());
  EXPECT_FALSE(source_->picture(&picture_));
}

TEST_F(GdiSourceTest, WindowIsInThePictureOfTheWholeDisplayPixelByPixel) {
  const PaintedWindow window(PLACE, pattern);
  const auto displays = list_displays();
  ASSERT_FALSE(displays.empty());
  const DisplayInfo& display = displays[0];
  ASSERT_TRUE(open(display, display.width, display.height));
  EXPECT_EQ(captured_until_shown(pattern, PLACE.left - display.left, PLACE.top - display.top), 0);
  EXPECT_EQ(picture_.width, display.width);
  EXPECT_EQ(picture_.height, display.height);
  EXPECT_EQ(picture_.stride, display.width * 4);
  EXPECT_EQ(picture_.size, std::uint64_t{4} * static_cast<std::uint64_t>(display.width) *
                               static_cast<std::uint64_t>(display.height));
}

TEST_F(GdiSourceTest, PictureBeginsAtTheDisplaysCorner) {
  const PaintedWindow window(PLACE, pattern);
  ASSERT_TRUE(open(behind_window()));
  EXPECT_EQ(captured_until_shown(pattern), 0);
}

TEST_F(GdiSourceTest, LayeredWindowIsInThePicture) {
  const PaintedWindow window(PLACE, pattern, PaintedWindow::Kind::Layered);
  ASSERT_TRUE(open(behind_window()));
  EXPECT_EQ(captured_until_shown(pattern), 0);
}

TEST_F(GdiSourceTest, EachPictureIsOfItsMoment) {
  PaintedWindow window(PLACE, pattern);
  ASSERT_TRUE(open(behind_window()));
  ASSERT_EQ(captured_until_shown(pattern), 0);
  window.show(inverse);
  EXPECT_EQ(captured_until_shown(inverse), 0);
}

TEST_F(GdiSourceTest, MovedDisplayIsFollowed) {
  const PaintedWindow window(PLACE, pattern);
  DisplayInfo display = part_of_desktop(0, 0, 2 * PLACE.width, 2 * PLACE.height);
  ASSERT_TRUE(open(display));
  display.left = PLACE.left - 30;
  display.top = PLACE.top - 20;
  source_->follow(display);
  EXPECT_EQ(captured_until_shown(pattern, 30, 20), 0);
}

TEST_F(GdiSourceTest, OpeningIsToldWithSizeAndPlace) {
  const CapturedLog log;
  ASSERT_TRUE(open(part_of_desktop(-40, 30, 320, 200)));
  EXPECT_EQ(log.count("video: GDI CPU capture 320x200 at (-40,30)"), 1);
}

TEST_F(GdiSourceTest, SizesOutOfRangeAreRefused) {
  const CapturedLog log;
  EXPECT_FALSE(open(part_of_desktop(0, 0, 0, 100)));
  EXPECT_FALSE(open(part_of_desktop(0, 0, 100, 0)));
  EXPECT_FALSE(open(part_of_desktop(0, 0, 8193, 100)));
  EXPECT_FALSE(open(part_of_desktop(0, 0, 100, 8193)));
  EXPECT_FALSE(open(part_of_desktop(0, 0, 8192, 4097))) << "more than 128 MiB";
  EXPECT_FALSE(open(part_of_desktop(0, 0, 640, 360), 641, 360)) << "an odd encoded size";
  EXPECT_EQ(log.count("GDI CPU capture"), 0);
  EXPECT_TRUE(open(part_of_desktop(0, 0, 8192, 4096)));
}

TEST_F(GdiSourceTest, WithoutObjectsOfGdisItIsNotOpen) {
  const CapturedLog log;
  for (const std::size_t left : {0, 1}) {
    const FewGdiObjectsLeft few(left);
    source_ = make_gdi_source();
    EXPECT_FALSE(open(part_of_desktop(0, 0, 320, 200))) << left;
  }
  EXPECT_EQ(log.count("GDI CPU capture"), 0);
  EXPECT_TRUE(open(part_of_desktop(0, 0, 320, 200))) << "what was taken in vain has gone back";
}

TEST_F(GdiSourceTest, PictureThatCannotBeTakenLosesTheCapture) {
  AcquiredPicture acquired;
  EXPECT_EQ(source_->acquire(0, wake_, &acquired), AcquireResult::Lost) << "there is no bitmap yet";
  EXPECT_FALSE(source_->has_picture());
  EXPECT_FALSE(source_->picture(&picture_));
}

TEST_F(GdiSourceTest, SourceGivesBackAllThatItTook) {
  const FewGdiObjectsLeft few(100);
  for (int i = 0; i < 200; ++i) {
    source_ = make_gdi_source();
    ASSERT_TRUE(open(part_of_desktop(0, 0, 16, 16))) << i;
    capture();
  }
}

}  // namespace
