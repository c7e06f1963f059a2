// The whole chain: a real X server, the real encoder, the real thread.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "capture/source.h"
#include "capture/video.h"
#include "media/cpu_codec.h"
#include "tests/support/xvfb.h"

namespace {

using namespace std::chrono_literals;

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;

// What the sinks were given, for the test's thread to wait on.
class Received {
 public:
  explicit Received(CapturePipeline& pipeline) {
    pipeline.frame_sink = [this](const EncodedVideoFrame& frame) {
      const std::lock_guard lock(mutex_);
      ++frames_;
      if (frame.keyframe) ++keyframes_;
      last_.assign(frame.data, frame.data + frame.size);
      changed_.notify_all();
    };
    pipeline.fatal_sink = [this](const char* reason) {
      const std::lock_guard lock(mutex_);
      fatal_ = reason;
      changed_.notify_all();
    };
  }
  int frames() const { return read(frames_); }
  int keyframes() const { return read(keyframes_); }
  std::vector<std::uint8_t> last() const { return read(last_); }
  std::string fatal() const { return read(fatal_); }
  bool wait_for_frames(int count) {
    return wait([&] { return frames_ >= count; });
  }
  bool wait_for_fatal() {
    return wait([&] { return !fatal_.empty(); });
  }

 private:
  template <typename T>
  T read(const T& value) const {
    const std::lock_guard lock(mutex_);
    return value;
  }
  template <typename Condition>
  bool wait(Condition condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, condition);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int frames_ = 0;
  int keyframes_ = 0;
  std::vector<std::uint8_t> last_;
  std::string fatal_;
};

double thread_seconds_of_process() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class PipelineX11Test : public testing::Test {
 protected:
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
  CapturePipeline pipeline_{native_capture_platform()};
  Received received_{pipeline_};
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
  const double own_before = thread_seconds_of_process();
  std::this_thread::sleep_for(2s);
  const double own = thread_seconds_of_process() - own_before;
  const double server = server_.processor_seconds() - server_before;
  EXPECT_EQ(received_.frames(), before);
  EXPECT_LT(own, 0.02);
  EXPECT_LT(server, 0.02);
  RecordProperty("own_ms", static_cast<int>(own * 1000));
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

TEST_F(PipelineX11Test, SecondInitStartsAfresh) {
  ASSERT_TRUE(init());
  pipeline_.start();
  ASSERT_TRUE(received_.wait_for_frames(1));
  ASSERT_TRUE(init());
  pipeline_.start();
  const int before = received_.keyframes();
  painter_.fill(0x00FF00, 0, 0, 10, 10);
  EXPECT_TRUE(received_.wait_for_frames(received_.frames() + 1));
  EXPECT_GE(received_.keyframes(), before);
}

}  // namespace
