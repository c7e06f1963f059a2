// Outputs of a real PulseAudio. It silences the monitor of whatever sink is muted, so that a mute
// never succeeds there by the rule that holds; what a mute has to do where it does is shown under a
// rule that allows it.
#include "streams/linux/pulse_endpoints.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "streams/host_mute.h"
#include "tests/support/linux/sound_server.h"
#include "tests/support/temporary_store.h"

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr auto DEADLINE = 20s;

bool always(std::string_view, std::string_view) {
  return true;
}

class Notes final : public SoundEndpoints::Listener {
 public:
  void default_changed() override { add("default"); }
  void mute_changed(const std::string& id, bool muted) override {
    add((muted ? "muted " : "unmuted ") + id);
  }

  bool wait_for(const std::string& note) {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, DEADLINE,
                           [&] { return std::ranges::find(notes_, note) != notes_.end(); });
  }
  std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(notes_, {});
  }

 private:
  void add(const std::string& note) {
    const std::lock_guard lock(mutex_);
    notes_.push_back(note);
    added_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable added_;
  std::vector<std::string> notes_;
};

class PulseEndpointsTest : public testing::Test {
 protected:
  void open() {
    std::string error;
    ASSERT_TRUE(endpoints_.open(&notes_, &error)) << error;
    EXPECT_EQ(endpoints_.default_output(), "out");
    notes_.take();
  }
  // All that was told up to now: the answer to somebody's change of another sink comes behind it.
  std::vector<std::string> notes_so_far() {
    const bool muted = !server_.muted("mark");
    endpoints_.is_muted("mark");
    server_.set_mute("mark", muted);
    const std::string mark = muted ? "muted mark" : "unmuted mark";
    EXPECT_TRUE(notes_.wait_for(mark));
    std::vector<std::string> notes = notes_.take();
    std::erase(notes, mark);
    return notes;
  }
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
  template <class Condition>
  bool wait_until(Condition condition) {
    const auto until = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition() && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(5ms);
    return condition();
  }

  SoundServer server_;
  Notes notes_;
  PulseEndpoints endpoints_{always};
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

// ---- What is told

TEST_F(PulseEndpointsTest, TheDefaultSinkIsFollowed) {
  open();
  server_.add_sink("second");
  server_.set_default_sink("second");
  ASSERT_TRUE(notes_.wait_for("default"));
  EXPECT_EQ(endpoints_.default_output(), "second");
  notes_.take();
  server_.remove_sink("second");
  ASSERT_TRUE(notes_.wait_for("default"));
  EXPECT_EQ(endpoints_.default_output(), "out");
}

TEST_F(PulseEndpointsTest, WhetherASinkIsMutedIsTold) {
  open();
  EXPECT_EQ(endpoints_.is_muted("out"), 0);
  server_.set_mute("out", true);
  EXPECT_EQ(endpoints_.is_muted("out"), 1);
  EXPECT_EQ(endpoints_.is_muted("no such sink"), -1);
  EXPECT_FALSE(endpoints_.set_mute("no such sink", true));
  EXPECT_FALSE(endpoints_.set_mute("no such sink", false));
}

TEST_F(PulseEndpointsTest, OurOwnChangesAreNotTold) {
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

TEST_F(PulseEndpointsTest, AForeignUnmuteIsToldOnce) {
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

TEST_F(PulseEndpointsTest, ASinkThatNobodyAskedAboutIsNotTold) {
  server_.add_sink("mark");
  server_.add_sink("second");
  open();
  server_.set_mute("second", true);
  EXPECT_THAT(notes_so_far(), IsEmpty());
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

class HostMuteOnPulseTest : public PulseEndpointsTest {
 protected:
  void start(PulseEndpoints::MonitorRule rule) {
    mute_ = std::make_unique<HostMute>(std::make_unique<PulseEndpoints>(rule), directory_.path());
    mute_->init(false);
    mute_->init(false);  // a second one does nothing
  }
  bool logged(const std::string& line) {
    return wait_until([&] {
      const std::vector<std::string> lines = store_.log_lines();
      return std::ranges::find(lines, line) != lines.end();
    });
  }
  bool has_state() const { return std::filesystem::exists(directory_ / "muted-endpoints.txt"); }

  TemporaryStore store_;
  TempDirectory directory_;
  std::unique_ptr<HostMute> mute_;
};

TEST_F(HostMuteOnPulseTest, ASinkThatCannotBeMutedIsSaid) {
  start(monitor_outlives_mute);
  mute_->set_streaming(true);
  EXPECT_TRUE(logged("audio: could not mute out"));
  EXPECT_FALSE(server_.muted("out"));
  EXPECT_EQ(mute_->status_line(), "");
  mute_->shutdown();
  EXPECT_FALSE(has_state());
}

TEST_F(HostMuteOnPulseTest, AStreamMutesAndTheUserMayUnmute) {
  start(always);
  mute_->set_streaming(true);
  ASSERT_TRUE(logged("audio: muted out while streaming"));
  EXPECT_TRUE(server_.muted("out"));
  server_.set_mute("out", false);
  EXPECT_TRUE(
      logged("audio: out was unmuted by the user during the session; not muting it again until the "
             "client reconnects"));
  EXPECT_TRUE(
      wait_until([&] { return mute_->status_line() == "This PC's speakers: unmuted by you"; }));
}

TEST_F(HostMuteOnPulseTest, TheMuteFollowsTheDefaultSink) {
  server_.add_sink("second");
  start(always);
  mute_->set_streaming(true);
  ASSERT_TRUE(wait_until([&] { return server_.muted("out"); }));
  server_.set_default_sink("second");
  EXPECT_TRUE(wait_until([&] { return server_.muted("second"); }));
  EXPECT_TRUE(wait_until([&] { return !server_.muted("out"); }));
}

TEST_F(HostMuteOnPulseTest, AShutdownDuringAStreamUnmutes) {
  start(always);
  mute_->set_streaming(true);
  ASSERT_TRUE(wait_until([&] { return server_.muted("out"); }));
  EXPECT_TRUE(has_state());
  mute_->shutdown();
  EXPECT_FALSE(server_.muted("out"));
  EXPECT_FALSE(has_state());
}

TEST_F(HostMuteOnPulseTest, WhatAKilledRunLeftMutedIsUnmutedAtTheNextStart) {
  server_.set_mute("out", true);
  write_file(directory_ / "muted-endpoints.txt", "gone\nout\n");
  start(always);
  EXPECT_TRUE(
      logged("audio: unmuted out (left muted by a previous run that did not exit cleanly)"));
  EXPECT_TRUE(
      logged("audio: cannot restore gone (left muted by a previous run): device not found"));
  EXPECT_TRUE(wait_until([&] { return !has_state(); }));
  EXPECT_FALSE(server_.muted("out"));
}

}  // namespace
