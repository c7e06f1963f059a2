// The recording's calls, in order and in content, on an output that is made up.
#include "streams/windows/wasapi_source.h"

#include <gmock/gmock.h>

#include "streams/audio.h"
#include "tests/support/captured_log.h"
#include "tests/support/recorded_sound.h"
#include "tests/support/windows/fake_sound_devices.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Form = AudioSource::Form;

constexpr HRESULT UNSUPPORTED = AUDCLNT_E_UNSUPPORTED_FORMAT;
constexpr HRESULT INVALIDATED = AUDCLNT_E_DEVICE_INVALIDATED;

constexpr std::uint32_t number(HRESULT result) {
  return static_cast<std::uint32_t>(result);
}

class WasapiSourceTest : public testing::Test {
 protected:
  ~WasapiSourceTest() override {
    source_.close();
    EXPECT_THAT(devices_.stage.complaints(), IsEmpty());
  }

  std::uint32_t open() { return source_.open(stop_, &device_, &mix_); }
  std::uint32_t open_and_start(Form form = Form::Converted) {
    std::uint32_t error = open();
    if (error == 0) error = source_.prepare(stop_, form);
    return error != 0 ? error : source_.start();
  }
  // The next buffer's fields, which must be there.
  AudioBuffer next() {
    AudioBuffer buffer;
    EXPECT_EQ(source_.next_buffer(&buffer), 0U);
    return buffer;
  }

  FakeSoundDevices devices_;
  WasapiSource source_{devices_.maker()};
  const std::atomic<bool> stop_{false};
  std::string device_ = "former";
  MixFormat mix_;
};

// ---- Setting up

TEST_F(WasapiSourceTest, OpensTheDefaultOutputAndTellsItsIdAndHowItMixes) {
  devices_.id = L"{0.0.0.0}.Lautsprecher \u00fc";
  ASSERT_EQ(open(), 0U);
  EXPECT_EQ(device_, "{0.0.0.0}.Lautsprecher \u00fc");
  EXPECT_EQ(mix_.tag, 3);
  EXPECT_EQ(mix_.rate, 48'000U);
  EXPECT_EQ(mix_.channels, 2);
  EXPECT_EQ(mix_.bits, 32);
  EXPECT_EQ(mix_.block_align, 8);
  EXPECT_EQ(mix_.extra_bytes, 0);
  EXPECT_STREQ(source_.name(), "WASAPI");
  EXPECT_FALSE(source_.sends_silence());
}

TEST_F(WasapiSourceTest, AnIdThatCannotBeReadCountsAsEmptyAndHindersNothing) {
  devices_.stage.fail<&IMMDevice::GetId>(E_OUTOFMEMORY);
  EXPECT_EQ(open(), 0U);
  EXPECT_EQ(device_, "");
}

TEST_F(WasapiSourceTest, AsksTheEngineFor48kHzStereoFloat) {
  ASSERT_EQ(open_and_start(), 0U);
  ASSERT_THAT(devices_.initialized, SizeIs(1));
  const FakeSoundDevices::Initialized& asked = devices_.initialized[0];
  EXPECT_EQ(asked.mode, AUDCLNT_SHAREMODE_SHARED);
  EXPECT_EQ(asked.flags, 0x88060000U);
  EXPECT_EQ(asked.duration, 200'000);
  EXPECT_EQ(asked.periodicity, 0);
  EXPECT_EQ(asked.format.Format.wFormatTag, 0xFFFE);
  EXPECT_EQ(asked.format.Format.nChannels, 2);
  EXPECT_EQ(asked.format.Format.nSamplesPerSec, 48'000U);
  EXPECT_EQ(asked.format.Format.nAvgBytesPerSec, 384'000U);
  EXPECT_EQ(asked.format.Format.nBlockAlign, 8);
  EXPECT_EQ(asked.format.Format.wBitsPerSample, 32);
  EXPECT_EQ(asked.format.Format.cbSize, 22);
  EXPECT_EQ(asked.format.Samples.wValidBitsPerSample, 32);
  EXPECT_EQ(asked.format.dwChannelMask, 3U);
  constexpr GUID IEEE_FLOAT = {
      0x00000003, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
  EXPECT_TRUE(asked.format.SubFormat == IEEE_FLOAT);
  EXPECT_THAT(devices_.stage.take_calls(),
              ElementsAre("IMMDeviceEnumerator::GetDefaultAudioEndpoint", "IMMDevice::GetId",
                          "IMMDevice::Activate", "IAudioClient::GetMixFormat",
                          "IAudioClient::Initialize", "IAudioClient::SetEventHandle",
                          "IAudioClient::GetService", "IAudioClient::Start"));
}

TEST_F(WasapiSourceTest, AnEngineThatRefusesIsAskedAnewForItsOwnMix) {
  devices_.mix.Format.nSamplesPerSec = 44'100;
  devices_.stage.fail<&IAudioClient::Initialize>(UNSUPPORTED);
  ASSERT_EQ(open(), 0U);
  ASSERT_EQ(source_.prepare(stop_, Form::Converted), number(UNSUPPORTED));
  devices_.stage.take_calls();
  ASSERT_EQ(source_.prepare(stop_, Form::AsMixed), 0U);
  EXPECT_THAT(devices_.stage.take_calls(),
              ElementsAre("IMMDevice::Activate", "IAudioClient::Initialize"));
  ASSERT_THAT(devices_.initialized, SizeIs(1));
  const FakeSoundDevices::Initialized& asked = devices_.initialized[0];
  EXPECT_EQ(asked.mode, AUDCLNT_SHAREMODE_SHARED);
  EXPECT_EQ(asked.flags, 0x00060000U);
  EXPECT_EQ(asked.duration, 200'000);
  EXPECT_EQ(asked.periodicity, 0);
  EXPECT_EQ(asked.format.Format.wFormatTag, 3);
  EXPECT_EQ(asked.format.Format.nSamplesPerSec, 44'100U);
  EXPECT_EQ(source_.start(), 0U);
}

TEST_F(WasapiSourceTest, SubFormatsAreKnownByTheirIdsAndOnlyWhereThereIsRoomForOne) {
  using SubFormat = MixFormat::SubFormat;
  devices_.mix.Format.wFormatTag = 0xFFFE;
  devices_.mix.Format.cbSize = 22;
  devices_.mix.SubFormat = {1, 0, 0x10, {0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}};
  ASSERT_EQ(open(), 0U);
  EXPECT_EQ(mix_.sub_format, SubFormat::Pcm);
  EXPECT_EQ(mix_.extra_bytes, 22);
  devices_.mix.SubFormat.Data1 = 3;
  ASSERT_EQ(open(), 0U);
  EXPECT_EQ(mix_.sub_format, SubFormat::Float);
  devices_.mix.SubFormat.Data1 = 0x92;  // Dolby AC-3 over S/PDIF
  ASSERT_EQ(open(), 0U);
  EXPECT_EQ(mix_.sub_format, SubFormat::Other);
  devices_.mix.SubFormat.Data1 = 3;
  devices_.mix.Format.cbSize = 21;
  ASSERT_EQ(open(), 0U);
  EXPECT_EQ(mix_.sub_format, SubFormat::Other);
  devices_.mix.Format.cbSize = 22;
  devices_.mix.Format.wFormatTag = 3;
  ASSERT_EQ(open(), 0U);
  EXPECT_EQ(mix_.sub_format, SubFormat::Other);
}

TEST_F(WasapiSourceTest, WithoutAnOutputItFailsWithTheSystemsWord) {
  devices_.id.clear();
  EXPECT_EQ(open(), 0x80070490U);
  EXPECT_EQ(device_, "");
  EXPECT_EQ(source_.default_device(), "");
}

TEST_F(WasapiSourceTest, WithoutDevicesAtAllItFailsWithTheSystemsWord) {
  WasapiSource source([](IMMDeviceEnumerator**) { return REGDB_E_CLASSNOTREG; });
  EXPECT_EQ(source.open(stop_, &device_, &mix_), 0x80040154U);
}

TEST_F(WasapiSourceTest, EachStepsFailureIsTheResultAndAllIsLetGo) {
  struct Step {
    const char* method;
    HRESULT result;
    bool stops;  // what has been started is stopped
  };
  constexpr Step STEPS[] = {
      {"IMMDeviceEnumerator::GetDefaultAudioEndpoint", E_OUTOFMEMORY, false},
      {"IMMDevice::Activate", INVALIDATED, false},
      {"IAudioClient::GetMixFormat", AUDCLNT_E_SERVICE_NOT_RUNNING, false},
      {"IAudioClient::Initialize", AUDCLNT_E_ENDPOINT_CREATE_FAILED, false},
      {"IAudioClient::SetEventHandle", AUDCLNT_E_EVENTHANDLE_NOT_EXPECTED, false},
      {"IAudioClient::GetService", AUDCLNT_E_WRONG_ENDPOINT_TYPE, false},
      {"IAudioClient::Start", INVALIDATED, true},
  };
  for (const Step& step : STEPS) {
    devices_.stage.fail(step.method, step.result);
    EXPECT_EQ(open_and_start(), number(step.result)) << step.method;
    devices_.stage.take_calls();
    source_.close();
    EXPECT_EQ(devices_.stage.count("IAudioClient::Stop"), step.stops ? 1 : 0) << step.method;
    EXPECT_THAT(devices_.stage.complaints(), IsEmpty()) << step.method;
  }
  EXPECT_EQ(open_and_start(), 0U);
}

TEST_F(WasapiSourceTest, ASecondClientThatCannotBeHadFailsTheSecondForm) {
  devices_.stage.fail<&IAudioClient::Initialize>(UNSUPPORTED);
  ASSERT_EQ(open(), 0U);
  ASSERT_EQ(source_.prepare(stop_, Form::Converted), number(UNSUPPORTED));
  devices_.stage.fail<&IMMDevice::Activate>(INVALIDATED);
  EXPECT_EQ(source_.prepare(stop_, Form::AsMixed), number(INVALIDATED));
}

// ---- Recording

TEST_F(WasapiSourceTest, WaitsForTheEventButNotForEver) {
  ASSERT_EQ(open_and_start(), 0U);
  ASSERT_NE(devices_.event, nullptr);
  SetEvent(devices_.event);
  source_.wait(INFINITE);
  // It resets by itself.
  EXPECT_EQ(WaitForSingleObject(devices_.event, 0), DWORD{WAIT_TIMEOUT});
  source_.wait(1);
}

TEST_F(WasapiSourceTest, GivesWhatTheDeviceGivesAndReleasesThatManyFrames) {
  ASSERT_EQ(open_and_start(), 0U);
  devices_.sounds = {{{1, 2, 3, 4, 5, 6, 7, 8}, 1, 0, 12'345'678},
                     {{0, 0, 0, 0, 0, 0, 0, 0}, 1, AUDCLNT_BUFFERFLAGS_SILENT, 0},
                     {{}, 480, AUDCLNT_BUFFERFLAGS_DATA_DISCONTINUITY, 9}};
  AudioBuffer buffer = next();
  EXPECT_EQ(buffer.frames, 1U);
  EXPECT_EQ(buffer.data[7], 8);
  EXPECT_FALSE(buffer.silent);
  EXPECT_EQ(buffer.device_us, 1'234'567U);
  source_.release_buffer();
  buffer = next();
  EXPECT_TRUE(buffer.silent);
  EXPECT_EQ(buffer.device_us, 0U);
  source_.release_buffer();
  buffer = next();
  EXPECT_EQ(buffer.frames, 480U);
  EXPECT_EQ(buffer.data, nullptr);
  EXPECT_FALSE(buffer.silent);
  source_.release_buffer();
  EXPECT_EQ(next().frames, 0U);
  EXPECT_THAT(devices_.released_frames, ElementsAre(1, 1, 480));
}

TEST_F(WasapiSourceTest, ADeviceThatGoesIsAnError) {
  ASSERT_EQ(open_and_start(), 0U);
  AudioBuffer buffer;
  devices_.stage.fail<&IAudioCaptureClient::GetNextPacketSize>(INVALIDATED);
  EXPECT_EQ(source_.next_buffer(&buffer), number(INVALIDATED));
  devices_.sounds = {{{}, 480, 0, 0}};
  devices_.stage.fail<&IAudioCaptureClient::GetBuffer>(AUDCLNT_E_RESOURCES_INVALIDATED);
  EXPECT_EQ(source_.next_buffer(&buffer), number(AUDCLNT_E_RESOURCES_INVALIDATED));
  EXPECT_EQ(buffer.frames, 0U);
}

TEST_F(WasapiSourceTest, TheDefaultOutputsIdIsReadEachTime) {
  ASSERT_EQ(open_and_start(), 0U);
  EXPECT_EQ(source_.default_device(), "speakers");
  devices_.id = L"headset";
  EXPECT_EQ(source_.default_device(), "headset");
  devices_.stage.fail<&IMMDeviceEnumerator::GetDefaultAudioEndpoint>(E_FAIL);
  EXPECT_EQ(source_.default_device(), "");
  devices_.stage.fail<&IMMDevice::GetId>(E_FAIL);
  EXPECT_EQ(source_.default_device(), "");
}

TEST_F(WasapiSourceTest, ClosingStopsOnceAndLetsAllGo) {
  ASSERT_EQ(open_and_start(), 0U);
  devices_.stage.take_calls();
  source_.close();
  source_.close();
  EXPECT_THAT(devices_.stage.take_calls(), ElementsAre("IAudioClient::Stop"));
  EXPECT_THAT(devices_.stage.complaints(), IsEmpty());
  EXPECT_EQ(open_and_start(), 0U);
}

// ---- With the capture around it

class WasapiCaptureTest : public testing::Test {
 protected:
  WasapiCaptureTest() { sound_.record(capture_); }

  bool logged(const std::string& line) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (log_.count(line) == 0 && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return log_.count(line) > 0;
  }

  CapturedLog log_;
  FakeSoundDevices devices_;
  RecordedSound sound_;
  OpusAudioCapture capture_{[this] { return std::make_unique<WasapiSource>(devices_.maker()); }};
};

TEST_F(WasapiCaptureTest, WithoutAnOutputTheLogSaysSo) {
  devices_.id.clear();
  capture_.start();
  EXPECT_TRUE(logged("audio: WASAPI loopback setup failed (0x80070490); retrying in 2 s"));
  capture_.stop();
  EXPECT_EQ(sound_.count(), 0U);
  EXPECT_THAT(devices_.stage.complaints(), IsEmpty());
}

TEST_F(WasapiCaptureTest, ADeviceThatGoesIsOpenedAnewAtOnce) {
  devices_.stage.fail<&IAudioCaptureClient::GetNextPacketSize>(INVALIDATED);
  capture_.start();
  EXPECT_TRUE(
      logged("audio: capture stopped (0x88890004: device changed or invalidated); restarting"));
  // It plays nothing: silence in packets.
  EXPECT_TRUE(sound_.wait_for_count(5));
  capture_.stop();
  EXPECT_EQ(log_.count("audio: loopback capture of the default output (48000 Hz, 2 ch, engine "
                       "converts) -> Opus 48 kHz stereo 10 ms 128 kbps"),
            2);
  EXPECT_THAT(devices_.stage.complaints(), IsEmpty());
}

}  // namespace
