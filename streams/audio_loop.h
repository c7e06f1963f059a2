// The loop behind OpusAudioCapture: everything that runs on the audio thread. It has no thread and
// no clock of its own, so that a test can drive it step by step.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "control/wake_event.h"
#include "streams/audio.h"
#include "streams/audio_convert.h"
#include "streams/audio_encoder.h"
#include "streams/audio_source.h"

namespace audio_internal {

// What other threads may touch while the loop runs.
struct StopRequest {
  std::atomic<bool> stop{false};
  WakeEvent wake{WakeEvent::Reset::Manual};  // ends a pause early
};

class AudioLoop {
 public:
  // `owner` for its `on_packet`. All outlive the loop.
  AudioLoop(AudioSource& source, const AudioCapture& owner, StopRequest& request);
  ~AudioLoop();
  AudioLoop(const AudioLoop&) = delete;
  AudioLoop& operator=(const AudioLoop&) = delete;

  bool open_encoder(const OpusSettings& settings = {});  // once, first; false: no sound can flow

  // One attempt to set the capture up, a tenth of a second of the pause after a failed one, or one
  // turn of the capture. False once it is to stop.
  bool step();

 private:
  void set_up();
  std::uint32_t start_source();  // an error number
  void begin_capture(std::string device);
  void restart();

  void capture();
  std::uint32_t drain();  // an error number
  void take(const AudioBuffer& buffer);
  void encode_pending();
  void keep_silence();
  void follow_default_device();
  void encode(std::span<const float, BLOCK_FLOATS> block, std::uint64_t capture_us);

  AudioSource& source_;
  const AudioCapture& owner_;
  StopRequest& request_;
  AudioEncoder encoder_;

  bool capturing_ = false;
  int pauses_left_ = 0;  // before the next attempt

  // Of a capture run, from set-up to restart.
  std::string device_;
  SourceFormat format_;
  Resampler resampler_;
  std::vector<float> scratch_;    // one buffer as stereo
  std::vector<float> pending_;    // 48 kHz stereo, not yet encoded
  std::uint64_t pending_us_ = 0;  // when its first sample was played
  std::uint64_t last_data_us_ = 0;
  bool in_silence_ = false;
  std::uint64_t next_silence_us_ = 0;
  std::uint64_t last_device_check_us_ = 0;
};

}  // namespace audio_internal
