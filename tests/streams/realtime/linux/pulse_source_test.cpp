#include "streams/linux/pulse_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <semaphore>
#include <thread>

#include "streams/audio.h"
#include "tests/support/captured_log.h"
#include "tests/support/linux/pipewire_server.h"
#include "tests/support/median.h"
#include "tests/support/recorded_sound.h"

using namespace std::chrono_literals;

namespace {

constexpr const char* SETUP_REFUSED =
    "audio: PulseAudio loopback setup failed (0x00000006); retrying in 2 s";

template <class Server>
class RecordingTest : public testing::Test {
 protected:
  explicit RecordingTest(std::unique_ptr<Server> server) : owned_server_(std::move(server)) {
    sound_.record(capture_);
  }
  void SetUp() override { ASSERT_TRUE(server_.running()); }

  void wait_for_line(const std::string& line, int times = 1) {
    const auto until = std::chrono::steady_clock::now() + 20s;
    while (log_.count(line) < times && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(5ms);
    ASSERT_GE(log_.count(line), times) << line << " isn't in:\n" << log_.text();
  }

  CapturedLog log_;
  const std::unique_ptr<Server> owned_server_;
  Server& server_ = *owned_server_;
  RecordedSound sound_;
  OpusAudioCapture capture_{make_native_audio_source};
};

class PulseSourceTest : public RecordingTest<SoundServer> {
 protected:
  PulseSourceTest() : RecordingTest(std::make_unique<SoundServer>()) {}
};

// What holds of each server of the protocol.
class PulseProtocolTest : public RecordingTest<AnySoundServer>,
                          public testing::WithParamInterface<SoundServerKind> {
 protected:
  PulseProtocolTest() : RecordingTest(GetParam().start()) {}
};

INSTANTIATE_TEST_SUITE_P(, PulseProtocolTest, testing::Values(PULSEAUDIO, PIPEWIRE),
                         [](const auto& test) { return test.param.name; });

TEST_P(PulseProtocolTest, ATonePlayedToTheDefaultSinkComesOutOfThePackets) {
  const Tone tone(server_, 440.0);
  capture_.start();
  EXPECT_TRUE(sound_.wait_for_sine(440, 0.5));
  for (const SoundPacket& packet : sound_.packets()) {
    const OpusPacketFacts facts = opus_packet_facts(packet.bytes);
    EXPECT_TRUE(facts.stereo);
    EXPECT_EQ(facts.frames, 480);
  }
  EXPECT_EQ(log_.count("audio: loopback capture of the default output (48000 Hz, 2 ch, engine "
                       "converts) -> Opus 48 kHz stereo 10 ms 128 kbps"),
            1);
}

// The server sends zeros then. Judged by when they come and by most stretches of a fifth of a
// second: a busy computer may hold up the server or the thread, and after that libpulse's stamps
// run at another pace for seconds.
TEST_P(PulseProtocolTest, WhileNothingPlaysPacketsKeepTheirRate) {
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_count(300));
  capture_.stop();
  constexpr std::size_t STRETCH = 20;
  const auto packets = sound_.packets(100);
  const auto ms_between = [](std::uint64_t from_us, std::uint64_t to_us) {
    return static_cast<double>(static_cast<std::int64_t>(to_us - from_us)) / 1'000;
  };
  std::vector<double> stretches_ms, ages_ms;
  for (std::size_t i = STRETCH; i < packets.size(); ++i) {
    stretches_ms.push_back(ms_between(packets[i - STRETCH].at_us, packets[i].at_us));
    ages_ms.push_back(ms_between(packets[i].capture_us, packets[i].at_us));
  }
  EXPECT_NEAR(median(stretches_ms), 10 * STRETCH, 25);  // PipeWire's come 21 ms at a time
  EXPECT_NEAR(median(ages_ms), 0, 250);                 // by this computer's clock
}

TEST_F(PulseSourceTest, ASuspendedSinkGivesSilenceWithStampsTenMillisecondsApart) {
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_count(20));
  ASSERT_EQ(server_.pactl({"suspend-sink", "out", "1"}).status, 0);
  // A second of it: should a busy computer hold the thread up, it begins anew.
  std::size_t at = sound_.count();
  std::vector<SoundPacket> run;
  while (run.size() < 100 && sound_.wait_for_count(at + 1)) {
    const SoundPacket packet = sound_.packets(at++).front();
    const bool in_step = !run.empty() && packet.capture_us == run.back().capture_us + 10'000;
    if (!in_step) run.clear();
    run.push_back(packet);
  }
  ASSERT_EQ(run.size(), 100U);
  SoundDecoder decoder;
  for (const SoundPacket& packet : run) decoder.decode(packet.bytes);
  EXPECT_LT(*std::ranges::max_element(decoder.left), 1e-6F);

  ASSERT_EQ(server_.pactl({"suspend-sink", "out", "0"}).status, 0);
  const Tone tone(server_, 440.0);
  EXPECT_TRUE(sound_.wait_for_tone(440.0, sound_.count()));
}

TEST_P(PulseProtocolTest, FollowsTheDefaultSink) {
  ASSERT_TRUE(server_.add_sink("other", 44'100, 6));
  const Tone low(server_, 440.0, "out");
  const Tone high(server_, 880.0, "other");
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_tone(440.0));
  ASSERT_TRUE(server_.set_default_sink("other"));
  const std::uint64_t changed_us = lund_now_us();
  const auto first = sound_.wait_for_tone(880.0, sound_.count());
  ASSERT_TRUE(first);
  RecordProperty("followed_after_ms",
                 std::to_string((sound_.packets(*first).front().at_us - changed_us) / 1'000));
  EXPECT_GE(log_.count(" 6 ch, engine converts)"), 1) << log_.text();

  ASSERT_TRUE(server_.set_default_sink("out"));
  EXPECT_TRUE(sound_.wait_for_tone(440.0, sound_.count()));
  EXPECT_EQ(log_.count("failed"), 0);
}

TEST_P(PulseProtocolTest, ItsStreamIsNotMovedToAnotherSource) {
  ASSERT_TRUE(server_.add_sink("other"));
  const Tone low(server_, 440.0, "out");
  const Tone high(server_, 880.0, "other");
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_tone(440.0));
  const std::string list = server_.pactl({"list", "short", "source-outputs"}).output;
  const RunResult move =
      run_program({"pactl", "move-source-output", list.substr(0, list.find('\t')), "other.monitor"},
                  server_.environment());
  EXPECT_NE(move.status, 0);
  const std::size_t from = sound_.count();
  EXPECT_TRUE(sound_.wait_for_tone(440.0, from));
  EXPECT_EQ(log_.count("restarting"), 0);
}

TEST_P(PulseProtocolTest, WhenItsSinkGoesItRecordsTheNextDefaultOne) {
  ASSERT_TRUE(server_.add_sink("other"));
  ASSERT_TRUE(server_.set_default_sink("other"));
  const Tone tone(server_, 440.0, "out");
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_count(20));
  ASSERT_TRUE(server_.remove_sink("other"));
  EXPECT_TRUE(sound_.wait_for_tone(440.0, sound_.count()));
  // PipeWire may tell of another default first.
  EXPECT_GE(log_.count("audio: capture stopped (0x") + log_.count("audio: default output device"),
            1);
}

TEST_F(PulseSourceTest, ComesBackWhenTheServerDoes) {
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_count(20));
  server_.kill();
  wait_for_line(SETUP_REFUSED);
  EXPECT_GE(log_.count("audio: capture stopped (0x"), 1);
  const std::size_t before = sound_.count();
  server_.restart();
  const Tone tone(server_, 440.0);
  EXPECT_TRUE(sound_.wait_for_tone(440.0, before));
}

TEST_F(PulseSourceTest, WithoutAServerEachAttemptIsSaidOnceUntilOneComes) {
  server_.kill();
  capture_.start();
  wait_for_line(SETUP_REFUSED, 2);
  EXPECT_EQ(sound_.count(), 0U);
  server_.restart();
  ASSERT_TRUE(sound_.wait_for_count(10));
  EXPECT_LE(log_.count("failed"), 3);
}

TEST_F(PulseSourceTest, AServerThatHangsMakesSilenceAndIsHeardAgainAfterwards) {
  const Tone tone(server_, 440.0);
  capture_.start();
  ASSERT_TRUE(sound_.wait_for_tone(440.0));
  server_.hang();
  const std::size_t hung = sound_.count() + 30;
  EXPECT_TRUE(sound_.wait_for_count(hung + 150));
  server_.carry_on();
  EXPECT_TRUE(sound_.wait_for_tone(440.0, hung + 150));
}

TEST_P(PulseProtocolTest, WhatPlayedWhileTheThreadWasHeldUpIsNotHeardLate) {
  // Theirs who call it until the capture's end, which is after the test's own.
  const auto held = std::make_shared<std::binary_semaphore>(0);
  const auto carry_on = std::make_shared<std::binary_semaphore>(0);
  capture_.on_packet = [this, held, carry_on, record = capture_.on_packet](
                           const std::uint8_t* data, std::uint64_t size, std::uint64_t time_us) {
    record(data, size, time_us);
    if (sound_.count() != 20) return;
    held->release();
    carry_on->acquire();
  };
  capture_.start();
  ASSERT_TRUE(held->try_acquire_for(20s));
  {
    const Tone tone(server_, 440.0);
    Ear ear(server_);
    ASSERT_TRUE(ear.hears(440.0));
    ear.listen(1s);
  }
  carry_on->release();
  ASSERT_TRUE(sound_.wait_for_count(150));
  EXPECT_FALSE(sound_.wait_for_tone(440.0, 20, 0ms));
  EXPECT_GE(log_.count("audio: capture stopped (0x"), 1);
}

// Five each, of which the middle one counts: another program may hold up one of them.
std::chrono::steady_clock::duration usual_stop(const std::function<void()>& start,
                                               OpusAudioCapture& capture) {
  std::vector<std::chrono::steady_clock::duration> times;
  for (int i = 0; i < 5; ++i) {
    start();
    const auto before = std::chrono::steady_clock::now();
    capture.stop();
    times.push_back(std::chrono::steady_clock::now() - before);
  }
  return median(times);
}

TEST_F(PulseSourceTest, StopsWithinATenthOfASecond) {
  const auto while_recording = usual_stop(
      [this] {
        const std::size_t before = sound_.count();
        capture_.start();
        sound_.wait_for_count(before + 5);
      },
      capture_);
  EXPECT_LT(while_recording, 100ms);

  server_.hang();
  const auto while_connecting = usual_stop(
      [this] {
        capture_.start();
        std::this_thread::sleep_for(50ms);  // whether it waits for the server by then or not
      },
      capture_);
  EXPECT_LT(while_connecting, 100ms);
  server_.carry_on();
}

// A server converts whatever it plays; this is what a capture without its help would do.
class UnconvertedSource final : public AudioSource {
 public:
  const char* name() const override { return pulse_.name(); }
  std::uint32_t open(const std::atomic<bool>& stop, std::string* device, MixFormat* mix) override {
    return pulse_.open(stop, device, mix);
  }
  std::uint32_t prepare(const std::atomic<bool>& stop, Form form) override {
    return form == Form::Converted ? std::uint32_t{PA_ERR_NOTSUPPORTED}
                                   : pulse_.prepare(stop, form);
  }
  void wait(std::uint32_t wait_ms) override { pulse_.wait(wait_ms); }
  std::uint32_t next_buffer(AudioBuffer* out) override { return pulse_.next_buffer(out); }
  void release_buffer() override { pulse_.release_buffer(); }
  std::string default_device() override { return pulse_.default_device(); }
  void close() override { pulse_.close(); }

 private:
  PulseSource pulse_;
};

TEST_P(PulseProtocolTest, TheMixOfTheSinkItselfIsConvertedHere) {
  ASSERT_TRUE(server_.add_sink("surround", 44'100, 6));
  ASSERT_TRUE(server_.set_default_sink("surround"));
  RecordedSound sound;
  OpusAudioCapture capture([] { return std::make_unique<UnconvertedSource>(); });
  sound.record(capture);
  capture.start();
  // Recorded before anything plays, the sink doesn't change over to the rate of the tone.
  ASSERT_TRUE(sound.wait_for_count(1));
  const Tone tone(server_, 440.0, "surround");
  EXPECT_TRUE(sound.wait_for_sine(440, 0.5));
  EXPECT_EQ(log_.count("(44100 Hz, 6 ch) -> Opus"), 1) << log_.text();
}

}  // namespace
