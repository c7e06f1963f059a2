#include "streams/input.h"

#include <gmock/gmock.h>

#include <limits>
#include <random>
#include <set>

#include "streams/send_input.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_input_sink.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::uint16_t A = 4, B = 5;
constexpr std::uint16_t DELETE = 76;
constexpr std::uint16_t LEFT_CTRL = 224, LEFT_SHIFT = 225, LEFT_ALT = 226, LEFT_GUI = 227;
constexpr std::uint16_t RIGHT_CTRL = 228, RIGHT_ALT = 230, RIGHT_GUI = 231;

InputTarget target(DesktopRect monitor, int stream_width, int stream_height) {
  return {monitor.left, monitor.top, monitor.right, monitor.bottom, stream_width, stream_height};
}

const InputTarget PRIMARY = target({0, 0, 1920, 1080}, 1920, 1080);

class InputTest : public testing::Test {
 protected:
  void press(int usage) { injector_.key(static_cast<std::uint16_t>(usage), true); }
  void lift(int usage) { injector_.key(static_cast<std::uint16_t>(usage), false); }
  void button(int number, bool down) {
    injector_.mouse_button(static_cast<std::uint16_t>(number), down);
  }
  std::vector<std::string> played() { return record_->take(); }
  void track(const char* desktop = "Default") {
    injector_.set_input_desktop_tracking(true);
    record_->desktop = desktop;
  }
  // A handler that counts its calls.
  void watch_for_the_chord() {
    injector_.set_sas_handler([this] { ++chords_; });
  }

  std::shared_ptr<InputRecord> record_ = std::make_shared<InputRecord>();
  InputInjector injector_{std::make_unique<FakeInputSink>(record_)};
  int chords_ = 0;
};

// ---- Keys

TEST_F(InputTest, AKeyGoesDownAndUpUnderBothItsNames) {
  press(0x46);
  EXPECT_EQ(record_->last_key.usage, 0x46);
  EXPECT_EQ(record_->last_key.win, (WinKey{0x37, 1, 0}));
  lift(0x46);
  EXPECT_EQ(record_->last_key.win, (WinKey{0x37, 1, 0}));
  EXPECT_THAT(played(), ElementsAre("key 70 down", "key 70 up"));
}

TEST_F(InputTest, RepeatedDownEventsResendThePressAndHoldTheKeyOnce) {
  press(A);
  press(A);
  press(A);
  lift(A);
  lift(A);
  EXPECT_THAT(played(), ElementsAre("key 4 down", "key 4 down", "key 4 down", "key 4 up"));
}

TEST_F(InputTest, AnUnknownUsageIsDroppedAndNotHeld) {
  for (const int usage : {0x00, 0x03, 0x66, 0xDF, 0xE9, 0xF0, 0x0404, 0xFFFF}) {
    press(usage);
    lift(usage);
  }
  injector_.release_all();
  EXPECT_THAT(played(), IsEmpty());
}

TEST_F(InputTest, AReleaseWithoutAPressIsIgnored) {
  lift(A);
  button(1, false);
  EXPECT_THAT(played(), IsEmpty());
}

TEST_F(InputTest, ControlAndGuiTradePlacesOnBothSides) {
  injector_.set_mac_keys(true);
  for (const std::uint16_t usage : {LEFT_CTRL, LEFT_GUI, RIGHT_CTRL, RIGHT_GUI, LEFT_SHIFT, A})
    press(usage);
  EXPECT_THAT(played(), ElementsAre("key 227 down", "key 224 down", "key 231 down", "key 228 down",
                                    "key 225 down", "key 4 down"));
}

TEST_F(InputTest, ASwappedKeyIsReleasedAsItWasPressed) {
  injector_.set_mac_keys(true);
  press(LEFT_CTRL);
  EXPECT_EQ(record_->last_key.win, (WinKey{0x5B, 1, 0}));
  injector_.set_mac_keys(false);
  press(LEFT_CTRL);  // the client's own repeat
  lift(LEFT_CTRL);
  EXPECT_EQ(record_->last_key.win, (WinKey{0x5B, 1, 0}));
  press(LEFT_CTRL);
  EXPECT_THAT(played(), ElementsAre("key 227 down", "key 227 down", "key 227 up", "key 224 down"));
}

// ---- Release

TEST_F(InputTest, EverythingIsReleasedKeysFirstThenModifiersThenButtons) {
  for (const std::uint16_t usage : {LEFT_ALT, B, LEFT_SHIFT, A}) press(usage);
  press(0xEF);  // above the modifiers, yet none
  for (const int number : {5, 1, 3}) button(number, true);
  played();
  injector_.release_all();
  EXPECT_THAT(played(), ElementsAre("key 4 up", "key 5 up", "key 239 up", "key 225 up",
                                    "key 226 up", "button 1 up", "button 3 up", "button 5 up"));
  injector_.release_all();
  lift(A);
  button(1, false);
  EXPECT_THAT(played(), IsEmpty());
}

TEST_F(InputTest, TheEndOfTheInjectorSendsNothing) {
  {
    InputInjector injector(std::make_unique<FakeInputSink>(record_));
    injector.set_input_desktop_tracking(true);
    injector.key(A, true);
    EXPECT_THAT(record_->open_desktops, SizeIs(1));
    played();
  }
  EXPECT_THAT(played(), IsEmpty());
  EXPECT_THAT(record_->open_desktops, IsEmpty());
}

// ---- The chord

TEST_F(InputTest, TheChordCallsTheHandlerOnceAndSwallowsItsDelete) {
  injector_.set_sas_handler([this] {
    ++chords_;
    // Ctrl and Alt are up before the handler runs.
    EXPECT_THAT(played(), ElementsAre("key 224 up", "key 226 up"));
  });
  press(LEFT_CTRL);
  press(LEFT_ALT);
  EXPECT_THAT(played(), ElementsAre("key 224 down", "key 226 down"));
  press(DELETE);
  EXPECT_EQ(chords_, 1);
  press(DELETE);
  press(DELETE);
  EXPECT_EQ(chords_, 1);
  lift(DELETE);
  lift(LEFT_CTRL);  // no longer held
  lift(LEFT_ALT);
  EXPECT_THAT(played(), IsEmpty());
}

TEST_F(InputTest, TheChordCanBePressedAgain) {
  watch_for_the_chord();
  press(RIGHT_CTRL);
  press(RIGHT_ALT);
  for (int i = 0; i < 3; ++i) {
    press(DELETE);
    lift(DELETE);
  }
  EXPECT_EQ(chords_, 3);
  EXPECT_THAT(played(), ElementsAre("key 228 down", "key 230 down", "key 228 up", "key 230 up"));
}

TEST_F(InputTest, OtherKeysDoNotHinderTheChord) {
  watch_for_the_chord();
  for (const std::uint16_t usage : {LEFT_SHIFT, LEFT_GUI, A, RIGHT_CTRL, LEFT_ALT}) press(usage);
  button(2, true);
  played();
  press(DELETE);
  EXPECT_EQ(chords_, 1);
  EXPECT_THAT(played(), ElementsAre("key 4 up", "key 225 up", "key 226 up", "key 227 up",
                                    "key 228 up", "button 2 up"));
}

TEST_F(InputTest, TheChordIsWhatTheClientPressedBeforeAnySwap) {
  injector_.set_mac_keys(true);
  watch_for_the_chord();
  press(LEFT_GUI);
  press(LEFT_ALT);
  press(DELETE);
  EXPECT_EQ(chords_, 0);
  lift(DELETE);
  lift(LEFT_GUI);
  press(LEFT_CTRL);
  press(DELETE);
  EXPECT_EQ(chords_, 1);
}

TEST_F(InputTest, DeleteWithoutBothModifiersIsAKey) {
  watch_for_the_chord();
  press(LEFT_CTRL);
  press(DELETE);
  press(LEFT_ALT);  // too late
  press(DELETE);    // a repeat
  lift(DELETE);
  EXPECT_EQ(chords_, 0);
  EXPECT_THAT(played(), ElementsAre("key 224 down", "key 76 down", "key 226 down", "key 76 down",
                                    "key 76 up"));
  lift(LEFT_ALT);
  press(DELETE);
  EXPECT_EQ(chords_, 0);
}

TEST_F(InputTest, WithoutAHandlerTheChordIsThreeKeys) {
  press(LEFT_CTRL);
  press(LEFT_ALT);
  press(DELETE);
  lift(DELETE);
  EXPECT_THAT(played(), ElementsAre("key 224 down", "key 226 down", "key 76 down", "key 76 up"));
}

TEST_F(InputTest, ANewHandlerStartsWithACleanChord) {
  watch_for_the_chord();
  press(LEFT_CTRL);
  press(LEFT_ALT);
  watch_for_the_chord();
  press(DELETE);
  EXPECT_EQ(chords_, 0);
  lift(DELETE);
  press(LEFT_CTRL);
  press(LEFT_ALT);
  press(DELETE);
  EXPECT_EQ(chords_, 1);
  injector_.set_sas_handler({});
  played();
  lift(DELETE);  // not held, so still nothing
  press(DELETE);
  EXPECT_THAT(played(), ElementsAre("key 76 down"));
}

TEST_F(InputTest, ReleaseAllForgetsTheChord) {
  watch_for_the_chord();
  press(LEFT_CTRL);
  press(LEFT_ALT);
  injector_.release_all();
  press(DELETE);
  EXPECT_EQ(chords_, 0);
}

TEST_F(InputTest, TheHandlerMayUseTheInjectorAndReplaceItself) {
  injector_.set_sas_handler([this] {
    ++chords_;
    injector_.mouse_rel(PRIMARY, 1, 1);
    injector_.set_sas_handler({});
    press(A);
  });
  press(LEFT_CTRL);
  press(LEFT_ALT);
  played();
  press(DELETE);
  EXPECT_EQ(chords_, 1);
  EXPECT_THAT(played(), ElementsAre("key 224 up", "key 226 up", "rel 1 1", "key 4 down"));
}

// ---- The mouse

TEST_F(InputTest, AnAbsolutePositionReachesBothEdgesOfEveryMonitor) {
  const DesktopRect monitors[] = {{0, 0, 1920, 1080},
                                  {-1280, -1024, 0, 0},
                                  {-2560, 300, -1280, 1740},
                                  {1920, -200, 5760, 1960}};
  for (const DesktopRect& m : monitors) {
    injector_.mouse_abs(target(m, 640, 360), 0, 0);
    injector_.mouse_abs(target(m, 640, 360), 65'535, 65'535);
    const auto at = [](int x, int y) {
      return "move " + std::to_string(x) + "," + std::to_string(y);
    };
    EXPECT_THAT(played(), ElementsAre(at(m.left, m.top), at(m.right - 1, m.bottom - 1)));
  }
}

TEST_F(InputTest, AnAbsolutePositionIsRoundedToThePixel) {
  const InputTarget eleven = target({-5, 0, 6, 11}, 11, 11);
  injector_.mouse_abs(eleven, 32'767, 32'768);  // the middle
  injector_.mouse_abs(eleven, 3'276, 3'277);    // around half a step
  EXPECT_THAT(played(), ElementsAre("move 0,5", "move -5,1"));
}

TEST_F(InputTest, AMonitorOfOnePixelOrLessHasOnePlace) {
  injector_.mouse_abs(target({-7, 9, -6, 9}, 640, 360), 65'535, 65'535);
  injector_.mouse_abs(target({50, 60, 40, 61}, 640, 360), 65'535, 65'535);
  EXPECT_THAT(played(), ElementsAre("move -7,9", "move 50,60"));
}

TEST_F(InputTest, AMonitorMayBeAsWideAsNumbersGo) {
  using Limits = std::numeric_limits<std::int32_t>;
  const InputTarget widest = target({Limits::min(), 0, Limits::max(), 1}, 1, 1);
  injector_.mouse_abs(widest, 0, 0);
  injector_.mouse_abs(widest, 65'535, 0);
  EXPECT_THAT(played(), ElementsAre("move -2147483648,0", "move 2147483646,0"));
  injector_.mouse_rel(widest, Limits::max(), 0);
  injector_.mouse_rel(widest, Limits::min(), 0);
  EXPECT_THAT(played(), ElementsAre("rel 2147483647 0", "rel -2147483648 0"));
}

TEST_F(InputTest, InAStreamHalfAsWideEachStepIsTwoPixels) {
  injector_.mouse_rel(target({0, 0, 1920, 1080}, 960, 540), 1, -1);
  EXPECT_THAT(played(), ElementsAre("rel 2 -2"));
}

TEST_F(InputTest, InAStreamTwiceAsWideEverySecondStepIsAPixel) {
  const InputTarget wide = target({0, 0, 1920, 1080}, 3840, 2160);
  for (int i = 0; i < 4; ++i) injector_.mouse_rel(wide, 1, 0);
  EXPECT_THAT(played(), ElementsAre("rel 1 0", "rel 1 0"));
  for (int i = 0; i < 4; ++i) injector_.mouse_rel(wide, 0, -1);
  EXPECT_THAT(played(), ElementsAre("rel 0 -1", "rel 0 -1"));
}

TEST_F(InputTest, FractionsKeepTheirSign) {
  const InputTarget wide = target({-1920, 0, 0, 1080}, 3840, 1080);
  injector_.mouse_rel(wide, -1, 0);
  injector_.mouse_rel(wide, 1, 0);  // back where it began
  injector_.mouse_rel(wide, 1, 0);
  EXPECT_THAT(played(), IsEmpty());
  injector_.mouse_rel(wide, -3, 0);  // 0.5 - 1.5
  EXPECT_THAT(played(), ElementsAre("rel -1 0"));
}

TEST_F(InputTest, TheFractionIsDroppedWhenAnyPartOfTheTargetChanges) {
  const InputTarget wide = target({0, 0, 1920, 1080}, 3840, 2160);
  for (std::int32_t InputTarget::*part :
       {&InputTarget::left, &InputTarget::top, &InputTarget::right, &InputTarget::bottom,
        &InputTarget::stream_width, &InputTarget::stream_height}) {
    InputTarget other = wide;
    other.*part += 2;
    injector_.mouse_rel(wide, 1, 1);
    injector_.mouse_rel(other, 1, 1);
    injector_.mouse_rel(wide, 1, 1);
    EXPECT_THAT(played(), IsEmpty());
    injector_.mouse_rel(wide, 1, 1);
    EXPECT_THAT(played(), ElementsAre("rel 1 1"));
  }
}

TEST_F(InputTest, TheFractionIsDroppedWhenTheDesktopChanges) {
  const InputTarget wide = target({0, 0, 1920, 1080}, 3840, 2160);
  track("Default");
  injector_.mouse_rel(wide, 1, 1);
  record_->desktop = "Winlogon";
  injector_.mouse_rel(wide, 1, 1);
  EXPECT_THAT(played(), IsEmpty());
  injector_.mouse_rel(wide, 1, 1);
  EXPECT_THAT(played(), ElementsAre("rel 1 1"));
}

TEST_F(InputTest, AStreamWidthOfZeroCountsAsOne) {
  injector_.mouse_rel(target({0, 0, 3, 2}, 0, 0), 2, 2);
  injector_.mouse_rel(target({0, 0, 3, 2}, -5, -5), 2, 2);
  EXPECT_THAT(played(), ElementsAre("rel 6 4", "rel 6 4"));
}

TEST_F(InputTest, ButtonsOutOfRangeAreIgnored) {
  for (const int number : {0, 6, 32, 33, 0xFFFF}) {
    button(number, true);
    button(number, false);
  }
  EXPECT_THAT(played(), IsEmpty());
}

TEST_F(InputTest, APressGoesOutEvenIfTheButtonIsDown) {
  button(3, true);
  button(3, true);
  button(3, false);
  button(3, false);
  EXPECT_THAT(played(), ElementsAre("button 3 down", "button 3 down", "button 3 up"));
}

TEST_F(InputTest, TheWheelTurnsVerticallyFirstAndNotByNothing) {
  injector_.mouse_wheel(-30, 120);
  injector_.mouse_wheel(0, -1);
  injector_.mouse_wheel(7, 0);
  injector_.mouse_wheel(0, 0);
  EXPECT_THAT(played(), ElementsAre("wheel 120", "hwheel -30", "wheel -1", "hwheel 7"));
}

// ---- The input desktop

TEST_F(InputTest, WithoutTrackingNoDesktopIsOpened) {
  record_->desktop.clear();
  press(A);
  EXPECT_THAT(played(), ElementsAre("key 4 down"));
}

TEST_F(InputTest, AThreadIsAttachedOnceToADesktop) {
  track();
  press(A);
  lift(A);
  injector_.mouse_rel(PRIMARY, 1, 1);
  EXPECT_EQ(record_->attached, 1);
  EXPECT_THAT(record_->open_desktops, SizeIs(1));
  std::thread([&] { injector_.mouse_wheel(0, 120); }).join();
  EXPECT_EQ(record_->attached, 2);
  EXPECT_THAT(record_->open_desktops, SizeIs(2));
}

TEST_F(InputTest, AChangeOfDesktopBetweenPressAndReleaseDropsTheEntry) {
  track("Default");
  press(A);
  button(1, true);
  played();
  record_->desktop = "Winlogon";
  lift(A);
  button(1, false);
  injector_.release_all();
  EXPECT_THAT(played(), IsEmpty());
  EXPECT_EQ(record_->attached, 2);
  EXPECT_THAT(record_->open_desktops, SizeIs(1));  // the former one is closed
  press(A);
  EXPECT_THAT(played(), ElementsAre("key 4 down"));
}

TEST_F(InputTest, AChangeOfDesktopForgetsTheChord) {
  track("Default");
  watch_for_the_chord();
  press(LEFT_CTRL);
  press(LEFT_ALT);
  record_->desktop = "Winlogon";
  press(DELETE);
  EXPECT_EQ(chords_, 0);
  lift(DELETE);
  press(LEFT_CTRL);
  press(LEFT_ALT);
  press(DELETE);
  EXPECT_EQ(chords_, 1);
}

// The books belong to the desktop, not to the thread: one that follows later changes nothing.
TEST_F(InputTest, AnotherThreadThatFollowsTheDesktopKeepsWhatIsHeld) {
  track("Default");
  press(A);
  std::thread([&] { press(B); }).join();
  record_->desktop = "Winlogon";
  press(A);
  std::thread([&] { lift(A); }).join();
  EXPECT_THAT(played(), ElementsAre("key 4 down", "key 5 down", "key 4 down", "key 4 up"));
}

TEST_F(InputTest, WhereTrackingFailsEventsAreDroppedAndTheBooksStay) {
  track();
  press(A);
  button(1, true);
  played();
  const auto everything = [&] {
    press(B);
    press(A);
    lift(A);
    button(1, false);
    button(2, true);
    injector_.mouse_abs(PRIMARY, 1, 1);
    injector_.mouse_rel(PRIMARY, 1, 1);
    injector_.mouse_wheel(1, 1);
  };
  record_->desktop.clear();  // can't be opened
  everything();
  record_->desktop = "Default";
  record_->name_readable = false;
  everything();
  record_->name_readable = true;
  record_->desktop = "Winlogon";
  record_->attach_succeeds = false;
  everything();
  EXPECT_THAT(played(), IsEmpty());
  EXPECT_THAT(record_->open_desktops, SizeIs(1));  // what failed is closed
  record_->desktop = "Default";
  injector_.release_all();
  EXPECT_THAT(played(), ElementsAre("key 4 up", "button 1 up"));
}

TEST_F(InputTest, ReleaseAllWithTrackingFailingEmptiesTheBooksSilently) {
  track();
  press(A);
  button(1, true);
  played();
  record_->desktop.clear();
  injector_.release_all();
  record_->desktop = "Default";
  injector_.release_all();
  lift(A);
  button(1, false);
  EXPECT_THAT(played(), IsEmpty());
}

// ---- Failures

TEST_F(InputTest, TheFirstFailureAndEveryTwoHundredthIsLogged) {
  CapturedLog log;
  record_->result = {false, 5};
  injector_.mouse_rel(PRIMARY, 1, 1);
  EXPECT_EQ(log.count("FakeInput(mouse) failed (5): somebody else has the keyboard"), 1);
  for (int i = 0; i < 199; ++i) injector_.mouse_wheel(0, 120);
  EXPECT_EQ(log.count("failed"), 1);
  press(A);  // mouse and keys share the count
  EXPECT_EQ(log.count("FakeInput(key) failed (5): somebody else has the keyboard"), 1);
  record_->result = {};
  for (int i = 0; i < 400; ++i) injector_.mouse_wheel(0, 120);
  EXPECT_EQ(log.count("failed"), 2);
}

TEST_F(InputTest, AFailureLeavesTheBooksAsIfTheEventHadBeenPlayed) {
  CapturedLog log;
  record_->result = {false, 5};
  press(A);
  press(B);
  lift(B);
  button(4, true);
  played();
  record_->result = {};
  injector_.release_all();
  EXPECT_THAT(played(), ElementsAre("key 4 up", "button 4 up"));
}

// ---- Whatever comes

// Whatever clients send and whenever it fails, a key or button that the desktop was told is down is
// told up again by the release, and nothing goes up that wasn't down.
TEST_F(InputTest, WhatGoesDownComesUp) {
  std::mt19937 random(7);
  const auto below = [&](std::uint32_t limit) { return random() % limit; };
  watch_for_the_chord();
  std::set<std::string> down;
  for (int round = 0; round < 200; ++round) {
    injector_.set_mac_keys(below(2) != 0);
    for (int i = 0; i < 200; ++i) {
      const bool on = below(2) != 0;
      const auto usage = static_cast<std::uint16_t>(below(3) != 0   ? 224 + below(8)
                                                    : below(2) != 0 ? DELETE
                                                                    : below(0x100));
      switch (below(8)) {
        case 0:
          injector_.mouse_button(static_cast<std::uint16_t>(below(7)), on);
          break;
        case 1:
          if (below(50) == 0) injector_.release_all();
          break;
        default:
          injector_.key(usage, on);
      }
    }
    injector_.release_all();
    for (const std::string& call : played()) {
      const std::string name = call.substr(0, call.rfind(' '));
      if (call.ends_with("up"))
        ASSERT_EQ(down.erase(name), 1u) << call;
      else
        down.insert(name);
    }
    ASSERT_THAT(down, IsEmpty());
  }
  EXPECT_GT(chords_, 100);
}

// A desktop's name that no string holds without the heap.
class LongNamed final : public FakeInputSink {
 public:
  using FakeInputSink::FakeInputSink;
  bool desktop_name(Desktop, std::string* name) override {
    name->assign(100, 'n');
    return true;
  }
};

TEST(InputAllocation, PointerEventsAllocateNothing) {
  const auto record = std::make_shared<InputRecord>();
  record->write_calls = false;
  int calls = 0;
  record->on_call = [&] { ++calls; };
  InputInjector injector(std::make_unique<LongNamed>(record));
  const auto event = [&](int i) {
    injector.mouse_abs(PRIMARY, static_cast<std::uint16_t>(i), 9);
    injector.mouse_rel(PRIMARY, i + 1, -i);
    injector.mouse_wheel(i + 1, 120);
    injector.mouse_button(1, i % 2 == 0);
  };
  for (const bool tracking : {false, true}) {
    injector.set_input_desktop_tracking(tracking);
    event(0);
    event(1);
    calls = 0;
    const AllocationCount allocations;
    for (int i = 0; i < 1'000; ++i) event(i);
    EXPECT_EQ(allocations.count(), 0u) << tracking;
    EXPECT_EQ(calls, 5'000);
  }
  EXPECT_EQ(record->attached, 1);
}

}  // namespace
