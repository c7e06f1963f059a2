// A duplication source on a made-up GPU, in virtual time. At the end of each test every object
// must have been let go of, and nothing may have been done that a real one would refuse.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "capture/windows/duplication_source.h"
#include "tests/support/captured_log.h"
#include "tests/support/virtual_time.h"
#include "tests/support/windows/fake_direct3d.h"

class DuplicationTest : public testing::Test {
 protected:
  static constexpr std::int32_t ENCODED_WIDTH = 640;
  static constexpr std::int32_t ENCODED_HEIGHT = 360;

  DuplicationTest() {
    virtual_time::reset();
    gpu_.on_wait = [](UINT wait_ms) { virtual_time::advance_ms(wait_ms); };
    source_ = make_duplication_source(gpu_.api());
  }
  void TearDown() override {
    source_.reset();
    EXPECT_THAT(gpu_.stage.complaints(), testing::IsEmpty());
  }

  bool open() { return source_->open({display_, ENCODED_WIDTH, ENCODED_HEIGHT, 60}); }
  bool subscribe() { return source_->subscribe(&display_, &failure_); }
  AcquireResult acquire(std::uint32_t wait_ms = 0) {
    return source_->acquire(wait_ms, wake_, &acquired_);
  }
  // Opened, subscribed and past its first picture.
  void begin() {
    ASSERT_TRUE(open() && subscribe());
    gpu_.next_frame();
    ASSERT_EQ(acquire(), AcquireResult::Picture);
    ASSERT_TRUE(source_->hold());
    source_->release();
    gpu_.stage.take_calls();
  }

  CapturedLog log_;
  FakeDirect3d gpu_;
  DisplayInfo display_{gpu_.display()};
  SubscribeFailure failure_;
  AcquiredPicture acquired_;
  WakeEvent wake_{WakeEvent::Reset::Manual};
  std::unique_ptr<CaptureSource> source_;
};
