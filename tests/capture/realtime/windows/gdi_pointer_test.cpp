// The session's pointer, and cursors of this process's own: no other's can be opened under Wine.
#include "capture/windows/gdi_pointer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "connection/byte_order.h"
#include "tests/support/windows/few_gdi_objects.h"
#include "tests/support/windows/painted_window.h"
#include "tests/support/windows/test_cursor.h"

namespace {

using namespace std::chrono_literals;

std::uintptr_t number(const CursorHandle& cursor) {
  return reinterpret_cast<std::uintptr_t>(cursor.get());
}

std::uint32_t pixel(const CursorBitmap& image, int x, int y) {
  return load_le<std::uint32_t>(
      &image.pixels.at(static_cast<std::size_t>(y * image.width + x) * 4));
}

class GdiPointerTest : public testing::Test {
 protected:
  // The image of a cursor as a client is to see it; nothing if it is ignored.
  CursorBitmap image_of(const CursorHandle& cursor) {
    const auto icon = pointer_.open_cursor(number(cursor));
    CursorBitmap image;
    if (!icon || !convert_icon(*icon, &image)) return {};
    return image;
  }
  bool wait_until(const std::function<bool(const CursorState&)>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    do {
      state_ = {};
      EXPECT_TRUE(pointer_.cursor_state(&state_));
      if (holds(state_)) return true;
      std::this_thread::sleep_for(5ms);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
  }

  GdiPointer pointer_;
  CursorState state_;
};

TEST_F(GdiPointerTest, PositionIsTheSystemsOnTheVirtualDesktop) {
  for (const DesktopPoint& place : {DesktopPoint{200, 300}, {0, 0}, {1279, 719}}) {
    ASSERT_TRUE(SetCursorPos(place.x, place.y));
    DesktopPoint seen;
    ASSERT_TRUE(pointer_.system_pointer(&seen));
    EXPECT_EQ(seen, place);
    ASSERT_TRUE(pointer_.cursor_state(&state_));
    EXPECT_EQ(state_.position, place);
  }
}

TEST_F(GdiPointerTest, CursorOfTheWindowThatHasTheInputIsToldByItsHandle) {
  PaintedWindow window({100, 100, 64, 64}, [](int, int) { return 0x808080u; });
  const CursorHandle first = colour_cursor(4, 4, std::vector<std::uint32_t>(16, 0xFF102030), 0, 0);
  const CursorHandle second = colour_cursor(4, 4, std::vector<std::uint32_t>(16, 0xFF405060), 0, 0);
  ASSERT_TRUE(SetCursorPos(120, 120));
  window.take_input_with(first.get());
  EXPECT_TRUE(wait_until([&](const CursorState& s) { return s.handle == number(first); }));
  EXPECT_TRUE(state_.visible);
  window.take_input_with(second.get());
  EXPECT_TRUE(wait_until([&](const CursorState& s) { return s.handle == number(second); }));
  window.take_input_with(nullptr);
  EXPECT_TRUE(wait_until([&](const CursorState& s) { return s.handle == 0; }));
}

TEST_F(GdiPointerTest, ColourCursorKeepsItsPixelsAlphaAndHotSpot) {
  const std::vector<std::uint32_t> pixels = {0xFF0000FF, 0x8000FF00, 0x40FF0000,
                                             0x00000000, 0xFFFFFFFF, 0x01020304};
  const CursorBitmap image = image_of(colour_cursor(3, 2, pixels, 2, 1));
  ASSERT_EQ(image.width, 3);
  ASSERT_EQ(image.height, 2);
  EXPECT_EQ(image.hot_x, 2);
  EXPECT_EQ(image.hot_y, 1);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(pixel(image, i % 3, i / 3), pixels[static_cast<std::size_t>(i)]) << i;
}

TEST_F(GdiPointerTest, ColourCursorWithoutAlphaTakesItFromItsMask) {
  // Two rows of 40 pixels: a mask whose rows are longer than 32 bits.
  std::vector<std::uint32_t> pixels(80, 0x00336699);
  std::vector<std::uint8_t> mask(12, 0x00);  // rows of 16-bit words
  mask[0] = 0x80;                            // pixel 0 of row 0 shows through
  mask[6 + 4] = 0x01;                        // pixel 39 of row 1
  const CursorBitmap image = image_of(colour_cursor(40, 2, pixels, 0, 0, mask));
  ASSERT_EQ(image.width, 40);
  EXPECT_EQ(pixel(image, 0, 0) >> 24, 0u);
  EXPECT_EQ(pixel(image, 1, 0), 0xFF336699u);
  EXPECT_EQ(pixel(image, 0, 1), 0xFF336699u);
  EXPECT_EQ(pixel(image, 39, 1) >> 24, 0u);
}

TEST_F(GdiPointerTest, MonochromeCursorHasItsFourKindsOfPixels) {
  // Columns: black, white, transparent, inverting; far apart, as an inverting one has an outline.
  const std::vector<std::uint8_t> and_mask = {0x3F, 0xFF, 0xFF, 0xFF};
  const std::vector<std::uint8_t> xor_mask = {0x40, 0x00, 0x01, 0x00};
  const CursorBitmap image = image_of(monochrome_cursor(32, 1, and_mask, xor_mask, 1, 0));
  ASSERT_EQ(image.width, 32);
  ASSERT_EQ(image.height, 1);
  EXPECT_EQ(image.hot_x, 1);
  EXPECT_EQ(pixel(image, 0, 0), 0xFF000000u);
  EXPECT_EQ(pixel(image, 1, 0), 0xFFFFFFFFu);
  EXPECT_EQ(pixel(image, 2, 0), 0u);
  EXPECT_EQ(pixel(image, 22, 0), 0xFFFFFFFFu) << "the outline";
  EXPECT_EQ(pixel(image, 23, 0), 0xFF000000u);
  EXPECT_EQ(pixel(image, 24, 0), 0xFFFFFFFFu) << "the outline";
  EXPECT_EQ(pixel(image, 25, 0), 0u);
}

TEST_F(GdiPointerTest, SystemsOwnCursorsHaveImages) {
  for (const wchar_t* name : {IDC_ARROW, IDC_IBEAM, IDC_HAND, IDC_SIZENWSE}) {
    const auto icon =
        pointer_.open_cursor(reinterpret_cast<std::uintptr_t>(LoadCursorW(nullptr, name)));
    ASSERT_NE(icon, nullptr);
    CursorBitmap image;
    EXPECT_TRUE(convert_icon(*icon, &image));
    int visible = 0;
    for (std::size_t i = 3; i < image.pixels.size(); i += 4) visible += image.pixels[i] != 0;
    EXPECT_GT(visible, 10);
  }
}

TEST_F(GdiPointerTest, CursorOf300PixelsIsIgnored) {
  const std::vector<std::uint32_t> pixels(300 * 300, 0xFF123456);
  EXPECT_TRUE(image_of(colour_cursor(300, 300, pixels, 0, 0)).pixels.empty());
}

TEST_F(GdiPointerTest, CursorThatIsNoneOpensNothing) {
  EXPECT_EQ(pointer_.open_cursor(0x12345678), nullptr);
}

TEST_F(GdiPointerTest, OpenedCursorsAreGivenBack) {
  const CursorHandle cursor = colour_cursor(4, 4, std::vector<std::uint32_t>(16, 0xFF102030), 0, 0);
  const FewGdiObjectsLeft few(100);
  for (int i = 0; i < 200; ++i) {
    ASSERT_FALSE(image_of(cursor).pixels.empty()) << i;
  }
}

}  // namespace
