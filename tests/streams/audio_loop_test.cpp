#include "streams/audio_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "tests/support/allocation_counter.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_audio_source.h"
#include "tests/support/opus_decoder.h"
#include "tests/support/spectrum.h"

using namespace audio_internal;
using fake_audio::Delivery;
using fake_audio::level;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr auto START_US = virtual_time::START_US;

const auto SILENT = testing::FloatNear(0.0F, 1e-9F);

struct SeenPacket {
  std::uint64_t at_us = 0;
  std::uint64_t capture_us = 0;
  std::vector<std::uint8_t> bytes;
};

class Owner final : public AudioCapture {
 public:
  void start() override {}
  void stop() override {}
};

class AudioLoopTest : public testing::Test {
 protected:
  AudioLoopTest() {
    virtual_time::reset();
    owner_.on_packet = [this](const std::uint8_t* data, std::uint64_t size,
                              std::uint64_t capture_us) {
      packets_.push_back({lund_now_us(), capture_us, {data, data + size}});
    };
    EXPECT_TRUE(loop_->open_encoder());
  }

  void set_up() { EXPECT_TRUE(loop_->step()); }

  // Steps until the clock has reached this long after the start.
  void run_until(std::uint64_t ms) {
    while (lund_now_us() < START_US + ms * 1'000) ASSERT_TRUE(loop_->step());
  }

  void deliver(Delivery delivery) { device_.deliveries.push_back(std::move(delivery)); }
  // `frames` of sound that is there at this time.
  void deliver(std::uint64_t ms, std::uint32_t frames = 480, float value = 0.25F) {
    deliver(level(START_US + ms * 1'000, frames, value));
  }

  // In milliseconds after the start, which all stamps of a test are multiples of.
  std::vector<std::uint64_t> stamps() const {
    std::vector<std::uint64_t> times;
    for (const SeenPacket& packet : packets_) {
      EXPECT_EQ(packet.capture_us % 1'000, 0U);
      times.push_back((packet.capture_us - START_US) / 1'000);
    }
    return times;
  }

  std::vector<float> decoded_left() const {
    SoundDecoder decoder;
    for (const SeenPacket& packet : packets_) decoder.decode(packet.bytes);
    return decoder.left;
  }

  fake_audio::Device device_;
  fake_audio::Source source_{device_};
  Owner owner_;
  StopRequest request_;
  CapturedLog log_;
  std::vector<SeenPacket> packets_;
  std::unique_ptr<AudioLoop> loop_ = std::make_unique<AudioLoop>(source_, owner_, request_);
};

using Form = AudioSource::Form;

// Set-up.

TEST_F(AudioLoopTest, AsksTheEngineToConvertFirstAndSaysWhatItCaptures) {
  device_.mix = {.tag = 1, .rate = 44'100, .channels = 6, .bits = 24, .block_align = 18};
  set_up();
  EXPECT_THAT(device_.prepared, ElementsAre(Form::Converted));
  EXPECT_EQ(log_.count("audio: loopback capture of the default output (44100 Hz, 6 ch, engine "
                       "converts) -> Opus 48 kHz stereo 10 ms 128 kbps"),
            1);
}

TEST_F(AudioLoopTest, WithAnEngineThatRefusesTakesTheMixItself) {
  device_.converted_error = 0x88890008;
  device_.mix = {.tag = 1, .rate = 44'100, .channels = 1, .bits = 16, .block_align = 2};
  set_up();
  EXPECT_THAT(device_.prepared, ElementsAre(Form::Converted, Form::AsMixed));
  EXPECT_EQ(log_.count("audio: loopback capture of the default output (44100 Hz, 1 ch) -> Opus "
                       "48 kHz stereo 10 ms 128 kbps"),
            1);
}

TEST_F(AudioLoopTest, WhatTheEngineConvertsNeedsNoReadableMix) {
  device_.mix = {};
  set_up();
  deliver(10);
  run_until(10);
  EXPECT_THAT(packets_, SizeIs(1));
}

TEST_F(AudioLoopTest, AnUnreadableMixFailsTheSetUp) {
  device_.converted_error = 0x88890008;
  device_.mix.bits = 64;
  set_up();
  EXPECT_THAT(device_.prepared, ElementsAre(Form::Converted));
  EXPECT_EQ(log_.count("audio: FakeAudio loopback setup failed (0x80004005); retrying in 2 s"), 1);
  EXPECT_EQ(device_.closes, 1);
}

TEST_F(AudioLoopTest, AFailedSetUpIsTriedAgainAfterTwoSecondsForAsLongAsItTakes) {
  device_.open_error = 0x88890004;
  run_until(60'000 - 1);
  EXPECT_EQ(device_.opens, 30);
  EXPECT_EQ(device_.closes, 30);
  EXPECT_EQ(log_.count("audio: FakeAudio loopback setup failed (0x88890004); retrying in 2 s"), 30);
  EXPECT_THAT(packets_, IsEmpty());
  device_.open_error = 0;
  set_up();
  EXPECT_EQ(device_.opens, 31);
  deliver(60'010);
  run_until(60'010);
  EXPECT_THAT(packets_, SizeIs(1));
}

TEST_F(AudioLoopTest, BothFormsRefusedFailWithTheLastError) {
  device_.converted_error = 0x88890008;
  device_.as_mixed_error = 0x8889000A;
  set_up();
  EXPECT_EQ(log_.count("audio: FakeAudio loopback setup failed (0x8889000a); retrying in 2 s"), 1);
}

TEST_F(AudioLoopTest, AConvertedRecordingThatDoesNotBeginIsNotTriedAsMixed) {
  device_.start_error = 0x88890004;
  set_up();
  EXPECT_THAT(device_.prepared, ElementsAre(Form::Converted));
  EXPECT_EQ(log_.count("audio: FakeAudio loopback setup failed (0x88890004); retrying in 2 s"), 1);
  EXPECT_EQ(device_.closes, 1);
}

TEST_F(AudioLoopTest, StopEndsThePauseAfterAFailureWithinItsStep) {
  device_.open_error = 1;
  set_up();
  run_until(500);
  request_.stop = true;
  EXPECT_FALSE(loop_->step());
  EXPECT_EQ(lund_now_us(), START_US + 500'000);
  EXPECT_EQ(device_.opens, 1);
}

TEST_F(AudioLoopTest, ASetUpThatStopHasCutShortIsNoFailure) {
  device_.open_error = 1;
  device_.during_open = [this] { request_.stop = true; };
  EXPECT_FALSE(loop_->step());
  EXPECT_EQ(log_.count("failed"), 0);
}

TEST_F(AudioLoopTest, AnEncoderThatCannotOpenLetsNoSoundFlow) {
  AudioLoop loop(source_, owner_, request_);
  EXPECT_FALSE(loop.open_encoder({.encoder = "no-such-encoder"}));
  EXPECT_EQ(device_.opens, 0);
}

TEST_F(AudioLoopTest, TheSourceIsClosedAtTheEnd) {
  set_up();
  loop_.reset();
  EXPECT_EQ(device_.closes, 1);
}

// Sound.

TEST_F(AudioLoopTest, At48kHzTheResamplerIsSkippedWhicheverPathSetItUp) {
  for (const std::uint32_t engine_refuses : {0U, 0x88890008U}) {
    packets_.clear();
    device_.converted_error = engine_refuses;
    loop_ = std::make_unique<AudioLoop>(source_, owner_, request_);
    ASSERT_TRUE(loop_->open_encoder());
    set_up();
    // A resampler would hold its first frame back.
    deliver(level(lund_now_us(), 480));
    EXPECT_TRUE(loop_->step());
    EXPECT_THAT(packets_, SizeIs(1)) << engine_refuses;
  }
}

TEST_F(AudioLoopTest, AMonoMixIsHeardOnBothSides) {
  device_.converted_error = 1;
  device_.mix = {.tag = 1, .rate = 48'000, .channels = 1, .bits = 16, .block_align = 2};
  set_up();
  for (int i = 0; i < 50; ++i) {
    std::vector<std::int16_t> sine;
    for (int n = i * 480; n < (i + 1) * 480; ++n)
      sine.push_back(
          static_cast<std::int16_t>(16'384 * std::sin(2 * std::numbers::pi * 440 * n / 48'000)));
    deliver({.at_us = lund_now_us(), .bytes = fake_audio::as_bytes(sine), .frames = 480});
  }
  EXPECT_TRUE(loop_->step());
  SoundDecoder decoder;
  for (const SeenPacket& packet : packets_) decoder.decode(packet.bytes);
  EXPECT_NEAR(tone_amplitude(decoder.left, 48'000, 440), 0.5, 0.05);
  EXPECT_NEAR(tone_amplitude(decoder.right, 48'000, 440), 0.5, 0.05);
}

TEST_F(AudioLoopTest, AFivePointOneMixAtAnotherRateKeepsItsFirstTwoChannels) {
  device_.converted_error = 1;
  device_.mix = {.tag = 3, .rate = 44'100, .channels = 6, .bits = 32, .block_align = 24};
  set_up();
  std::vector<float> samples;
  const auto sine = [](double hz, int n) {
    return static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * hz * n / 44'100));
  };
  for (int n = 0; n < 22'050; ++n) {
    samples.insert(samples.end(), {sine(440, n), sine(660, n)});
    samples.insert(samples.end(), 4, sine(1'000, n));
  }
  deliver({.at_us = lund_now_us(), .bytes = fake_audio::as_bytes(samples), .frames = 22'050});
  EXPECT_TRUE(loop_->step());
  EXPECT_THAT(packets_, SizeIs(49));  // of 23,999 frames
  SoundDecoder decoder;
  for (const SeenPacket& packet : packets_) decoder.decode(packet.bytes);
  EXPECT_EQ(loudest_hz(decoder.left, 48'000, 300, 1'200), 440);
  EXPECT_EQ(loudest_hz(decoder.right, 48'000, 300, 1'200), 660);
  EXPECT_LT(tone_amplitude(decoder.left, 48'000, 1'000), 0.01);
}

TEST_F(AudioLoopTest, BuffersOfAnySizeAddUpAndTheStampStaysThatOfTheOldestSample) {
  set_up();
  deliver(5, 479);
  deliver(15, 1);
  run_until(5);
  EXPECT_THAT(packets_, IsEmpty());
  run_until(15);
  EXPECT_THAT(stamps(), ElementsAre(5));
  EXPECT_EQ(packets_[0].at_us, START_US + 15'000);
}

TEST_F(AudioLoopTest, OneBufferOfManyBlocksGivesStampsTenMillisecondsApart) {
  set_up();
  deliver(10, 480 * 3 + 100);
  deliver(20, 380);
  run_until(20);
  EXPECT_THAT(stamps(), ElementsAre(10, 20, 30, 40));
}

TEST_F(AudioLoopTest, AStampIsTheDevicesButNeverInTheFuture) {
  set_up();
  Delivery past = level(START_US + 20'000, 480);
  past.device_us = START_US + 8'000;
  deliver(past);
  Delivery future = level(START_US + 30'000, 480);
  future.device_us = START_US + 31'000;
  deliver(future);
  deliver(40);  // the device doesn't say
  run_until(40);
  EXPECT_THAT(stamps(), ElementsAre(8, 30, 40));
}

TEST_F(AudioLoopTest, ABufferWithTheSilentFlagCountsAsDataAndIsSilence) {
  set_up();
  Delivery loud_bytes = level(START_US + 35'000, 480, 0.9F);
  loud_bytes.silent = true;
  deliver(loud_bytes);
  run_until(74);
  ASSERT_THAT(stamps(), ElementsAre(35));  // nothing by the rule of silence yet
  run_until(75 + 30);
  ASSERT_GT(packets_.size(), 1U);
  EXPECT_THAT(decoded_left(), Each(SILENT));
}

TEST_F(AudioLoopTest, FramesWithoutDataAreSilence) {
  set_up();
  deliver({.at_us = START_US + 10'000, .frames = 480, .null = true});
  run_until(10);
  EXPECT_THAT(stamps(), ElementsAre(10));
  EXPECT_THAT(decoded_left(), Each(SILENT));
}

TEST_F(AudioLoopTest, PacketsAreDroppedWhileNobodyTakesThem) {
  owner_.on_packet = nullptr;
  set_up();
  deliver(10);
  run_until(10);
  run_until(200);
  EXPECT_THAT(packets_, IsEmpty());
}

// Silence.

TEST_F(AudioLoopTest, FortyMillisecondsWithoutSoundAreNoSilenceYet) {
  set_up();
  deliver(5);
  run_until(45);  // exactly 40 ms later
  EXPECT_THAT(stamps(), ElementsAre(5));
  // Silence is entered at 55 ms, and its first packet goes out 10 ms after that.
  run_until(64);
  EXPECT_EQ(lund_now_us(), START_US + 65'000);
  EXPECT_THAT(stamps(), ElementsAre(5, 55));
  EXPECT_EQ(packets_[1].at_us, START_US + 65'000);
}

TEST_F(AudioLoopTest, SilenceGoesOnAtOnePacketEachTenMilliseconds) {
  set_up();
  run_until(1'000);
  // Entered at 50 ms.
  ASSERT_THAT(packets_, SizeIs(95));
  for (std::size_t i = 0; i < packets_.size(); ++i) {
    EXPECT_EQ(packets_[i].capture_us, START_US + 50'000 + i * 10'000);
    EXPECT_EQ(packets_[i].at_us, packets_[i].capture_us + 10'000);
  }
}

// A turn that comes late makes up for what it missed.
TEST_F(AudioLoopTest, SilenceKeepsToTheClockWhenTheThreadIsHeldUp) {
  set_up();
  run_until(60);
  EXPECT_THAT(stamps(), ElementsAre(50));
  virtual_time::advance_ms(45);
  EXPECT_TRUE(loop_->step());
  EXPECT_THAT(stamps(), ElementsAre(50, 60, 70, 80, 90, 100));
}

TEST_F(AudioLoopTest, PlaybackThatResumesDropsWhatIsLeftFromBeforeTheSilence) {
  set_up();
  deliver(10, 480 + 200, 0.9F);
  deliver(150, 480);
  run_until(150);
  const std::vector<std::uint64_t> all = stamps();
  // The 200 frames of 10 ms aren't put before those of 150 ms.
  EXPECT_EQ(all.front(), 10U);
  EXPECT_EQ(all.back(), 150U);
  EXPECT_EQ(packets_.back().at_us, START_US + 150'000);
  run_until(180);
  EXPECT_EQ(stamps().back(), 150U);
}

TEST_F(AudioLoopTest, SilenceThatReturnsIsAnchoredAnew) {
  set_up();
  deliver(103);
  run_until(200);
  // Silence from 50 on; 103 is sound; silent again from 153, the first turn after 143.
  EXPECT_THAT(stamps(), ElementsAre(50, 60, 70, 80, 90, 103, 153, 163, 173, 183, 193));
}

// Devices.

TEST_F(AudioLoopTest, AChangedDefaultDeviceIsNoticedWithinALittleOverASecond) {
  set_up();
  run_until(500);
  device_.id = "headphones";
  run_until(1'000);
  EXPECT_EQ(device_.opens, 1);
  run_until(1'001);
  EXPECT_EQ(log_.count("audio: default output device changed; following it"), 1);
  EXPECT_EQ(device_.closes, 1);
  set_up();
  EXPECT_EQ(device_.opens, 2);
  EXPECT_EQ(lund_now_us(), START_US + 1'010'000);  // set up with no delay
  run_until(5'000);
  EXPECT_EQ(device_.opens, 2);
}

TEST_F(AudioLoopTest, AnIdThatCannotBeReadCountsAsEmptyAndARealOneAsAChange) {
  device_.id.clear();
  set_up();
  run_until(3'000);
  EXPECT_EQ(device_.opens, 1);
  device_.id = "speakers";
  run_until(4'100);
  EXPECT_EQ(device_.opens, 2);
  EXPECT_EQ(log_.count("audio: default output device changed; following it"), 1);
}

TEST_F(AudioLoopTest, ACaptureThatFailsStartsAgainAtOnce) {
  set_up();
  deliver(10, 300);
  deliver({.at_us = START_US + 20'000, .error = 0x88890004});
  run_until(20);
  EXPECT_EQ(log_.count("audio: capture stopped (0x88890004: device changed or invalidated); "
                       "restarting"),
            1);
  EXPECT_EQ(device_.closes, 1);
  set_up();
  EXPECT_EQ(lund_now_us(), START_US + 20'000);
  EXPECT_EQ(device_.opens, 2);
  // The 300 frames of before are gone.
  deliver(30, 479);
  run_until(30);
  EXPECT_THAT(packets_, IsEmpty());
  deliver(31, 1);
  run_until(31);
  EXPECT_THAT(stamps(), ElementsAre(30));
}

TEST_F(AudioLoopTest, InterpolationStartsAfreshAfterARestart) {
  device_.converted_error = 1;
  device_.mix.rate = 96'000;
  set_up();
  deliver(10, 401);
  deliver({.at_us = START_US + 15'000, .error = 1});
  run_until(15);
  set_up();
  // Every second of the 958 pairs of neighbours; a frame from before would make one more.
  deliver(20, 959);
  run_until(20);
  EXPECT_THAT(packets_, IsEmpty());
  deliver(25, 1);
  run_until(25);
  EXPECT_THAT(packets_, SizeIs(1));
}

TEST_F(AudioLoopTest, SilenceBeforeALongFailureIsNotMadeUpForAfterIt) {
  set_up();
  run_until(100);
  const std::size_t before = packets_.size();
  device_.open_error = 1;
  deliver({.at_us = lund_now_us(), .error = 1});
  run_until(10'000);
  EXPECT_EQ(packets_.size(), before);
  device_.open_error = 0;
  run_until(12'500);
  ASSERT_GT(packets_.size(), before);
  EXPECT_GT(packets_[before].capture_us, START_US + 10'000'000);
}

TEST_F(AudioLoopTest, TheEncoderOutlivesRestarts) {
  set_up();
  for (int i = 0; i < 5; ++i) {
    deliver(level(lund_now_us(), 480));
    deliver({.at_us = lund_now_us(), .error = 1});
    EXPECT_TRUE(loop_->step());
    set_up();
  }
  EXPECT_EQ(log_.count("libopus"), 0);
  deliver(level(lund_now_us(), 480));
  EXPECT_TRUE(loop_->step());
  EXPECT_EQ(opus_packet_facts(packets_.back().bytes).frames, 480);
}

// What FFmpeg takes for a packet is its own; beside that nothing is allocated.
TEST_F(AudioLoopTest, ASteadyStreamAllocatesNothingBesideTheEncoder) {
  std::uint64_t packets = 0;
  owner_.on_packet = [&packets](const std::uint8_t*, std::uint64_t, std::uint64_t) { ++packets; };
  AudioEncoder bare;
  ASSERT_TRUE(bare.open());
  const auto allocations_of_bare = [&bare](std::uint64_t blocks) {
    const std::array<float, BLOCK_FLOATS> silence{};
    const AllocationCount allocations;
    for (std::uint64_t i = 0; i < blocks; ++i) {
      EXPECT_TRUE(bare.send(silence));
      while (!bare.receive().empty()) {
      }
    }
    return allocations.count();
  };
  allocations_of_bare(100);

  device_.converted_error = 1;
  device_.mix.rate = 44'100;
  set_up();
  for (std::uint64_t ms = 10; ms < 4'000; ms += 10) deliver(ms, 441);
  run_until(1'000);
  packets = 0;
  AllocationCount allocations;
  run_until(3'000);
  std::uint64_t of_loop = allocations.count();
  EXPECT_NEAR(static_cast<double>(packets), 200, 1);
  EXPECT_EQ(of_loop, allocations_of_bare(packets));
  RecordProperty("allocations_per_packet",
                 std::to_string(static_cast<double>(of_loop) / static_cast<double>(packets)));

  device_.deliveries.clear();
  run_until(4'000);
  packets = 0;
  allocations = AllocationCount();
  run_until(6'000);
  of_loop = allocations.count();
  EXPECT_EQ(packets, 200U);
  EXPECT_EQ(of_loop, allocations_of_bare(packets));
}

}  // namespace
