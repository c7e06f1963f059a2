// The sound of the default output through WASAPI: a loopback capture in shared mode, driven by an
// event. Error numbers are HRESULTs. Lives on the audio thread, which is a member of COM as long as
// it does; takes no lock.
#pragma once

#include <string>
#include <utility>

#include "control/windows/com.h"
#include "streams/audio_source.h"
#include "streams/windows/sound_devices.h"
// After what com.h includes.
#include <audioclient.h>

class WasapiSource final : public AudioSource {
 public:
  explicit WasapiSource(MakeDeviceEnumerator make_enumerator = make_device_enumerator)
      : make_enumerator_(std::move(make_enumerator)) {}
  ~WasapiSource() override { close(); }
  WasapiSource(const WasapiSource&) = delete;
  WasapiSource& operator=(const WasapiSource&) = delete;

  const char* name() const override { return "WASAPI"; }
  bool sends_silence() const override { return false; }
  std::uint32_t open(const std::atomic<bool>& stop, std::string* device, MixFormat* mix) override;
  std::uint32_t prepare(const std::atomic<bool>& stop, Form form) override;
  std::uint32_t start() override;
  void wait(std::uint32_t wait_ms) override;
  std::uint32_t next_buffer(AudioBuffer* out) override;
  void release_buffer() override;
  std::string default_device() override;
  void close() override;

 private:
  HRESULT activate_client();

  const ComThread com_;
  const MakeDeviceEnumerator make_enumerator_;
  ComPtr<IMMDeviceEnumerator> enumerator_;
  ComPtr<IMMDevice> device_;
  ComPtr<IAudioClient> client_;
  ComMemory<WAVEFORMATEX> mix_;
  Handle ready_;  // set when sound has come
  ComPtr<IAudioCaptureClient> capture_;
  UINT32 taken_frames_ = 0;  // of the buffer that isn't released yet
};
