#include "apps/client/decode_thread.h"

#include <algorithm>

#include "connection/clock.h"

bool DecodeThread::start(bool hevc, const std::filesystem::path& recording, std::string* error) {
  if (!decoder_.open(hevc)) {
    *error = hevc ? "this FFmpeg has no HEVC decoder" : "this FFmpeg has no H.264 decoder";
    return false;
  }
  if (!recording.empty()) {
    recording_.open(recording, std::ios::binary | std::ios::trunc);
    if (!recording_) {
      *error = "cannot write " + recording.string();
      return false;
    }
  }
  finishing_ = false;
  wait_for_keyframe_ = true;
  has_picture_ = false;
  thread_ = std::thread([this] { run(); });
  return true;
}

QueuedFrame* DecodeThread::acquire() {
  std::lock_guard lock(mutex_);
  return count_ == QUEUE ? nullptr : &frames_[(head_ + count_) % QUEUE];
}

void DecodeThread::submit() {
  {
    std::lock_guard lock(mutex_);
    ++count_;
  }
  changed_.notify_one();
}

void DecodeThread::finish() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    finishing_ = true;
  }
  changed_.notify_one();
  thread_.join();
  if (recording_.is_open()) {
    recording_.close();
    if (recording_.fail()) recording_failed_ = true;
  }
}

void DecodeThread::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return count_ > 0 || finishing_; });
    if (count_ == 0) return;
    const QueuedFrame& frame = frames_[head_];
    lock.unlock();
    handle(frame);
    lock.lock();
    head_ = (head_ + 1) % QUEUE;
    --count_;
  }
}

void DecodeThread::record(const QueuedFrame& frame) {
  if (!recording_.is_open()) return;
  recording_.write(reinterpret_cast<const char*>(frame.bytes.data()),
                   static_cast<std::streamsize>(frame.size));
  if (!recording_) {
    recording_failed_ = true;
    recording_.close();
  }
}

void DecodeThread::handle(const QueuedFrame& frame) {
  if (wait_for_keyframe_ && !frame.keyframe) return;
  wait_for_keyframe_ = false;
  const std::uint64_t begin_us = lund_now_us();
  DecodedPicture picture;
  const bool good = decoder_.decode(frame.bytes.data(), frame.size, &picture);
  const std::uint64_t end_us = lund_now_us();
  if (!good) {
    // What refers to this frame would be damaged too.
    wait_for_keyframe_ = true;
    damaged_ = true;
    has_picture_ = false;
    std::lock_guard lock(statistics_mutex_);
    statistics_.frame_undecodable();
    return;
  }
  record(frame);
  picture_ = picture;
  has_picture_ = true;

  auto between = [](std::uint64_t from, std::uint64_t to) {
    return to > from ? static_cast<double>(to - from) : 0.0;
  };
  FrameTimes times;
  auto stage = [&times](Stage s) -> double& { return times.us[static_cast<std::size_t>(s)]; };
  std::uint64_t origin_us = frame.capture_us;
  if (const auto painted = read_marker(picture)) {
    origin_us = *painted - static_cast<std::uint64_t>(clock_offset_us_.load());
    times.painted = true;
    stage(Stage::Paint) = between(origin_us, frame.capture_us);
  }
  stage(Stage::Encode) = frame.encode_us;
  stage(Stage::Transport) = std::max(
      0.0, between(origin_us, frame.complete_us) - stage(Stage::Paint) - stage(Stage::Encode));
  stage(Stage::Queue) = between(frame.complete_us, begin_us);
  stage(Stage::Decode) = between(begin_us, end_us);
  stage(Stage::Total) = between(origin_us, end_us);
  {
    std::lock_guard lock(statistics_mutex_);
    statistics_.frame_decoded(times, frame.size, frame.keyframe, frame.recovered);
  }
  if (on_picture) on_picture(picture, times);
}
