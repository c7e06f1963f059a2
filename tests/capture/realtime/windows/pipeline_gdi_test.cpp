// The whole chain on the desktop that the tests run on: the GPU's way is tried and found wanting,
// GDI captures, the real encoder encodes on the real thread.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "capture/source.h"
#include "capture/video.h"
#include "media/cpu_codec.h"
#include "tests/capture/realtime/h264_decoder.h"
#include "tests/capture/realtime/received.h"
#include "tests/support/captured_log.h"
#include "tests/support/windows/display_mode.h"
#include "tests/support/windows/painted_window.h"
#include "tests/support/windows/test_cursor.h"

namespace {

using namespace std::chrono_literals;

constexpr PaintedWindow::Place PLACE{320, 160, 640, 320};

// Four patches across, two down, each large enough for a block of the encoder's.
constexpr Colour PATCHES[] = {{255, 255, 255}, {0, 0, 0},       {255, 0, 0},    {0, 255, 0},
                              {0, 0, 255},     {128, 128, 128}, {200, 100, 50}, {20, 180, 220}};
std::uint32_t patches(int x, int y) {
  const Colour& c = PATCHES[y * 2 / PLACE.height * 4 + x * 4 / PLACE.width];
  return static_cast<std::uint32_t>(c.r << 16 | c.g << 8 | c.b);
}

std::uint16_t normalised(int at, int size) {
  return static_cast<std::uint16_t>(std::lround(at * 65535.0 / (size - 1)));
}

class PipelineGdiTest : public testing::Test {
 protected:
  PipelineGdiTest() {
    received_.listen_to(pipeline_);
    pointer_.listen_to(pipeline_);
  }
  bool init() {
    EXPECT_TRUE(select_display("", &display_));
    VideoSettings settings;
    settings.display = display_;
    settings.width = display_.width;
    settings.height = display_.height;
    return pipeline_.init(settings);
  }

  DisplayInfo display_;
  Received received_;
  ReceivedPointer pointer_;
  CapturePipeline pipeline_{native_capture_platform()};
};

TEST_F(PipelineGdiTest, FirstFrameIsAKeyframeAndFramesGoOn) {
  ASSERT_TRUE(init());
  EXPECT_EQ(pipeline_.encoder_name(), "libopenh264");
  EXPECT_EQ(pipeline_.capture_backend(), "GDI CPU");
  EXPECT_FALSE(pipeline_.encoder_is_hevc());
  EXPECT_EQ(received_.frames(), 0) << "nothing before start";
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  EXPECT_EQ(received_.keyframes(), 1);
  EXPECT_TRUE(received_.wait_for_frames(5)) << "GDI tells of no changes: it is always captured";
  EXPECT_EQ(received_.keyframes(), 1);
  pipeline_.request_keyframe();
  EXPECT_TRUE(received_.wait_for_keyframes(2));
  const CapturedLog log;
  pipeline_.set_bitrate(5000);
  EXPECT_TRUE(received_.wait_for_keyframes(3));
  pipeline_.stop();
  EXPECT_EQ(log.count("video: bitrate -> 5000 kbps (reopening libopenh264)"), 1);
  EXPECT_EQ(received_.fatal(), "");
}

TEST_F(PipelineGdiTest, StreamShowsTheDesktopsColours) {
  constexpr int LEVELS = 6;  // what coding may change a flat colour by
  const PaintedWindow window(PLACE, patches);
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(3));  // past the window's way to the screen
  int worst = 256;
  for (int round = 0; round < 20 && worst > LEVELS; ++round) {
    pipeline_.request_keyframe();
    ASSERT_TRUE(received_.wait_for_keyframes(2 + round));
    const auto keyframe = received_.last_keyframe();
    ASSERT_TRUE(lund_cpu::h264_bootstrap(keyframe.data(), keyframe.size()));
    H264Decoder decoder;
    ASSERT_TRUE(decoder.decode(keyframe));
    ASSERT_EQ(decoder.frame().width, display_.width);
    ASSERT_EQ(decoder.frame().height, display_.height);
    worst = 0;
    for (int i = 0; i < 8; ++i) {
      const Colour seen = decoder.at(PLACE.left + (i % 4 * 2 + 1) * PLACE.width / 8,
                                     PLACE.top + (i / 4 * 2 + 1) * PLACE.height / 4);
      const Colour& drawn = PATCHES[i];
      worst = std::max({worst, std::abs(seen.r - drawn.r), std::abs(seen.g - drawn.g),
                        std::abs(seen.b - drawn.b)});
    }
  }
  EXPECT_LE(worst, LEVELS);
}

TEST_F(PipelineGdiTest, ChangedModeIsFatal) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  const DisplayModeChange change(800, 600);
  ASSERT_TRUE(change.changed());
  ASSERT_TRUE(received_.wait_for_fatal());
  EXPECT_EQ(received_.fatal(), "display geometry changed; a fresh session is required");
}

TEST_F(PipelineGdiTest, PointerIsReportedWhereItIs) {
  const CursorHandle cursor = colour_cursor(4, 4, std::vector<std::uint32_t>(16, 0xFF102030), 3, 2);
  PaintedWindow window(PLACE, patches);
  ASSERT_TRUE(SetCursorPos(PLACE.left + 10, PLACE.top + 10));
  window.take_input_with(cursor.get());
  ASSERT_TRUE(init());
  pipeline_.start();
  const auto at = [&](int x, int y) {
    return ReceivedPointer::Report{normalised(x, display_.width), normalised(y, display_.height), 1,
                                   0};
  };
  EXPECT_FALSE(pointer_.take_until(at(PLACE.left + 10, PLACE.top + 10)).empty());
  ASSERT_TRUE(SetCursorPos(PLACE.left + 100, PLACE.top + 50));
  EXPECT_FALSE(pointer_.take_until(at(PLACE.left + 100, PLACE.top + 50)).empty());
  const CursorBitmap expected{4, 4, 3, 2, [] {
                                std::vector<std::uint8_t> pixels;
                                for (int i = 0; i < 16; ++i)
                                  pixels.insert(pixels.end(), {0x30, 0x20, 0x10, 0xFF});
                                return pixels;
                              }()};
  EXPECT_TRUE(pointer_.wait_for_image(expected));
}

TEST_F(PipelineGdiTest, SecondInitStartsAfreshWithAKeyframe) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  ASSERT_TRUE(init());
  EXPECT_EQ(received_.keyframes(), 1);
  pipeline_.start();
  EXPECT_TRUE(received_.wait_for_keyframes(2));
}

}  // namespace
