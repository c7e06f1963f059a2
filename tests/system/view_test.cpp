// A person at the window: sees the host's screen, and what they do reaches the host.
#include <signal.h>

#include <regex>

#include "tests/support/temp_directory.h"
#include "tests/system/view_support.h"

namespace system_test {
namespace {

TEST_F(ViewTest, ColoursInTheWindowAreThoseOfTheHostsScreen) {
  sit_down();
  const std::uint32_t colours[] = {0x000000, 0xFFFFFF, 0xFF0000, 0x00FF00, 0x0000FF, 0xFFFF00,
                                   0x00FFFF, 0xFF00FF, 0x808080, 0x123456, 0xC08040, 0x202020};
  for (int i = 0; i < 12; ++i) painter_->fill(colours[i], 20 + 80 * i, 50 + 20 * i, 64, 64);
  view({"--snapshot", (directory_ / "shown.png").string()});
  for (int i = 0; i < 12; ++i)
    EXPECT_TRUE(shows(colours[i], 20 + 80 * i + 32, 50 + 20 * i + 32)) << std::hex << colours[i];
  EXPECT_EQ(leave(), 0);
  const RgbPicture shown = read_png(directory_ / "shown.png");
  ASSERT_EQ(shown.width, 1280);
  ASSERT_EQ(shown.height, 720);
  for (int i = 0; i < 12; ++i) {
    const auto* rgb = &shown.pixels[static_cast<std::size_t>(
        ((50 + 20 * i + 32) * shown.width + 20 + 80 * i + 32) * 3)];
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(rgb[c], static_cast<int>(colours[i] >> (16 - 8 * c) & 0xFF), 4)
          << std::hex << colours[i];
  }
  EXPECT_GT(view_report()["screens"][0]["pictures_shown"], 0);
}

TEST_F(ViewTest, TypedTextReachesAProgramOnTheHostsDesktop) {
  sit_down();
  const std::filesystem::path typed = directory_ / "typed.txt";
  const ChildProcess terminal({"xterm", "-geometry", "80x24+0+0", "-e", "sh", "-c",
                               "read line; printf '%s' \"$line\" > " + typed.string()},
                              environment_);
  User host_user(desktop_->display());
  host_user.move(100, 100);  // where the pointer is, the keys go
  view();
  user_->move(seat_x(100), seat_y(100));
  // The terminal has drawn itself: its ground is white.
  ASSERT_TRUE(shows(0xFFFFFF, 300, 250));
  user_->type("the quick brown fox 0123456789\n");
  EXPECT_TRUE(comes_true([&] { return !file_content(typed).empty(); }));
  EXPECT_EQ(file_content(typed), "the quick brown fox 0123456789");
  EXPECT_EQ(leave(), 0);
}

TEST_F(ViewTest, ClicksLandOnThePixel) {
  sit_down();
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  view();
  for (const auto& [x, y] :
       {std::pair{0, 0}, {1279, 719}, {1279, 0}, {0, 719}, {640, 360}, {333, 77}, {1001, 698}}) {
    user_->move(seat_x(x), seat_y(y));
    user_->click();
    const std::string at = std::to_string(x) + "," + std::to_string(y);
    EXPECT_TRUE(recorder.records("button 1 down " + at)) << at;
    EXPECT_TRUE(recorder.records("button 1 up " + at)) << at;
  }
  user_->click(3);
  EXPECT_TRUE(recorder.records("button 3 down 1001,698"));
  user_->click(2);
  EXPECT_TRUE(recorder.records("button 2 down 1001,698"));
  user_->click(4);  // a notch of the wheel, away from the person
  EXPECT_TRUE(recorder.records("button 4 down 1001,698"));
  user_->click(5);
  EXPECT_TRUE(recorder.records("button 5 down 1001,698"));
}

TEST_F(ViewTest, InAScaledWindowAClickMeansThePixelThatIsSeen) {
  sit_down(640, 400);
  Recorder recorder(desktop_->display(), 0, 0, 640, 400);
  view();
  // Twice as large, with bars of 50 pixels above and below.
  user_->place(window_, 0, 0, 1280, 900);
  ASSERT_TRUE(
      comes_true([&] { return user_->colour(640, 20) == 0 && user_->colour(640, 60) != 0; }));
  for (const auto& [x, y] : {std::pair{0, 0}, {639, 399}, {321, 123}}) {
    for (const int inside : {0, 1}) {
      user_->move(2 * x + inside, 50 + 2 * y + inside);
      user_->click();
      const std::string at = std::to_string(x) + "," + std::to_string(y);
      EXPECT_TRUE(comes_true([&] {
        return recorder.count("button 1 down " + at) == static_cast<std::size_t>(inside) + 1;
      })) << at;
    }
  }
  recorder.forget();
  user_->move(300, 20);  // a bar
  user_->click();
  user_->move(300, 200);
  user_->click();
  EXPECT_TRUE(recorder.records("button 1 down 150,75"));
  EXPECT_EQ(recorder.count("button 1 down"), 1U) << "a click beside the picture is nobody's";
}

TEST_F(ViewTest, ADragGoesOnBesideThePictureAndEndsThere) {
  sit_down();
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  view();
  user_->place(window_, 100, 100, 1280, 720);
  window_.x = window_.y = 100;
  user_->move(seat_x(50), seat_y(50));
  user_->button(1, true);
  EXPECT_TRUE(recorder.records("button 1 down 50,50"));
  user_->move(20, seat_y(60));  // left of the window
  user_->button(1, false);
  EXPECT_TRUE(recorder.records("button 1 up 0,60"));
}

TEST_F(ViewTest, RelativeModeMovesTheHostsPointerByAsMuch) {
  sit_down();
  User host_user(desktop_->display());
  view();
  user_->move(seat_x(300), seat_y(300));
  ASSERT_TRUE(comes_true([&] { return host_user.pointer_x() == 300; }));
  user_->command('r');
  // The captured mouse has no place of its own: motion is sent on, however far.
  ASSERT_TRUE(comes_true([&] {
    user_->move_by(1, 0);
    return host_user.pointer_x() > 300;
  }));
  ASSERT_TRUE(comes_true([&, last = -1]() mutable {
    const int x = host_user.pointer_x();
    return std::exchange(last, x) == x;
  }));
  const int from_x = host_user.pointer_x();
  const int from_y = host_user.pointer_y();
  for (int i = 0; i < 30; ++i) user_->move_by(7, 3);
  EXPECT_TRUE(comes_true([&] {
    return host_user.pointer_x() == from_x + 210 && host_user.pointer_y() == from_y + 90;
  })) << host_user.pointer_x() - from_x
      << "," << host_user.pointer_y() - from_y;
  user_->command('r');
  user_->move(seat_x(40), seat_y(50));
  EXPECT_TRUE(comes_true([&] {
    user_->move(seat_x(40), seat_y(50));
    return host_user.pointer_x() == 40 && host_user.pointer_y() == 50;
  })) << "absolute again";
}

TEST_F(ViewTest, TheReleaseKeyLetsGoAndAClickTakesAgain) {
  sit_down();
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  view();
  ASSERT_TRUE(comes_true([&] { return !user_->keyboard_is_free(); })) << "the window takes it";
  user_->tap(KEY_RELEASE);
  EXPECT_TRUE(comes_true([&] { return user_->keyboard_is_free(); }));
  user_->move(seat_x(200), seat_y(200));
  user_->click();
  EXPECT_TRUE(comes_true([&] { return !user_->keyboard_is_free(); }));
  user_->tap('x');
  EXPECT_TRUE(comes_true([&] { return recorder.count("key") == 2; }));
  EXPECT_EQ(recorder.count("key"), 2U) << "the host has seen nothing of the release key";
}

TEST_F(ViewTest, AKeyboardThatAnotherProgramHasIsTakenOnceItIsFree) {
  sit_down();
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  ASSERT_TRUE(user_->take_keyboard());
  view();
  user_->move(seat_x(200), seat_y(200));
  user_->click();
  ASSERT_TRUE(comes_true([&] { return recorder.count("button 1") == 2; }))
      << "the host was clicked";
  user_->let_go_of_keyboard();
  EXPECT_TRUE(comes_true([&] { return !user_->keyboard_is_free(); }));
  user_->tap('x');
  EXPECT_TRUE(comes_true([&] { return recorder.count("key") == 2; }));
}

TEST_F(ViewTest, KeysOfThisDesktopGoToTheHostWhileTheKeyboardIsTaken) {
  sit_down();
  User host_user(desktop_->display());
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  view();
  user_->key(KEY_LEFT_ALT, true);
  user_->tap(KEY_TAB);
  user_->key(KEY_LEFT_ALT, false);
  user_->tap(KEY_LEFT_SUPER);
  EXPECT_TRUE(comes_true([&] { return recorder.count("key") == 6; }));
  EXPECT_FALSE(host_user.key_is_down(KEY_LEFT_ALT));
}

TEST_F(ViewTest, CommandsOfTheViewerNeverReachTheHost) {
  sit_down();
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  view();
  for (const char letter : {'s', 's', 'h', 'h', 'x'}) user_->command(letter);
  user_->tap('z');
  ASSERT_TRUE(comes_true([&] { return recorder.count("key") >= 2; }));
  EXPECT_EQ(recorder.count("key"), 2U);
}

TEST_F(ViewTest, WhatIsHeldIsReleasedAtTheHostWhenTheWindowLosesTheFocus) {
  sit_down();
  User host_user(desktop_->display());
  Recorder recorder(desktop_->display(), 0, 0, 1280, 720);
  view();
  user_->key(KEY_LEFT_SHIFT, true);
  ASSERT_TRUE(comes_true([&] { return host_user.key_is_down(KEY_LEFT_SHIFT); }));
  user_->tap(KEY_RELEASE);  // or the keyboard's grab would outlast the focus
  Recorder other(seat_->display(), 1300, 800, 100, 100);
  EXPECT_TRUE(comes_true([&] { return !host_user.key_is_down(KEY_LEFT_SHIFT); }));
  user_->key(KEY_LEFT_SHIFT, false);
}

TEST_F(ViewTest, StatisticsAndHelpStandOverThePictureOnDemand) {
  sit_down();
  view();
  EXPECT_TRUE(shows(GROUND, 60, 60));
  user_->command('s');
  // Their ground is nearly black, their text white.
  EXPECT_TRUE(shows(0x101820, 14, 14));
  user_->command('s');
  EXPECT_TRUE(shows(GROUND, 14, 14));
  user_->command('h');
  const auto darkened = [&] { return !close_colours(user_->colour(640, 700), GROUND, 20); };
  EXPECT_TRUE(comes_true(darkened));
}

// Also takes the pictures of the documentation.
TEST_F(ViewTest, ADesktopInUseIsShownWithItsFiguresAndKeys) {
  sit_down(960, 600);
  const ChildProcess moving(at(host_place_, "lunderhaze-testscreen", {}), environment_);
  ASSERT_TRUE(
      comes_true([&] { return screen(950, 5, 1, 1).pixels != screen(950, 590, 1, 1).pixels; }));
  const ChildProcess terminal(
      {"xterm", "-fn", "fixed", "-bg", "#102030", "-fg", "#E0E0E0", "-geometry", "80x14+300+60",
       "-e", "sh", "-c", "cd /usr; PS1='host:/usr '; export PS1; exec sh"},
      environment_);
  User host_user(desktop_->display());
  ASSERT_TRUE(comes_true([&] { return close_colours(host_user.colour(600, 200), 0x102030); }));
  view();
  user_->move(seat_x(400), seat_y(200));
  ASSERT_TRUE(shows(0x102030, 750, 200));
  user_->type("ls -l\n");
  const auto terminal_pixels = [&] {
    return user_->content({0, "", seat_x(310), seat_y(70), 480, 170}).pixels;
  };
  ASSERT_TRUE(comes_true([&, last = terminal_pixels()]() mutable {
    const auto now = terminal_pixels();
    return now == std::exchange(last, now) &&
           std::count_if(now.begin(), now.end(), [](int byte) { return byte > 200; }) > 2000;
  })) << "the listing stands there";
  screenshot("view");
  user_->command('s');
  // Between the columns' end and their ground's: a quarter of the picture's light.
  ASSERT_TRUE(comes_true([&] { return close_colours(user_->colour(266, 140), 0x0B1219, 10); }))
      << std::hex << user_->colour(266, 140);
  // Of the two columns, away from the moving time mark.
  const auto figures = [&] { return user_->content({0, "", 130, 36, 136, 106}).pixels; };
  for (int second = 0; second < 2; ++second)
    EXPECT_TRUE(comes_true([&, last = figures()] { return figures() != last; }))
        << "they follow what happens";
  screenshot("statistics");
  user_->command('s');
  user_->command('h');
  // Nine lines cover what one doesn't: their ground begins 190 pixels above the bottom.
  const std::uint32_t bare = user_->colour(480, 408);
  ASSERT_TRUE(
      comes_true([&] { return (user_->colour(480, 416) >> 16 & 0xFF) < (bare >> 16 & 0xFF) / 2; }));
  screenshot("help");
  EXPECT_EQ(leave(), 0);
  const nlohmann::json shown = view_report()["screens"][0];
  for (const char* stage : {"paint", "encode", "transport", "queue", "decode", "present", "total"})
    EXPECT_GT(shown["latency_ms"][stage]["samples"], 0) << stage;
}

TEST_F(ViewTest, FullScreenIsAskedOfTheWindowManagerAndFilled) {
  sit_down();
  view();
  user_->watch_requests();
  user_->command('f');
  ASSERT_TRUE(user_->is_asked("_NET_WM_STATE_FULLSCREEN", true));
  user_->place(window_, 0, 0, 1600, 1000);  // as a window manager does
  // The picture is 1600x900 in the middle.
  EXPECT_TRUE(shows(GROUND, 1590, 60));
  EXPECT_TRUE(shows(GROUND, 10, 940));
  EXPECT_TRUE(shows(0x000000, 10, 20));
  user_->command('f');
  ASSERT_TRUE(user_->is_asked("_NET_WM_STATE_FULLSCREEN", false));
  user_->place(window_, 0, 0, 1280, 720);
  EXPECT_TRUE(shows(GROUND, 10, 20));
}

TEST_F(ViewTest, AClosedWindowEndsTheProgram) {
  sit_down();
  view();
  user_->ask_to_close(window_);
  EXPECT_EQ(viewer_->wait(seconds(20)), 0);
}

TEST_F(ViewTest, AKilledHostIsAwaitedOverTheDimmedPictureAndComesBack) {
  sit_down();
  view();
  ASSERT_TRUE(shows(GROUND, 640, 100));
  host_->signal(SIGKILL);
  host_->wait(seconds(5));
  ASSERT_TRUE(viewer_->wait_for_output("connecting again", seconds(20)));
  EXPECT_TRUE(shows(0x1C2A38, 640, 100)) << std::hex << user_->colour(640, 100);
  start_host();
  EXPECT_TRUE(shows(GROUND, 640, 100));
  painter_->fill(0xC08040, 0, 0, 1280, 720);
  EXPECT_TRUE(shows(0xC08040, 640, 100));
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(view_report()["reconnects"], 1);
}

TEST_F(ViewTest, ABusyHostIsSaidInWindowAndTerminal) {
  sit_down();
  start_receiver();
  // Another device: a store, and so an identity, of its own.
  const RunResult opened = run_program({program("lunderhaze"), "pair", "60"}, environment_);
  ASSERT_EQ(opened.status, 0) << opened.output;
  std::smatch pin;
  ASSERT_TRUE(std::regex_search(opened.output, pin, std::regex("PIN (\\d{6})"))) << opened.output;
  const std::string other = (directory_ / "other").string();
  const RunResult paired = run_program({program("lunderhaze-client"), "--store", other, "pair",
                                        "--host", host_address(), "--pin", pin[1].str()},
                                       environment_);
  ASSERT_EQ(paired.status, 0) << paired.output;
  viewer_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{program("lunderhaze-client"), "--store", other, "view", "--host",
                               host_address()},
      seat_environment_);
  EXPECT_TRUE(
      viewer_->wait_for_output("the host is busy: another device is connected", seconds(20)));
  ASSERT_TRUE(user_->find_window(host_name(), &window_));
  const RgbPicture said = user_->content(window_);
  std::size_t white = 0;
  for (std::size_t i = 0; i < said.pixels.size(); i += 3) white += said.pixels[i] > 200;
  EXPECT_GT(white, 100U) << "the window says it too";
  EXPECT_FALSE(viewer_->wait(seconds(1))) << "it stays to be read";
  user_->ask_to_close(window_);
  EXPECT_EQ(viewer_->wait(seconds(20)), 3);
}

TEST_F(ViewTest, ADeviceThatTheHostHasRemovedIsToldToPair) {
  sit_down();
  const RunResult removed =
      run_program({program("lunderhaze"), "devices", "remove", host_name()}, environment_);
  ASSERT_EQ(removed.status, 0) << removed.output;
  open_view();
  EXPECT_TRUE(
      viewer_->wait_for_output("the host does not know this device: pair first", seconds(20)));
  ASSERT_TRUE(user_->find_window(host_name(), &window_));
  user_->ask_to_close(window_);
  EXPECT_EQ(viewer_->wait(seconds(20)), 3);
}

TEST_F(ViewTest, AnUnreachableHostIsSaid) {
  sit_down();
  EXPECT_EQ(stop_host(), 0);
  open_view();
  EXPECT_TRUE(viewer_->wait_for_output("no answer from the host", seconds(30)));
  ASSERT_TRUE(user_->find_window(host_name(), &window_));
  user_->ask_to_close(window_);
  EXPECT_EQ(viewer_->wait(seconds(20)), 2);
}

TEST_F(ViewTest, WithoutADesktopThereIsAClearTextAndStatus) {
  sit_down();
  seat_environment_["DISPLAY"] = "";
  open_view();
  EXPECT_EQ(viewer_->wait(seconds(20)), 5);
  EXPECT_NE(viewer_->output().find("no window can be opened"), std::string::npos);
  EXPECT_NE(viewer_->output().find("DISPLAY"), std::string::npos);
}

}  // namespace
}  // namespace system_test
