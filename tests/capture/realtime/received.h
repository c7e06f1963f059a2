// What a pipeline's sinks were given, for the test's own thread to wait on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "capture/video.h"
#include "connection/clock.h"

class Received {
 public:
  // It must outlive the pipeline, whose thread calls it to the end.
  void listen_to(CapturePipeline& pipeline) {
    pipeline.frame_sink = [this](const EncodedVideoFrame& frame) {
      const std::lock_guard lock(mutex_);
      ++frames_;
      if (frame.keyframe) ++keyframes_;
      last_at_us_ = lund_now_us();
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
  std::uint64_t last_at_us() const { return read(last_at_us_); }
  std::string fatal() const { return read(fatal_); }
  bool wait_for_frames(int count) {
    return wait([&] { return frames_ >= count; });
  }
  bool wait_for_keyframes(int count) {
    return wait([&] { return keyframes_ >= count; });
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
    return changed_.wait_for(lock, std::chrono::seconds(20), condition);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int frames_ = 0;
  int keyframes_ = 0;
  std::vector<std::uint8_t> last_;
  std::uint64_t last_at_us_ = 0;
  std::string fatal_;
};
