// The mute on a real PipeWire, whose monitors outlive it: what the speakers get, what the capture
// hears, and what remains of a process that is killed while it mutes.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>

#include "streams/audio.h"
#include "streams/audio_source.h"
#include "tests/streams/realtime/linux/endpoints_support.h"
#include "tests/support/linux/pipewire_server.h"
#include "tests/support/recorded_sound.h"

using namespace std::chrono_literals;

namespace {

constexpr double SILENT = 1e-4;  // -80 dB

class PipewireTest : public EndpointsTest<PipewireServer> {
 protected:
  PipewireTest() : EndpointsTest(std::make_unique<PipewireServer>(), monitor_outlives_mute) {}
};

TEST_F(PipewireTest, AMuteSilencesTheSpeakersAndNotTheCapture) {
  server_.add_speakers("speakers");
  server_.set_default_sink("speakers");
  Speakers speakers(server_, "speakers");
  const Tone tone(server_, 440, "speakers");
  const auto level = [&] { return tone_amplitude(speakers.listen(50ms), Speakers::RATE, 440); };
  RecordedSound sound;
  OpusAudioCapture capture(make_native_audio_source);
  sound.record(capture);
  capture.start();
  ASSERT_TRUE(sound.wait_for_tone(440));
  ASSERT_TRUE(wait_until([&] { return level() > 0.48; }));

  std::string error;
  ASSERT_TRUE(endpoints_.open(&notes_, &error)) << error;
  ASSERT_EQ(endpoints_.default_output(), "speakers");
  EXPECT_TRUE(endpoints_.can_mute("speakers"));
  EXPECT_FALSE(server_.muted("speakers"));
  ASSERT_TRUE(endpoints_.set_mute("speakers", true));
  EXPECT_TRUE(server_.muted("speakers"));
  EXPECT_TRUE(wait_until([&] { return level() < SILENT; }));
  EXPECT_TRUE(sound.wait_for_sine(440, 0.5, sound.count()));
  EXPECT_LT(level(), SILENT);

  ASSERT_TRUE(endpoints_.set_mute("speakers", false));
  EXPECT_FALSE(server_.muted("speakers"));
  EXPECT_TRUE(wait_until([&] { return level() > 0.48; }));
  EXPECT_TRUE(sound.wait_for_tone(440, sound.count()));
}

// As the null sinks of its own PulseAudio modules are made.
TEST_F(PipewireTest, ASinkWhoseMonitorObeysItsVolumeIsNotMuted) {
  server_.add_sink_with_obedient_monitor("virtual");
  const Tone tone(server_, 440, "virtual");
  Ear ear(server_, "virtual");
  ASSERT_TRUE(ear.hears(440));
  open();
  EXPECT_FALSE(endpoints_.set_mute("virtual", true));
  EXPECT_FALSE(server_.muted("virtual"));
  // Somebody else's mute shows what would have become of the sound.
  server_.set_mute("virtual", true);
  EXPECT_TRUE(
      wait_until([&] { return tone_amplitude(ear.listen(100ms), Ear::RATE, 440) < SILENT; }));
}

// It may take a mute only once it is used (1.4.2), which a stream with sound sees to.
TEST_F(PipewireTest, ASinkThatNothingHasPlayedToYetIsMutedAsTheCaptureBegins) {
  server_.add_speakers("fresh");
  server_.set_default_sink("fresh");
  std::string error;
  ASSERT_TRUE(endpoints_.open(&notes_, &error)) << error;
  RecordedSound sound;
  OpusAudioCapture capture(make_native_audio_source);
  sound.record(capture);
  capture.start();
  EXPECT_TRUE(endpoints_.set_mute("fresh", true));
  EXPECT_TRUE(server_.muted("fresh"));
}

TEST_F(PipewireTest, WithoutAnySinkThereIsNoDefaultOne) {
  open();
  ASSERT_TRUE(server_.pull("out"));
  EXPECT_TRUE(wait_until([&] { return endpoints_.default_output().empty(); }));
  server_.add_sink("second");
  EXPECT_TRUE(wait_until([&] { return endpoints_.default_output() == "second"; }));
}

// The sinks live in the daemon, not in what serves the protocol.
TEST_F(PipewireTest, AMuteOutlivesTheServerOfTheProtocol) {
  open();
  ASSERT_TRUE(endpoints_.set_mute("out", true));
  server_.kill_protocol_server();
  ASSERT_TRUE(wait_until([&] { return endpoints_.default_output().empty(); }));
  server_.restart_protocol_server();
  ASSERT_TRUE(notes_.wait_for("default"));
  EXPECT_EQ(endpoints_.default_output(), "out");
  EXPECT_EQ(endpoints_.is_muted("out"), 1);
  server_.add_sink("mark");
  EXPECT_THAT(notes_so_far(), testing::Not(testing::Contains("unmuted out")));
  EXPECT_TRUE(endpoints_.set_mute("out", false));
  EXPECT_FALSE(server_.muted("out"));
}

// The program that is killed is this one, started with this variable.
constexpr const char* MUTE_UNTIL_KILLED = "LUND_TEST_MUTE_UNTIL_KILLED";

[[noreturn]] void mute_until_killed(const char* directory) {
  HostMute mute(make_sound_endpoints(), directory);
  mute.init(false);
  mute.set_streaming(true);
  for (;;) pause();
}

TEST(PipewireMute, WhatAProcessThatWasKilledLeftMutedIsUnmutedAtTheNextStart) {
  if (const char* directory = std::getenv(MUTE_UNTIL_KILLED)) mute_until_killed(directory);
  const PipewireServer server;
  ASSERT_TRUE(server.running());
  MuteService mute;
  ChildProcess killed({"/proc/self/exe", "--gtest_filter=PipewireMute.WhatAProcess*"},
                      {{MUTE_UNTIL_KILLED, mute.state_file().parent_path()}});
  ASSERT_TRUE(wait_until([&] { return server.muted("out"); })) << killed.output();
  killed.signal(SIGKILL);
  ASSERT_EQ(killed.wait(5s), 128 + SIGKILL);
  EXPECT_TRUE(server.muted("out"));
  EXPECT_EQ(file_content(mute.state_file()), "out\n");

  mute.start(monitor_outlives_mute);
  EXPECT_TRUE(
      mute.logged("audio: unmuted out (left muted by a previous run that did not exit cleanly)"));
  EXPECT_TRUE(wait_until([&] { return !mute.has_state(); }));
  EXPECT_FALSE(server.muted("out"));
}

}  // namespace
