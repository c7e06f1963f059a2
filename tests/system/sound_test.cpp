// What plays on the host is what the client hears: pitch, loudness, sides, time. With a sound
// server of the test's own, which is PulseAudio.
#include <signal.h>

#include <algorithm>
#include <cmath>

#include "connection/clock.h"
#include "tests/system/sound_support.h"

namespace system_test {
namespace {

// What a decoder gives back of a loudness, and what it adds beside a tone.
constexpr double AMPLITUDE_SLACK = 0.02;  // 0.35 dB of 0.5
constexpr double PURITY = 0.99;           // -20 dB of all else
// Where computers are busy there are gaps; a stretch of this length without any tells of the rest.
constexpr double STRETCH_S = 0.25;
// Sound begins when its thread is at it, and ends when the client does.
constexpr double EDGES_S = 0.3;

class SoundTest : public RecordingTest {
 protected:
  void start(const std::vector<std::string>& host_arguments = {}) {
    RecordingTest::start(server_.environment(), host_arguments);
  }

  // Waits until the newest stretch of the recording holds this sine on the left and this one on the
  // right, and nothing else. Where it begins.
  std::optional<double> gets_sines(double left_hz, double right_hz) {
    const auto holds = [](const std::vector<float>& channel, double at, double hz) {
      return purity(piece(channel, at, STRETCH_S), hz) > PURITY;
    };
    double at = 0;
    const bool found = comes_true([&] {
      recording_.read_on();
      at = recording_.seconds() - STRETCH_S;
      return at >= 0 && holds(recording_.left, at, left_hz) &&
             holds(recording_.right, at, right_hz);
    });
    return found ? std::optional(at) : std::nullopt;
  }
  static void expect_sine(const std::vector<float>& channel, double at, int hz, double amplitude) {
    const auto heard = piece(channel, at, STRETCH_S);
    EXPECT_EQ(loudest_hz(heard, WavFile::RATE, 100, 1'000), hz);
    EXPECT_NEAR(tone_amplitude(heard, WavFile::RATE, hz), amplitude, AMPLITUDE_SLACK);
  }

  void expect_packets_for_the_time(double at_least_s) const;

  // In some stretch a tone misses what its gaps take away, and is in step behind them.
  static bool goes_on_through_gaps(const std::vector<float>& channel, int hz, double amplitude) {
    const double end = static_cast<double>(channel.size()) / WavFile::RATE;
    for (double at = 0; at + STRETCH_S <= end; at += STRETCH_S / 10) {
      const auto heard = piece(channel, at, STRETCH_S);
      double silent_s = 0;
      for (const Gap& gap : gaps(heard)) silent_s += gap.length_s;
      const double expected = amplitude * (1 - silent_s / STRETCH_S);
      if (silent_s > 0 && std::abs(tone_amplitude(heard, WavFile::RATE, hz) - expected) < 0.04 &&
          loudest_hz(heard, WavFile::RATE, 100, 1'000) == hz)
        return true;
    }
    return false;
  }
  void expect_silence() const {
    EXPECT_TRUE(std::ranges::all_of(recording_.left, [](float sample) { return sample == 0; }));
    EXPECT_TRUE(std::ranges::all_of(recording_.right, [](float sample) { return sample == 0; }));
  }
  std::string sink_state() const {
    const std::string list = server_.pactl({"list", "short", "sinks"}).output;
    return list.substr(0, list.find('\n'));
  }
  bool host_records() const {
    return !server_.pactl({"list", "short", "source-outputs"}).output.empty();
  }

  SoundServer server_;
};

// A hundred a second, of those that came and those that were lost on the way. The client had
// recorded `at_least_s` before its end.
void SoundTest::expect_packets_for_the_time(double at_least_s) const {
  const auto sound = report()["sound"];
  const double packets = sound["packets"].get<double>() + sound["lost"].get<double>();
  EXPECT_GE(packets / 100, at_least_s - EDGES_S) << sound.dump();
  EXPECT_LE(packets / 100, recording_.seconds() + EDGES_S) << sound.dump();
}

// ---- What is heard

TEST_F(SoundTest, AToneKeepsItsPitchAndItsLoudness) {
  start();
  const Tone tone(server_, 440, "out", 0.5);
  start_recording();
  const auto at = gets_sines(440, 440);
  ASSERT_TRUE(at);
  expect_sine(recording_.left, *at, 440, 0.5);
  expect_sine(recording_.right, *at, 440, 0.5);
  end_recording();
}

TEST_F(SoundTest, LeftAndRightStayApart) {
  start();
  const Tone tone(server_, {440, 0.5}, {660, 0.25});
  start_recording();
  const auto at = gets_sines(440, 660);
  ASSERT_TRUE(at);
  expect_sine(recording_.left, *at, 440, 0.5);
  expect_sine(recording_.right, *at, 660, 0.25);
  end_recording();
}

TEST_F(SoundTest, TheRecordingLastsAsLongAsTheStream) {
  start();
  const Tone tone(server_);
  constexpr double STREAM_S = 2;
  stream(STREAM_S, {"--audio-out", recording_path().string()});
  recording_.read_on();
  recording_.check_header();
  // The client looks at the time at least every 50 ms, and takes leave first.
  EXPECT_NEAR(recording_.seconds(), STREAM_S + EDGES_S / 2, EDGES_S / 2);
  EXPECT_NEAR(report()["sound"]["seconds"].get<double>(), recording_.seconds(), 0.001);
  expect_packets_for_the_time(STREAM_S);
}

// ---- Silence

TEST_F(SoundTest, WhileNothingPlaysSilenceIsSentAHundredTimesASecond) {
  start();
  start_recording();
  ASSERT_TRUE(records(2.5));
  end_recording();
  expect_silence();
  expect_packets_for_the_time(2.5);
}

// As sound servers do with what nobody uses. Listening to it wakes it up.
TEST_F(SoundTest, ASinkThatFellAsleepIsWoken) {
  server_.pactl({"load-module", "module-suspend-on-idle", "timeout=0"});
  ASSERT_TRUE(comes_true([&] { return sink_state().find("SUSPENDED") != std::string::npos; }));
  start();
  start_recording();
  ASSERT_TRUE(records(0.5));
  EXPECT_EQ(sink_state().find("SUSPENDED"), std::string::npos) << sink_state();
  const Tone tone(server_);
  EXPECT_TRUE(gets_sines(440, 440));
  end_recording();
}

TEST_F(SoundTest, ASuspendedSinkGivesNoDataAndTheSilenceGoesOnAtItsRate) {
  start();
  server_.pactl({"suspend-sink", "out", "1"});
  start_recording();
  ASSERT_TRUE(records(2.5));
  EXPECT_NE(sink_state().find("SUSPENDED"), std::string::npos) << sink_state();
  EXPECT_TRUE(host_records());
  end_recording();
  expect_silence();
  expect_packets_for_the_time(2.5);
}

// ---- Changes on the host

// Three times, of which the middle one counts: another program may hold up one of them.
TEST_F(SoundTest, WhenTheDefaultSinkChangesTheToneIsHeardAgainWithinOneAndAHalfSeconds) {
  constexpr double FOLLOWED_S = 1.5;
  start();
  server_.add_sink("second");
  const Tone tone(server_, 440, "");  // goes where the default sink is
  start_recording();
  ASSERT_TRUE(hears(440));
  for (const char* sink : {"second", "out", "second"}) {
    server_.set_default_sink(sink);
    ASSERT_TRUE(records(recording_.seconds() + FOLLOWED_S));
    ASSERT_TRUE(hears(440));
  }
  end_recording();
  std::vector<Gap> found = gaps(recording_.left);
  ASSERT_GE(found.size(), 3U);
  std::ranges::sort(found, std::ranges::greater(), &Gap::length_s);
  EXPECT_LT(found[1].length_s, FOLLOWED_S);
  std::printf("another default sink: silent for %.0f, %.0f and %.0f ms\n", found[0].length_s * 1e3,
              found[1].length_s * 1e3, found[2].length_s * 1e3);
  EXPECT_TRUE(logged("audio: default output device changed; following it"));
}

TEST_F(SoundTest, AfterTheSoundServersEndSoundComesBackAndThePictureNeverStops) {
  start();
  const ChildProcess moving({program("lunderhaze-testscreen")}, environment_);
  auto tone = std::make_unique<Tone>(server_);
  start_recording();
  ASSERT_TRUE(hears(440));
  tone.reset();
  server_.kill();
  ASSERT_TRUE(logs("audio: PulseAudio loopback setup failed"));
  const double gone = recording_.seconds();
  server_.restart();
  tone = std::make_unique<Tone>(server_);
  ASSERT_TRUE(comes_true([&] {
    recording_.read_on();
    return recording_.seconds() > gone + 1 &&
           tone_amplitude(std::span(recording_.left).last(4'800), WavFile::RATE, 440) > 0.1;
  }));
  end_recording();
  const auto all = gaps(recording_.left);
  const auto longest = std::ranges::max_element(all, {}, &Gap::length_s);
  ASSERT_NE(longest, all.end());
  EXPECT_LT(longest->length_s, 4);
  std::printf("another sound server: silent for %.0f ms\n", longest->length_s * 1e3);
  const std::string& seconds_said = receiver_->output();
  EXPECT_EQ(seconds_said.find("  0.0 fps"), std::string::npos) << seconds_said;
  const auto json = report();
  EXPECT_EQ(json["frames_lost"], 0) << json.dump();
  EXPECT_EQ(json["frames_undecodable"], 0) << json.dump();
}

// ---- Who gets sound

TEST_F(SoundTest, AClientThatDoesNotAskForSoundGetsNone) {
  start();
  start_receiver({"--out", out().string()});
  EXPECT_FALSE(host_records());
  EXPECT_NE(tell_host({"status"}).find(", sound off"), std::string::npos);
  receiver_->signal(SIGINT);
  EXPECT_EQ(receiver_->wait(seconds(20)), 0);
  EXPECT_FALSE(report().contains("sound"));
  EXPECT_TRUE(logged(", audio off, encoder"));
  EXPECT_FALSE(logged("audio: loopback capture"));
}

TEST_F(SoundTest, AHostThatSharesNoSoundIsSaid) {
  start({"--no-audio"});
  const RunResult result = client({"connect", "--host", host_address(), "--seconds", "1.2",
                                   "--audio-out", recording_path().string()});
  EXPECT_EQ(result.status, 2) << result.output;
  EXPECT_NE(result.output.find("no sound came from the host: it has none, or shares none"),
            std::string::npos)
      << result.output;
  EXPECT_TRUE(logs("AUDIO_CONTROL 1 ignored: audio is disabled on this host (--no-audio)"));
  EXPECT_FALSE(logged("audio: loopback capture"));
}

// ---- On the way

TEST_F(SoundTest, WhatIsLostOnTheWayIsAGapOfItsOwnLengthAndThePitchStays) {
  start();
  const Tone tone(server_);
  start_recording({"--drop", "10", "--seed", "5"});
  ASSERT_TRUE(records(3));
  end_recording();
  const auto sound = report()["sound"];
  const double lost = sound["lost"].get<double>();
  const double packets = sound["packets"].get<double>() + lost;
  EXPECT_NEAR(lost / packets, 0.10, 0.08) << sound.dump();
  EXPECT_GT(sound["concealed"].get<double>(), 0.9 * lost) << sound.dump();
  EXPECT_EQ(sound["undecodable"], 0) << sound.dump();
  expect_packets_for_the_time(3);
  double silent_s = 0;
  for (const Gap& gap : gaps(recording_.left)) silent_s += gap.length_s;
  std::printf("10 %% loss: %.0f of %.0f packets, %.2f s silent\n", lost, packets, silent_s);
  EXPECT_GT(silent_s, lost / 100 - 0.15);  // but for those before the first sound and at the end
  EXPECT_TRUE(goes_on_through_gaps(recording_.left, 440, 0.5));
}

TEST_F(SoundTest, AClickStandsInTheRecordingAtItsTimeAndArrivesInTime) {
  start();
  Clicker clicker(server_);
  start_recording();
  ASSERT_TRUE(records(0.3));
  std::vector<double> arrived_ms;
  std::vector<double> played_ms;  // until it was played
  std::vector<double> stands_ms;  // in the recording, from when it was played on
  const auto first_picture = logged("first frame: ");
  ASSERT_TRUE(first_picture);
  for (int i = 0; i < 5; ++i) {
    const std::size_t from = recording_.left.size();
    const Clicker::Click click = clicker.click();
    std::size_t at = from;
    ASSERT_TRUE(comes_true([&] {
      recording_.read_on();
      const auto& left = recording_.left;
      while (at < left.size() && std::abs(left[at]) < Clicker::LOUDNESS / 2) ++at;
      return at < left.size();
    }));
    arrived_ms.push_back(static_cast<double>(lund_now_us() - click.written_us) / 1e3);
    played_ms.push_back(static_cast<double>(click.played_us - click.written_us) / 1e3);
    const double stands_us =
        static_cast<double>(first_picture->at_us) + static_cast<double>(at) * 1e6 / WavFile::RATE;
    stands_ms.push_back((stands_us - static_cast<double>(click.played_us)) / 1e3);
    ASSERT_TRUE(records(recording_.seconds() + 0.1));
  }
  end_recording();
  for (auto* times : {&arrived_ms, &played_ms, &stands_ms}) std::ranges::sort(*times);
  std::printf(
      "a click is played %.0f ms after it was handed over, is in the client's file after %.0f ms "
      "(%.0f to %.0f), and stands there %+.1f ms from its time (%+.1f to %+.1f)\n",
      played_ms[2], arrived_ms[2], arrived_ms[0], arrived_ms[4], stands_ms[2], stands_ms[0],
      stands_ms[4]);
  constexpr double GENEROUS_MS = 500;
  EXPECT_LT(arrived_ms[2], GENEROUS_MS);
  EXPECT_LT(std::abs(stands_ms[2]), GENEROUS_MS);
}

}  // namespace
}  // namespace system_test
