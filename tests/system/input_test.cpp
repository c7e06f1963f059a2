// A client's keyboard and mouse, from the client program through the host to other programs of the
// host's desktop.
#include <gmock/gmock.h>

#include <cstdio>

#include "connection/clock.h"
#include "tests/support/temp_directory.h"
#include "tests/system/desk_support.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace system_test {
namespace {

// USB HID usages, page 7, and the keycodes that X has for these keys.
constexpr int USAGE_A = 0x04, USAGE_LEFT_SHIFT = 0xE1;
constexpr int KEYCODE_A = 38, KEYCODE_LEFT_SHIFT = 50;

class InputTest : public DeskTest {
 protected:
  struct Spot {
    int x, y;
  };
  // The corners of a picture of this size, and some places within.
  static std::vector<Spot> spots(int width, int height) {
    return {{0, 0},  {width - 1, 0},          {0, height - 1},         {width - 1, height - 1},
            {1, 1},  {width - 2, height - 2}, {width / 3, height / 5}, {width / 2, height / 2},
            {100, 7}};
  }

  // Clicks at all spots of that screen's stream, and expects each at its pixel of the monitor, in
  // this order and nothing else.
  void expect_exact_clicks(Recorder& recorder, const Monitor& monitor, int screen, int width,
                           int height) {
    SCOPED_TRACE("screen " + std::to_string(screen) + ", " + std::to_string(width) + "x" +
                 std::to_string(height));
    recorder.forget();
    std::vector<std::string> arguments = {"--screen", std::to_string(screen), "--width",
                                          std::to_string(width)};
    std::vector<std::string> expected;
    for (const Spot& spot : spots(width, height)) {
      arguments.push_back("--click");
      arguments.push_back(std::to_string(spot.x) + "," + std::to_string(spot.y));
      const std::string at = monitor.at(spot.x, spot.y, width, height);
      expected.push_back("button 1 down " + at);
      expected.push_back("button 1 up " + at);
    }
    connect(arguments);
    EXPECT_EQ(report()["stream"]["width"], width);
    EXPECT_EQ(report()["stream"]["height"], height);
    EXPECT_THAT(recorder.events_until(expected.back(), "button"), ElementsAreArray(expected));
  }
};

// ---- Text

TEST_F(InputTest, XtermGetsTheTypedLineCharacterForCharacter) {
  prepare(640, 400);
  const auto ready = directory_ / "ready";
  const auto typed = directory_ / "typed";
  ChildProcess xterm({"xterm", "-geometry", "80x24+0+0", "-e", "sh", "-c",
                      "touch '" + ready.string() + "'; exec cat > '" + typed.string() + "'"},
                     environment_);
  ASSERT_TRUE(comes_true([&] { return std::filesystem::exists(ready); })) << xterm.output();
  User user(desktop_->display());
  // Where the client clicks, xterm covers the root window.
  ASSERT_TRUE(comes_true([&] { return !user.windows().empty(); }));

  std::string line;
  for (char c = ' '; c <= '~'; ++c) line += c;
  line += "  The quick (brown) fox: \"jumps\" over 10% of {lazy} dogs & returns~\n";
  connect({"--click", "100,100", "--type", line});
  EXPECT_TRUE(comes_true([&] { return file_content(typed).size() >= line.size(); }));
  EXPECT_EQ(file_content(typed), line);
}

TEST_F(InputTest, AWindowGetsTheCodesOfTheKeysThatTypeTheText) {
  prepare(640, 400);
  Recorder recorder(desktop_->display(), 0, 0, 640, 400);
  connect({"--type", "aA1!/?", "--type", "\t\n"});
  EXPECT_THAT(recorder.events_until("key 36 up", "key"),
              ElementsAre("key 38 down", "key 38 up",                              // a
                          "key 50 down", "key 38 down", "key 38 up", "key 50 up",  // A
                          "key 10 down", "key 10 up",                              // 1
                          "key 50 down", "key 10 down", "key 10 up", "key 50 up",  // !
                          "key 61 down", "key 61 up",                              // /
                          "key 50 down", "key 61 down", "key 61 up", "key 50 up",  // ?
                          "key 23 down", "key 23 up", "key 36 down", "key 36 up"));
}

// ---- Clicks

TEST_F(InputTest, ClicksComeToTheExactPixelAtFullSize) {
  prepare(1280, 720);
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  expect_exact_clicks(recorder, {"", 0, 0, 1280, 720}, 0, 1280, 720);
}

TEST_F(InputTest, ClicksIntoAScaledStreamComeToTheExactPixelAtTheSamePlace) {
  prepare(1280, 720);
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  expect_exact_clicks(recorder, {"", 0, 0, 1280, 720}, 0, 640, 360);
}

TEST_F(InputTest, EachOfTwoMonitorsIsClickedThroughTheStreamOfItsScreen) {
  const Monitor left{"LEFT", 0, 0, 640, 480};
  const Monitor right{"RIGHT", 640, 120, 480, 360};  // lower and smaller
  start_desktop(1120, 480);
  set_monitors({left, right});
  serve();
  Recorder recorder(desktop_->display(), 0, 0, 1120, 480);
  expect_exact_clicks(recorder, left, 0, 640, 480);
  expect_exact_clicks(recorder, right, 1, 480, 360);
  expect_exact_clicks(recorder, right, 1, 240, 180);
}

TEST_F(InputTest, ThePrimaryMonitorIsScreen0WhereverItLies) {
  const Monitor above{"ABOVE", 80, 0, 480, 360};
  const Monitor below{"BELOW", 0, 360, 640, 480};
  start_desktop(640, 840);
  set_monitors({above, {"*" + below.name, below.x, below.y, below.width, below.height}});
  serve();
  Recorder recorder(desktop_->display(), 0, 0, 640, 840);
  expect_exact_clicks(recorder, below, 0, 640, 480);
  expect_exact_clicks(recorder, above, 1, 480, 360);
}

TEST_F(InputTest, TheHostsDisplayOptionChoosesTheMonitorOfScreen0) {
  const Monitor left{"LEFT", 0, 0, 640, 480};
  const Monitor right{"RIGHT", 640, 0, 480, 360};
  start_desktop(1120, 480);
  set_monitors({left, right});
  serve({"--display", "RIGHT"});
  Recorder recorder(desktop_->display(), 0, 0, 1120, 480);
  expect_exact_clicks(recorder, right, 0, 480, 360);
  expect_exact_clicks(recorder, left, 1, 640, 480);
}

TEST_F(InputTest, OneClientReachesBothOfItsScreensAtOnce) {
  start_desktop(1120, 480);
  set_monitors({{"LEFT", 0, 0, 640, 480}, {"RIGHT", 640, 0, 480, 360}});
  serve();
  Recorder recorder(desktop_->display(), 0, 0, 1120, 480);
  ClientHand& hand = start_hand(2);
  const struct {
    std::string screen, place, pixel;
  } clicks[] = {{"1", " to 65535 65535", "1119,359"},
                {"0", " to 65535 65535", "639,479"},
                {"1", " to 0 0", "640,0"},
                {"0", " to 0 0", "0,0"}};
  for (const auto& click : clicks) {
    hand.act(click.screen + click.place);
    EXPECT_TRUE(recorder.records("motion " + click.pixel)) << click.pixel;
    hand.act(click.screen + " button 1 down");
    hand.act(click.screen + " button 1 up");
    EXPECT_TRUE(recorder.records("button 1 up " + click.pixel)) << click.pixel;
  }
  EXPECT_EQ(hand.leave(), 0);
}

TEST_F(InputTest, TheWheelAndEveryButtonArrive) {
  prepare(640, 400);
  Recorder recorder(desktop_->display(), 0, 0, 640, 400);
  ClientHand& hand = start_hand();
  hand.act("0 to 0 0");
  ASSERT_TRUE(recorder.records("motion 0,0"));
  for (const char* command :
       {"0 wheel 0 120", "0 wheel 0 -240", "0 wheel 120 0", "0 wheel -120 0", "0 wheel 0 60",
        "0 wheel 0 60", "0 button 2 down", "0 button 2 up", "0 button 3 down", "0 button 3 up",
        "0 button 4 down", "0 button 4 up", "0 button 5 down", "0 button 5 up"})
    hand.act(command);
  std::vector<std::string> expected;
  for (const char* button : {"4", "5", "5", "7", "6", "4", "3", "2", "8", "9"}) {
    expected.push_back(std::string("button ") + button + " down 0,0");
    expected.push_back(std::string("button ") + button + " up 0,0");
  }
  EXPECT_THAT(recorder.events_until("button 9 up 0,0", "button"), ElementsAreArray(expected));
}

// ---- What is held

class HeldInputTest : public InputTest {
 protected:
  // Shift, a letter and a button are down at the host's desktop.
  void hold() {
    prepare(640, 400);
    user_ = std::make_unique<User>(desktop_->display());
    recorder_ = std::make_unique<Recorder>(desktop_->display(), 0, 0, 640, 400);
    user_->move(20, 10);
    ClientHand& hand = start_hand();
    hand.act("0 key " + std::to_string(USAGE_LEFT_SHIFT) + " down");
    hand.act("0 key " + std::to_string(USAGE_A) + " down");
    hand.act("0 button 1 down");
    recorder_->expect_next({"motion 20,10", "key " + std::to_string(KEYCODE_LEFT_SHIFT) + " down",
                            "key " + std::to_string(KEYCODE_A) + " down", "button 1 down 20,10"});
  }
  // From then to the last release; keys before modifiers.
  double released_after_ms(std::uint64_t since_us) {
    const std::uint64_t at_us = recorder_->expect_next(
        {"key " + std::to_string(KEYCODE_A) + " up",
         "key " + std::to_string(KEYCODE_LEFT_SHIFT) + " up", "button 1 up 20,10"});
    EXPECT_TRUE(user_->holds_nothing());
    return (static_cast<double>(at_us) - static_cast<double>(since_us)) / 1e3;
  }
  void TearDown() override {
    recorder_.reset();
    user_.reset();
    InputTest::TearDown();
  }

  std::unique_ptr<User> user_;
  std::unique_ptr<Recorder> recorder_;
};

// The host counts a client as gone after 3 s of silence, which it looks for each 100 ms.
TEST_F(HeldInputTest, KilledClientsKeysAndButtonsAreReleasedWithin3500Ms) {
  hold();
  const std::uint64_t killed_us = lund_now_us();
  hand_->kill();
  const double after_ms = released_after_ms(killed_us);
  std::printf("released %.0f ms after the client was killed\n", after_ms);
  EXPECT_LE(after_ms, 3'500);
  EXPECT_NE(host_log().find("client silent for 3 s"), std::string::npos);
}

TEST_F(HeldInputTest, AClientThatLeavesLetsGo) {
  hold();
  const std::uint64_t left_us = lund_now_us();
  EXPECT_EQ(hand_->leave(), 0);
  std::printf("released %.1f ms after the client was told to leave\n", released_after_ms(left_us));
}

TEST_F(HeldInputTest, AHostThatStopsLetsGo) {
  hold();
  const std::uint64_t stopped_us = lund_now_us();
  EXPECT_EQ(stop_host(), 0);
  std::printf("released %.1f ms after the host was told to stop\n", released_after_ms(stopped_us));
}

// ---- The way of an event

// A client's processes and the test's have one clock.
class InputTimeTest : public InputTest {
 protected:
  // Two commands by turns, and what they are to the desktop. `pause`: a person's, between them.
  void measure(const char* what, const std::vector<std::string>& commands,
               const std::vector<std::string>& events, bool pause) {
    constexpr std::size_t EVENTS = 200;
    std::vector<double> us;
    for (std::size_t turn = 0; turn < EVENTS; ++turn) {
      if (pause) short_pause();
      hand_->tell(commands[turn % 2]);
      const auto seen = recorder_->next();
      ASSERT_TRUE(seen);
      ASSERT_EQ(seen->text, events[turn % 2]);
      us.push_back(static_cast<double>(seen->at_us - hand_->done_us()));
    }
    print_times(std::string(what) + ", from the client to the X event", us);
  }
  void TearDown() override {
    recorder_.reset();
    InputTest::TearDown();
  }
  std::unique_ptr<Recorder> recorder_;
};

TEST_F(InputTimeTest, FromAClientsEventToTheXServersIsMeasured) {
  prepare(640, 400);
  recorder_ = std::make_unique<Recorder>(desktop_->display(), 0, 0, 640, 400);
  start_hand();
  measure("key", {"0 key 4 down", "0 key 4 up"}, {"key 38 down", "key 38 up"}, true);
  measure("pointer", {"0 to 0 0", "0 to 65535 65535"}, {"motion 0,0", "motion 639,399"}, true);
  measure("pointer without a pause", {"0 to 0 0", "0 to 65535 65535"},
          {"motion 0,0", "motion 639,399"}, false);
}

// ---- The X server's end

TEST_F(InputTest, ARestartedXServerTakesInputAgainFromTheSameClientAndFromTheNext) {
  prepare(640, 400);
  {
    Recorder recorder(desktop_->display(), 0, 0, 640, 400);
    start_hand().act("0 key 4 down");
    ASSERT_TRUE(recorder.records("key 38 down"));
  }
  painter_.reset();
  desktop_->kill();
  hand_->act("0 key 5 down");  // nobody hears it
  desktop_->restart();
  end_key_repeat();

  Recorder recorder(desktop_->display(), 0, 0, 640, 400);
  EXPECT_TRUE(comes_true([&] {
    hand_->act("0 to 65535 0");
    return recorder.count("motion 639,0") > 0;
  }));
  hand_->act("0 key 4 up");  // went with the old server, and so isn't let go at the new one
  hand_->act("0 key 6 down");
  hand_->act("0 key 6 up");
  EXPECT_THAT(recorder.events_until("key 54 up", "key"), ElementsAre("key 54 down", "key 54 up"));
  EXPECT_EQ(hand_->leave(), 0);

  recorder.forget();
  connect({"--click", "639,399", "--type", "a"});
  EXPECT_THAT(recorder.events_until("key 38 up", "key"), ElementsAre("key 38 down", "key 38 up"));
  EXPECT_EQ(recorder.count("button 1 up 639,399"), 1U);
  EXPECT_EQ(stop_host(), 0);
}

}  // namespace
}  // namespace system_test
