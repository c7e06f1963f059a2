// The sound of the default sink, from a PulseAudio server or a PipeWire one that serves the same
// protocol: a recording of the sink's monitor. libpulse's main loop runs in the calls, on the
// thread that makes them; no lock is taken. Error numbers are PA_ERR_...
#pragma once

#include <pulse/pulseaudio.h>

#include <string>

#include "streams/audio_source.h"

class PulseSource final : public AudioSource {
 public:
  PulseSource() = default;
  ~PulseSource() override;

  const char* name() const override { return "PulseAudio"; }
  std::uint32_t open(const std::atomic<bool>& stop, std::string* device, MixFormat* mix) override;
  std::uint32_t prepare(const std::atomic<bool>& stop, Form form) override;
  void wait(std::uint32_t wait_ms) override;
  std::uint32_t next_buffer(AudioBuffer* out) override;
  void release_buffer() override;
  std::string default_device() override;
  void close() override;

 private:
  bool turn(std::uint64_t wait_us);  // of the main loop; false once that has failed
  // Turns the main loop until `done`. An error number.
  template <typename Done>
  std::uint32_t run_until(const std::atomic<bool>& stop, Done done);
  std::uint32_t finish(const std::atomic<bool>& stop, pa_operation* operation);
  std::uint32_t connect(const std::atomic<bool>& stop);
  bool recording() const;
  std::uint32_t error() const;
  void end_stream();

  static void on_server_info(pa_context*, const pa_server_info* info, void* self);
  static void on_sink_info(pa_context*, const pa_sink_info* info, int end, void* self);
  static void on_change(pa_context*, pa_subscription_event_type_t, std::uint32_t, void* self);

  pa_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  pa_stream* stream_ = nullptr;
  std::string default_sink_;  // followed while connected
  // Of the opened sink.
  std::string monitor_;
  pa_sample_spec mix_{};
  pa_channel_map mix_map_{};
  std::uint32_t frame_bytes_ = 0;  // of the stream
  std::uint64_t last_wait_us_ = 0;
};
