// The host's pointer at the client: its image, its place, and whether it is on the screen at all.
#include <gmock/gmock.h>
#include <png.h>

#include <cmath>
#include <cstdio>

#include "tests/support/cursor_images.h"
#include "tests/support/linux/x11_hand.h"
#include "tests/system/desk_support.h"

namespace system_test {
namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 400;
constexpr std::uint32_t COLOUR = 0x102030;
constexpr std::uint32_t BACKGROUND = 0xF0E0D0;

int scaled(int at, int size) {
  return static_cast<int>(std::lround(at * 65535.0 / (size - 1)));
}

class PointerTest : public DeskTest {
 protected:
  void TearDown() override {
    user_.reset();
    x_hand_.reset();
    DeskTest::TearDown();
  }
  void take_desktop() {
    x_hand_ = std::make_unique<X11Hand>(desktop_->display());
    user_ = std::make_unique<User>(desktop_->display());
    x_hand_->use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  }
  void prepare_pointer() {
    prepare(WIDTH, HEIGHT);
    take_desktop();
  }

  // What the X server shows at this moment, with straight alpha.
  CursorBitmap servers_image() {
    const SeenCursor seen = user_->cursor();
    return straight_image(seen.width, seen.height, seen.pixels, seen.hot_x, seen.hot_y);
  }
  // The id names its size, its hot spot and every pixel.
  std::string servers_image_id() {
    char text[16];
    std::snprintf(text, sizeof text, "image %08x", cursor_hash(servers_image()));
    return text;
  }
  // What the client has left of it: picture and report.
  CursorBitmap clients_image() {
    CursorBitmap bitmap;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    const auto path = out() / "cursor.png";
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
      ADD_FAILURE() << "cannot read " << path << ": " << image.message;
      return bitmap;
    }
    image.format = PNG_FORMAT_BGRA;
    bitmap.pixels.resize(PNG_IMAGE_SIZE(image));
    EXPECT_TRUE(png_image_finish_read(&image, nullptr, bitmap.pixels.data(), 0, nullptr));
    bitmap.width = static_cast<int>(image.width);
    bitmap.height = static_cast<int>(image.height);
    const nlohmann::json said = report()["pointer"]["image"];
    EXPECT_EQ(said["width"], bitmap.width);
    EXPECT_EQ(said["height"], bitmap.height);
    bitmap.hot_x = said["hot_x"];
    bitmap.hot_y = said["hot_y"];
    EXPECT_EQ(said["id"], cursor_hash(bitmap));
    return bitmap;
  }
  static void expect_same(const CursorBitmap& clients, const CursorBitmap& expected) {
    EXPECT_EQ(clients.width, expected.width);
    EXPECT_EQ(clients.height, expected.height);
    EXPECT_EQ(clients.hot_x, expected.hot_x);
    EXPECT_EQ(clients.hot_y, expected.hot_y);
    EXPECT_TRUE(clients.pixels == expected.pixels);
  }
  void expect_the_servers_image_at_the_client() {
    connect({});
    expect_same(clients_image(), servers_image());
  }

  // How the client's hand tells of a pointer there.
  static std::string place(int x, int y, int width, int height) {
    return std::to_string(scaled(x, width)) + "," + std::to_string(scaled(y, height));
  }
  static std::string told(int screen, int x, int y, int width, int height) {
    return "screen " + std::to_string(screen) + " pointer " + place(x, y, width, height) + " shown";
  }

  std::unique_ptr<X11Hand> x_hand_;
  std::unique_ptr<User> user_;
};

// ---- Its image

TEST_F(PointerTest, ArrowAtTheClientIsTheServersPixelForPixel) {
  prepare_pointer();
  expect_the_servers_image_at_the_client();
  expect_same(clients_image(), x_hand_->glyph_image(X11Hand::ARROW, COLOUR, BACKGROUND));
}

TEST_F(PointerTest, IBeamAtTheClientIsTheServersPixelForPixel) {
  prepare_pointer();
  x_hand_->use_glyph(X11Hand::I_BEAM, BACKGROUND, COLOUR);
  expect_the_servers_image_at_the_client();
  expect_same(clients_image(), x_hand_->glyph_image(X11Hand::I_BEAM, BACKGROUND, COLOUR));
}

TEST_F(PointerTest, ImageOf48PixelsWithEveryAlphaIsTheServersPixelForPixel) {
  prepare_pointer();
  x_hand_->use_image(48, 48, premultiplied_image(48), 11, 13);
  expect_the_servers_image_at_the_client();
  expect_same(clients_image(), straight_image(48, 48, premultiplied_image(48), 11, 13));
}

TEST_F(PointerTest, ImageIsAsLargeAsThePictureMakesIt) {
  prepare_pointer();
  x_hand_->use_image(48, 48, premultiplied_image(48), 11, 13);
  connect({"--width", std::to_string(WIDTH / 2)});
  const CursorBitmap image = clients_image();
  EXPECT_EQ(image.width, 24);
  EXPECT_EQ(image.height, 24);
  expect_same(image, cursor_scale(servers_image(), 0.5));
}

TEST_F(PointerTest, EachNewImageReachesAClientThatStays) {
  prepare_pointer();
  ClientHand& hand = start_hand();
  const auto arrives = [&] {
    return hand.says("has " + servers_image_id()) && hand.says(servers_image_id());
  };
  EXPECT_TRUE(arrives()) << "the arrow";
  x_hand_->use_glyph(X11Hand::I_BEAM, COLOUR, BACKGROUND);
  EXPECT_TRUE(arrives()) << "the I-beam";
  x_hand_->use_image(48, 48, premultiplied_image(48), 47, 0);
  EXPECT_TRUE(arrives()) << "48 pixels";
  x_hand_->use_image(256, 256, premultiplied_image(256), 0, 255);
  EXPECT_TRUE(arrives()) << "256 pixels, in many packets";
  x_hand_->use_glyph(X11Hand::I_BEAM, COLOUR, BACKGROUND);
  EXPECT_TRUE(hand.says(servers_image_id())) << "one that it knows is named, not sent again";
  EXPECT_EQ(hand.count("screen 0 has image"), 4U);
}

// ---- Its place

TEST_F(PointerTest, PlaceAtTheClientIsThePointersOn16Bits) {
  prepare_pointer();
  ClientHand& hand = start_hand();
  const int places[][2] = {{0, 0}, {WIDTH - 1, 0}, {0, HEIGHT - 1}, {WIDTH - 1, HEIGHT - 1},
                           {1, 1}, {320, 200},     {123, 45},       {WIDTH - 2, HEIGHT - 2}};
  for (const auto& [x, y] : places) {
    x_hand_->move(x, y);
    EXPECT_TRUE(hand.says(told(0, x, y, WIDTH, HEIGHT))) << x << "," << y;
  }
  x_hand_->warp(77, 88);
  EXPECT_TRUE(hand.says(told(0, 77, 88, WIDTH, HEIGHT))) << "a program has moved it";
}

TEST_F(PointerTest, ReportHasItsLastPlace) {
  prepare_pointer();
  x_hand_->move(123, 45);
  connect({});
  const nlohmann::json said = report()["pointer"];
  EXPECT_EQ(said["x"], scaled(123, WIDTH));
  EXPECT_EQ(said["y"], scaled(45, HEIGHT));
  EXPECT_EQ(said["visible"], true);
}

TEST_F(PointerTest, PlaceInAScaledStreamIsOnTheSameScale) {
  prepare_pointer();
  ClientHand& hand = start_hand(1, WIDTH / 2);
  x_hand_->move(WIDTH - 1, HEIGHT - 1);
  EXPECT_TRUE(hand.says(told(0, WIDTH - 1, HEIGHT - 1, WIDTH, HEIGHT)));
  x_hand_->move(100, 101);
  EXPECT_TRUE(hand.says(told(0, 100, 101, WIDTH, HEIGHT)));
}

TEST_F(PointerTest, LeavingToTheSecondMonitorIsToldOnceAndReturningOnce) {
  start_desktop(WIDTH * 2, HEIGHT);
  set_monitors({{"LEFT", 0, 0, WIDTH, HEIGHT}, {"RIGHT", WIDTH, 0, WIDTH, HEIGHT}});
  serve();
  take_desktop();
  x_hand_->move(600, 100);
  ClientHand& hand = start_hand(2);
  EXPECT_TRUE(hand.says(told(0, 600, 100, WIDTH, HEIGHT)));
  const std::size_t shown = hand.count("screen 0 pointer", "shown");
  const std::size_t hidden = hand.count("screen 0 pointer", "hidden");
  // About the second monitor, each step seen there, so that the first had time to tell of it.
  for (int step = 0; step < 20; ++step) {
    x_hand_->move(WIDTH + step * 10, 100 + step);
    EXPECT_TRUE(hand.says(told(1, step * 10, 100 + step, WIDTH, HEIGHT))) << step;
  }
  x_hand_->move(500, 100);
  EXPECT_TRUE(hand.has_said(told(0, 500, 100, WIDTH, HEIGHT)));
  EXPECT_EQ(hand.count("screen 0 pointer", "hidden"), hidden + 1);
  EXPECT_EQ(hand.count("screen 0 pointer", "shown"), shown + 1);
  EXPECT_TRUE(hand.has_said("screen 1 pointer " + place(190, 119, WIDTH, HEIGHT) + " hidden"));
}

TEST_F(PointerTest, RestartedXServersPointerIsToldOfAnew) {
  prepare_pointer();
  ClientHand& hand = start_hand();
  x_hand_->move(40, 30);
  ASSERT_TRUE(hand.says(told(0, 40, 30, WIDTH, HEIGHT)));
  x_hand_.reset();
  user_.reset();
  painter_.reset();
  desktop_->kill();
  desktop_->restart();
  take_desktop();
  x_hand_->use_image(48, 48, premultiplied_image(48), 11, 13);
  x_hand_->move(200, 100);
  EXPECT_TRUE(hand.has_said(told(0, 200, 100, WIDTH, HEIGHT)));
  EXPECT_TRUE(hand.has_said("has " + servers_image_id()));
  EXPECT_EQ(hand.leave(), 0);
  EXPECT_EQ(stop_host(), 0);
}

}  // namespace
}  // namespace system_test
