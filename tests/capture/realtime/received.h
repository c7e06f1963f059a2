// What a pipeline's sinks were given, for the test's own thread to wait on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
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
      if (frame.keyframe) last_keyframe_ = last_;
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
  std::vector<std::uint8_t> last_keyframe() const { return read(last_keyframe_); }
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
  std::vector<std::uint8_t> last_keyframe_;
  std::uint64_t last_at_us_ = 0;
  std::string fatal_;
};

// What its pointer sinks were given.
class ReceivedPointer {
 public:
  struct Report {
    std::uint16_t x = 0;
    std::uint16_t y = 0;
    int visible = 0;
    std::uint64_t at_us = 0;
    bool is(const Report& other) const {
      return x == other.x && y == other.y && visible == other.visible;
    }
  };

  void listen_to(CapturePipeline& pipeline) {
    pipeline.pointer_sink = [this](std::uint16_t x, std::uint16_t y, std::uint8_t visible) {
      const std::lock_guard lock(mutex_);
      reports_.push_back({x, y, visible, lund_now_us()});
      changed_.notify_all();
    };
    pipeline.cursor_sink = [this](const CursorBitmap& image) {
      const std::lock_guard lock(mutex_);
      images_.push_back(image);
      changed_.notify_all();
    };
  }
  // Waits until the newest report is this one; gives the reports since the last time, it included.
  std::vector<Report> take_until(const Report& last) {
    std::unique_lock lock(mutex_);
    if (!wait(lock, [&] { return !reports_.empty() && reports_.back().is(last); })) return {};
    return std::exchange(reports_, {});
  }
  std::vector<Report> take_until_hidden() {
    std::unique_lock lock(mutex_);
    if (!wait(lock, [&] { return !reports_.empty() && !reports_.back().visible; })) return {};
    return std::exchange(reports_, {});
  }
  // The newest image once there have been `count`; empty if they don't come.
  CursorBitmap image(std::size_t count) {
    std::unique_lock lock(mutex_);
    if (!wait(lock, [&] { return images_.size() >= count; })) return {};
    return images_.back();
  }
  bool wait_for_image(const CursorBitmap& newest) {
    std::unique_lock lock(mutex_);
    return wait(lock, [&] { return !images_.empty() && images_.back().pixels == newest.pixels; });
  }
  std::size_t images() const {
    const std::lock_guard lock(mutex_);
    return images_.size();
  }

 private:
  template <typename Condition>
  bool wait(std::unique_lock<std::mutex>& lock, Condition condition) {
    return changed_.wait_for(lock, std::chrono::seconds(20), condition);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Report> reports_;
  std::vector<CursorBitmap> images_;
};
