// How the driver and its monitors go back to what they were.
#include "tests/capture/vdd_fixture.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

using AdapterChange = VirtualDisplayDriver::AdapterChange;
using ModeChange = VirtualDisplayDriver::ModeChange;

constexpr const char* DISPLAY5 = R"(\\.\DISPLAY5)";
constexpr const char* DISPLAY6 = R"(\\.\DISPLAY6)";
constexpr const char* RESTARTING =
    R"(vdd: restarting the driver's device ROOT\DISPLAY\0000 (administrator))";
constexpr const char* FILE_RESTORED = "vdd: vdd_settings.xml restored (monitors 1)";

class VirtualDisplayRestore : public VddFixture {
 protected:
  // A lease whose monitor was there and changed its mode; the file stays as it is.
  void lease_with_mode(int screen = 0) {
    if (vdd->monitors.empty()) monitor();
    ASSERT_TRUE(acquire(screen, 1280, 720)) << reason;
    forget();
  }
  // A second monitor for screen 1, which takes the file and the driver along.
  void lease_with_file() {
    if (vdd->monitors.empty()) monitor();
    ASSERT_TRUE(acquire(0)) << reason;
    ASSERT_TRUE(acquire(1)) << reason;
    ASSERT_EQ(vdd->file(), settings(2));
    forget();
  }
  void forget() {
    lines();
    calls();
  }
};

const std::string WRITE = std::string("write ") + FakeVdd::PATH + ".lunderhaze-tmp";
const std::string REPLACE = std::string("replace ") + FakeVdd::PATH;

}  // namespace

// ---- When

TEST_F(VirtualDisplayRestore, ComesFiveSecondsAfterTheLastLease) {
  lease_with_mode(0);
  ASSERT_TRUE(acquire(1));  // takes the file and the driver along
  forget();
  displays->release(1);
  tick_after_ms(10'000);
  EXPECT_THAT(calls(), IsEmpty());
  displays->release(0);
  tick_after_ms(4'999);
  EXPECT_THAT(calls(), IsEmpty());
  tick_after_ms(1);
  EXPECT_THAT(calls(), Contains(R"(store \\.\DISPLAY5 1920x1080@60 at 0,0)"));
  forget();
  tick_after_ms(10'000);
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(VirtualDisplayRestore, OfAScreenWithoutALeaseStartsNone) {
  lease_with_mode(0);
  displays->release(1);
  tick_after_ms(10'000);
  EXPECT_THAT(calls(), IsEmpty());
  displays->release(0);
  virtual_time::advance_ms(3'000);
  displays->release(0);  // and puts none off
  tick_after_ms(2'000);
  EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 back to 1920x1080@60: ok)"));
}

TEST_F(VirtualDisplayRestore, IsCancelledByALeaseWhichKeepsAllThatWasSaved) {
  lease_with_mode();
  displays->release(0);
  tick_after_ms(4'000);
  ASSERT_TRUE(acquire(0, 1366, 768));
  forget();
  tick_after_ms(10'000);
  EXPECT_THAT(calls(), IsEmpty());
  displays->release(0);
  tick_after_ms(5'000);
  EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 back to 1920x1080@60: ok)",
                                   "vdd: vdd_settings.xml restored (monitors 1)"));
  EXPECT_EQ(vdd->file(), settings(1));
}

TEST_F(VirtualDisplayRestore, IsCancelledByALeaseThatFailsToo) {
  lease_with_mode();
  displays->release(0);
  vdd->adapters.clear();
  ASSERT_FALSE(acquire(0));
  forget();
  tick_after_ms(10'000);
  EXPECT_THAT(calls(), IsEmpty());
  displays->restore_now();
  EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 back to 1920x1080@60: ok)"));
}

TEST_F(VirtualDisplayRestore, NowDoesNotWait) {
  lease_with_mode();
  displays->restore_now();
  EXPECT_THAT(calls(), ElementsAre(R"(store \\.\DISPLAY5 1920x1080@60 at 0,0)", "apply", "pipe 1"));
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 1 monitor, 0 streamed");
  displays->release(0);  // has no lease any more
  tick_after_ms(10'000);
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(VirtualDisplayRestore, NowWithNothingSavedOnlyClearsTheLeases) {
  monitor().readable = false;
  vdd->monitors[0].stored.reset();
  vdd->store = ModeChange::Ok;
  ASSERT_TRUE(acquire(0));
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 1 monitor, 1 streamed");
  bool touched = false;
  vdd->on_call = [&](const char*) { touched = true; };
  displays->restore_now();
  EXPECT_FALSE(touched);
  vdd->on_call = nullptr;
  displays->probe();
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 1 monitor, 0 streamed");
}

// ---- Modes

TEST_F(VirtualDisplayRestore, TheStoredModeGoesBeforeTheCurrentOne) {
  monitor().stored = MonitorSettings{{800, 600, 60}, {5, 6}};
  lease_with_mode();
  displays->restore_now();
  EXPECT_THAT(calls(), Contains(R"(store \\.\DISPLAY5 800x600@60 at 5,6)"));
}

TEST_F(VirtualDisplayRestore, WithoutAStoredModeTheCurrentOneIsKept) {
  monitor().stored.reset();
  lease_with_mode();
  displays->restore_now();
  EXPECT_THAT(calls(), Contains(R"(store \\.\DISPLAY5 1920x1080@60 at 0,0)"));
}

TEST_F(VirtualDisplayRestore, APlacedMonitorGoesBackToItsPlace) {
  monitor();
  const DesktopPoint place = {1920, 7};
  ASSERT_TRUE(acquire(0, 1920, 1080, 60, &place));
  displays->restore_now();
  EXPECT_EQ(vdd->monitors[0].current.position, (DesktopPoint{0, 0}));
}

TEST_F(VirtualDisplayRestore, TheFirstModeIsKeptWhateverComesLater) {
  lease_with_mode();
  ASSERT_TRUE(acquire(0, 1920, 1080));
  ASSERT_TRUE(acquire(0, 1280, 720));
  forget();
  displays->restore_now();
  EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 back to 1920x1080@60: ok)"));
}

TEST_F(VirtualDisplayRestore, AMonitorThatIsAsItWasIsLeftAlone) {
  lease_with_mode();
  vdd->monitors[0].current = {{1920, 1080, 60}, {0, 0}};
  displays->restore_now();
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_THAT(calls(), ElementsAre("pipe 1"));  // the status alone
}

TEST_F(VirtualDisplayRestore, AMonitorThatIsGoneIsLeftAlone) {
  lease_with_mode();
  vdd->monitors.clear();
  displays->restore_now();
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(VirtualDisplayRestore, AFailureIsLoggedAndTheRestGoesOn) {
  vdd->file() = settings(2);
  monitor();
  monitor(DISPLAY6);
  ASSERT_TRUE(acquire(0, 1280, 720));
  ASSERT_TRUE(acquire(1, 1366, 768));  // changes the file
  forget();
  vdd->store = ModeChange::Failed;
  displays->restore_now();
  EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 back to 1920x1080@60: driver failed)",
                                   R"(vdd: \\.\DISPLAY6 back to 1920x1080@60: driver failed)",
                                   "vdd: vdd_settings.xml restored (monitors 2)"));
  EXPECT_EQ(vdd->file(), settings(2));
  EXPECT_EQ(vdd->called("apply"), 0);
}

TEST_F(VirtualDisplayRestore, SeveralMonitorsAreAppliedAtOnce) {
  monitor();
  monitor(DISPLAY6);
  ASSERT_TRUE(acquire(0, 1280, 720));
  ASSERT_TRUE(acquire(1, 1280, 720));
  forget();
  displays->restore_now();
  EXPECT_THAT(calls(),
              ElementsAre(R"(store \\.\DISPLAY5 1920x1080@60 at 0,0)",
                          R"(store \\.\DISPLAY6 1920x1080@60 at 1920,0)", "apply", "pipe 1"));
}

TEST_F(VirtualDisplayRestore, OnlyTheFirstTimeHasAnythingToDo) {
  lease_with_file();
  displays->restore_now();
  forget();
  bool touched = false;
  vdd->on_call = [&](const char*) { touched = true; };
  displays->restore_now();
  EXPECT_FALSE(touched);
}

// ---- The settings file

TEST_F(VirtualDisplayRestore, TheFileComesBackAndTheDriverIsReloaded) {
  lease_with_file();
  displays->restore_now();
  EXPECT_EQ(vdd->file(), settings(1));
  EXPECT_EQ(vdd->files.size(), 1u);
  EXPECT_THAT(lines(), ElementsAre(FILE_RESTORED, RESTARTING));
  EXPECT_THAT(calls(),
              ElementsAre(WRITE, REPLACE, "pipe 1", R"(restart ROOT\DISPLAY\0000)", "pipe 1"));
}

TEST_F(VirtualDisplayRestore, TheFirstTextIsKeptWhateverComesLater) {
  const std::string before = settings(1) + "<!-- mine -->\r\n";
  vdd->file() = before;
  monitor();
  ASSERT_TRUE(acquire(0, 1366, 768));
  ASSERT_TRUE(acquire(0, 1440, 900));
  ASSERT_TRUE(acquire(1));
  displays->restore_now();
  EXPECT_EQ(vdd->file(), before);
}

TEST_F(VirtualDisplayRestore, WithTheRightNumberOfMonitorsThereIsNoReload) {
  monitor();
  ASSERT_TRUE(acquire(0, 1366, 768));  // one mode more, no monitor
  forget();
  displays->restore_now();
  EXPECT_EQ(vdd->file(), settings(1));
  EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 back to 1920x1080@60: ok)", FILE_RESTORED));
  EXPECT_THAT(calls(), Not(Contains(HasSubstr("restart"))));
}

TEST_F(VirtualDisplayRestore, TheDriverIsNeverAskedForLessThanOneMonitor) {
  vdd->file() = settings(0);
  vdd->elevated = false;
  vdd->pipe = {true, 0};
  vdd->polls_until_ready = 0;
  ASSERT_TRUE(acquire(0)) << reason;
  vdd->commands.clear();
  displays->restore_now();
  EXPECT_EQ(vdd->file(), settings(0));
  EXPECT_THAT(lines(), Contains("vdd: vdd_settings.xml restored (monitors 0)"));
  EXPECT_THAT(vdd->commands, ElementsAre(std::u16string(u"SETDISPLAYCOUNT 1\0", 18)));
}

TEST_F(VirtualDisplayRestore, AFileThatCannotBeWrittenIsNotReloaded) {
  lease_with_file();
  vdd->write = {false, false, 5};
  displays->restore_now();
  EXPECT_EQ(vdd->file(), settings(2));
  EXPECT_THAT(lines(), ElementsAre(std::string("vdd: cannot write ") + FakeVdd::PATH +
                                   ".lunderhaze-tmp (error 5)"));
  EXPECT_THAT(calls(), ElementsAre(WRITE, "pipe 1"));
}

TEST_F(VirtualDisplayRestore, ADriverThatIsGoneIsNotReloaded) {
  lease_with_file();
  vdd->adapters.clear();
  displays->restore_now();
  EXPECT_EQ(vdd->file(), settings(1));
  EXPECT_THAT(lines(), ElementsAre(FILE_RESTORED));
  EXPECT_EQ(displays->status_line(), "Virtual display: driver not installed");
}

TEST_F(VirtualDisplayRestore, AFileThatCannotBeReadAgainIsNotReloaded) {
  lease_with_file();
  vdd->unreadable = true;
  displays->restore_now();
  EXPECT_THAT(lines(), ElementsAre(FILE_RESTORED));
}

// ---- The count alone

TEST_F(VirtualDisplayRestore, WhereTheFileCouldNotBeEditedTheCountComesBack) {
  vdd->elevated = false;
  vdd->pipe = {true, 0};
  vdd->unreadable = true;
  vdd->keeps_modes = true;
  monitor();
  ASSERT_TRUE(acquire(0));
  ASSERT_TRUE(acquire(1));
  ASSERT_TRUE(acquire(2));  // the first count is what is kept
  ASSERT_EQ(vdd->monitors.size(), 3u);
  forget();
  vdd->commands.clear();
  displays->restore_now();
  EXPECT_THAT(lines(),
              ElementsAre("vdd: monitor count back to 1",
                          "vdd: SETDISPLAYCOUNT 1 over the driver's pipe (re-initializes its "
                          "adapter)"));
  EXPECT_THAT(vdd->commands, ElementsAre(std::u16string(u"SETDISPLAYCOUNT 1\0", 18)));
  EXPECT_THAT(calls(), Not(Contains(HasSubstr("write "))));
}

TEST_F(VirtualDisplayRestore, TheCountComesBackToOneAtLeast) {
  vdd->elevated = false;
  vdd->pipe = {true, 0};
  vdd->unreadable = true;
  vdd->polls_until_ready = 0;
  ASSERT_TRUE(acquire(0)) << reason;
  displays->restore_now();
  EXPECT_THAT(lines(), Contains("vdd: monitor count back to 1"));
}

TEST_F(VirtualDisplayRestore, AFileThatWasEditedLaterGoesBeforeTheCount) {
  vdd->elevated = false;
  vdd->pipe = {true, 0};
  vdd->unreadable = true;
  vdd->polls_until_ready = 0;
  ASSERT_TRUE(acquire(0)) << reason;
  vdd->unreadable = false;
  ASSERT_TRUE(acquire(1)) << reason;
  forget();
  displays->restore_now();
  EXPECT_THAT(lines(), Contains(FILE_RESTORED));
  EXPECT_EQ(vdd->file(), settings(1));
}
