// A capture loop on desktop duplication, of which DXGI and Direct3D are made up.
#pragma once

#include <gmock/gmock.h>

#include "capture/windows/duplication_source.h"
#include "tests/capture/video_fixture.h"
#include "tests/support/windows/fake_direct3d.h"

class DuplicationLoopTest : public CaptureLoopTest {
 protected:
  DuplicationLoopTest() {
    gpu_.on_wait = [](UINT wait_ms) { virtual_time::advance_ms(wait_ms); };
    gpu_.coordinates = {-32768, -32768, 32767, 32767};  // wherever the system's own pointer is
    world_.display = gpu_.display();
    settings_.display = world_.display;
  }
  void TearDown() override {
    loop_.reset();
    EXPECT_THAT(gpu_.stage.complaints(), testing::IsEmpty());
  }

  CapturePlatform platform() {
    CapturePlatform made =
        fake_capture::platform(world_, &fake_capture::GPU_NOTIFYING, fake_capture::MEMORY_POLLED);
    made.make_gpu_source = [this] { return make_duplication_source(gpu_.api()); };
    return made;
  }
  void run_on(const CapturePlatform& platform) {
    loop_ = std::make_unique<capture_internal::CaptureLoop>(platform, sinks_, requests_, active_);
    loop_->reset(settings_);
  }
  void begin_session() {
    gpu_.next_frame();
    begin_settled();
    gpu_.stage.take_calls();
  }

  CapturedLog log_;
  FakeDirect3d gpu_;
};
