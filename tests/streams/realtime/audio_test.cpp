#include "streams/audio.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "streams/audio_source.h"
#include "tests/support/captured_log.h"
#include "tests/support/recorded_sound.h"

using namespace std::chrono_literals;

namespace {

struct Record {
  std::atomic<int> made{0};
  std::atomic<int> gone{0};
  std::atomic<int> opens{0};
  std::atomic<std::uint32_t> open_error{0};
  std::atomic<bool> open_hangs{false};
  std::atomic<bool> on_one_thread{true};
};

// A device that plays nothing.
class QuietSource final : public AudioSource {
 public:
  explicit QuietSource(Record& record) : record_(record) { ++record_.made; }
  ~QuietSource() override {
    look();
    ++record_.gone;
  }
  const char* name() const override { return "QuietAudio"; }
  std::uint32_t open(const std::atomic<bool>& stop, std::string*, MixFormat*) override {
    look();
    ++record_.opens;
    while (record_.open_hangs && !stop) std::this_thread::sleep_for(10ms);
    return record_.open_error;
  }
  std::uint32_t prepare(const std::atomic<bool>&, Form) override { return 0; }
  void wait(std::uint32_t wait_ms) override {
    look();
    std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
  }
  std::uint32_t next_buffer(AudioBuffer* out) override {
    *out = {};
    return 0;
  }
  void release_buffer() override {}
  std::string default_device() override { return {}; }
  void close() override { look(); }

 private:
  void look() {
    if (std::this_thread::get_id() != thread_) record_.on_one_thread = false;
  }

  Record& record_;
  const std::thread::id thread_ = std::this_thread::get_id();
};

class OpusAudioCaptureTest : public testing::Test {
 protected:
  void wait_for(const std::atomic<int>& counter, int value) {
    const auto until = std::chrono::steady_clock::now() + 20s;
    while (counter < value && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(1ms);
    ASSERT_GE(counter, value);
  }

  CapturedLog log_;
  Record record_;
  OpusAudioCapture capture_{[this] { return std::make_unique<QuietSource>(record_); }};
};

TEST_F(OpusAudioCaptureTest, RunsOnOneThreadFromStartToStop) {
  RecordedSound sound;
  sound.record(capture_);
  capture_.start();
  capture_.start();
  ASSERT_TRUE(sound.wait_for_count(5));
  EXPECT_EQ(record_.made, 1);
  EXPECT_EQ(record_.gone, 0);
  capture_.stop();
  EXPECT_EQ(record_.gone, 1);
  const std::size_t packets = sound.count();
  capture_.stop();
  EXPECT_EQ(sound.count(), packets);

  capture_.start();
  ASSERT_TRUE(sound.wait_for_count(packets + 5));
  EXPECT_EQ(record_.made, 2);
  capture_.stop();
  EXPECT_TRUE(record_.on_one_thread);
}

TEST_F(OpusAudioCaptureTest, EndsWithItsOwner) {
  {
    OpusAudioCapture capture([this] { return std::make_unique<QuietSource>(record_); });
    capture.start();
    wait_for(record_.opens, 1);
  }
  EXPECT_EQ(record_.gone, 1);
}

TEST_F(OpusAudioCaptureTest, WithoutAThreadStopDoesNothing) {
  capture_.stop();
  EXPECT_EQ(record_.made, 0);
}

// The pause after a failure lasts two seconds.
TEST_F(OpusAudioCaptureTest, StopDoesNotSitOutThePauseAfterAFailure) {
  record_.open_error = 1;
  capture_.start();
  wait_for(record_.opens, 1);
  const auto before = std::chrono::steady_clock::now();
  capture_.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
  EXPECT_EQ(record_.opens, 1);
}

TEST_F(OpusAudioCaptureTest, StopReachesASourceThatHangs) {
  record_.open_hangs = true;
  record_.open_error = 1;
  capture_.start();
  wait_for(record_.opens, 1);
  capture_.stop();
  EXPECT_EQ(record_.gone, 1);
  EXPECT_EQ(log_.count("failed"), 0);
}

}  // namespace
