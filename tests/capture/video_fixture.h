// A capture loop on a fake platform, driven pass by pass in virtual time.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "capture/video_internal.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_capture.h"

// Sinks without a pipeline behind them.
class Sinks final : public VideoCapture {
 public:
  bool init(const VideoSettings&) override { return false; }
  void start() override {}
  void stop() override {}
  void request_keyframe() override {}
  void set_bitrate(int) override {}
  bool encoder_is_hevc() const override { return false; }
  std::string encoder_name() const override { return {}; }
  std::string capture_backend() const override { return {}; }
};

struct SeenPosition {
  std::uint16_t x = 0;
  std::uint16_t y = 0;
  std::uint8_t visible = 0;
  std::uint64_t at_us = 0;
};

struct SeenFrame {
  bool keyframe = false;
  std::uint64_t at_us = 0;
  std::uint64_t capture_us = 0;
  std::uint32_t encode_us = 0;
  std::uint32_t submit_to_packet_us = 0;
};

class CaptureLoopTest : public testing::Test {
 protected:
  CaptureLoopTest() {
    settings_.display = world_.display;
    settings_.width = 1280;
    settings_.height = 720;
    sinks_.frame_sink = [this](const EncodedVideoFrame& frame) {
      frames_.push_back({frame.keyframe, lund_now_us(), frame.capture_time_us, frame.encode_time_us,
                         frame.submit_to_packet_us});
    };
    sinks_.pointer_sink = [this](std::uint16_t x, std::uint16_t y, std::uint8_t visible) {
      positions_.push_back({x, y, visible, lund_now_us()});
    };
    sinks_.cursor_sink = [this](const CursorBitmap& image) { images_.push_back(image); };
    sinks_.fatal_sink = [this](const char* reason) { fatal_.push_back(reason); };
  }

  void make(const SourceTraits* gpu, const SourceTraits& memory) {
    loop_ = std::make_unique<capture_internal::CaptureLoop>(
        fake_capture::platform(world_, gpu, memory), sinks_, requests_, active_);
    loop_->reset(settings_);
  }
  void fresh_world() {
    loop_.reset();
    world_ = fake_capture::World();
  }
  void make_windows_like() { make(&fake_capture::GPU_NOTIFYING, fake_capture::MEMORY_POLLED); }
  void make_linux_like() { make(nullptr, fake_capture::MEMORY_NOTIFYING); }

  bool begin() {
    if (!loop_->init_all()) return false;
    loop_->begin_run();
    return true;
  }
  // A session past its first frame.
  void begin_settled() {
    ASSERT_TRUE(begin());
    pass_until_frames(1);
    forget_seen();
  }
  void forget_seen() {
    frames_.clear();
    positions_.clear();
    images_.clear();
    world_.forced.clear();
    world_.encode_times_us.clear();
    world_.waits_ms.clear();
  }
  bool pass(int count = 1) {
    for (int i = 0; i < count; ++i) {
      if (!loop_->pass()) return false;
    }
    return true;
  }
  void pass_until_frames(std::size_t count) {
    for (int i = 0; i < 10'000 && frames_.size() < count; ++i) {
      if (!loop_->pass()) break;
    }
    ASSERT_GE(frames_.size(), count);
  }
  void pass_for_ms(std::uint64_t ms) {
    const std::uint64_t until_us = lund_now_us() + ms * 1000;
    while (lund_now_us() < until_us && loop_->pass()) {
    }
  }
  void picture_in_us(std::uint64_t us) {
    world_.events.push_back({lund_now_us() + us, AcquireResult::Picture, 0, 0});
  }
  void event_now(AcquireResult result) { world_.events.push_back({lund_now_us(), result, 0, 0}); }
  std::uint64_t elapsed_us_of_pass() {
    const std::uint64_t begin_us = lund_now_us();
    loop_->pass();
    return lund_now_us() - begin_us;
  }
  std::vector<std::string> fatal() const { return fatal_; }

  fake_capture::World world_;
  VideoSettings settings_;
  Sinks sinks_;
  capture_internal::CaptureRequests requests_;
  capture_internal::ActiveCapture active_;
  std::unique_ptr<capture_internal::CaptureLoop> loop_;
  std::vector<SeenFrame> frames_;
  std::vector<SeenPosition> positions_;
  std::vector<CursorBitmap> images_;
  std::vector<std::string> fatal_;
};
