// The injector on a real X server, seen by another of its clients.
#include <gmock/gmock.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "capture/linux/x11.h"
#include "streams/input.h"
#include "streams/linux/evdev_keys.h"
#include "streams/linux/xtest_sink.h"
#include "tests/support/captured_log.h"
#include "tests/support/linux/x11_input.h"
#include "tests/support/xvfb.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds PATIENCE{20};
constexpr int WIDTH = 1280;
constexpr int HEIGHT = 360;
constexpr std::uint16_t A = 0x04, B = 0x05, LEFT_SHIFT = 0xE1;
constexpr std::uint16_t MARK = 0x73;  // F24: ends what a test reads

bool eventually(const auto& condition) {
  const auto deadline = Clock::now() + PATIENCE;
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

int keycode(std::uint16_t usage) {
  return hid_to_evdev(usage) + 8;
}

std::string key_text(std::uint16_t usage, const char* action) {
  return "key " + std::to_string(keycode(usage)) + action;
}

// A client to which the root window's input goes, as there is no other window.
class Observer {
 public:
  Observer() {
    const std::uint32_t events = XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                                 XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE;
    xcb_change_window_attributes(connection_, root(), XCB_CW_EVENT_MASK, &events);
    EXPECT_TRUE(pointer());  // the server has done it
  }

  // Everything up to the mark's release, the mark left out: "key 38 down", "button 1 up".
  std::vector<std::string> events_to_mark() {
    std::vector<std::string> events;
    const int mark = keycode(MARK);
    while (const auto input = next_input(connection_, PATIENCE)) {
      if (input->kind != X11Input::Kind::Key || input->code != mark)
        events.push_back(input->text());
      else if (!input->down)
        return events;
    }
    ADD_FAILURE() << "the mark didn't come";
    return events;
  }

  x11::Reply<xcb_query_pointer_reply_t> pointer() {
    return x11::own(
        xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, root()), nullptr));
  }
  std::string position() {
    const auto reply = pointer();
    if (!reply) return "none";
    return std::to_string(reply->root_x) + "," + std::to_string(reply->root_y);
  }
  bool comes_to(const std::string& place) {
    return eventually([&] { return position() == place; });
  }
  // Of the key alone, with the server's own layout.
  xcb_keysym_t keysym(std::uint16_t usage) {
    const auto reply = x11::own(xcb_get_keyboard_mapping_reply(
        connection_,
        xcb_get_keyboard_mapping(connection_, static_cast<xcb_keycode_t>(keycode(usage)), 1),
        nullptr));
    return reply ? xcb_get_keyboard_mapping_keysyms(reply.get())[0] : XCB_NONE;
  }
  bool any_key_down() {
    const auto reply =
        x11::own(xcb_query_keymap_reply(connection_, xcb_query_keymap(connection_), nullptr));
    return !reply || std::any_of(reply->keys, std::end(reply->keys), [](int b) { return b != 0; });
  }
  void grab_server() {
    xcb_grab_server(connection_);
    pointer();
  }

 private:
  xcb_window_t root() const { return connection_.screen()->root; }

  x11::Connection connection_;
};

class XTest : public testing::Test {
 protected:
  XTest() { injector_.set_input_desktop_tracking(true); }

  void type(std::uint16_t usage) {
    injector_.key(usage, true);
    injector_.key(usage, false);
  }
  std::vector<std::string> seen() {
    type(MARK);
    return observer_->events_to_mark();
  }
  InputTarget target_of(const std::string& device, int stream_width, int stream_height) {
    DisplayInfo display;
    EXPECT_TRUE(find_display(device, &display)) << device;
    return {display.left, display.top, display.right, display.bottom, stream_width, stream_height};
  }

  Xvfb server_{WIDTH, HEIGHT};
  std::unique_ptr<Observer> observer_ = std::make_unique<Observer>();
  InputInjector injector_{make_xtest_sink()};
  const InputTarget screen_{0, 0, WIDTH, HEIGHT, WIDTH, HEIGHT};
};

// ---- Keys

TEST_F(XTest, EveryKeyArrivesWithItsKeycode) {
  int keys = 0;
  for (std::uint16_t usage = 0; usage <= 0xFF; ++usage) {
    if (hid_to_evdev(usage) == 0 || usage == MARK) continue;
    type(usage);
    ++keys;
    EXPECT_THAT(seen(), ElementsAre(key_text(usage, " down"), key_text(usage, " up")));
  }
  EXPECT_EQ(keys, 135);
}

TEST_F(XTest, AKeyIsWhatTheServersLayoutMakesOfIt) {
  const struct {
    std::uint16_t usage;
    xcb_keysym_t symbol;
  } keys[] = {
      {0x04, 'a'},        {0x1D, 'z'},        {0x1E, '1'},        {0x27, '0'},
      {0x28, 0xFF0D},     {0x29, 0xFF1B},     {0x2A, 0xFF08},     {0x2B, 0xFF09},
      {0x2C, ' '},        {0x2D, '-'},        {0x31, '\\'},       {0x34, '\''},
      {0x38, '/'},        {0x39, 0xFFE5},     {0x3A, 0xFFBE},     {0x45, 0xFFC9},
      {0x46, 0xFF61},     {0x48, 0xFF13},     {0x49, 0xFF63},     {0x4A, 0xFF50},
      {0x4B, 0xFF55},     {0x4C, 0xFFFF},     {0x4D, 0xFF57},     {0x4E, 0xFF56},
      {0x4F, 0xFF53},     {0x50, 0xFF51},     {0x51, 0xFF54},     {0x52, 0xFF52},
      {0x53, 0xFF7F},     {0x54, 0xFFAF},     {0x58, 0xFF8D},     {0x64, '<'},
      {0x65, 0xFF67},     {0x7F, 0x1008FF12}, {0x80, 0x1008FF13}, {0x81, 0x1008FF11},
      {0xE0, 0xFFE3},     {0xE1, 0xFFE1},     {0xE2, 0xFFE9},     {0xE3, 0xFFEB},
      {0xE4, 0xFFE4},     {0xE5, 0xFFE2},     {0xE6, 0xFFEA},     {0xE7, 0xFFEC},
      {0xE8, 0x1008FF14}, {0xEA, 0x1008FF16}, {0xEB, 0x1008FF17},
  };
  for (const auto& key : keys) EXPECT_EQ(observer_->keysym(key.usage), key.symbol) << key.usage;
}

// The server repeats what is down by itself, 25 times a second after its first delay.
TEST_F(XTest, RepeatsFromOutsideAreNotAddedToTheServers) {
  constexpr int REPEATS = 2'000;
  constexpr auto SHORTEST_OF_THE_SERVERS = std::chrono::milliseconds(20);
  const auto start = Clock::now();
  for (int i = 0; i < REPEATS; ++i) injector_.key(A, true);
  injector_.key(A, false);
  const std::vector<std::string> events = seen();
  const auto presses = std::ranges::count(events, key_text(A, " down"));
  EXPECT_GE(presses, 1);
  EXPECT_LE(presses, 1 + (Clock::now() - start) / SHORTEST_OF_THE_SERVERS);
}

// ---- The mouse

TEST_F(XTest, ThePointerComesToTheExactPixel) {
  for (const int x : {0, 1, 639, 640, 1'000, WIDTH - 1}) {
    for (const int y : {0, 7, 180, HEIGHT - 1}) {
      const auto part = [](int pixel, int extent) {
        return static_cast<std::uint16_t>(std::lround(pixel * 65'535.0 / (extent - 1)));
      };
      injector_.mouse_abs(screen_, part(x, WIDTH), part(y, HEIGHT));
      EXPECT_TRUE(observer_->comes_to(std::to_string(x) + "," + std::to_string(y)))
          << x << "," << y << ", not " << observer_->position();
    }
  }
}

TEST_F(XTest, RelativeMotionIsNotAccelerated) {
  injector_.mouse_abs(screen_, 0, 0);
  injector_.mouse_rel(screen_, 1'000, 300);
  EXPECT_TRUE(observer_->comes_to("1000,300")) << observer_->position();
  for (int i = 0; i < 100; ++i) injector_.mouse_rel(screen_, -7, -2);
  EXPECT_TRUE(observer_->comes_to("300,100")) << observer_->position();
  injector_.mouse_rel(screen_, -1'000'000, 1'000'000);  // beyond what X can say
  EXPECT_TRUE(observer_->comes_to("0," + std::to_string(HEIGHT - 1))) << observer_->position();
}

TEST_F(XTest, TwoMonitorsOfOneScreenAreToldApart) {
  ASSERT_TRUE(server_.xrandr({"--setmonitor", "left", "640/170x360/95+0+0", "screen"}));
  ASSERT_TRUE(server_.xrandr({"--setmonitor", "right", "640/170x360/95+640+0", "none"}));
  const InputTarget left = target_of("left", 320, 180);
  const InputTarget right = target_of("right", 320, 180);
  injector_.mouse_abs(right, 0, 0);
  EXPECT_TRUE(observer_->comes_to("640,0")) << observer_->position();
  injector_.mouse_abs(left, 65'535, 65'535);
  EXPECT_TRUE(observer_->comes_to("639,359")) << observer_->position();
  injector_.mouse_abs(right, 65'535, 65'535);
  EXPECT_TRUE(observer_->comes_to("1279,359")) << observer_->position();
  injector_.mouse_rel(right, -100, -50);  // of a stream half as large
  EXPECT_TRUE(observer_->comes_to("1079,259")) << observer_->position();
}

TEST_F(XTest, EveryButtonArrives) {
  for (std::uint16_t button = 1; button <= 5; ++button) {
    injector_.mouse_button(button, true);
    injector_.mouse_button(button, false);
  }
  EXPECT_THAT(seen(), ElementsAre("button 1 down", "button 1 up", "button 3 down", "button 3 up",
                                  "button 2 down", "button 2 up", "button 8 down", "button 8 up",
                                  "button 9 down", "button 9 up"));
}

TEST_F(XTest, TheWheelTurnsByNotches) {
  injector_.mouse_wheel(0, 120);
  EXPECT_THAT(seen(), ElementsAre("button 4 down", "button 4 up"));
  injector_.mouse_wheel(0, -240);
  EXPECT_THAT(seen(), ElementsAre("button 5 down", "button 5 up", "button 5 down", "button 5 up"));
  injector_.mouse_wheel(120, 0);
  EXPECT_THAT(seen(), ElementsAre("button 7 down", "button 7 up"));
  injector_.mouse_wheel(-120, 0);
  EXPECT_THAT(seen(), ElementsAre("button 6 down", "button 6 up"));
  for (int i = 0; i < 3; ++i) injector_.mouse_wheel(40, 30);
  EXPECT_THAT(seen(), ElementsAre("button 7 down", "button 7 up"));
  injector_.mouse_wheel(0, 30);
  EXPECT_THAT(seen(), ElementsAre("button 4 down", "button 4 up"));
}

TEST_F(XTest, NothingStaysDownAfterARelease) {
  for (const std::uint16_t usage : {LEFT_SHIFT, B, A}) injector_.key(usage, true);
  injector_.mouse_button(2, true);
  EXPECT_THAT(seen(), SizeIs(4));
  EXPECT_TRUE(observer_->any_key_down());
  EXPECT_NE(observer_->pointer()->mask, 0);
  injector_.release_all();
  EXPECT_THAT(seen(), ElementsAre(key_text(A, " up"), key_text(B, " up"),
                                  key_text(LEFT_SHIFT, " up"), "button 3 up"));
  EXPECT_FALSE(observer_->any_key_down());
  EXPECT_EQ(observer_->pointer()->mask, 0);
}

// A program that has the server for itself may be waiting for the very click.
TEST_F(XTest, AnotherProgramsGrabOfTheServerHoldsNothingUp) {
  observer_->grab_server();
  injector_.mouse_abs(screen_, 65'535, 0);
  EXPECT_TRUE(observer_->comes_to(std::to_string(WIDTH - 1) + ",0"));
}

// ---- The server's end

TEST_F(XTest, InputComesBackWithTheServerWithoutWhatTheOldOneHeld) {
  CapturedLog log;
  injector_.key(A, true);
  injector_.mouse_button(1, true);
  EXPECT_THAT(seen(), ElementsAre(key_text(A, " down"), "button 1 down"));
  observer_.reset();
  server_.kill();
  injector_.key(B, true);  // nobody hears it
  injector_.mouse_rel(screen_, 1, 1);
  EXPECT_EQ(log.count("input: the X server " + server_.display() + " has gone"), 1);
  server_.restart();
  observer_ = std::make_unique<Observer>();
  EXPECT_TRUE(eventually([&] {
    injector_.mouse_abs(screen_, 0, 65'535);
    return observer_->position() == "0," + std::to_string(HEIGHT - 1);
  }));
  EXPECT_EQ(log.count("input: the X server " + server_.display() + " is back"), 1);
  injector_.key(A, false);
  injector_.key(B, false);
  injector_.mouse_button(1, false);
  EXPECT_THAT(seen(), IsEmpty());
  type(A);
  EXPECT_THAT(seen(), ElementsAre(key_text(A, " down"), key_text(A, " up")));
}

TEST_F(XTest, AServerThatHangsHoldsNobodyUp) {
  CapturedLog log;
  const auto start = Clock::now();
  server_.pause();
  for (int i = 0; i < 5'000; ++i) injector_.mouse_abs(screen_, 0, static_cast<std::uint16_t>(i));
  injector_.release_all();
  EXPECT_LT(Clock::now() - start, PATIENCE);  // one wait and not one for each event
  EXPECT_GE(log.count("XTest(mouse) failed (11): the X server has gone, hangs or lacks XTEST"), 1);
  server_.resume();
  EXPECT_TRUE(eventually([&] {
    injector_.mouse_abs(screen_, 65'535, 0);
    return observer_->position() == std::to_string(WIDTH - 1) + ",0";
  }));
}

// A server drops the requests that it hasn't read yet of a program that is gone.
TEST(XTestEnd, WhatIsReleasedLastIsPlayedBySlowServersToo) {
  constexpr std::chrono::milliseconds SLOWNESS{200};  // of a second that the sink has patience
  Xvfb server(WIDTH, HEIGHT);
  Observer observer;
  auto injector = std::make_unique<InputInjector>(make_xtest_sink());
  injector->key(A, true);
  injector->key(MARK, true);
  injector->key(MARK, false);
  EXPECT_THAT(observer.events_to_mark(), ElementsAre(key_text(A, " down")));
  server.pause();
  std::thread end([&] {
    injector->release_all();
    injector.reset();
  });
  std::this_thread::sleep_for(SLOWNESS);
  server.resume();
  end.join();
  EXPECT_TRUE(eventually([&] { return !observer.any_key_down(); }));
}

TEST(XTestDesktop, EachConnectionIsADesktopOfItsOwn) {
  Xvfb server(WIDTH, HEIGHT);
  XTestSink sink;
  std::string first, again, second;
  const InputSink::Desktop before = sink.open_input_desktop();
  ASSERT_TRUE(sink.desktop_name(before, &first));
  ASSERT_TRUE(sink.desktop_name(sink.open_input_desktop(), &again));
  EXPECT_EQ(first, again);
  EXPECT_TRUE(first.starts_with(server.display())) << first;
  EXPECT_TRUE(sink.attach_this_thread(before));
  server.kill();
  EXPECT_EQ(sink.open_input_desktop(), InputSink::NO_DESKTOP);
  server.restart();
  EXPECT_TRUE(eventually([&] { return sink.open_input_desktop() != InputSink::NO_DESKTOP; }));
  ASSERT_TRUE(sink.desktop_name(sink.open_input_desktop(), &second));
  EXPECT_NE(first, second);
  EXPECT_FALSE(sink.attach_this_thread(before));
}

TEST_F(XTest, WithoutTrackingALostServerIsAFailureInTheLog) {
  CapturedLog log;
  injector_.set_input_desktop_tracking(false);
  type(A);
  EXPECT_THAT(seen(), ElementsAre(key_text(A, " down"), key_text(A, " up")));
  server_.kill();
  injector_.mouse_rel(screen_, 1, 1);
  injector_.mouse_rel(screen_, 1, 1);
  EXPECT_EQ(log.count("XTest(mouse) failed (1): the X server has gone, hangs or lacks XTEST"), 1);
}

TEST(XTestAbsent, AServerThatComesLaterIsFound) {
  Xvfb server(WIDTH, HEIGHT);
  server.kill();
  InputInjector injector(make_xtest_sink());
  injector.set_input_desktop_tracking(true);
  server.restart();
  Observer observer;
  EXPECT_TRUE(eventually([&] {
    injector.mouse_abs({0, 0, WIDTH, HEIGHT, WIDTH, HEIGHT}, 0, 0);
    return observer.position() == "0,0";
  }));
}

TEST(XTestAbsent, AServerWithoutTheExtensionIsNamedOnceInTheLog) {
  CapturedLog log;
  Xvfb server(WIDTH, HEIGHT, 24, {"-extension", "XTEST"});
  InputInjector injector(make_xtest_sink());
  for (const bool tracking : {true, false}) {
    injector.set_input_desktop_tracking(tracking);
    injector.mouse_button(1, true);
    injector.key(A, true);
    injector.release_all();
  }
  EXPECT_EQ(log.count("input: the X server " + server.display() +
                      " has no XTEST extension: keyboard and mouse can't be played"),
            1);
  EXPECT_EQ(log.count("XTest(mouse) failed (2): the X server has gone, hangs or lacks XTEST"), 1);
}

}  // namespace
