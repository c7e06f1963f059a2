// The speakers during a stream, on outputs that are a map and on a clock that stands still.
#include "streams/host_mute.h"

#include <gmock/gmock.h>

#include "tests/streams/fake_sound_endpoints.h"
#include "tests/support/temp_directory.h"
#include "tests/support/temporary_store.h"
#include "tests/support/text_file.h"
#include "tests/support/virtual_time.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string MUTED = "This PC's speakers are muted while streaming";
const std::string BY_YOU = "This PC's speakers: unmuted by you";

class HostMuteTest : public testing::Test {
 protected:
  HostMuteTest() {
    virtual_time::reset();
    sound_.muted = {{"speakers", false}, {"headset", false}};
    sound_.default_output = "speakers";
    restart();
  }

  // The former one is gone as if it had been killed: nobody asked it to stop.
  void restart(bool disabled = false) {
    mute_.reset();
    mute_ = std::make_unique<HostMute>(sound_.endpoints(), directory());
    mute_->prepare(disabled);
  }
  void start(bool disabled = false) {
    restart(disabled);
    mute_->step();
  }
  void stream(bool on = true) {
    mute_->set_streaming(on);
    mute_->step();
  }
  // The end of a stream, and of the time in which it may come back.
  void end_stream() {
    stream(false);
    pass(1'000);
  }
  void pass(std::uint64_t ms) {
    virtual_time::advance_ms(ms);
    mute_->step();
  }
  void set_enabled(bool on) {
    mute_->set_enabled(on);
    mute_->step();
  }
  void user_mutes(const std::string& id, bool on) {
    sound_.set_mute(id, on);
    mute_->step();
  }
  void user_chooses(const std::string& id) {
    sound_.set_default(id);
    mute_->step();
  }

  std::filesystem::path directory() const { return temporary_ / "data"; }
  std::filesystem::path state_file() const { return directory() / "muted-endpoints.txt"; }
  bool has_state() const { return std::filesystem::exists(state_file()); }
  void write_state(const std::string& text) {
    std::filesystem::create_directories(directory());
    write_file(state_file(), text);
  }
  std::vector<std::string> calls() { return std::exchange(sound_.calls, {}); }
  std::vector<std::string> log() {
    std::vector<std::string> lines = store_.log_lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(log_seen_));
    log_seen_ += lines.size();
    return lines;
  }

  TempDirectory temporary_;
  TemporaryStore store_;
  std::size_t log_seen_ = 0;
  FakeSound sound_;
  std::unique_ptr<HostMute> mute_;
};

// ---- A stream

TEST_F(HostMuteTest, AStreamMutesTheDefaultOutputAndItsEndUnmutesIt) {
  start();
  EXPECT_EQ(mute_->status_line(), "");
  stream();
  EXPECT_TRUE(sound_.muted["speakers"]);
  EXPECT_FALSE(sound_.muted["headset"]);
  EXPECT_EQ(file_content(state_file()), "speakers\n");
  EXPECT_EQ(mute_->status_line(), MUTED);
  end_stream();
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_FALSE(has_state());
  EXPECT_EQ(mute_->status_line(), "");
  EXPECT_THAT(log(),
              ElementsAre("audio: muted speakers while streaming", "audio: unmuted speakers"));
}

TEST_F(HostMuteTest, WithoutAStreamNothingIsTouched) {
  start();
  user_chooses("headset");
  user_mutes("headset", true);
  user_mutes("headset", false);
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(directory()));
}

TEST_F(HostMuteTest, AStreamThatRestartsWithinASecondLeavesTheOutputMuted) {
  start();
  stream();
  calls();
  mute_->set_streaming(false);
  EXPECT_EQ(mute_->step(), 1'000u);
  virtual_time::advance_ms(400);
  EXPECT_EQ(mute_->step(), 600u);
  virtual_time::advance_us(599'001);
  EXPECT_EQ(mute_->step(), 1u);
  stream();
  EXPECT_EQ(mute_->step(), HostMute::FOREVER_MS);
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_TRUE(sound_.muted["speakers"]);
  EXPECT_EQ(mute_->status_line(), MUTED);
}

TEST_F(HostMuteTest, EachEndOfAStreamIsHeldOffAnew) {
  start();
  stream();
  stream(false);
  pass(999);
  stream();
  stream(false);
  pass(999);
  EXPECT_TRUE(sound_.muted["speakers"]);
  pass(1);
  EXPECT_FALSE(sound_.muted["speakers"]);
}

TEST_F(HostMuteTest, AnEndWithNothingMutedIsNotHeldOff) {
  sound_.muted["speakers"] = true;
  start();
  stream();
  mute_->set_streaming(false);
  EXPECT_EQ(mute_->step(), HostMute::FOREVER_MS);
}

TEST_F(HostMuteTest, AnOutputThatWasMutedBeforeTheStreamStaysMutedAfterIt) {
  sound_.muted["speakers"] = true;
  start();
  stream();
  EXPECT_EQ(mute_->status_line(), "");
  EXPECT_FALSE(has_state());
  end_stream();
  EXPECT_TRUE(sound_.muted["speakers"]);
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(log(), ElementsAre("audio: speakers is already muted; leaving it as it is"));
}

TEST_F(HostMuteTest, TheUserMayUnmuteWhatTheyMutedThemselves) {
  sound_.muted["speakers"] = true;
  start();
  stream();
  user_mutes("speakers", false);
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_EQ(mute_->status_line(), "");
}

TEST_F(HostMuteTest, TheFileIsWrittenBeforeTheOutputIsMuted) {
  std::vector<std::string> events;
  HostMuteLogic logic({[](const std::string&) { return 0; },
                       [&](const std::string& id, bool muted) {
                         events.push_back((muted ? "mute " : "unmute ") + id);
                         return true;
                       },
                       [&](const std::vector<std::string>& ids) {
                         events.push_back("save " + HostMuteLogic::format(ids));
                       },
                       [](const std::string&) {}});
  logic.settle(true, "speakers");
  EXPECT_THAT(events, ElementsAre("save speakers\n", "mute speakers", "save speakers\n"));
}

TEST_F(HostMuteTest, AFailedMuteIsSaidOnceAndNotTriedAgainInThisStream) {
  sound_.mute_succeeds = false;
  start();
  stream();
  user_chooses("speakers");
  EXPECT_THAT(calls(), ElementsAre("mute speakers"));
  EXPECT_THAT(log(), ElementsAre("audio: could not mute speakers"));
  EXPECT_FALSE(has_state());
  EXPECT_EQ(mute_->status_line(), "");
  end_stream();
  stream();
  EXPECT_THAT(calls(), ElementsAre("mute speakers"));
}

TEST_F(HostMuteTest, AFailedUnmuteIsSaidAndForgotten) {
  start();
  stream();
  sound_.mute_succeeds = false;
  end_stream();
  pass(0);
  EXPECT_THAT(calls(), ElementsAre("mute speakers", "unmute speakers"));
  EXPECT_THAT(log(), ElementsAre("audio: muted speakers while streaming",
                                 "audio: could not unmute speakers"));
  EXPECT_FALSE(has_state());
}

TEST_F(HostMuteTest, AnOutputThatIsGoneAtTheEndIsForgottenWithoutAWord) {
  start();
  stream();
  log();
  sound_.muted.erase("speakers");
  end_stream();
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_FALSE(has_state());
}

TEST_F(HostMuteTest, WithoutADefaultOutputNothingIsMuted) {
  sound_.default_output = "";
  start();
  stream();
  EXPECT_THAT(calls(), IsEmpty());
  user_chooses("headset");
  EXPECT_THAT(calls(), ElementsAre("mute headset"));
}

TEST_F(HostMuteTest, AnOutputThatCannotBeAskedIsLeftAlone) {
  sound_.default_output = "ghost";
  start();
  stream();
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(log(), IsEmpty());
}

// ---- The default output changes

TEST_F(HostMuteTest, AChangeOfTheDefaultOutputMovesTheMute) {
  start();
  stream();
  user_chooses("headset");
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_TRUE(sound_.muted["headset"]);
  EXPECT_EQ(file_content(state_file()), "headset\n");
  EXPECT_THAT(log(), ElementsAre("audio: muted speakers while streaming",
                                 "audio: unmuted speakers (no longer the default output)",
                                 "audio: muted headset while streaming"));
}

TEST_F(HostMuteTest, TheDefaultOutputGoesWithoutAnother) {
  start();
  stream();
  user_chooses("");
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_FALSE(has_state());
}

// ---- The user unmutes

TEST_F(HostMuteTest, AUserWhoUnmutesIsLeftAloneUntilTheNextStream) {
  start();
  stream();
  calls();
  log();
  user_mutes("speakers", false);
  EXPECT_EQ(mute_->status_line(), BY_YOU);
  EXPECT_FALSE(has_state());
  EXPECT_THAT(log(), ElementsAre("audio: speakers was unmuted by the user during the session; not "
                                 "muting it again until the client reconnects"));
  user_chooses("speakers");
  EXPECT_THAT(calls(), IsEmpty());
  end_stream();
  EXPECT_EQ(mute_->status_line(), "");
  stream();
  EXPECT_THAT(calls(), ElementsAre("mute speakers"));
  EXPECT_EQ(mute_->status_line(), MUTED);
}

TEST_F(HostMuteTest, AnOverrideSurvivesASwitchOfTheDefaultOutputAndBack) {
  start();
  stream();
  user_mutes("speakers", false);
  user_chooses("headset");
  EXPECT_TRUE(sound_.muted["headset"]);
  user_chooses("speakers");
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_FALSE(sound_.muted["headset"]);
  EXPECT_EQ(mute_->status_line(), BY_YOU);
}

TEST_F(HostMuteTest, AUserWhoMutesAndUnmutesAgainCountsAsUnmuting) {
  start();
  stream();
  sound_.set_mute("speakers", true);
  sound_.set_mute("speakers", false);
  mute_->step();
  EXPECT_EQ(mute_->status_line(), BY_YOU);
}

TEST_F(HostMuteTest, AMuteByTheUserNeedsNothing) {
  start();
  stream();
  user_mutes("speakers", true);
  EXPECT_EQ(mute_->status_line(), MUTED);
  end_stream();
  EXPECT_FALSE(sound_.muted["speakers"]);
}

TEST_F(HostMuteTest, OurOwnMutesAreNoOverride) {
  start();
  stream();
  stream(false);
  pass(1'000);
  stream();
  for (int i = 0; i < 5; ++i) mute_->step();
  EXPECT_EQ(mute_->status_line(), MUTED);
  EXPECT_TRUE(sound_.muted["speakers"]);
}

TEST_F(HostMuteTest, AnUnmuteInTheHoldOffIsRespected) {
  start();
  stream();
  calls();
  stream(false);
  user_mutes("speakers", false);
  stream();
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_EQ(mute_->status_line(), BY_YOU);
}

// ---- The switch

TEST_F(HostMuteTest, SwitchedOffDuringAStreamItUnmutesAtOnceAndSwitchedOnItMutesAgain) {
  start();
  stream();
  set_enabled(false);
  EXPECT_FALSE(mute_->enabled());
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_FALSE(has_state());
  EXPECT_EQ(file_text(directory() / "host.ini"), "[settings]\nmute_host=0\n");
  set_enabled(true);
  EXPECT_TRUE(sound_.muted["speakers"]);
  EXPECT_EQ(file_content(state_file()), "speakers\n");
  EXPECT_EQ(file_text(directory() / "host.ini"), "[settings]\nmute_host=1\n");
}

TEST_F(HostMuteTest, TheSettingHoldsForTheNextStart) {
  start();
  set_enabled(false);
  start();
  EXPECT_FALSE(mute_->enabled());
  stream();
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(HostMuteTest, DisabledForThisRunItDoesNothingAndTheSettingStands) {
  start(true);
  EXPECT_FALSE(mute_->enabled());
  stream();
  EXPECT_THAT(calls(), IsEmpty());
  start();
  EXPECT_TRUE(mute_->enabled());
}

TEST_F(HostMuteTest, DisabledForThisRunItStillRepairs) {
  write_state("headset\n");
  sound_.muted["headset"] = true;
  start(true);
  EXPECT_FALSE(sound_.muted["headset"]);
  EXPECT_FALSE(has_state());
}

// ---- The end, orderly and otherwise

TEST_F(HostMuteTest, AShutdownDuringAStreamUnmutesWithoutHoldingOff) {
  start();
  stream();
  mute_->shutdown();
  mute_->step();
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_FALSE(has_state());
  EXPECT_EQ(sound_.listener, nullptr);
}

TEST_F(HostMuteTest, AShutdownInTheHoldOffUnmutesAtOnce) {
  start();
  stream();
  stream(false);
  mute_->shutdown();
  mute_->step();
  EXPECT_FALSE(sound_.muted["speakers"]);
}

TEST_F(HostMuteTest, AKilledRunIsRepairedByTheNext) {
  start();
  stream();
  EXPECT_TRUE(sound_.muted["speakers"]);
  log();
  start();
  EXPECT_FALSE(sound_.muted["speakers"]);
  EXPECT_FALSE(has_state());
  EXPECT_THAT(log(), ElementsAre("audio: unmuted speakers (left muted by a previous run that did "
                                 "not exit cleanly)"));
}

TEST_F(HostMuteTest, AnOutputThatWasUnpluggedMeanwhileIsSaidAndForgotten) {
  write_state("dock\nheadset\n");
  sound_.muted["headset"] = true;
  start();
  EXPECT_FALSE(sound_.muted["headset"]);
  EXPECT_FALSE(has_state());
  EXPECT_THAT(
      log(),
      ElementsAre("audio: cannot restore dock (left muted by a previous run): device not found",
                  "audio: unmuted headset (left muted by a previous run that did not exit "
                  "cleanly)"));
}

TEST_F(HostMuteTest, AnOutputThatTheUserUnmutedMeanwhileIsLeftAlone) {
  write_state("headset\n");
  start();
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_FALSE(has_state());
}

TEST_F(HostMuteTest, ARepairThatFailsIsSaidAndForgotten) {
  write_state("headset\n");
  sound_.muted["headset"] = true;
  sound_.mute_succeeds = false;
  start();
  EXPECT_THAT(log(), ElementsAre("audio: could not unmute headset"));
  EXPECT_FALSE(has_state());
}

// ---- The state file

TEST_F(HostMuteTest, EmptyLinesBlanksAndCarriageReturnsGiveTheSameIds) {
  const std::vector<std::string> ids{"{0.0.0}.{a b}", "headset"};
  EXPECT_EQ(HostMuteLogic::parse("{0.0.0}.{a b}\nheadset\n"), ids);
  EXPECT_EQ(HostMuteLogic::parse("\n{0.0.0}.{a b}\r\n\r\n \nheadset \t\r\n"), ids);
  EXPECT_EQ(HostMuteLogic::parse("{0.0.0}.{a b}\nheadset"), ids);
  EXPECT_THAT(HostMuteLogic::parse(""), IsEmpty());
  EXPECT_EQ(HostMuteLogic::parse(HostMuteLogic::format(ids)), ids);
}

TEST_F(HostMuteTest, AFileThatCannotBeWrittenIsSaidAndMutingGoesOn) {
  start();
  write_file(directory(), "in the way");
  stream();
  EXPECT_TRUE(sound_.muted["speakers"]);
  EXPECT_THAT(log(), testing::Contains("audio: could not save which outputs are muted"));
}

TEST_F(HostMuteTest, WithoutADirectoryItMutesAndWritesNothing) {
  mute_ = std::make_unique<HostMute>(sound_.endpoints(), std::filesystem::path());
  mute_->prepare(false);
  stream();
  EXPECT_TRUE(sound_.muted["speakers"]);
  end_stream();
  EXPECT_FALSE(sound_.muted["speakers"]);
}

// ---- Without sound

TEST_F(HostMuteTest, WithoutSoundItIsSaidOnceAndTriedAgainWhenSomethingHappens) {
  write_state("headset\n");
  sound_.muted["headset"] = true;
  sound_.available = false;
  start();
  stream();
  EXPECT_THAT(log(), ElementsAre("audio: no sound here; \"mute this computer while streaming\" is "
                                 "unavailable"));
  EXPECT_EQ(file_content(state_file()), "headset\n");
  sound_.available = true;
  stream(false);
  EXPECT_FALSE(sound_.muted["headset"]);
  EXPECT_FALSE(has_state());
  stream();
  EXPECT_TRUE(sound_.muted["speakers"]);
}

TEST_F(HostMuteTest, AShutdownWithoutSoundDoesNotTryAgain) {
  sound_.available = false;
  start();
  sound_.available = true;
  mute_->shutdown();
  mute_->step();
  EXPECT_EQ(sound_.listener, nullptr);
}

}  // namespace
