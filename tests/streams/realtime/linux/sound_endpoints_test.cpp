// What holds of outputs on every sound server that lets a mute succeed: PipeWire by the rule that
// holds, PulseAudio under one that allows it.
#include "tests/streams/realtime/linux/endpoints_support.h"
#include "tests/support/linux/pipewire_server.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Case {
  SoundServerKind server;
  PulseEndpoints::MonitorRule rule;
};

class SoundEndpointsTest : public EndpointsTest<AnySoundServer>,
                           public testing::WithParamInterface<Case> {
 protected:
  SoundEndpointsTest() : EndpointsTest(GetParam().server.start(), GetParam().rule) {}

  MuteService mute_;
};

INSTANTIATE_TEST_SUITE_P(, SoundEndpointsTest,
                         testing::Values(Case{PULSEAUDIO, always},
                                         Case{PIPEWIRE, monitor_outlives_mute}),
                         [](const auto& test) { return test.param.server.name; });

// ---- What is told

TEST_P(SoundEndpointsTest, TheDefaultSinkIsFollowed) {
  open();
  server_.add_sink("second");
  server_.set_default_sink("second");
  ASSERT_TRUE(notes_.wait_for("default"));
  EXPECT_EQ(endpoints_.default_output(), "second");
  notes_.take();
  server_.remove_sink("second");
  ASSERT_TRUE(notes_.wait_for("default"));
  // For a moment there may be none.
  EXPECT_TRUE(wait_until([&] { return endpoints_.default_output() == "out"; }));
}

TEST_P(SoundEndpointsTest, WhetherASinkIsMutedIsTold) {
  open();
  EXPECT_EQ(endpoints_.is_muted("out"), 0);
  server_.set_mute("out", true);
  // PipeWire tells each of its clients in its own time.
  EXPECT_TRUE(wait_until([&] { return endpoints_.is_muted("out") == 1; }));
  EXPECT_EQ(endpoints_.is_muted("no such sink"), -1);
  EXPECT_FALSE(endpoints_.set_mute("no such sink", true));
  EXPECT_FALSE(endpoints_.set_mute("no such sink", false));
}

TEST_P(SoundEndpointsTest, OurOwnChangesAreNotTold) {
  server_.add_sink("mark");
  open();
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(endpoints_.set_mute("out", true));
    EXPECT_TRUE(server_.muted("out"));
    // Other changes of the sink make events of their own, which may cross ours.
    server_.pactl({"set-sink-volume", "out", std::to_string(50 + i) + "%"});
    EXPECT_TRUE(endpoints_.set_mute("out", false));
    EXPECT_FALSE(server_.muted("out"));
  }
  EXPECT_THAT(notes_so_far(), IsEmpty());
}

TEST_P(SoundEndpointsTest, AForeignUnmuteIsToldOnce) {
  server_.add_sink("mark");
  open();
  ASSERT_TRUE(endpoints_.set_mute("out", true));
  server_.set_mute("out", false);
  ASSERT_TRUE(notes_.wait_for("unmuted out"));
  EXPECT_THAT(notes_.take(), ElementsAre("unmuted out"));
  EXPECT_EQ(endpoints_.is_muted("out"), 0);
  EXPECT_THAT(notes_so_far(), IsEmpty());
  server_.set_mute("out", true);
  EXPECT_TRUE(notes_.wait_for("muted out"));
}

TEST_P(SoundEndpointsTest, ASinkThatNobodyAskedAboutIsNotTold) {
  server_.add_sink("mark");
  server_.add_sink("second");
  open();
  server_.set_mute("second", true);
  EXPECT_THAT(notes_so_far(), IsEmpty());
}

// ---- With the service around them

TEST_P(SoundEndpointsTest, AStreamMutesAndTheUserMayUnmute) {
  mute_.start(GetParam().rule);
  mute_->set_streaming(true);
  ASSERT_TRUE(mute_.logged("audio: muted out while streaming"));
  EXPECT_TRUE(server_.muted("out"));
  server_.set_mute("out", false);
  EXPECT_TRUE(mute_.logged(
      "audio: out was unmuted by the user during the session; not muting it again until the "
      "client reconnects"));
  EXPECT_TRUE(
      wait_until([&] { return mute_->status_line() == "This PC's speakers: unmuted by you"; }));
}

TEST_P(SoundEndpointsTest, TheMuteFollowsTheDefaultSink) {
  server_.add_sink("second");
  mute_.start(GetParam().rule);
  mute_->set_streaming(true);
  ASSERT_TRUE(wait_until([&] { return server_.muted("out"); }));
  server_.set_default_sink("second");
  EXPECT_TRUE(wait_until([&] { return server_.muted("second"); }));
  EXPECT_TRUE(wait_until([&] { return !server_.muted("out"); }));
}

TEST_P(SoundEndpointsTest, AShutdownDuringAStreamUnmutes) {
  mute_.start(GetParam().rule);
  mute_->set_streaming(true);
  ASSERT_TRUE(wait_until([&] { return server_.muted("out"); }));
  EXPECT_TRUE(mute_.has_state());
  mute_->shutdown();
  EXPECT_FALSE(server_.muted("out"));
  EXPECT_FALSE(mute_.has_state());
}

TEST_P(SoundEndpointsTest, WhatAKilledRunLeftMutedIsUnmutedAtTheNextStart) {
  server_.set_mute("out", true);
  write_file(mute_.state_file(), "gone\nout\n");
  mute_.start(GetParam().rule);
  EXPECT_TRUE(
      mute_.logged("audio: unmuted out (left muted by a previous run that did not exit cleanly)"));
  EXPECT_TRUE(
      mute_.logged("audio: cannot restore gone (left muted by a previous run): device not found"));
  EXPECT_TRUE(wait_until([&] { return !mute_.has_state(); }));
  EXPECT_FALSE(server_.muted("out"));
}

}  // namespace
