#include "apps/client/view/overlay_font.h"

#include <gtest/gtest.h>

namespace {

class OverlayFontTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(TTF_Init(), 0) << TTF_GetError(); }
  void TearDown() override { TTF_Quit(); }

  static int advance_of(TTF_Font* font, Uint16 character) {
    int advance = 0;
    EXPECT_EQ(TTF_GlyphMetrics(font, character, nullptr, nullptr, nullptr, nullptr, &advance), 0);
    return advance;
  }
  static int width_of(TTF_Font* font, const char* text) {
    int width = 0;
    EXPECT_EQ(TTF_SizeUTF8(font, text, &width, nullptr), 0) << TTF_GetError();
    return width;
  }
};

TEST_F(OverlayFontTest, IsOneOfAFixedPitchInTheSizeThatIsAskedFor) {
  std::string error;
  const OverlayFont opened = open_overlay_font(15, &error);
  ASSERT_TRUE(opened.font) << error;
  EXPECT_NE(TTF_FontFaceIsFixedWidth(opened.font.get()), 0)
      << TTF_FontFaceFamilyName(opened.font.get());
  EXPECT_EQ(advance_of(opened.font.get(), 'i'), advance_of(opened.font.get(), 'W'));
  EXPECT_GE(TTF_FontHeight(opened.font.get()), 15);
  EXPECT_LE(TTF_FontHeight(opened.font.get()), 25);
}

// What SDL reads from goes with it, and nothing else does.
TEST_F(OverlayFontTest, PaintsWhereverItIsMovedTo) {
  std::string error;
  OverlayFont first = open_overlay_font(15, &error);
  ASSERT_TRUE(first.font) << error;
  const OverlayFont second = std::move(first);
  const SdlPtr<SDL_Surface> painted(
      TTF_RenderUTF8_Blended(second.font.get(), "rtt 2.77 ms …", {255, 255, 255, 255}));
  ASSERT_TRUE(painted) << TTF_GetError();
  EXPECT_EQ(painted->w, width_of(second.font.get(), "rtt 2.77 ms …"));
}

}  // namespace
