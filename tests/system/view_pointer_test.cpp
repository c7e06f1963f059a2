// The pointer at the window: the host's image, drawn by the person's own desktop, or painted into
// the picture where the host says.
#include "tests/support/linux/x11_hand.h"
#include "tests/system/view_support.h"

namespace system_test {
namespace {

constexpr std::uint32_t MARK = 0xE02020;

// A square of the mark's colour whose left half is half transparent, premultiplied as X has it.
std::vector<std::uint32_t> half_clear(int size) {
  std::vector<std::uint32_t> argb;
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x) argb.push_back(x < size / 2 ? 0x80701010U : 0xFF000000U | MARK);
  return argb;
}

int farthest(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
  if (a.size() != b.size()) return 256;
  int most = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    for (const int shift : {0, 8, 16, 24})
      most = std::max(most, std::abs(static_cast<int>(a[i] >> shift & 0xFF) -
                                     static_cast<int>(b[i] >> shift & 0xFF)));
  return most;
}

class ViewPointerTest : public ViewTest {
 protected:
  void sit_and_view(int width = 1280, int height = 720) {
    sit_down(width, height);
    hand_ = std::make_unique<X11Hand>(desktop_->display());
    view();
  }
  void TearDown() override {
    hand_.reset();
    ViewTest::TearDown();
  }
  bool own_pointer_is(int size, int hot_x, int hot_y) {
    return comes_true([&] {
      const SeenCursor seen = user_->cursor();
      return seen.width == size && seen.height == size && seen.hot_x == hot_x &&
             seen.hot_y == hot_y;
    });
  }
  // A program on the host moves the pointer there, again should one of our positions, which are
  // repeated for a while, come after it.
  bool painted_when_the_host_moves_it_to(int x, int y, int mark_x, int mark_y) {
    return comes_true([&] {
      hand_->warp(x, y);
      return close_colours(user_->colour(seat_x(mark_x), seat_y(mark_y)), MARK);
    });
  }
  std::unique_ptr<X11Hand> hand_;
};

TEST_F(ViewPointerTest, OverThePictureTheOwnPointerHasTheHostsImage) {
  sit_and_view();
  user_->move(seat_x(400), seat_y(300));
  for (const int size : {16, 48}) {
    hand_->use_image(size, size, half_clear(size), size / 4, size / 2);
    ASSERT_TRUE(own_pointer_is(size, size / 4, size / 2)) << size;
    EXPECT_LE(farthest(user_->cursor().pixels, half_clear(size)), 2);
  }
  hand_->use_glyph(X11Hand::I_BEAM, 0x000000, 0xFFFFFF);
  const User host_user(desktop_->display());
  EXPECT_TRUE(comes_true([&] {
    return farthest(user_->cursor().pixels, User(desktop_->display()).cursor().pixels) == 0;
  }));
}

TEST_F(ViewPointerTest, InAScaledWindowItIsScaledWithThePicture) {
  sit_and_view(640, 400);
  user_->place(window_, 0, 0, 1280, 800);
  hand_->use_image(24, 24, half_clear(24), 4, 10);
  ASSERT_TRUE(comes_true([&] {
    user_->move(600, 400);
    return user_->colour(1270, 790) != 0;
  }));
  EXPECT_TRUE(own_pointer_is(48, 8, 20)) << user_->cursor().width;
}

TEST_F(ViewPointerTest, BesideThePictureThePointerIsThisDesktopsAgain) {
  sit_and_view();
  hand_->use_image(48, 48, half_clear(48), 0, 0);
  user_->move(seat_x(400), seat_y(300));
  ASSERT_TRUE(own_pointer_is(48, 0, 0));
  user_->move(1500, 900);
  EXPECT_TRUE(comes_true([&] { return user_->cursor().width != 48; }));
}

TEST_F(ViewPointerTest, APointerThatTheHostHidesIsHidden) {
  sit_and_view();
  user_->move(seat_x(400), seat_y(300));
  hand_->use_image(32, 32, half_clear(32), 0, 0);
  ASSERT_TRUE(own_pointer_is(32, 0, 0));
  hand_->use_image(16, 16, std::vector<std::uint32_t>(256, 0), 0, 0);
  EXPECT_TRUE(comes_true([&] {
    const SeenCursor seen = user_->cursor();
    return std::all_of(seen.pixels.begin(), seen.pixels.end(),
                       [](std::uint32_t pixel) { return pixel >> 24 == 0; });
  }));
}

TEST_F(ViewPointerTest, APointerThatTheHostHasMovedIsPaintedWhereItIs) {
  sit_and_view();
  hand_->use_image(32, 32, std::vector<std::uint32_t>(32 * 32, 0xFF000000U | MARK), 0, 0);
  user_->move(seat_x(400), seat_y(300));
  ASSERT_TRUE(own_pointer_is(32, 0, 0));
  EXPECT_TRUE(painted_when_the_host_moves_it_to(900, 500, 916, 516));
  EXPECT_TRUE(shows(GROUND, 897, 497)) << "its hot spot is its corner";
  user_->move(seat_x(410), seat_y(300));
  EXPECT_TRUE(shows(GROUND, 916, 516)) << "our motion takes it along";
}

TEST_F(ViewPointerTest, WithTheMouseElsewhereTheHostsPointerIsPainted) {
  sit_and_view();
  hand_->use_image(32, 32, std::vector<std::uint32_t>(32 * 32, 0xFF000000U | MARK), 0, 0);
  user_->move(1500, 900);
  EXPECT_TRUE(painted_when_the_host_moves_it_to(200, 100, 216, 116));
}

TEST_F(ViewPointerTest, InRelativeModeItIsPaintedAndMovesWithTheHosts) {
  sit_and_view();
  hand_->use_image(32, 32, std::vector<std::uint32_t>(32 * 32, 0xFF000000U | MARK), 0, 0);
  user_->move(seat_x(300), seat_y(300));
  user_->command('r');
  EXPECT_TRUE(shows(MARK, 316, 316));
  for (int i = 0; i < 50; ++i) user_->move_by(4, 2);
  EXPECT_TRUE(shows(MARK, 516, 416));
  EXPECT_TRUE(shows(GROUND, 316, 316));
}

}  // namespace
}  // namespace system_test
