// The computer's sound as Opus packets: 48 kHz, stereo, 10 ms each. AudioCapture is what a session
// holds; OpusAudioCapture is the one that captures: it owns one thread, on which capture,
// conversion, encoding and `on_packet` run, keeps going through changes of the output device, and
// sends silence at the same rate while no sound comes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

class AudioCapture {
 public:
  virtual ~AudioCapture() = default;

  // Assigned before start; packets are dropped while it is empty. Called on the audio thread;
  // `data` is valid during the call, `capture_us` is when its first sample was played, lund_now_us
  // time. A call that blocks delays the next packet.
  std::function<void(const std::uint8_t* data, std::uint64_t size, std::uint64_t capture_us)>
      on_packet;

  virtual void start() = 0;
  virtual void stop() = 0;  // joins; idempotent
};

class AudioSource;  // streams/audio_source.h: what a platform offers to capture from

class OpusAudioCapture final : public AudioCapture {
 public:
  // `make_source` is called on the audio thread, which alone uses the source and destroys it.
  explicit OpusAudioCapture(std::function<std::unique_ptr<AudioSource>()> make_source);
  ~OpusAudioCapture() override;

  // One thread calls these two.
  void start() override;  // nothing while started
  void stop() override;   // within 100 ms

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
