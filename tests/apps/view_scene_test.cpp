#include "apps/client/view/scene.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "apps/client/view/overlay.h"
#include "apps/client/view/view_statistics.h"

namespace {

constexpr std::uint64_t SECOND = 1'000'000;

struct Streaming {
  Streaming() {
    shared.host = "vm";
    shared.key_label = "Right Ctrl";
    shared.session = SessionState::Streaming;
    screen.state = ScreenState::Streaming;
    screen.window = {1000, 720};
    screen.picture = {1280, 720};
    screen.picture_serial = 1;
    screen.image_known = true;
  }
  Scene at(std::uint64_t now_us) const { return compose(shared, screen, now_us); }
  SharedView shared;
  ScreenView screen;
};

bool says(const std::vector<std::string>& lines, const std::string& text) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

TEST(Scene, AStreamIsItsPictureAlone) {
  Streaming view;
  const Scene scene = view.at(100 * SECOND);
  EXPECT_EQ(scene.shown, letterbox({1000, 720}, {1280, 720}));
  EXPECT_FALSE(scene.dimmed);
  EXPECT_TRUE(scene.banner.empty());
  EXPECT_TRUE(scene.statistics.empty());
  EXPECT_TRUE(scene.footer.empty());
}

TEST(Scene, WithoutNewsItStaysEqualAndNothingIsDrawn) {
  Streaming view;
  EXPECT_EQ(view.at(100 * SECOND), view.at(200 * SECOND));
  EXPECT_EQ(changes_at_us(view.shared, view.screen, 100 * SECOND), UINT64_MAX);
}

TEST(Scene, ANewPictureOrSizeOrPointerChangesIt) {
  Streaming view;
  const Scene before = view.at(SECOND);
  Streaming newer = view;
  ++newer.screen.picture_serial;
  EXPECT_NE(newer.at(SECOND), before);
  Streaming wider = view;
  wider.screen.window.width += 1;
  EXPECT_NE(wider.at(SECOND), before);
  Streaming moved = view;
  moved.screen.pointer.reported({100, 200, true, 5});
  EXPECT_NE(moved.at(SECOND), before);
}

TEST(Scene, BeforeThereIsAnythingItSaysWhatIsAwaited) {
  Streaming view;
  view.screen.picture = {};
  view.shared.session = SessionState::Connecting;
  EXPECT_TRUE(says(view.at(0).banner, "connecting to vm"));
  view.shared.session = SessionState::Streaming;
  view.screen.state = ScreenState::Waiting;
  EXPECT_TRUE(says(view.at(0).banner, "waiting for the screen"));
  view.screen.state = ScreenState::Streaming;
  EXPECT_TRUE(says(view.at(0).banner, "waiting for the first picture"));
  EXPECT_FALSE(view.at(0).dimmed);
}

TEST(Scene, ABrokenStreamIsItsLastPictureDimmedWithTheReason) {
  Streaming view;
  view.screen.mouse_over = true;
  view.screen.pointer.reported({100, 200, false, 5});
  view.shared.session = SessionState::BrokenOff;
  view.shared.session_text = "the host has fallen silent";
  const Scene scene = view.at(0);
  EXPECT_TRUE(scene.dimmed);
  EXPECT_TRUE(says(scene.banner, "the host has fallen silent"));
  EXPECT_TRUE(says(scene.banner, "connecting again"));
  EXPECT_TRUE(scene.own_pointer) << "there is no host whose pointer could be hidden";
  EXPECT_FALSE(scene.pointer_painted);
}

TEST(Scene, ARefusalIsShownWithTheWayOut) {
  Streaming view;
  view.screen.picture = {};
  view.shared.session = SessionState::Ended;
  view.shared.session_text = "the host does not know this device: pair first";
  EXPECT_TRUE(says(view.at(0).banner, "pair first"));
  EXPECT_TRUE(says(view.at(0).banner, "close this window"));
}

TEST(Scene, AScreenMayEndAlone) {
  Streaming view;
  view.screen.state = ScreenState::Ended;
  view.screen.text = "the host refused: no such screen, or no display";
  EXPECT_TRUE(says(view.at(0).banner, "no such screen"));
  EXPECT_TRUE(view.at(0).dimmed);
}

TEST(Scene, ThePointerIsPaintedAtTheHostsPositionInWindowPixels) {
  Streaming view;
  view.screen.pointer.reported({65535, 0, true, 5});
  const Scene scene = view.at(0);
  EXPECT_TRUE(scene.pointer_painted);
  EXPECT_EQ(scene.pointer_shape, 5U);
  EXPECT_EQ(scene.pointer, (ViewPoint{scene.shown.x + scene.shown.width - 1, scene.shown.y}));
  view.screen.image_known = false;
  EXPECT_FALSE(view.at(0).pointer_painted) << "its image has not come yet";
}

TEST(Scene, TheOwnPointerIsHiddenOverThePictureWhenTheHostHidesIts) {
  Streaming view;
  view.screen.mouse_over = true;
  view.screen.pointer.reported({100, 200, false, 5});
  EXPECT_FALSE(view.at(0).own_pointer);
  view.screen.mouse_over = false;
  EXPECT_TRUE(view.at(0).own_pointer) << "over the bars it is nobody's";
}

TEST(Scene, TheCapturedMouseHasNoPointerOfItsOwn) {
  Streaming view;
  view.shared.relative = true;
  EXPECT_FALSE(view.at(0).own_pointer);
}

TEST(Scene, TheHintPassesAndNotesComeBeforeIt) {
  Streaming view;
  view.shared.hint_until_us = 5 * SECOND;
  EXPECT_TRUE(says(view.at(0).footer, "Right Ctrl+H"));
  EXPECT_EQ(changes_at_us(view.shared, view.screen, 0), 5 * SECOND);
  EXPECT_TRUE(view.at(5 * SECOND).footer.empty());
  view.shared.note = "sound off";
  view.shared.note_until_us = 2 * SECOND;
  EXPECT_EQ(view.at(0).footer, std::vector<std::string>{"sound off"});
  EXPECT_EQ(changes_at_us(view.shared, view.screen, 0), 2 * SECOND);
  view.shared.help = true;
  EXPECT_TRUE(says(view.at(0).footer, "Ctrl+Alt+Delete"));
}

TEST(Scene, APointerThatTheHostMayHaveMovedIsLookedAtAgain) {
  Streaming view;
  view.screen.mouse_over = true;
  view.screen.pointer.reported({50000, 50000, true, 5});
  view.screen.pointer.sent({100, 100}, SECOND);
  const std::uint64_t at = changes_at_us(view.shared, view.screen, SECOND);
  ASSERT_NE(at, UINT64_MAX);
  EXPECT_FALSE(view.at(at - 1).pointer_painted);
  EXPECT_TRUE(view.at(at).pointer_painted);
}

TEST(Scene, StatisticsAreThereWhenAskedFor) {
  Streaming view;
  view.screen.statistics = {"60 fps"};
  EXPECT_TRUE(view.at(0).statistics.empty());
  view.shared.statistics = true;
  EXPECT_EQ(view.at(0).statistics, std::vector<std::string>{"60 fps"});
}

TEST(WindowTitle, NamesHostAndScreen) {
  EXPECT_EQ(window_title("vm", 0, 1), "vm");
  EXPECT_EQ(window_title("vm", 0, 2), "vm - screen 0");
  EXPECT_EQ(window_title("vm", 3, 4), "vm - screen 3");
}

TEST(StatisticsLines, HaveEveryStageAndFigure) {
  OverlayFigures figures;
  figures.stages = {{"encode", 3.5, 4.25, true}, {"present", 0, 0, false}};
  figures.fps = 59.94;
  figures.mbps = 12.5;
  figures.rtt_ms = 0.4;
  figures.loss_percent = 1.25;
  figures.path = "LAN 192.168.1.5:9876";
  figures.sound = true;
  figures.sound_ms = 31.6;
  figures.sound_most_ms = 45.2;
  figures.codec = "H.264";
  figures.stream = {1280, 720};
  figures.window = {640, 360};
  const auto lines = statistics_lines(figures);
  for (const char* text :
       {"3.50", "4.25", "59.9 fps", "12.50 Mbps", "rtt 0.40 ms", "loss 1.2%",
        "LAN 192.168.1.5:9876", "sound 32 ms buffered, 45 at most", "H.264 1280x720 in 640x360"})
    EXPECT_TRUE(says(lines, text)) << text;
  figures.sound = false;
  EXPECT_TRUE(says(statistics_lines(figures), "sound off"));
}

FrameTimes times_of(double encode, double transport, double queue, double decode) {
  FrameTimes times;
  times.us[static_cast<std::size_t>(Stage::Encode)] = encode;
  times.us[static_cast<std::size_t>(Stage::Transport)] = transport;
  times.us[static_cast<std::size_t>(Stage::Queue)] = queue;
  times.us[static_cast<std::size_t>(Stage::Decode)] = decode;
  times.us[static_cast<std::size_t>(Stage::Total)] = encode + transport + queue + decode;
  return times;
}

TEST(ViewStatistics, GivesPercentilesOfTheLastSecondByStage) {
  ViewStatistics statistics;
  for (int i = 1; i <= 100; ++i) statistics.shown(times_of(i * 1000, 500, 20, 400), 1000);
  const auto second = statistics.finish_second(2.0);
  EXPECT_DOUBLE_EQ(second.fps, 50);
  ASSERT_EQ(second.stages.size(), 6U);
  EXPECT_STREQ(second.stages[0].name, "encode");
  EXPECT_DOUBLE_EQ(second.stages[0].p50_ms, 50);
  EXPECT_DOUBLE_EQ(second.stages[0].p95_ms, 95);
  EXPECT_STREQ(second.stages[4].name, "present");
  EXPECT_DOUBLE_EQ(second.stages[4].p50_ms, 1);
  EXPECT_STREQ(second.stages[5].name, "total");
  EXPECT_DOUBLE_EQ(second.stages[5].p50_ms, 50 + 0.5 + 0.02 + 0.4 + 1);
}

TEST(ViewStatistics, ASecondWithoutPicturesHasNoFigures) {
  ViewStatistics statistics;
  statistics.shown(times_of(1, 1, 1, 1), 1);
  statistics.finish_second(1);
  const auto second = statistics.finish_second(1);
  EXPECT_EQ(second.fps, 0);
  for (const StageFigure& stage : second.stages) EXPECT_FALSE(stage.measured) << stage.name;
}

TEST(ViewStatistics, ReportsTheStagesOfTheRun) {
  ViewStatistics statistics;
  for (int i = 0; i < 10; ++i) statistics.shown(times_of(9000, 1, 1, 1), 1);
  statistics.finish_second(1);
  for (int i = 0; i < 10; ++i) statistics.shown(times_of(2000, 1, 1, 1), 1);
  const auto report = statistics.latency_report();
  EXPECT_EQ(statistics.pictures(), 20U);
  EXPECT_EQ(report["encode"]["samples"], 20);
  EXPECT_EQ(report["encode"]["max"], 9.0);
  EXPECT_FALSE(report.contains("paint"));
}

}  // namespace
