// The whole chain: a real X server, the real encoder, the real thread.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <thread>
#include <vector>

#include "capture/source.h"
#include "capture/video.h"
#include "connection/clock.h"
#include "media/cpu_codec.h"
#include "tests/capture/realtime/received.h"
#include "tests/support/median.h"
#include "tests/support/xvfb.h"

namespace {

using namespace std::chrono_literals;

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;

double process_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class PipelineX11Test : public testing::Test {
 protected:
  PipelineX11Test() { received_.listen_to(pipeline_); }
  bool init() {
    VideoSettings settings;
    settings.display = list_displays().at(0);
    settings.width = WIDTH;
    settings.height = HEIGHT;
    return pipeline_.init(settings);
  }
  void wait_until_still() {
    for (int before = -1; before != received_.frames();) {
      before = received_.frames();
      std::this_thread::sleep_for(200ms);
    }
  }

  Xvfb server_{WIDTH, HEIGHT};
  RootPainter painter_{server_.display()};
  Received received_;
  CapturePipeline pipeline_{native_capture_platform()};
};

TEST_F(PipelineX11Test, FirstFrameIsAKeyframeAndChangesFollow) {
  ASSERT_TRUE(init());
  EXPECT_EQ(pipeline_.encoder_name(), "libopenh264");
  EXPECT_EQ(pipeline_.capture_backend(), "X11 CPU");
  EXPECT_FALSE(pipeline_.encoder_is_hevc());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  const auto first = received_.last();
  EXPECT_TRUE(lund_cpu::h264_bootstrap(first.data(), first.size()));
  wait_until_still();
  const int before = received_.frames();
  painter_.fill(0xFF8040, 0, 0, 100, 100);
  EXPECT_TRUE(received_.wait_for_frames(before + 1));
  pipeline_.stop();
  EXPECT_EQ(received_.keyframes(), 1);
}

TEST_F(PipelineX11Test, StaticScreenSendsNoFramesAndCostsUnderOnePercentOfACore) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  wait_until_still();
  const int before = received_.frames();
  const double server_before = server_.processor_seconds();
  const double own_before = process_seconds();
  std::this_thread::sleep_for(2s);
  const double own = process_seconds() - own_before;
  const double server = server_.processor_seconds() - server_before;
  EXPECT_EQ(received_.frames(), before);
  EXPECT_LT(own, 0.02);
  EXPECT_LT(server, 0.02);
  printf("static screen: %.1f ms of 2 s, the server %.1f ms\n", own * 1000, server * 1000);
}

TEST_F(PipelineX11Test, AskedForKeyframeOfAStaticScreenComes) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  wait_until_still();
  const int before = received_.frames();
  pipeline_.request_keyframe();
  ASSERT_TRUE(received_.wait_for_frames(before + 1));
  wait_until_still();
  EXPECT_EQ(received_.frames(), before + 1);
  EXPECT_EQ(received_.keyframes(), 2);
}

TEST_F(PipelineX11Test, ResizedScreenIsFatal) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  ASSERT_TRUE(server_.resize(320, 200));
  ASSERT_TRUE(received_.wait_for_fatal());
  EXPECT_EQ(received_.fatal(), "display geometry changed; a fresh session is required");
}

TEST_F(PipelineX11Test, KilledServerIsNotFatalAndStopReturns) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  server_.kill();
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(received_.fatal(), "");
  const auto begin = std::chrono::steady_clock::now();
  pipeline_.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
}

TEST_F(PipelineX11Test, RestartedServerIsCapturedAgain) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  server_.kill();
  server_.restart();
  EXPECT_TRUE(received_.wait_for_keyframes(2));
  EXPECT_EQ(received_.fatal(), "");
}

TEST_F(PipelineX11Test, SecondInitStartsAfreshWithAKeyframe) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  ASSERT_TRUE(init());
  EXPECT_EQ(received_.keyframes(), 1);
  pipeline_.start();
  EXPECT_TRUE(received_.wait_for_keyframes(2));
}

TEST_F(PipelineX11Test, ChangeReachesTheSinkWithinAFrameTimeOfAnIdleScreen) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  std::vector<double> took_ms;
  for (const std::uint32_t colour : {0x4080FFU, 0xFF8040U, 0x40FF80U}) {
    wait_until_still();
    const int before = received_.frames();
    const std::uint64_t drawn_us = lund_now_us();
    painter_.fill(colour, 0, 0, WIDTH, HEIGHT);
    ASSERT_TRUE(received_.wait_for_frames(before + 1));
    took_ms.push_back(static_cast<double>(received_.last_at_us() - drawn_us) / 1'000);
  }
  EXPECT_LT(median(took_ms), 100)
      << "slack for a busy computer; a poll alone would take up to 50 ms";
  printf("from drawing to the sink: %.1f ms\n", median(took_ms));
}

}  // namespace
