// The host's speakers while a client streams, with the real programs: on PipeWire, where a muted
// sink's monitor stays audible, and on PulseAudio, where it doesn't.
#include <signal.h>

#include "tests/support/linux/pipewire_server.h"
#include "tests/system/sound_support.h"

namespace system_test {
namespace {

using std::chrono::milliseconds;

constexpr const char* MUTED = "This PC's speakers are muted while streaming";
constexpr const char* UNMUTED_BY_USER = "This PC's speakers: unmuted by you";

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class MuteTest : public RecordingTest {
 protected:
  // A host with speakers, on which a tone plays.
  void start(const std::vector<std::string>& host_arguments = {}) {
    server_.add_speakers("speakers");
    server_.set_default_sink("speakers");
    tone_ = std::make_unique<Tone>(server_, 440, "speakers");
    speakers_ = std::make_unique<Speakers>(server_, "speakers");
    RecordingTest::start(server_.environment(), host_arguments);
  }
  void TearDown() override {
    tone_.reset();
    RecordingTest::TearDown();
  }

  double level() { return tone_amplitude(speakers_->listen(milliseconds(50)), WavFile::RATE, 440); }
  bool fall_silent() {
    return comes_true([this] { return level() < 1e-4; });
  }
  bool sound() {
    return comes_true([this] { return level() > 0.48; });
  }
  bool become_muted(bool muted) {
    return comes_true([this, muted] { return server_.muted("speakers") == muted; });
  }
  std::string status() const { return tell_host({"status"}); }
  bool says(const std::string& line) {
    return comes_true([&] { return contains(status(), line); });
  }
  bool has_state() const {
    return std::filesystem::exists(directory_ / "config" / "lunderhaze" / "muted-endpoints.txt");
  }

  PipewireServer server_;
  std::unique_ptr<Tone> tone_;
  std::unique_ptr<Speakers> speakers_;
};

TEST_F(MuteTest, TheSpeakersAreSilentWhileAClientHearsTheToneAndForASecondLonger) {
  start();
  ASSERT_TRUE(sound());
  start_recording();
  ASSERT_TRUE(logs("audio: muted speakers while streaming"));
  EXPECT_TRUE(server_.muted("speakers"));
  EXPECT_TRUE(fall_silent());
  EXPECT_TRUE(says(MUTED));
  EXPECT_TRUE(has_state());
  EXPECT_TRUE(records(recording_.seconds() + 0.5));
  EXPECT_TRUE(hears(440));
  EXPECT_LT(level(), 1e-4);
  end_recording();
  EXPECT_TRUE(server_.muted("speakers"));

  ASSERT_TRUE(logs("audio: unmuted speakers"));
  const auto ended = logged("ended (BYE from client)");
  ASSERT_TRUE(ended);
  const double held_s =
      static_cast<double>(logged("audio: unmuted speakers")->at_us - ended->at_us) / 1e6;
  std::printf("unmuted %.3f s after the stream\n", held_s);
  EXPECT_GE(held_s, 0.99);  // the log's milliseconds
  EXPECT_LT(held_s, 2);
  EXPECT_FALSE(server_.muted("speakers"));
  EXPECT_TRUE(sound());
  EXPECT_FALSE(contains(status(), "speakers"));
  EXPECT_TRUE(comes_true([this] { return !has_state(); }));
}

TEST_F(MuteTest, AHostThatIsToldNotToLeavesThemOn) {
  start({"--no-mute-host"});
  start_recording();
  EXPECT_TRUE(hears(440));
  EXPECT_TRUE(records(recording_.seconds() + 0.5));
  EXPECT_TRUE(sound());
  EXPECT_FALSE(server_.muted("speakers"));
  EXPECT_FALSE(contains(status(), "speakers"));
  end_recording();
  EXPECT_EQ(stop_host(), 0);
  EXPECT_FALSE(logged("muted speakers"));
}

TEST_F(MuteTest, TheSwitchWorksAtOnceDuringAStream) {
  start();
  start_recording();
  ASSERT_TRUE(become_muted(true));
  EXPECT_TRUE(contains(tell_host({"mute", "off"}),
                       "This computer's speakers stay on while a client streams"));
  EXPECT_TRUE(become_muted(false));
  EXPECT_TRUE(sound());
  EXPECT_TRUE(comes_true([this] { return !has_state(); }));
  EXPECT_TRUE(contains(tell_host({"mute", "on"}),
                       "This computer's speakers are muted while a client streams"));
  EXPECT_TRUE(become_muted(true));
  EXPECT_TRUE(fall_silent());
  EXPECT_TRUE(hears(440));
  end_recording();
}

TEST_F(MuteTest, WhoUnmutesThemIsLeftAloneUntilTheNextStream) {
  start();
  start_recording();
  ASSERT_TRUE(logs("audio: muted speakers while streaming"));
  server_.set_mute("speakers", false);
  EXPECT_TRUE(
      logs("audio: speakers was unmuted by the user during the session; not muting it again until "
           "the client reconnects"));
  EXPECT_TRUE(says(UNMUTED_BY_USER));
  EXPECT_TRUE(sound());
  end_recording();
  EXPECT_FALSE(server_.muted("speakers"));
  // A stream that began before that would be the same to it.
  ASSERT_TRUE(comes_true([this] { return !contains(status(), UNMUTED_BY_USER); }));
  start_recording();
  EXPECT_TRUE(become_muted(true));
  EXPECT_TRUE(says(MUTED));
  end_recording();
}

TEST_F(MuteTest, SpeakersThatTheUserHadMutedStayMuted) {
  start();
  server_.set_mute("speakers", true);
  start_recording();
  EXPECT_TRUE(logs("audio: speakers is already muted; leaving it as it is"));
  EXPECT_TRUE(hears(440));
  EXPECT_FALSE(contains(status(), "speakers"));
  end_recording();
  EXPECT_EQ(stop_host(), 0);
  EXPECT_TRUE(server_.muted("speakers"));
}

TEST_F(MuteTest, WhatAKilledHostLeftMutedIsUnmutedAtTheNextStart) {
  start();
  start_recording();
  ASSERT_TRUE(logs("audio: muted speakers while streaming"));
  host_->signal(SIGKILL);
  host_->wait(seconds(5));
  EXPECT_TRUE(server_.muted("speakers"));
  ASSERT_TRUE(has_state());
  receiver_.reset();
  start_host();
  EXPECT_TRUE(
      logs("audio: unmuted speakers (left muted by a previous run that did not exit cleanly)"));
  EXPECT_TRUE(become_muted(false));
  EXPECT_TRUE(sound());
  EXPECT_TRUE(comes_true([this] { return !has_state(); }));
}

TEST_F(MuteTest, AHostThatStopsDuringAStreamUnmutesFirst) {
  start();
  start_recording();
  ASSERT_TRUE(logs("audio: muted speakers while streaming"));
  EXPECT_EQ(stop_host(), 0);
  EXPECT_FALSE(server_.muted("speakers"));
  EXPECT_FALSE(has_state());
}

// ---- PulseAudio

class MuteOnPulseAudioTest : public RecordingTest {
 protected:
  SoundServer server_;
};

TEST_F(MuteOnPulseAudioTest, AMuteThatTheClientWouldHearIsSaidToBeImpossible) {
  start(server_.environment());
  const Tone tone(server_);
  start_recording();
  EXPECT_TRUE(logs("audio: could not mute out"));
  EXPECT_TRUE(hears(440));
  EXPECT_FALSE(server_.muted("out"));
  EXPECT_FALSE(contains(tell_host({"status"}), "speakers"));
  end_recording();
}

}  // namespace
}  // namespace system_test
