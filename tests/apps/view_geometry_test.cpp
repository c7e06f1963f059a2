#include "apps/client/view/geometry.h"

#include <gtest/gtest.h>

#include <cmath>

#include "apps/client/view/carry.h"

namespace {

// As the host places it: its first pixel at 0, its last at 65535.
int host_pixel(std::uint16_t wire, int pixels) {
  return static_cast<int>(std::lround(wire / 65535.0 * (pixels - 1)));
}

TEST(Letterbox, FillsAWindowOfTheSameAspect) {
  EXPECT_EQ(letterbox({1280, 720}, {1280, 720}), (ViewRect{0, 0, 1280, 720}));
  EXPECT_EQ(letterbox({640, 360}, {1280, 720}), (ViewRect{0, 0, 640, 360}));
  EXPECT_EQ(letterbox({2560, 1440}, {1280, 720}), (ViewRect{0, 0, 2560, 1440}));
}

TEST(Letterbox, LeavesBarsWhereTheAspectsDiffer) {
  EXPECT_EQ(letterbox({1000, 720}, {1280, 720}), (ViewRect{0, 78, 1000, 563}));
  EXPECT_EQ(letterbox({1600, 720}, {1280, 720}), (ViewRect{160, 0, 1280, 720}));
}

TEST(Letterbox, NeverGivesARectangleThatIsEmptyOrTooLarge) {
  EXPECT_EQ(letterbox({1, 1000}, {4096, 2}), (ViewRect{0, 499, 1, 1}));
  EXPECT_EQ(letterbox({0, 10}, {4, 4}), (ViewRect{}));
  EXPECT_EQ(letterbox({10, 10}, {0, 0}), (ViewRect{}));
  for (int width = 1; width < 400; width += 7) {
    const ViewRect rect = letterbox({width, 223}, {1366, 768});
    EXPECT_GE(rect.x, 0);
    EXPECT_GE(rect.y, 0);
    EXPECT_LE(rect.x + rect.width, width);
    EXPECT_LE(rect.y + rect.height, 223);
  }
}

TEST(PicturePoint, AtOneToOneEveryPixelIsItself) {
  const ViewSize picture{1920, 1080};
  const ViewRect shown = letterbox(picture, picture);
  for (int x = 0; x < 1920; ++x) {
    const auto point = to_picture(shown, picture, x, 500, false);
    ASSERT_TRUE(point);
    EXPECT_EQ(host_pixel(point->x, 1920), x);
    EXPECT_EQ(from_picture(shown, picture, *point), (ViewPoint{x, 500}));
  }
}

TEST(PicturePoint, AnEnlargedPictureMeansThePixelThatIsSeen) {
  const ViewSize picture{200, 100};
  for (const int factor : {2, 3, 5}) {
    const ViewRect shown = letterbox({200 * factor, 100 * factor + 40}, picture);
    for (int x = 0; x < 200 * factor; ++x) {
      const auto point = to_picture(shown, picture, x, shown.y, false);
      ASSERT_TRUE(point);
      EXPECT_EQ(host_pixel(point->x, 200), x / factor) << "factor " << factor;
    }
  }
}

TEST(PicturePoint, AReducedPictureReachesBothEdges) {
  const ViewSize picture{1920, 1080};
  const ViewRect shown = letterbox({480, 270}, picture);
  EXPECT_LE(host_pixel(to_picture(shown, picture, 0, 0, false)->x, 1920), 2);
  EXPECT_GE(host_pixel(to_picture(shown, picture, 479, 0, false)->x, 1920), 1917);
}

TEST(PicturePoint, OutsideNothingIsMeantUnlessAButtonIsHeld) {
  const ViewSize picture{1280, 720};
  const ViewRect shown = letterbox({1600, 720}, picture);
  EXPECT_FALSE(to_picture(shown, picture, 159, 10, false));
  EXPECT_TRUE(to_picture(shown, picture, 160, 10, false));
  EXPECT_TRUE(to_picture(shown, picture, 1439, 719, false));
  EXPECT_FALSE(to_picture(shown, picture, 1440, 10, false));
  EXPECT_EQ(to_picture(shown, picture, -300, 5000, true), (WirePoint{0, 65535}));
  EXPECT_EQ(to_picture(shown, picture, 5000, -1, true), (WirePoint{65535, 0}));
}

TEST(PicturePoint, WithoutAPictureNothingIsMeant) {
  EXPECT_FALSE(to_picture({}, {}, 5, 5, true));
  EXPECT_FALSE(to_picture(letterbox({10, 10}, {}), {}, 5, 5, true));
}

TEST(PicturePoint, APictureOfOnePixelHasOnePoint) {
  const ViewRect shown = letterbox({10, 10}, {1, 1});
  EXPECT_EQ(to_picture(shown, {1, 1}, 9, 9, false), (WirePoint{0, 0}));
}

TEST(ViewScale, IsWindowPixelsPerPicturePixel) {
  EXPECT_DOUBLE_EQ(view_scale(letterbox({640, 360}, {1280, 720}), {1280, 720}), 0.5);
  EXPECT_DOUBLE_EQ(view_scale({}, {1280, 720}), 1.0);
}

TEST(Carry, FractionsAddUpToWholeSteps) {
  Carry carry;
  int sum = 0;
  for (int i = 0; i < 1000; ++i) sum += carry.take(0.25);
  EXPECT_EQ(sum, 250);
  for (int i = 0; i < 1000; ++i) sum += carry.take(-0.25);
  EXPECT_EQ(sum, 0);
}

TEST(Carry, WholeStepsPassAtOnceInBothDirections) {
  Carry carry;
  EXPECT_EQ(carry.take(120), 120);
  EXPECT_EQ(carry.take(-120), -120);
  EXPECT_EQ(carry.take(0.5), 0);
  carry.clear();
  EXPECT_EQ(carry.take(0.5), 0);
}

}  // namespace
