// The pointer of a real X server: as the capture source tells of it, and as the pipeline reports
// it.
#include "capture/linux/x11_pointer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "capture/linux/x11_source.h"
#include "capture/video.h"
#include "connection/byte_order.h"
#include "connection/clock.h"
#include "tests/capture/realtime/received.h"
#include "tests/support/cursor_images.h"
#include "tests/support/linux/x11_hand.h"
#include "tests/support/xvfb.h"

namespace {

using namespace std::chrono_literals;
using Pixels = std::vector<std::uint32_t>;

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;
constexpr std::uint32_t SOON_MS = 2'000;
constexpr std::uint32_t SETTLE_MS = 100;
constexpr std::uint64_t LOOK_US = 4'000;
constexpr std::uint64_t REPORT_US = 8'000;
constexpr std::uint32_t COLOUR = 0x102030;
constexpr std::uint32_t BACKGROUND = 0xF0E0D0;

DisplayInfo display_named(const std::string& name) {
  DisplayInfo display;
  EXPECT_TRUE(find_display(name, &display)) << name;
  return display;
}

void expect_same(const CursorBitmap& seen, const CursorBitmap& expected) {
  EXPECT_EQ(seen.width, expected.width);
  EXPECT_EQ(seen.height, expected.height);
  EXPECT_EQ(seen.hot_x, expected.hot_x);
  EXPECT_EQ(seen.hot_y, expected.hot_y);
  EXPECT_TRUE(seen.pixels == expected.pixels);
}

// ---- The source

class X11PointerTest : public testing::Test {
 protected:
  void open(const DisplayInfo& display) {
    DisplayInfo captured = display;
    ASSERT_TRUE(source_->open({display, WIDTH, HEIGHT, 60}));
    SubscribeFailure failure;
    ASSERT_TRUE(source_->subscribe(&captured, &failure));
  }
  AcquireResult acquire(std::uint32_t ms) { return source_->acquire(ms, wake_, &acquired_); }
  // Past everything that there is to tell.
  void settle() {
    MemoryPicture picture;
    for (auto result = acquire(SETTLE_MS); result != AcquireResult::TimeOut;
         result = acquire(SETTLE_MS)) {
      if (result != AcquireResult::Picture) continue;
      ASSERT_TRUE(source_->picture(&picture));
    }
  }
  PointerUpdate update() { return source_->pointer()->pointer_update(); }
  CursorBitmap shape() {
    std::vector<std::uint8_t> data(update().shape_bytes);
    PointerShape shape;
    CursorBitmap image;
    EXPECT_TRUE(source_->pointer()->read_pointer_shape(data.data(), &shape));
    EXPECT_TRUE(cursor_convert(shape.type, data.data(), shape.size, shape.width, shape.height,
                               shape.pitch, shape.hot_x, shape.hot_y, &image));
    return image;
  }

  Xvfb server_{WIDTH, HEIGHT};
  X11Hand hand_{server_.display()};
  std::unique_ptr<CaptureSource> source_ = make_x11_source();
  WakeEvent wake_{WakeEvent::Reset::Manual};
  AcquiredPicture acquired_;
};

TEST_F(X11PointerTest, FirstPictureTellsItsPlaceAndItsImage) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  hand_.move(123, 45);
  open(list_displays().at(0));
  ASSERT_EQ(acquire(0), AcquireResult::Picture);
  EXPECT_TRUE(update().moved);
  EXPECT_TRUE(update().visible);
  EXPECT_EQ(update().position, (DesktopPoint{123, 45}));
  EXPECT_EQ(update().anchor, PointerAnchor::HotPoint);
  expect_same(shape(), hand_.glyph_image(X11Hand::ARROW, COLOUR, BACKGROUND));
}

TEST_F(X11PointerTest, MotionIsToldWithoutAPicture) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  open(list_displays().at(0));
  settle();
  hand_.move(WIDTH - 1, HEIGHT - 1);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
  EXPECT_TRUE(update().moved);
  EXPECT_EQ(update().position, (DesktopPoint{WIDTH - 1, HEIGHT - 1}));
  EXPECT_EQ(update().shape_bytes, 0u);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut) << "once";
}

TEST_F(X11PointerTest, MotionAgainstTheEdgeIsNoNews) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  hand_.move(0, 0);
  open(list_displays().at(0));
  settle();
  for (int i = 1; i < 20; ++i) hand_.move(-i, -i);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut);
}

TEST_F(X11PointerTest, PointerThatAProgramMovesIsFoundByTheLookOfAPass) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  open(list_displays().at(0));
  settle();
  hand_.warp(77, 88);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut) << "no event tells of it";
  DesktopPoint point;
  ASSERT_TRUE(source_->pointer()->system_pointer(&point));
  EXPECT_EQ(point, (DesktopPoint{77, 88}));
  ASSERT_EQ(acquire(0), AcquireResult::PointerOnly);
  EXPECT_EQ(update().position, (DesktopPoint{77, 88}));
}

TEST_F(X11PointerTest, MotionWithoutPauseWakesAtMostEvery4Ms) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  open(list_displays().at(0));
  settle();
  std::atomic<bool> stop{false};
  std::thread mover([&] {
    X11Hand hand(server_.display());
    for (int i = 0; !stop; ++i) hand.move(i % WIDTH, i % HEIGHT);
    hand.move(5, 6);
  });
  const std::uint64_t begin_us = lund_now_us();
  std::uint64_t told = 0;
  while (lund_now_us() - begin_us < 500'000) {
    if (acquire(50) == AcquireResult::PointerOnly) ++told;
  }
  const std::uint64_t took_us = lund_now_us() - begin_us;
  stop = true;
  mover.join();
  EXPECT_GT(told, 0u);
  EXPECT_LE(told, took_us / LOOK_US + 1);
  for (auto result = acquire(SETTLE_MS); result == AcquireResult::PointerOnly;
       result = acquire(SETTLE_MS)) {
  }
  hand_.move(6, 6);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
  EXPECT_EQ(update().position, (DesktopPoint{6, 6}));
}

TEST_F(X11PointerTest, MotionStarvesNoPicture) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  RootPainter painter(server_.display());
  open(list_displays().at(0));
  settle();
  for (int i = 0; i < 20; ++i) {
    hand_.move(i, i);
    painter.fill(0x010101u * static_cast<unsigned>(i), 300, 200, 10, 10);
    hand_.move(i + 1, i);
    ASSERT_EQ(acquire(SOON_MS), AcquireResult::Picture) << "the picture before the pointer";
    MemoryPicture picture;
    ASSERT_TRUE(source_->picture(&picture));
  }
}

TEST_F(X11PointerTest, ImageOfAnySizeComesPixelForPixel) {
  open(list_displays().at(0));
  settle();
  for (const int side : {1, 48, 64, 256, 512}) {
    SCOPED_TRACE(side);
    // Never wholly transparent.
    Pixels pixels = side == 1 ? Pixels{0x80402010} : premultiplied_image(side);
    hand_.use_image(side, side, pixels, side / 3, side / 2);
    ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
    expect_same(shape(), straight_image(side, side, pixels, side / 3, side / 2));
  }
}

TEST_F(X11PointerTest, ImageWithoutAVisiblePixelIsAHiddenPointer) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  hand_.move(50, 60);
  open(list_displays().at(0));
  settle();
  hand_.use_image(16, 16, Pixels(256, 0), 0, 0);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
  EXPECT_TRUE(update().moved);
  EXPECT_FALSE(update().visible);
  EXPECT_EQ(update().shape_bytes, 0u);
  hand_.move(70, 80);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut) << "where it is hidden is no news";
  hand_.use_glyph(X11Hand::I_BEAM, COLOUR, BACKGROUND);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
  EXPECT_TRUE(update().visible);
  EXPECT_EQ(update().position, (DesktopPoint{70, 80}));
  expect_same(shape(), hand_.glyph_image(X11Hand::I_BEAM, COLOUR, BACKGROUND));
}

TEST_F(X11PointerTest, NewsBeforeABusyCaptureIsToldAfterIt) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  open(list_displays().at(0));
  settle();
  source_->unsubscribe();
  hand_.move(9, 9);
  DisplayInfo display;
  SubscribeFailure failure;
  ASSERT_TRUE(source_->subscribe(&display, &failure));
  bool told = false;
  for (int i = 0; i < 3 && !told; ++i) {
    ASSERT_NE(acquire(SETTLE_MS), AcquireResult::TimeOut);
    told = update().moved && update().position == DesktopPoint{9, 9};
  }
  EXPECT_TRUE(told);
}

TEST_F(X11PointerTest, KilledServerIsGoneWhileMotionWaitsForItsLook) {
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  open(list_displays().at(0));
  settle();
  hand_.move(10, 10);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
  hand_.move(11, 11);
  server_.kill();
  AcquireResult result = acquire(10'000);
  while (result == AcquireResult::PointerOnly) result = acquire(10'000);
  EXPECT_EQ(result, AcquireResult::Gone);
}

class TwoMonitorsX11PointerTest : public X11PointerTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.xrandr({"--setmonitor", "LEFT", "320/85x360/95+0+0", "screen"}));
    ASSERT_TRUE(server_.xrandr({"--setmonitor", "RIGHT", "320/85x360/95+320+0", "none"}));
    hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  }
};

TEST_F(TwoMonitorsX11PointerTest, PlaceIsFromTheMonitorsCornerAndLeavingIsToldOnce) {
  hand_.move(320, 7);
  open(display_named("RIGHT"));
  ASSERT_EQ(acquire(0), AcquireResult::Picture);
  EXPECT_TRUE(update().visible);
  EXPECT_EQ(update().position, (DesktopPoint{0, 7}));
  settle();
  hand_.move(319, 7);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
  EXPECT_FALSE(update().visible);
  for (int i = 0; i < 20; ++i) hand_.move(i * 10, i * 5);
  EXPECT_EQ(acquire(SETTLE_MS), AcquireResult::TimeOut);
  hand_.move(639, 359);
  ASSERT_EQ(acquire(SOON_MS), AcquireResult::PointerOnly);
  EXPECT_TRUE(update().visible);
  EXPECT_EQ(update().position, (DesktopPoint{319, 359}));
}

// ---- The pipeline

class PipelinePointerX11Test : public testing::Test {
 protected:
  PipelinePointerX11Test() {
    frames_.listen_to(pipeline_);
    pointer_.listen_to(pipeline_);
    hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  }
  void start(const DisplayInfo& display, int encoded_width = 0) {
    display_ = display;
    VideoSettings settings;
    settings.display = display;
    settings.width = encoded_width ? encoded_width : display.width;
    settings.height = display.height * settings.width / display.width;
    ASSERT_TRUE(pipeline_.init(settings));
    pipeline_.start();
    ASSERT_TRUE(frames_.wait_for_frames(1));
  }
  void wait_until_still() {
    for (int before = -1; before != frames_.frames();) {
      before = frames_.frames();
      std::this_thread::sleep_for(200ms);
    }
  }
  // What is reported of a pointer there.
  ReceivedPointer::Report at(int x, int y) const {
    const auto scaled = [](int v, int size) {
      return static_cast<std::uint16_t>(std::lround(v * 65535.0 / (size - 1)));
    };
    return {scaled(x - display_.left, display_.width), scaled(y - display_.top, display_.height), 1,
            0};
  }
  void move_and_wait(int x, int y) {
    hand_.move(x, y);
    ASSERT_FALSE(pointer_.take_until(at(x, y)).empty());
  }

  Xvfb server_{WIDTH, HEIGHT};
  X11Hand hand_{server_.display()};
  Received frames_;
  ReceivedPointer pointer_;
  CapturePipeline pipeline_{native_capture_platform()};
  DisplayInfo display_;
};

TEST_F(PipelinePointerX11Test, ArrowIBeamAndACustomImageOf48PixelsComePixelForPixel) {
  start(list_displays().at(0));
  expect_same(pointer_.image(1), hand_.glyph_image(X11Hand::ARROW, COLOUR, BACKGROUND));
  hand_.use_glyph(X11Hand::I_BEAM, BACKGROUND, COLOUR);
  expect_same(pointer_.image(2), hand_.glyph_image(X11Hand::I_BEAM, BACKGROUND, COLOUR));
  const Pixels pixels = premultiplied_image(48);
  hand_.use_image(48, 48, pixels, 11, 13);
  expect_same(pointer_.image(3), straight_image(48, 48, pixels, 11, 13));
}

TEST_F(PipelinePointerX11Test, ImageIsScaledWithThePicture) {
  start(list_displays().at(0), WIDTH / 2);
  ASSERT_FALSE(pointer_.image(1).pixels.empty());
  const Pixels pixels = premultiplied_image(48);
  hand_.use_image(48, 48, pixels, 11, 13);
  expect_same(pointer_.image(2), cursor_scale(straight_image(48, 48, pixels, 11, 13), 0.5));
}

TEST_F(PipelinePointerX11Test, MotionIsReportedAtMost125TimesASecondTheLastPlaceAlways) {
  start(list_displays().at(0));
  wait_until_still();
  move_and_wait(1, 1);
  const int frames = frames_.frames();
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  const std::uint64_t begin_us = lund_now_us();
  for (int i = 0; i < 1'000; ++i) {
    hand_.move(2 + i % 600, i % HEIGHT);
    std::this_thread::sleep_for(1ms);
  }
  hand_.move(WIDTH - 1, HEIGHT - 1);
  const auto reports = pointer_.take_until(at(WIDTH - 1, HEIGHT - 1));
  ASSERT_FALSE(reports.empty());
  const std::uint64_t took_us = reports.back().at_us - begin_us;
  EXPECT_LE(reports.size(), took_us / REPORT_US + 1);
  EXPECT_GT(reports.size(), 10u);
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  const auto busy_us = [](const rusage& usage) {
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1'000'000 + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
  };
  printf("1000 motions in %.0f ms: %zu reports, %.1f ms of processor with the hand's own\n",
         static_cast<double>(took_us) / 1000, reports.size(),
         static_cast<double>(busy_us(after) - busy_us(before)) / 1000);
  wait_until_still();
  EXPECT_EQ(frames_.frames(), frames) << "motion makes no frames";
}

TEST_F(PipelinePointerX11Test, EveryStepOfAHesitantHandIsReported) {
  start(list_displays().at(0));
  wait_until_still();
  for (int i = 0; i < 50; ++i) move_and_wait(100 + i, 100 - i);
}

TEST_F(PipelinePointerX11Test, PointerThatAProgramMovesIsReported) {
  start(list_displays().at(0));
  move_and_wait(1, 1);
  hand_.warp(300, 200);
  EXPECT_FALSE(pointer_.take_until(at(300, 200)).empty());
}

TEST_F(PipelinePointerX11Test, TransparentImageIsReportedAsHiddenAndSendsNoImage) {
  start(list_displays().at(0));
  move_and_wait(40, 40);
  const std::size_t images = pointer_.images();
  hand_.use_image(8, 8, Pixels(64, 0), 0, 0);
  EXPECT_EQ(pointer_.take_until_hidden().size(), 1u);
  EXPECT_EQ(pointer_.images(), images);
  hand_.use_glyph(X11Hand::ARROW, COLOUR, BACKGROUND);
  EXPECT_EQ(pointer_.take_until(at(40, 40)).size(), 1u);
}

TEST_F(PipelinePointerX11Test, RestartedServerIsToldOfAnew) {
  start(list_displays().at(0));
  move_and_wait(40, 40);
  server_.kill();
  server_.restart();
  X11Hand hand(server_.display());
  hand.use_glyph(X11Hand::I_BEAM, COLOUR, BACKGROUND);
  hand.move(200, 100);
  EXPECT_FALSE(pointer_.take_until(at(200, 100)).empty());
  EXPECT_TRUE(pointer_.wait_for_image(hand.glyph_image(X11Hand::I_BEAM, COLOUR, BACKGROUND)));
}

TEST_F(PipelinePointerX11Test, LeavingTheMonitorIsReportedOnceAndReturningOnce) {
  ASSERT_TRUE(server_.xrandr({"--setmonitor", "LEFT", "320/85x360/95+0+0", "screen"}));
  ASSERT_TRUE(server_.xrandr({"--setmonitor", "RIGHT", "320/85x360/95+320+0", "none"}));
  start(display_named("RIGHT"));
  move_and_wait(400, 100);
  for (int round = 0; round < 5; ++round) {
    hand_.move(100, 100);
    const auto left = pointer_.take_until_hidden();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_TRUE(left[0].is({at(400, 100).x, at(400, 100).y, 0, 0})) << "the last place stays";
    for (int i = 0; i < 100; ++i) {
      hand_.move(i * 3, i);
      std::this_thread::sleep_for(1ms);
    }
    hand_.move(400, 100);
    const auto returned = pointer_.take_until(at(400, 100));
    EXPECT_EQ(returned.size(), 1u) << "and none between";
  }
}

}  // namespace
