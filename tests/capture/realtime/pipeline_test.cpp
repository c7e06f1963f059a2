// The pipeline with its real thread, waits and encoder, on a source that makes up its pictures.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "capture/source.h"
#include "tests/capture/realtime/received.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int WIDTH = 320;
constexpr int HEIGHT = 180;
constexpr SourceTraits TRAITS{"X11 CPU", true, false};

// What a test arranges while the pipeline's thread runs.
struct Scene {
  std::atomic<bool> opens{true};
  std::atomic<bool> moving{true};
  std::atomic<bool> reachable{true};
  std::atomic<int> opened{0};
};

class MovingSource final : public CaptureSource {
 public:
  explicit MovingSource(Scene& scene) : scene_(scene), pixels_(WIDTH * HEIGHT * 4, 0x40) {}

  const SourceTraits& traits() const override { return TRAITS; }
  bool open(const CaptureTarget&) override {
    ++scene_.opened;
    return scene_.opens;
  }
  AcquireResult acquire(std::uint32_t wait_ms, WakeEvent& wake, AcquiredPicture* out) override {
    constexpr std::uint32_t PERIOD_MS = 5;
    *out = {0, WIDTH, HEIGHT};
    if (!first_) {
      const bool due = scene_.moving && wait_ms >= PERIOD_MS;
      if (wake.wait(due ? PERIOD_MS : wait_ms) || !due) return AcquireResult::TimeOut;
    }
    first_ = false;
    return AcquireResult::Picture;
  }
  bool hold() override { return held_ = true; }
  bool has_picture() const override { return held_; }
  bool picture(MemoryPicture* out) override {
    ++pixels_[static_cast<std::size_t>(++step_ * 4) % pixels_.size()];
    *out = {pixels_.data(), pixels_.size(), WIDTH, HEIGHT, WIDTH * 4};
    return true;
  }

 private:
  Scene& scene_;
  std::vector<std::uint8_t> pixels_;
  int step_ = 0;
  bool first_ = true;
  bool held_ = false;
};

class OneDesktop final : public InputDesktop {
 public:
  explicit OneDesktop(Scene& scene) : scene_(scene) {}
  Look look() override {
    return !scene_.reachable ? Look::Unreachable : held_ ? Look::Same : Look::Other;
  }
  bool enter() override { return held_ = true; }
  bool matches() override { return held_ && scene_.reachable; }
  std::string name() const override { return held_ ? "desktop" : ""; }
  void leave() override { held_ = false; }

 private:
  Scene& scene_;
  bool held_ = false;
};

class PipelineTest : public testing::Test {
 protected:
  PipelineTest() { received_.listen_to(pipeline_); }
  static CapturePlatform platform(Scene& scene) {
    CapturePlatform p;
    p.make_desktop = [&scene] { return std::make_unique<OneDesktop>(scene); };
    p.make_memory_source = [&scene] { return std::make_unique<MovingSource>(scene); };
    p.make_encoder = [] { return std::make_unique<VideoEncoder>(); };
    p.find_display = [](const std::string&, DisplayInfo* out) {
      *out = display();
      return true;
    };
    return p;
  }
  static DisplayInfo display() {
    DisplayInfo info;
    info.device = "MADE-UP";
    info.width = info.right = WIDTH;
    info.height = info.bottom = HEIGHT;
    return info;
  }
  bool init() {
    VideoSettings settings;
    settings.display = display();
    settings.width = WIDTH;
    settings.height = HEIGHT;
    settings.bitrate_kbps = 2000;
    return pipeline_.init(settings);
  }
  void expect_stop_within(std::chrono::milliseconds limit) {
    const auto begin = Clock::now();
    pipeline_.stop();
    EXPECT_LT(Clock::now() - begin, limit);
  }

  Scene scene_;
  Received received_;
  CapturePipeline pipeline_{platform(scene_)};
};

TEST_F(PipelineTest, FramesFlowAndNoneAfterStop) {
  ASSERT_TRUE(init());
  EXPECT_EQ(received_.frames(), 0) << "nothing before start";
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(10));
  pipeline_.stop();
  const int frames = received_.frames();
  EXPECT_EQ(received_.keyframes(), 1);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(received_.frames(), frames);
}

TEST_F(PipelineTest, RateIsPacedToTheSettings) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  const int before = received_.frames();
  std::this_thread::sleep_for(500ms);
  EXPECT_LE(received_.frames() - before, 34) << "one every 15 ms at most";
}

TEST_F(PipelineTest, FailedInitLeavesNoThreadAndMayBeTriedAgain) {
  scene_.opens = false;
  EXPECT_FALSE(init());
  pipeline_.start();  // nothing to start
  scene_.opens = true;
  EXPECT_TRUE(init());
}

TEST_F(PipelineTest, StopBeforeStartReturnsAtOnce) {
  ASSERT_TRUE(init());
  expect_stop_within(1s);
  expect_stop_within(1s);
}

TEST_F(PipelineTest, StopCutsTheWaitForAFailedRebuildShort) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  scene_.opens = false;
  scene_.reachable = false;
  std::this_thread::sleep_for(300ms);
  const int opened = scene_.opened;
  scene_.reachable = true;
  while (scene_.opened == opened) std::this_thread::sleep_for(1ms);
  expect_stop_within(1s);  // of two
}

TEST_F(PipelineTest, UnreachableDesktopComesBackWithAKeyframe) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  scene_.reachable = false;
  std::this_thread::sleep_for(50ms);
  scene_.reachable = true;
  EXPECT_TRUE(received_.wait_for_keyframes(2));
  EXPECT_EQ(received_.fatal(), "");
}

TEST_F(PipelineTest, OtherThreadsMayAskAllTheTime) {
  ASSERT_TRUE(init());
  pipeline_.start();
  std::atomic<bool> over{false};
  std::thread asker([&] {
    while (!over) {
      pipeline_.request_keyframe();
      EXPECT_EQ(pipeline_.encoder_name(), "libopenh264");
      EXPECT_EQ(pipeline_.capture_backend(), "X11 CPU");
      EXPECT_FALSE(pipeline_.encoder_is_hevc());
      std::this_thread::yield();
    }
  });
  std::thread rate([&] {
    for (int kbps = 1000; !over; kbps = kbps % 5000 + 1000) {
      pipeline_.set_bitrate(kbps);
      std::this_thread::sleep_for(20ms);
    }
  });
  EXPECT_TRUE(received_.wait_for_frames(30));
  over = true;
  asker.join();
  rate.join();
  EXPECT_EQ(received_.fatal(), "");
}

TEST_F(PipelineTest, DestructionEndsARunningPipeline) {
  Received received;
  auto pipeline = std::make_unique<CapturePipeline>(platform(scene_));
  received.listen_to(*pipeline);
  VideoSettings settings;
  settings.display = display();
  settings.width = WIDTH;
  settings.height = HEIGHT;
  ASSERT_TRUE(pipeline->init(settings));
  pipeline->start();
  ASSERT_TRUE(received.wait_for_frames(2));
  pipeline.reset();
}

}  // namespace
