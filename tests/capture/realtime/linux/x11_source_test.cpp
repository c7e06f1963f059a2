#include "capture/linux/x11_source.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "connection/clock.h"
#include "tests/support/xvfb.h"

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;
constexpr std::uint32_t SOON_MS = 2000;
constexpr std::uint32_t SETTLE_MS = 100;

DisplayInfo display_named(const std::string& name) {
  DisplayInfo display;
  EXPECT_TRUE(find_display(name, &display)) << name;
  return display;
}

std::uint32_t pixel(const MemoryPicture& picture, int x, int y) {
  const std::uint8_t* p = picture.bgra + std::ptrdiff_t{y} * picture.stride + x * 4;
  return static_cast<std::uint32_t>(p[2] << 16 | p[1] << 8 | p[0]);
}

// A source that is open and subscribed, past its first picture.
class X11SourceTest : public testing::Test {
 protected:
  void open(const DisplayInfo& display) {
    display_ = display;
    ASSERT_TRUE(source_->open({display, WIDTH, HEIGHT, 60}));
    SubscribeFailure failure;
    ASSERT_TRUE(source_->subscribe(&display_, &failure));
  }
  AcquireResult acquire(std::uint32_t ms) { return source_->acquire(ms, wake_, &acquired_); }
  // Takes and fetches pictures until nothing changes any more.
  void settle() {
    while (acquire(SETTLE_MS) == AcquireResult::Picture) {
      source_->hold();
      ASSERT_TRUE(source_->picture(&picture_));
    }
  }

  Xvfb server_{WIDTH, HEIGHT};
  RootPainter painter_{server_.display()};
  std::unique_ptr<CaptureSource> source_ = make_x11_source();
  WakeEvent wake_{WakeEvent::Reset::Manual};
  DisplayInfo display_;
  AcquiredPicture acquired_;
  MemoryPicture picture_;
};

TEST_F(X11SourceTest, ScreenIsListedWithItsSize) {
  const auto displays = list_displays();
  ASSERT_EQ(displays.size(), 1u);
  EXPECT_EQ(displays[0].width, WIDTH);
  EXPECT_EQ(displays[0].height, HEIGHT);
  EXPECT_FALSE(displays[0].has_adapter);
  EXPECT_EQ(display_obstacle(), "");
}

TEST_F(X11SourceTest, FirstAcquireDeliversTheScreenAtOnce) {
  painter_.fill(0x123456, 0, 0, WIDTH, HEIGHT);
  open(list_displays().at(0));
  EXPECT_EQ(acquire(0), AcquireResult::Picture);
  EXPECT_EQ(acquired_.width, WIDTH);
  EXPECT_EQ(acquired_.height, HEIGHT);
  source_->hold();
  ASSERT_TRUE(source_->picture(&picture_));
  EXPECT_EQ(pixel(picture_, 0, 0), 0x123456u);
  EXPECT_EQ(pixel(picture_, WIDTH - 1, HEIGHT - 1), 0x123456u);
}

TEST_F(X11SourceTest, ChangeIsReportedOnceAndIsInThePicture) {
  open(list_displays().at(0));
  settle();
  painter_.fill(0xFF0000, 10, 20, 30, 40);
  painter_.fill(0x00FF00, 50, 60, 5, 5);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::Picture);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut) << "a second report before the fetch";
  ASSERT_TRUE(source_->picture(&picture_));
  EXPECT_EQ(pixel(picture_, 10, 20), 0xFF0000u);
  EXPECT_EQ(pixel(picture_, 54, 64), 0x00FF00u);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut) << "what was fetched is reported again";
  painter_.fill(0x0000FF, 10, 20, 30, 40);
  EXPECT_EQ(acquire(SOON_MS), AcquireResult::Picture) << "the same area changed after the fetch";
}

TEST_F(X11SourceTest, SetWakeUpCutsTheWaitShort) {
  open(list_displays().at(0));
  settle();
  const std::uint64_t begin_us = lund_now_us();
  std::thread waker([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    wake_.set();
  });
  EXPECT_EQ(acquire(10'000), AcquireResult::TimeOut);
  waker.join();
  EXPECT_LT(lund_now_us() - begin_us, 5'000'000u);
}

TEST_F(X11SourceTest, KilledServerIsGoneAndEndsTheWaitAtOnce) {
  open(list_displays().at(0));
  settle();
  const std::uint64_t begin_us = lund_now_us();
  std::thread killer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    server_.kill();
  });
  EXPECT_EQ(acquire(10'000), AcquireResult::Gone);
  killer.join();
  EXPECT_LT(lund_now_us() - begin_us, 5'000'000u);
  EXPECT_NE(display_obstacle(), "");
}

TEST_F(X11SourceTest, KilledServerIsNoticedWhileAChangeWaitsForItsFetch) {
  open(list_displays().at(0));
  settle();
  painter_.fill(0xFF0000, 0, 0, 10, 10);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::Picture);
  server_.kill();
  EXPECT_EQ(acquire(10'000), AcquireResult::Gone);
}

TEST_F(X11SourceTest, KilledServerIsNeitherSubscribedToNorOpened) {
  open(list_displays().at(0));
  settle();
  const auto other = make_x11_source();  // connected, and not yet opened
  server_.kill();
  EXPECT_EQ(acquire(10'000), AcquireResult::Gone);
  SubscribeFailure failure;
  EXPECT_FALSE(source_->subscribe(&display_, &failure));
  EXPECT_FALSE(other->open({display_, WIDTH, HEIGHT, 60}));
}

TEST_F(X11SourceTest, ScreenOfAnotherSizeIsLost) {
  open(list_displays().at(0));
  settle();
  ASSERT_TRUE(server_.resize(320, 200));
  EXPECT_EQ(acquire(SOON_MS), AcquireResult::Lost);
}

TEST_F(X11SourceTest, UnknownMonitorCannotBeOpened) {
  DisplayInfo display;
  display.device = "elsewhere";
  EXPECT_FALSE(source_->open({display, WIDTH, HEIGHT, 60}));
}

TEST_F(X11SourceTest, MovedMonitorOfTheSameNameIsLost) {
  ASSERT_TRUE(server_.xrandr({"--setmonitor", "PART", "320/85x360/95+0+0", "none"}));
  open(display_named("PART"));
  settle();
  ASSERT_TRUE(server_.xrandr({"--delmonitor", "PART"}));
  ASSERT_TRUE(server_.xrandr({"--setmonitor", "PART", "320/85x360/95+100+0", "none"}));
  EXPECT_EQ(acquire(SOON_MS), AcquireResult::Lost);
}

TEST_F(X11SourceTest, SubscribingAnewDeliversAPictureAtOnce) {
  open(list_displays().at(0));
  settle();
  source_->unsubscribe();
  EXPECT_FALSE(source_->subscribed());
  SubscribeFailure failure;
  ASSERT_TRUE(source_->subscribe(&display_, &failure));
  EXPECT_EQ(acquire(0), AcquireResult::Picture);
}

TEST_F(X11SourceTest, WaylandSessionIsRefusedByName) {
  // What the X server of a Wayland compositor calls its outputs.
  ASSERT_TRUE(server_.xrandr({"--setmonitor", "XWAYLAND0", "640/170x360/95+0+0", "none"}));
  EXPECT_NE(display_obstacle().find("Wayland"), std::string::npos);
  EXPECT_TRUE(list_displays().empty());
  DisplayInfo display;
  display.device = "XWAYLAND0";
  EXPECT_FALSE(source_->open({display, WIDTH, HEIGHT, 60}));
}

TEST_F(X11SourceTest, VirtualDesktopIsTheWholeScreen) {
  EXPECT_EQ(virtual_desktop_rect(), (DesktopRect{0, 0, WIDTH, HEIGHT}));
}

TEST_F(X11SourceTest, DesktopIsTheSameWhileTheServerLives) {
  const auto desktop = make_x11_desktop();
  EXPECT_FALSE(desktop->matches());
  ASSERT_EQ(desktop->look(), InputDesktop::Look::Other);
  ASSERT_TRUE(desktop->enter());
  EXPECT_EQ(desktop->name(), server_.display());
  EXPECT_EQ(desktop->look(), InputDesktop::Look::Same);
  EXPECT_TRUE(desktop->matches());
  server_.kill();
  EXPECT_EQ(desktop->look(), InputDesktop::Look::Unreachable);
  EXPECT_FALSE(desktop->matches());
  server_.restart();
  EXPECT_EQ(desktop->look(), InputDesktop::Look::Other);
}

TEST(X11Screen, Of16BitsAPixelIsRefused) {
  const Xvfb server(WIDTH, HEIGHT, 16);
  EXPECT_FALSE(make_x11_source()->open({list_displays().at(0), WIDTH, HEIGHT, 60}));
}

class NoXServer : public testing::Test {
 protected:
  void SetUp() override {
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
  }
  void TearDown() override { SetUp(); }
};

TEST_F(NoXServer, MissingDisplayIsNamed) {
  EXPECT_EQ(display_obstacle(), "DISPLAY is not set: there is no X display to capture");
  EXPECT_TRUE(list_displays().empty());
}

TEST_F(NoXServer, WaylandWithoutXIsNamed) {
  setenv("WAYLAND_DISPLAY", "wayland-0", 1);
  EXPECT_NE(display_obstacle().find("Wayland"), std::string::npos);
}

TEST_F(NoXServer, UnreachableDisplayIsNamed) {
  setenv("DISPLAY", ":60123", 1);
  EXPECT_EQ(display_obstacle(), "cannot connect to the X display :60123");
  DisplayInfo display;
  EXPECT_FALSE(find_display("screen", &display));
  EXPECT_EQ(virtual_desktop_rect(), DesktopRect{});
  EXPECT_FALSE(make_x11_source()->open({display, WIDTH, HEIGHT, 60}));
}

// Two monitors side by side, as a person sets them up on one screen.
class TwoX11MonitorsTest : public X11SourceTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.xrandr({"--setmonitor", "LEFT", "320/85x360/95+0+0", "screen"}));
    ASSERT_TRUE(server_.xrandr({"--setmonitor", "RIGHT", "320/85x360/95+320+0", "none"}));
  }
};

TEST_F(TwoX11MonitorsTest, BothAreListedWithTheirRectangles) {
  EXPECT_EQ(display_named("right").left, 320);
  EXPECT_EQ(display_named("RIGHT").right, 640);
  EXPECT_EQ(display_named("LEFT").width, 320);
}

TEST_F(TwoX11MonitorsTest, OneIsCapturedAndTheOthersChangesAreNoPictures) {
  painter_.fill(0x101010, 0, 0, 320, HEIGHT);
  painter_.fill(0x202020, 320, 0, 320, HEIGHT);
  open(display_named("RIGHT"));
  settle();
  EXPECT_EQ(acquired_.width, 320);
  EXPECT_EQ(pixel(picture_, 0, 0), 0x202020u);
  painter_.fill(0xFF0000, 0, 0, 320, HEIGHT);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut);
  painter_.fill(0x0000FF, 319, 5, 2, 1);
  EXPECT_EQ(acquire(SOON_MS), AcquireResult::Picture);
  ASSERT_TRUE(source_->picture(&picture_));
  EXPECT_EQ(pixel(picture_, 0, 5), 0x0000FFu);
  EXPECT_EQ(pixel(picture_, 1, 5), 0x202020u);
}

TEST_F(TwoX11MonitorsTest, RemovedMonitorIsLost) {
  open(display_named("RIGHT"));
  settle();
  ASSERT_TRUE(server_.xrandr({"--delmonitor", "RIGHT"}));
  EXPECT_EQ(acquire(SOON_MS), AcquireResult::Lost);
}

}  // namespace
