// How a screen gets its virtual monitor, and each reason why it doesn't.
#include "tests/capture/vdd_fixture.h"

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

using AdapterChange = VirtualDisplayDriver::AdapterChange;
using ModeChange = VirtualDisplayDriver::ModeChange;

constexpr unsigned long DISABLED = 22;
constexpr const char* DISPLAY5 = R"(\\.\DISPLAY5)";
constexpr const char* DISPLAY6 = R"(\\.\DISPLAY6)";
constexpr const char* RESTARTING =
    R"(vdd: restarting the driver's device ROOT\DISPLAY\0000 (administrator))";
constexpr const char* CANNOT_RELOAD =
    "vdd: cannot reload the driver (no admin rights, no control pipe)";
constexpr const char* NO_FREE_MONITOR =
    "the virtual display driver has no free monitor (raise <count> in vdd_settings.xml, or run "
    "Lunderhaze as administrator once so it can restart the driver)";

class VirtualDisplayAcquire : public VddFixture {
 protected:
  // The only way to reload the driver is its pipe.
  void without_rights() {
    vdd->elevated = false;
    vdd->pipe = {true, 0};
  }
  std::string failure(int width = 1920, int height = 1080) {
    EXPECT_FALSE(acquire(0, width, height));
    EXPECT_THAT(lines(), Contains("vdd: screen 0: " + reason));
    return reason;
  }
};

}  // namespace

// ---- Where it ends at once

TEST_F(VirtualDisplayAcquire, SwitchedOffItTouchesNothing) {
  displays->enabled = 0;
  bool touched = false;
  vdd->on_call = [&](const char*) { touched = true; };
  EXPECT_EQ(failure(), "virtual displays are off (--virtual-display off)");
  EXPECT_FALSE(touched);
}

TEST_F(VirtualDisplayAcquire, WithoutADriverThereIsNone) {
  vdd->adapters.clear();
  EXPECT_EQ(failure(),
            "no virtual display driver installed (tray > Install virtual display driver)");
}

TEST_F(VirtualDisplayAcquire, TheReasonMayBeLeftOut) {
  vdd->adapters.clear();
  EXPECT_FALSE(displays->acquire(3, 1, 1, 1, nullptr, &out, nullptr));
  EXPECT_EQ(lines().size(), 1u);
}

TEST_F(VirtualDisplayAcquire, ADisabledDriverIsLeftToAnAdministrator) {
  vdd->status = {true, DISABLED, false};
  vdd->elevated = false;
  EXPECT_EQ(failure(),
            "the virtual display driver is disabled in Device Manager (enable it, or run as "
            "administrator)");
  EXPECT_THAT(calls(), ElementsAre("pipe 1"));
}

TEST_F(VirtualDisplayAcquire, ADriverThatCannotBeEnabledIsDisabled) {
  vdd->status = {true, DISABLED, false};
  vdd->changes[AdapterChange::Enable] = {false, 5};
  EXPECT_FALSE(acquire(0));
  EXPECT_EQ(reason,
            "the virtual display driver is disabled in Device Manager (enable it, or run as "
            "administrator)");
  EXPECT_THAT(lines(), ElementsAre("vdd: device state change 1 failed (error 5)",
                                   "vdd: screen 0: " + reason));
}

TEST_F(VirtualDisplayAcquire, AnAdministratorEnablesTheDriver) {
  monitor();
  vdd->status = {true, DISABLED, false};
  EXPECT_EQ(leased(0), DISPLAY5);
  EXPECT_EQ(elapsed_ms(), 1'500u);
  EXPECT_THAT(
      lines(),
      ElementsAre("vdd: enabled the driver's device",
                  R"(vdd: screen 0 -> virtual monitor 0: \\.\DISPLAY5 1920x1080 @ 60 Hz at )"
                  "(0,0) [virtual display driver] on Virtual adapter (1500 ms)"));
  EXPECT_THAT(calls(), ElementsAre("pipe 1", R"(enable ROOT\DISPLAY\0000)", "pipe 1", "pipe 1"));
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 1 monitor, 1 streamed");
}

// ---- A monitor that is there

TEST_F(VirtualDisplayAcquire, AMonitorThatHasTheModeIsTakenAsItIs) {
  vdd->elevated = false;
  monitor();
  EXPECT_TRUE(acquire(2));
  EXPECT_EQ(out.device, DISPLAY5);
  EXPECT_EQ(out.width, 1920);
  EXPECT_TRUE(out.is_virtual);
  EXPECT_THAT(calls(), Each("pipe 1"));
  EXPECT_EQ(elapsed_ms(), 0u);
  EXPECT_THAT(
      lines(),
      ElementsAre(R"(vdd: screen 2 -> virtual monitor 0: \\.\DISPLAY5 1920x1080 @ 60 Hz at )"
                  "(0,0) [virtual display driver] on Virtual adapter (0 ms)"));
}

TEST_F(VirtualDisplayAcquire, WithoutASizeItAsksFor1920By1080At60) {
  for (const auto& [width, height, fps] :
       {std::tuple(0, 600, 60), {800, 0, 60}, {-1, -1, 60}, {0, 0, 0}, {1920, 1080, -1}}) {
    vdd->monitors.clear();
    vdd->add_monitor(DISPLAY5, {{1280, 720, 60}, {1920, 1080, 60}});
    EXPECT_TRUE(acquire(0, width, height, fps));
    EXPECT_EQ(vdd->monitors[0].current.mode, (DisplayMode{1920, 1080, 60}));
    EXPECT_THAT(calls(), Not(Contains(HasSubstr("write"))));
  }
}

TEST_F(VirtualDisplayAcquire, AnotherModeIsStoredThenApplied) {
  monitor();
  EXPECT_TRUE(acquire(0, 1280, 720));
  EXPECT_EQ(out.width, 1280);
  EXPECT_EQ(out.height, 720);
  EXPECT_THAT(calls(),
              ElementsAre("pipe 1", R"(store \\.\DISPLAY5 1280x720@60)", "apply", "pipe 1"));
  EXPECT_THAT(lines(), Contains(R"(vdd: \\.\DISPLAY5 -> 1280x720@60: ok)"));
}

TEST_F(VirtualDisplayAcquire, AnotherModeIsPlacedAtOnce) {
  monitor();
  const DesktopPoint place = {2560, -8};
  EXPECT_TRUE(acquire(1, 1280, 720, 60, &place));
  EXPECT_EQ(out.left, 2560);
  EXPECT_EQ(out.top, -8);
  EXPECT_THAT(calls(), Contains(R"(store \\.\DISPLAY5 1280x720@60 at 2560,-8)"));
  EXPECT_THAT(lines(),
              Contains(R"(vdd: \\.\DISPLAY5 -> 1280x720@60 (placed right of the desktop): ok)"));
}

TEST_F(VirtualDisplayAcquire, AMonitorWithTheModeIsPlacedOnlyWhereItIsNot) {
  monitor();
  DesktopPoint place = {0, 0};
  EXPECT_TRUE(acquire(1, 1920, 1080, 60, &place));
  EXPECT_THAT(calls(), Each("pipe 1"));
  place.x = 1920;
  EXPECT_TRUE(acquire(1, 1920, 1080, 60, &place));
  EXPECT_EQ(out.left, 1920);
  EXPECT_THAT(calls(), Contains(R"(store \\.\DISPLAY5 1920x1080@60 at 1920,0)"));
}

TEST_F(VirtualDisplayAcquire, AMonitorWhoseModeCannotBeReadIsSet) {
  monitor().readable = false;
  EXPECT_TRUE(acquire(0));
  EXPECT_THAT(calls(), Contains(R"(store \\.\DISPLAY5 1920x1080@60)"));
}

TEST_F(VirtualDisplayAcquire, AModeThatCannotBeSetEndsIt) {
  const std::pair<ModeChange, const char*> words[] = {
      {ModeChange::Restart, "needs a restart"},
      {ModeChange::BadParameter, "bad parameter"},
      {ModeChange::NotUpdated, "registry not updated"},
      {ModeChange::BadMode, "mode not supported"},
      {ModeChange::Failed, "driver failed"},
      {ModeChange::Error, "error"}};
  monitor();
  for (const auto& [change, word] : words) {
    vdd->store = change;
    EXPECT_FALSE(acquire(0, 1280, 720));
    EXPECT_EQ(reason, "could not set the virtual monitor's mode");
    EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 -> 1280x720@60: )" + std::string(word),
                                     "vdd: screen 0: " + reason));
    EXPECT_THAT(calls(), Not(Contains("apply")));
  }
  vdd->store = ModeChange::Ok;
  vdd->apply = ModeChange::Failed;
  EXPECT_FALSE(acquire(0, 1280, 720));
  EXPECT_EQ(reason, "could not set the virtual monitor's mode");
  EXPECT_THAT(lines(), Contains(R"(vdd: \\.\DISPLAY5 -> 1280x720@60: driver failed)"));
}

TEST_F(VirtualDisplayAcquire, AMonitorWithTheModeThatCannotBePlacedWillDo) {
  monitor();
  vdd->store = ModeChange::BadParameter;
  const DesktopPoint place = {1920, 0};
  EXPECT_TRUE(acquire(0, 1920, 1080, 60, &place));
  EXPECT_EQ(out.left, 0);
  EXPECT_THAT(
      lines(),
      Contains(
          R"(vdd: \\.\DISPLAY5 -> 1920x1080@60 (placed right of the desktop): bad parameter)"));
}

TEST_F(VirtualDisplayAcquire, AMonitorThatDoesNotChangeInASecondIsTakenAsItIs) {
  monitor();
  vdd->apply_is_idle = true;
  EXPECT_TRUE(acquire(0, 1280, 720));
  EXPECT_EQ(elapsed_ms(), 950u);  // 20 looks, 50 ms apart
  EXPECT_EQ(out.width, 1920);
}

TEST_F(VirtualDisplayAcquire, AMonitorThatNoDisplayIsForIsTakenByItsMode) {
  monitor().found = false;
  const DesktopPoint place = {1920, 0};
  EXPECT_TRUE(acquire(0, 1280, 720, 60, &place));
  EXPECT_EQ(out.device, DISPLAY5);
  EXPECT_EQ(out.width, 1280);
  EXPECT_EQ(out.height, 720);
  EXPECT_TRUE(out.is_virtual);
}

// ---- The nearest mode

TEST_F(VirtualDisplayAcquire, AModeThatIsNotOfferedIsMetByTheNearest) {
  monitor();
  vdd->elevated = false;  // and no pipe: nothing reloads the driver
  EXPECT_TRUE(acquire(0, 1366, 768, 75));
  EXPECT_EQ(out.width, 1280);
  EXPECT_THAT(
      lines(),
      Contains(R"(vdd: \\.\DISPLAY5 doesn't offer 1366x768@75 (driver not reloaded with the new )"
               "mode: run Lunderhaze as administrator, or restart the driver in Virtual Driver "
               "Control); using 1280x720@60"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(VirtualDisplayAcquire, ModesOfFewColoursDoNotCount) {
  for (const auto& [bits, offered] :
       {std::pair(0u, true), {1u, false}, {16u, false}, {23u, false}, {24u, true}, {32u, true}}) {
    vdd->monitors.clear();
    monitor().modes = {{{1280, 720, 60}, bits}};
    vdd->reloads = false;
    EXPECT_EQ(acquire(0, 1280, 720), offered) << bits;
    EXPECT_EQ(reason, offered ? "" : "the virtual monitor reports no modes");
  }
}

TEST_F(VirtualDisplayAcquire, AMonitorWithoutModesIsOfNoUse) {
  monitor().modes.clear();
  vdd->elevated = false;
  EXPECT_EQ(failure(), "the virtual monitor reports no modes");
  displays->probe();
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 1 monitor, 0 streamed");
}

// ---- Several screens

TEST_F(VirtualDisplayAcquire, TheSecondScreenFindsTheFirstBusyAndNeedsTwo) {
  monitor();
  EXPECT_EQ(leased(0), DISPLAY5);
  EXPECT_THAT(calls(), Each("pipe 1"));
  EXPECT_EQ(leased(1), DISPLAY6);
  EXPECT_EQ(vdd->file(), settings(2));
  EXPECT_THAT(lines(),
              Contains("vdd: vdd_settings.xml: monitors 1 -> 2, mode 1920x1080@60 already listed"));
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 2 monitors, 2 streamed");
}

TEST_F(VirtualDisplayAcquire, BusyMonitorsAreKnownWhateverTheirCase) {
  monitor();
  monitor(DISPLAY6);
  ASSERT_EQ(leased(0), DISPLAY5);
  vdd->monitors[0].device = R"(\\.\display5)";
  EXPECT_EQ(leased(1), DISPLAY6);
}

TEST_F(VirtualDisplayAcquire, AScreenThatAsksAgainGivesItsOwnMonitorUpFirst) {
  monitor();
  ASSERT_EQ(leased(0), DISPLAY5);
  EXPECT_EQ(leased(0, 1280, 720), DISPLAY5);
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 1 monitor, 1 streamed");
  EXPECT_EQ(vdd->monitors.size(), 1u);
}

TEST_F(VirtualDisplayAcquire, AReconnectWithinFiveSecondsGetsTheSameMonitorWithoutAReload) {
  monitor();
  monitor(DISPLAY6);
  ASSERT_EQ(leased(0), DISPLAY5);
  ASSERT_EQ(leased(1), DISPLAY6);
  displays->release(0);
  displays->release(1);
  tick_after_ms(4'999);
  calls();
  vdd->monitors[1].device = R"(\\.\Display6)";
  EXPECT_EQ(leased(1), R"(\\.\Display6)");  // though the first is free
  EXPECT_EQ(leased(0), DISPLAY5);
  tick_after_ms(10'000);
  EXPECT_THAT(calls(), Each("pipe 1"));
}

TEST_F(VirtualDisplayAcquire, OtherMonitorsKeepTheirOrder) {
  for (const char* device : {"A", "B", "C"}) monitor(device);
  ASSERT_EQ(leased(0), "A");
  ASSERT_EQ(leased(1), "B");
  displays->release(0);
  displays->release(1);
  EXPECT_EQ(leased(1), "B");
  EXPECT_EQ(leased(2), "A");
  EXPECT_EQ(leased(3), "C");
}

// ---- The settings file

TEST_F(VirtualDisplayAcquire, AModeThatIsNotListedIsAdded) {
  monitor();
  EXPECT_TRUE(acquire(0, 1366, 768, 75));
  EXPECT_EQ(out.width, 1366);
  std::string expected = settings(1);
  vdd_xml_add_mode(&expected, 1366, 768, 75);
  EXPECT_EQ(vdd->file(), expected);
  const std::vector<std::string> log = lines();
  ASSERT_EQ(log.size(), 4u);
  EXPECT_EQ(log[0], "vdd: vdd_settings.xml: monitors 1 -> 1, mode 1366x768@75 added");
  EXPECT_EQ(log[1], RESTARTING);
  EXPECT_EQ(log[2], R"(vdd: \\.\DISPLAY5 -> 1366x768@75: ok)");
  EXPECT_EQ(vdd->files.size(), 1u);
  EXPECT_THAT(calls(),
              ElementsAre("pipe 1", std::string("write ") + FakeVdd::PATH + ".lunderhaze-tmp",
                          std::string("replace ") + FakeVdd::PATH, R"(restart ROOT\DISPLAY\0000)",
                          R"(store \\.\DISPLAY5 1366x768@75)", "apply", "pipe 1"));
}

TEST_F(VirtualDisplayAcquire, WhatTheFileSaysAlreadyIsOnlyReloaded) {
  monitor().modes.resize(1);
  EXPECT_TRUE(acquire(0, 1280, 720));
  EXPECT_EQ(out.width, 1280);
  EXPECT_EQ(vdd->file(), settings(1));
  EXPECT_THAT(calls(),
              AllOf(Contains(R"(restart ROOT\DISPLAY\0000)"), Not(Contains(HasSubstr("write ")))));
}

TEST_F(VirtualDisplayAcquire, MissingMonitorsAreAddedToTheFilesCount) {
  vdd->file() = settings(3);
  vdd->polls_until_ready = 0;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(vdd->file(), settings(4));  // of the three none is attached
  EXPECT_THAT(lines(),
              Contains("vdd: vdd_settings.xml: monitors 3 -> 4, mode 1920x1080@60 already listed"));
}

TEST_F(VirtualDisplayAcquire, TheLargestCountIsNoOverflow) {
  vdd->file() = settings(2'147'483'647);
  vdd->reloads = false;
  EXPECT_FALSE(acquire(0));
  EXPECT_EQ(vdd->file(), settings(2'147'483'647));
}

TEST_F(VirtualDisplayAcquire, AFileThatCannotBeWrittenLeavesItAsItWas) {
  monitor();
  vdd->write = {false, false, 5};
  vdd->keeps_modes = true;
  EXPECT_TRUE(acquire(0, 1366, 768));
  EXPECT_EQ(vdd->file(), settings(1));
  const std::vector<std::string> log = lines();
  EXPECT_THAT(log, Contains(std::string("vdd: cannot write ") + FakeVdd::PATH +
                            ".lunderhaze-tmp (error 5)"));
  EXPECT_THAT(log, Contains(RESTARTING));  // it may know the mode from elsewhere
  EXPECT_THAT(log, Not(Contains(HasSubstr("vdd_settings.xml: monitors"))));
}

TEST_F(VirtualDisplayAcquire, AHalfWrittenFileNeverTakesTheOldOnesPlace) {
  monitor();
  vdd->write = {true, false, 112};
  EXPECT_TRUE(acquire(0, 1366, 768));
  EXPECT_EQ(vdd->file(), settings(1));
  EXPECT_EQ(vdd->files.size(), 1u);
  EXPECT_THAT(lines(),
              Contains(std::string("vdd: cannot replace ") + FakeVdd::PATH + " (error 112)"));
  EXPECT_THAT(calls(), Not(Contains(HasSubstr("replace"))));
}

TEST_F(VirtualDisplayAcquire, AFileThatCannotBeReplacedLeavesNothingBehind) {
  monitor();
  vdd->replace = {false, 32};
  EXPECT_TRUE(acquire(0, 1366, 768));
  EXPECT_EQ(vdd->file(), settings(1));
  EXPECT_EQ(vdd->files.size(), 1u);
  EXPECT_THAT(lines(),
              Contains(std::string("vdd: cannot replace ") + FakeVdd::PATH + " (error 32)"));
}

// ---- A file of no use

TEST_F(VirtualDisplayAcquire, AFileWithoutMonitorsAllowsOnlyTheCountToBeChangedOverThePipe) {
  without_rights();
  monitor();
  ASSERT_TRUE(acquire(0));
  lines();
  const std::string text = settings(1).substr(settings(1).find("<global>"));
  vdd->file() = text;
  EXPECT_EQ(leased(1), DISPLAY6);
  EXPECT_EQ(vdd->file(), text);
  EXPECT_THAT(vdd->commands, ElementsAre(std::u16string(u"SETDISPLAYCOUNT 2\0", 18)));
  const std::vector<std::string> log = lines();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0], std::string("vdd: ") + FakeVdd::PATH +
                        " unreadable or not in the expected format; only the monitor count can be "
                        "changed");
  EXPECT_EQ(log[1], "vdd: SETDISPLAYCOUNT 2 over the driver's pipe (re-initializes its adapter)");
}

TEST_F(VirtualDisplayAcquire, ANegativeCountIsNoExpectedFormat) {
  without_rights();
  vdd->file() = settings(-4);
  vdd->polls_until_ready = 0;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(vdd->file(), settings(-4));
  EXPECT_THAT(vdd->commands, ElementsAre(std::u16string(u"SETDISPLAYCOUNT 1\0", 18)));
}

TEST_F(VirtualDisplayAcquire, AMissingFileKeepsTheMonitorsThatThereAre) {
  without_rights();
  vdd->keeps_modes = true;
  vdd->files.clear();
  monitor();
  monitor(DISPLAY6);
  EXPECT_TRUE(acquire(0, 800, 600));  // not offered
  EXPECT_EQ(out.width, 1280);         // both are larger; the smaller
  EXPECT_THAT(vdd->commands, ElementsAre(std::u16string(u"SETDISPLAYCOUNT 2\0", 18)));
  EXPECT_THAT(vdd->files, IsEmpty());
}

TEST_F(VirtualDisplayAcquire, ASettingsFileOfMoreThan128KiBIsUnreadable) {
  monitor();
  vdd->keeps_modes = true;
  vdd->file() += std::string(131'072 - vdd->file().size(), ' ');
  EXPECT_EQ(displays->probe().settings_count, 1);
  vdd->file() += ' ';
  EXPECT_EQ(displays->probe().settings_count, -1);
  const std::string text = vdd->file();
  EXPECT_TRUE(acquire(0, 800, 600));
  EXPECT_EQ(vdd->file(), text);
}

// ---- Reloading the driver

TEST_F(VirtualDisplayAcquire, AnAdministratorRestartsTheDevice) {
  vdd->pipe = {true, 0};
  vdd->polls_until_ready = 0;
  EXPECT_TRUE(acquire(0));
  EXPECT_THAT(lines(), Contains(RESTARTING));
  EXPECT_THAT(vdd->commands, IsEmpty());
}

TEST_F(VirtualDisplayAcquire, ARestartThatFailsIsFollowedByThePipe) {
  vdd->pipe = {true, 0};
  vdd->changes[AdapterChange::Restart] = {false, 13};
  EXPECT_TRUE(acquire(0));
  const std::vector<std::string> log = lines();
  ASSERT_GE(log.size(), 4u);
  EXPECT_EQ(log[1], RESTARTING);
  EXPECT_EQ(log[2], "vdd: device state change 3 failed (error 13)");
  EXPECT_EQ(log[3], "vdd: SETDISPLAYCOUNT 2 over the driver's pipe (re-initializes its adapter)");
  EXPECT_THAT(vdd->commands, ElementsAre(std::u16string(u"SETDISPLAYCOUNT 2\0", 18)));
}

TEST_F(VirtualDisplayAcquire, WithNeitherRightsNorPipeTheDriverStaysAsItIs) {
  vdd->elevated = false;
  EXPECT_FALSE(acquire(0));
  EXPECT_EQ(reason, NO_FREE_MONITOR);
  EXPECT_EQ(elapsed_ms(), 0u);  // there is nothing to wait for
  const std::vector<std::string> log = lines();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[1], CANNOT_RELOAD);
  EXPECT_EQ(log[2], std::string("vdd: screen 0: ") + NO_FREE_MONITOR);
  EXPECT_EQ(std::ranges::count(vdd->calls, "pipe 1"), 3);  // probe, another look, probe
}

TEST_F(VirtualDisplayAcquire, APipeThatCameUpSinceIsUsed) {
  vdd->elevated = false;
  int waits = 0;
  vdd->on_call = [&](const char* call) {
    if (std::string("wait_for_pipe") == call && ++waits > 1) vdd->pipe = {waits > 2, 121};
  };
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(vdd->commands.size(), 1u);
}

TEST_F(VirtualDisplayAcquire, APipeThatStaysBusyDoesNotReload) {
  vdd->elevated = false;
  vdd->pipe = {false, 121};
  EXPECT_EQ(failure(), NO_FREE_MONITOR);
  EXPECT_EQ(vdd->called("pipe 1000"), 1);
  EXPECT_EQ(vdd->called("open pipe"), 0);
}

TEST_F(VirtualDisplayAcquire, ACommandThatCannotBeSentDoesNotReload) {
  for (const bool opens : {false, true}) {
    without_rights();
    vdd->pipe_opens = opens;
    vdd->pipe_writes = false;
    EXPECT_FALSE(acquire(0));
    EXPECT_EQ(reason, NO_FREE_MONITOR);
    EXPECT_THAT(lines(), Contains(CANNOT_RELOAD));
    EXPECT_EQ(elapsed_ms(), 0u);  // nothing is drained
  }
}

TEST_F(VirtualDisplayAcquire, ThePipeIsDrainedFor300Ms) {
  without_rights();
  vdd->pipe_answers.resize(3);
  vdd->pipe_read = {false, 234};  // there is more of the message
  vdd->polls_until_ready = 0;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(vdd->called("peek"), 33);  // one each 10 ms, and the three with an answer
  EXPECT_EQ(vdd->called("read 512"), 3);
  EXPECT_EQ(elapsed_ms(), 300u + 250u);
}

TEST_F(VirtualDisplayAcquire, AReadErrorEndsTheDrainAndNotTheLease) {
  without_rights();
  vdd->pipe_answers.resize(3);
  vdd->pipe_read = {false, 109};
  vdd->polls_until_ready = 0;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(vdd->called("peek"), 1);
  EXPECT_EQ(elapsed_ms(), 250u);
}

TEST_F(VirtualDisplayAcquire, AFailedPeekEndsTheDrainAndNotTheLease) {
  without_rights();
  vdd->pipe_breaks = true;
  vdd->polls_until_ready = 0;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(vdd->called("peek"), 1);
  EXPECT_EQ(elapsed_ms(), 250u);
}

// ---- Waiting for the monitor

TEST_F(VirtualDisplayAcquire, AMonitorIsWaitedForAQuarterOfASecondAtATime) {
  vdd->polls_until_ready = 7;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(elapsed_ms(), 2'000u);
  EXPECT_THAT(calls(), Not(Contains("extend")));
}

TEST_F(VirtualDisplayAcquire, AMonitorThatComesUpWithoutTheModeEndsTheWaitAfter3s) {
  monitor();
  vdd->keeps_modes = true;
  EXPECT_TRUE(acquire(0, 1366, 768));
  EXPECT_EQ(out.width, 1280);
  EXPECT_EQ(elapsed_ms(), 3'250u);  // the 13th look
}

TEST_F(VirtualDisplayAcquire, WithoutAMonitorAfter3sTheDesktopIsExtendedOnce) {
  vdd->detached = true;
  vdd->polls_until_ready = 0;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(elapsed_ms(), 3'500u);
  EXPECT_EQ(vdd->called("extend"), 1);
  EXPECT_THAT(
      lines(),
      Contains("vdd: no virtual monitor active after 3 s; extending the desktop to all displays"));
}

TEST_F(VirtualDisplayAcquire, ADriverThatHadNotStartedGetsNoExtendedDesktop) {
  vdd->status = {true, 10, false};
  vdd->reloads = false;
  EXPECT_EQ(failure(), NO_FREE_MONITOR);
  EXPECT_EQ(vdd->called("extend"), 0);
}

TEST_F(VirtualDisplayAcquire, WithoutAMonitorItGivesUpAfter10s) {
  vdd->reloads = false;
  EXPECT_EQ(failure(), NO_FREE_MONITOR);
  EXPECT_EQ(elapsed_ms(), 10'000u);
  EXPECT_EQ(vdd->called("extend"), 1);
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 0 monitors, 0 streamed");
}

TEST_F(VirtualDisplayAcquire, TheLastLookIsTheFortieth) {
  vdd->polls_until_ready = 39;
  EXPECT_TRUE(acquire(0));
  EXPECT_EQ(elapsed_ms(), 10'000u);
  displays->restore_now();
  vdd->monitors.clear();
  vdd->polls_until_ready = 40;
  EXPECT_EQ(failure(), NO_FREE_MONITOR);
}
