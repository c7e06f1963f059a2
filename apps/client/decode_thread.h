// The thread that decodes and records: the network thread hands it complete frames through a short
// queue of reused buffers. Any thread may call `failed` and `take_done`; the rest is the network
// thread's until `finish` has joined.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "apps/client/decoder.h"
#include "apps/client/paint_marker.h"
#include "apps/client/statistics.h"

struct QueuedFrame {
  std::vector<std::uint8_t> bytes;  // with the decoder's padding behind `size`
  std::size_t size = 0;
  bool keyframe = false;
  std::uint32_t recovered = 0;
  std::uint64_t capture_us = 0;   // in this computer's lund_now_us time
  std::uint64_t complete_us = 0;  // when the last datagram that it needed arrived
  std::uint32_t encode_us = 0;
};

class DecodeThread {
 public:
  DecodeThread() = default;
  ~DecodeThread() { finish(); }

  // Called on the thread with each picture, valid until the return. Set before start.
  std::function<void(const DecodedPicture& picture, const FrameTimes& times)> on_picture;

  // `recording` empty: nothing is recorded. Again after finish: a stream of another codec.
  bool start(bool hevc, const std::filesystem::path& recording, std::string* error);

  // A free buffer to fill and hand back by submit; null while the decoder lags by the whole queue.
  QueuedFrame* acquire();
  void submit();

  // Host clock less this computer's, microseconds.
  void set_clock_offset(std::int64_t us) { clock_offset_us_ = us; }
  std::int64_t clock_offset() const { return clock_offset_us_; }

  bool take_damage() {
    return damaged_.exchange(false);
  }  // a frame didn't decode: ask for a keyframe
  bool recording_failed() const { return recording_failed_; }

  void finish();  // decodes what is queued and joins; idempotent

  std::mutex& statistics_mutex() { return statistics_mutex_; }
  StreamStatistics& statistics() { return statistics_; }  // under its mutex
  const DecodedPicture* last_picture() const { return has_picture_ ? &picture_ : nullptr; }

 private:
  static constexpr std::size_t QUEUE = 8;
  void run();
  void handle(const QueuedFrame& frame);
  void record(const QueuedFrame& frame);

  VideoDecoder decoder_;
  std::array<QueuedFrame, QUEUE> frames_;
  std::size_t head_ = 0, count_ = 0;
  bool finishing_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;

  std::atomic<std::int64_t> clock_offset_us_{0};
  std::atomic<bool> damaged_{false};
  std::atomic<bool> recording_failed_{false};
  std::ofstream recording_;
  bool wait_for_keyframe_ = true;
  DecodedPicture picture_;
  bool has_picture_ = false;
  std::mutex statistics_mutex_;
  StreamStatistics statistics_;
};
