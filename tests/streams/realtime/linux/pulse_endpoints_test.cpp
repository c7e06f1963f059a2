// Outputs of a real PulseAudio. It silences the monitor of whatever sink is muted, so that a mute
// never succeeds there by the rule that holds; what a mute has to do where it does is shown under a
// rule that allows it. What doesn't depend on that is in sound_endpoints_test.cpp.
#include "streams/linux/pulse_endpoints.h"

#include "tests/streams/realtime/linux/endpoints_support.h"

using namespace std::chrono_literals;
using testing::Contains;
using testing::IsEmpty;
using testing::Not;

namespace {

class PulseEndpointsTest : public EndpointsTest<SoundServer> {
 protected:
  PulseEndpointsTest() : EndpointsTest(std::make_unique<SoundServer>(), always) {}

  // A sink whose mute the server keeps while it is away.
  void add_remembered_headset() {
    server_.pactl({"load-module", "module-device-restore"});
    server_.add_sink("headset");
    server_.set_mute("headset", true);
    server_.remove_sink("headset");
    server_.add_sink("headset");
    ASSERT_TRUE(server_.muted("headset"));
    server_.set_mute("headset", false);
  }
};

// ---- The rule

TEST(MonitorRule, OnlyPipeWireKeepsTheMonitorOfAMutedSinkUnlessTheSinkAsksOtherwise) {
  EXPECT_FALSE(monitor_outlives_mute("pulseaudio", ""));
  EXPECT_FALSE(monitor_outlives_mute("", ""));
  EXPECT_TRUE(monitor_outlives_mute("PulseAudio (on PipeWire 1.0.5)", ""));
  EXPECT_TRUE(monitor_outlives_mute("PulseAudio (on PipeWire 1.0.5)", "false"));
  EXPECT_FALSE(monitor_outlives_mute("PulseAudio (on PipeWire 1.0.5)", "true"));
  EXPECT_FALSE(monitor_outlives_mute("PulseAudio (on PipeWire 1.0.5)", "1"));
}

TEST_F(PulseEndpointsTest, ASinkWhoseMonitorWouldFallSilentIsNotMuted) {
  PulseEndpoints endpoints;
  std::string error;
  ASSERT_TRUE(endpoints.open(&notes_, &error)) << error;
  const Tone tone(server_);
  Ear ear(server_);
  ASSERT_TRUE(ear.hears(440));
  EXPECT_FALSE(endpoints.set_mute("out", true));
  EXPECT_FALSE(server_.muted("out"));
  EXPECT_EQ(endpoints.is_muted("out"), 0);
  ear.listen(500ms);
  EXPECT_TRUE(ear.hears(440));
}

TEST_F(PulseEndpointsTest, WhetherASinkCanBeMutedIsToldAndChangesNothing) {
  PulseEndpoints endpoints;
  EXPECT_FALSE(endpoints.can_mute("out"));  // not open
  std::string error;
  ASSERT_TRUE(endpoints.open(&notes_, &error)) << error;
  EXPECT_FALSE(endpoints.can_mute("out"));
  open();  // under the rule that allows it
  EXPECT_TRUE(endpoints_.can_mute("out"));
  EXPECT_FALSE(endpoints_.can_mute("no such sink"));
  EXPECT_FALSE(server_.muted("out"));
}

TEST_F(PulseEndpointsTest, WhatSomebodyElseMutedIsUnmutedWhateverTheMonitor) {
  PulseEndpoints endpoints;
  std::string error;
  ASSERT_TRUE(endpoints.open(&notes_, &error)) << error;
  server_.set_mute("out", true);
  EXPECT_TRUE(endpoints.set_mute("out", false));
  EXPECT_FALSE(server_.muted("out"));
}

// What the rule stands on: the control in hardware makes no difference.
TEST_F(PulseEndpointsTest, PulseAudioSilencesTheMonitorOfASinkWithAMuteOfItsOwnToo) {
  const SoundServer far;
  const Variable near("PULSE_SERVER", server_.address().c_str());
  server_.pactl({"load-module", "module-tunnel-sink", "server=" + far.address(), "sink=out",
                 "sink_name=tunnel"});
  const std::string sinks = server_.pactl({"list", "sinks"}).output;
  const std::string flags = sinks.substr(sinks.find("Flags:", sinks.find("Name: tunnel")));
  ASSERT_THAT(flags.substr(0, flags.find('\n')), testing::HasSubstr("HW_MUTE_CTRL"));
  const Tone tone(server_, 440, "tunnel");
  Ear ear(server_, "tunnel");
  ASSERT_TRUE(ear.hears(440));
  open();
  ASSERT_TRUE(endpoints_.set_mute("tunnel", true));
  // What was on its way may still come; from then on it is silent.
  EXPECT_TRUE(wait_until([&] {
    const std::vector<float> heard = ear.listen(100ms);
    return std::ranges::all_of(heard, [](float sample) { return sample == 0.0F; });
  }));
}

// ---- The server goes

TEST_F(PulseEndpointsTest, WithoutAServerItDoesNotOpen) {
  server_.kill();
  std::string error;
  EXPECT_FALSE(endpoints_.open(&notes_, &error));
  EXPECT_EQ(error, "cannot reach the sound server");
  EXPECT_EQ(endpoints_.is_muted("out"), -1);
  EXPECT_EQ(endpoints_.default_output(), "");
  EXPECT_FALSE(endpoints_.set_mute("out", true));
  server_.restart();
  open();
  EXPECT_EQ(endpoints_.is_muted("out"), 0);
}

TEST_F(PulseEndpointsTest, AServerThatComesBackIsFoundAndMutedAgain) {
  server_.add_sink("mark");
  open();
  ASSERT_TRUE(endpoints_.set_mute("out", true));
  server_.kill();
  ASSERT_TRUE(wait_until([&] { return endpoints_.default_output().empty(); }));
  server_.restart();
  ASSERT_TRUE(notes_.wait_for("default"));
  EXPECT_EQ(endpoints_.default_output(), "out");
  EXPECT_TRUE(wait_until([&] { return server_.muted("out"); }));
  server_.add_sink("mark");
  EXPECT_THAT(notes_so_far(), Not(Contains("unmuted out")));
  server_.set_mute("out", false);
  EXPECT_TRUE(notes_.wait_for("unmuted out"));
}

TEST_F(PulseEndpointsTest, WhatWasUnmutedBeforeIsNotMutedAgain) {
  server_.add_sink("mark");
  open();
  ASSERT_TRUE(endpoints_.set_mute("out", true));
  ASSERT_TRUE(endpoints_.set_mute("out", false));
  server_.kill();
  ASSERT_TRUE(wait_until([&] { return endpoints_.default_output().empty(); }));
  server_.restart();
  ASSERT_TRUE(notes_.wait_for("default"));
  notes_.take();
  server_.add_sink("mark");
  EXPECT_THAT(notes_so_far(), IsEmpty());
  EXPECT_FALSE(server_.muted("out"));
}

// As a headset that was pulled, and whose state the server remembers.
TEST_F(PulseEndpointsTest, ASinkThatComesBackMutedAfterItsUnmuteWasDueIsUnmuted) {
  add_remembered_headset();
  server_.add_sink("mark");
  open();
  ASSERT_TRUE(endpoints_.set_mute("headset", true));
  server_.remove_sink("headset");
  EXPECT_EQ(endpoints_.is_muted("headset"), -1);
  server_.add_sink("headset");
  EXPECT_TRUE(wait_until([&] { return !server_.muted("headset"); }));
  EXPECT_THAT(notes_so_far(), IsEmpty());
  // What the user mutes from then on is theirs.
  server_.set_mute("headset", true);
  ASSERT_TRUE(notes_.wait_for("muted headset"));
  EXPECT_EQ(endpoints_.is_muted("headset"), 1);
  EXPECT_TRUE(server_.muted("headset"));
}

TEST_F(PulseEndpointsTest, ASinkThatComesBackMutedAndIsAskedAboutFirstIsUnmutedBeforeTheAnswer) {
  add_remembered_headset();
  open();
  ASSERT_TRUE(endpoints_.set_mute("headset", true));
  server_.remove_sink("headset");
  EXPECT_EQ(endpoints_.is_muted("headset"), -1);
  server_.add_sink("headset");
  EXPECT_EQ(endpoints_.is_muted("headset"), 0);
  EXPECT_FALSE(server_.muted("headset"));
}

TEST_F(PulseEndpointsTest, AServerThatHangsHoldsACallUpForSecondsAtMost) {
  open();
  server_.hang();
  EXPECT_EQ(endpoints_.is_muted("out"), -1);
  EXPECT_FALSE(endpoints_.set_mute("out", true));
  EXPECT_EQ(endpoints_.default_output(), "");
  server_.carry_on();
  EXPECT_EQ(endpoints_.is_muted("out"), 0);
}

// ---- With the service around them

TEST_F(PulseEndpointsTest, TheLogSaysThatASinkCannotBeMuted) {
  MuteService mute;
  mute.start(monitor_outlives_mute);
  mute->set_streaming(true);
  EXPECT_TRUE(mute.logged("audio: could not mute out"));
  EXPECT_FALSE(server_.muted("out"));
  EXPECT_EQ(mute->status_line(), "");
  mute->shutdown();
  EXPECT_FALSE(mute.has_state());
}

}  // namespace
