// What the system's own default output plays, recorded. The tone comes from another client of the
// sound system, as any program's does.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <future>
#include <numbers>
#include <thread>

#include "streams/audio.h"
#include "streams/audio_convert.h"
#include "streams/windows/wasapi_source.h"
#include "tests/support/captured_log.h"
#include "tests/support/recorded_sound.h"

namespace {

// A sine of amplitude one half on both sides of the default output.
class Tone {
 public:
  explicit Tone(double hz) : thread_([this, hz] { run(hz); }) {}
  ~Tone() {
    stop_ = true;
    thread_.join();
  }
  Tone(const Tone&) = delete;
  Tone& operator=(const Tone&) = delete;

  HRESULT result() { return started_.get_future().get(); }  // once

 private:
  static constexpr UINT32 BUFFER_FRAMES = 9'600;  // 200 ms

  HRESULT start() {
    ComPtr<IMMDeviceEnumerator> enumerator;
    ComPtr<IMMDevice> device;
    HRESULT result = make_device_enumerator(&enumerator);
    if (SUCCEEDED(result)) result = default_output(*enumerator.Get(), &device);
    if (SUCCEEDED(result))
      result = device->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr,
                                reinterpret_cast<void**>(client_.GetAddressOf()));
    if (FAILED(result)) return result;
    const WAVEFORMATEX format{WAVE_FORMAT_IEEE_FLOAT, 2, 48'000, 384'000, 8, 32, 0};
    result = client_->Initialize(
        AUDCLNT_SHAREMODE_SHARED,
        AUDCLNT_STREAMFLAGS_AUTOCONVERTPCM | AUDCLNT_STREAMFLAGS_SRC_DEFAULT_QUALITY, 2'000'000, 0,
        &format, nullptr);
    if (SUCCEEDED(result)) result = client_->GetService(IID_PPV_ARGS(&render_));
    return SUCCEEDED(result) ? client_->Start() : result;
  }

  void run(double hz) {
    const ComThread com;
    started_.set_value(start());
    for (double turns = 0; render_ && !stop_; Sleep(10)) {
      UINT32 waiting = 0;
      if (FAILED(client_->GetCurrentPadding(&waiting))) break;
      const UINT32 frames = BUFFER_FRAMES - std::min(waiting, BUFFER_FRAMES);
      BYTE* data = nullptr;
      if (FAILED(render_->GetBuffer(frames, &data))) continue;
      auto* samples = reinterpret_cast<float*>(data);
      for (UINT32 i = 0; i < frames; ++i, turns += hz / 48'000) {
        const double value = 0.5 * std::sin(2 * std::numbers::pi * turns);
        samples[2 * i] = samples[2 * i + 1] = static_cast<float>(value);
      }
      render_->ReleaseBuffer(frames, 0);
    }
    if (client_) client_->Stop();
    render_.Reset();
    client_.Reset();
  }

  std::atomic<bool> stop_{false};
  std::promise<HRESULT> started_;
  ComPtr<IAudioClient> client_;
  ComPtr<IAudioRenderClient> render_;
  std::thread thread_;  // last: it uses all of them
};

// With an output or without one, here are the system's own words.
TEST(WasapiSystem, TheDefaultOutputIsTheSystems) {
  WasapiSource source;
  const std::atomic<bool> stop{false};
  std::string id = "former";
  MixFormat mix;
  const std::uint32_t error = source.open(stop, &id, &mix);
  ComPtr<IMMDeviceEnumerator> enumerator;
  ASSERT_EQ(make_device_enumerator(&enumerator), S_OK);
  ComPtr<IMMDevice> device;
  if (const HRESULT absent = default_output(*enumerator.Get(), &device); FAILED(absent)) {
    EXPECT_EQ(error, static_cast<std::uint32_t>(absent));
    EXPECT_EQ(id, "");
    EXPECT_EQ(source.default_device(), "");
    return;
  }
  EXPECT_EQ(error, 0U);
  EXPECT_EQ(id, device_id(*device.Get()));
  EXPECT_NE(id, "");
  EXPECT_EQ(source.default_device(), id);
  EXPECT_TRUE(audio_internal::readable_format(mix).has_value());
}

class WasapiLoopbackTest : public testing::Test {
 protected:
  WasapiLoopbackTest() { sound_.record(capture_); }

  CapturedLog log_;
  RecordedSound sound_;
  OpusAudioCapture capture_{make_native_audio_source};
};

TEST_F(WasapiLoopbackTest, ATonePlayedToTheDefaultOutputComesOutOfThePackets) {
  Tone tone(440);
  ASSERT_EQ(tone.result(), S_OK);
  capture_.start();
  EXPECT_TRUE(sound_.wait_for_tone(440)) << log_.text();
  EXPECT_EQ(log_.count("audio: loopback capture of the default output ("), 1) << log_.text();
  for (const SoundPacket& packet : sound_.packets()) {
    const OpusPacketFacts facts = opus_packet_facts(packet.bytes);
    EXPECT_TRUE(facts.stereo);
    EXPECT_EQ(facts.frames, 480);
  }
}

TEST_F(WasapiLoopbackTest, ItIsHeardFromWhenItBeginsUntilItEnds) {
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_count(50)) << log_.text();
  std::size_t from = sound_.count();
  {
    Tone tone(880);
    ASSERT_EQ(tone.result(), S_OK);
    EXPECT_TRUE(sound_.wait_for_tone(880, from));
  }
  EXPECT_TRUE(sound_.wait_for_stretch(
      10,
      [](const SoundDecoder& heard) {
        return std::ranges::all_of(heard.left, [](float s) { return std::abs(s) < 0.01F; });
      },
      sound_.count()));
}

// Stamps are of the clock that lund_now_us reads. A block's may lie ahead by what its buffer holds.
TEST_F(WasapiLoopbackTest, StampsAreOfWhenItWasPlayed) {
  constexpr std::uint64_t BUFFER_US = 500'000;
  constexpr std::uint64_t LATEST_US = 10'000'000;
  Tone tone(440);
  ASSERT_EQ(tone.result(), S_OK);
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_tone(440)) << log_.text();
  for (const SoundPacket& packet : sound_.packets()) {
    EXPECT_LT(packet.capture_us, packet.at_us + BUFFER_US);
    EXPECT_LT(packet.at_us, packet.capture_us + LATEST_US);
  }
}

}  // namespace
