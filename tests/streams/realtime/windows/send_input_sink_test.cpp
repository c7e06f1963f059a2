// Input that goes through the system to a window.
#include "streams/windows/send_input_sink.h"

#include <gmock/gmock.h>

#include <thread>

#include "capture/windows/input_desktop.h"
#include "streams/input.h"
#include "tests/support/captured_log.h"
#include "tests/support/windows/desktops/desktop_calls.h"
#include "tests/support/windows/input_hook.h"
#include "tests/support/windows/input_window.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

InputTarget whole_screen() {
  const int width = GetSystemMetrics(SM_CXSCREEN);
  const int height = GetSystemMetrics(SM_CYSCREEN);
  return {0, 0, width, height, width, height};
}

POINT pointer() {
  POINT at{};
  EXPECT_TRUE(GetCursorPos(&at));
  return at;
}

// ---- What is sent

TEST(SendInputEvents, ThePointerIsSentToEachPixelThatIsMeant) {
  const MouseHook hook;
  ASSERT_TRUE(hook.hooked());
  SendInputSink sink;
  const InputTarget screen = whole_screen();
  for (int x = 0; x < screen.right; ++x) {
    ASSERT_TRUE(sink.move_to({x, 3}).sent);
    ASSERT_EQ(hook.last().pt.x, x);
    ASSERT_EQ(hook.last().pt.y, 3);
  }
  for (int y = 0; y < screen.bottom; ++y) {
    ASSERT_TRUE(sink.move_to({5, y}).sent);
    ASSERT_EQ(hook.last().pt.x, 5);
    ASSERT_EQ(hook.last().pt.y, y);
  }
}

TEST(SendInputEvents, TheEndsOfTheRangeAreTheMonitorsFirstAndLastPixel) {
  const MouseHook hook;
  ASSERT_TRUE(hook.hooked());
  InputInjector injector(make_send_input_sink());
  const InputTarget screen = whole_screen();
  injector.mouse_abs(screen, 65'535, 65'535);
  EXPECT_EQ(hook.last().pt.x, screen.right - 1);
  EXPECT_EQ(hook.last().pt.y, screen.bottom - 1);
  injector.mouse_abs(screen, 0, 0);
  EXPECT_EQ(hook.last().pt.x, 0);
  EXPECT_EQ(hook.last().pt.y, 0);
}

// By little, as the system's acceleration leaves it alone.
TEST(SendInputEvents, ARelativeMoveGoesOnFromWhereThePointerIs) {
  const MouseHook hook;
  ASSERT_TRUE(hook.hooked());
  InputInjector injector(make_send_input_sink());
  const POINT before = pointer();
  injector.mouse_rel(whole_screen(), before.x < 100 ? 3 : -3, before.y < 100 ? 2 : -2);
  EXPECT_EQ(hook.last().pt.x, before.x + (before.x < 100 ? 3 : -3));
  EXPECT_EQ(hook.last().pt.y, before.y + (before.y < 100 ? 2 : -2));
}

TEST(SendInputEvents, EachKeyOfTheTableIsSentAsItStands) {
  const KeyboardHook hook;
  ASSERT_TRUE(hook.hooked());
  SendInputSink sink;
  int rows = 0;
  for (std::uint16_t usage = 0; usage <= 0xFF; ++usage) {
    InputKey key{.usage = usage, .win = {}};
    if (!hid_to_win_key(usage, &key.win)) continue;
    ++rows;
    for (const bool down : {true, false}) {
      ASSERT_TRUE(sink.key(key, down).sent);
      const KBDLLHOOKSTRUCT seen = hook.last();
      EXPECT_EQ(seen.scanCode, key.win.scan) << "usage " << usage;
      EXPECT_EQ((seen.flags & LLKHF_EXTENDED) != 0, key.win.extended != 0) << "usage " << usage;
      EXPECT_EQ((seen.flags & LLKHF_UP) == 0, down) << "usage " << usage;
      if (key.win.vk != 0) {
        EXPECT_EQ(seen.vkCode, key.win.vk) << "usage " << usage;
      }
    }
  }
  EXPECT_EQ(rows, 136);
}

// ---- What arrives

class SendInputTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(window_.has_focus()); }

  InputWindow window_;
  SendInputSink sink_;
  InputInjector injector_{make_send_input_sink()};
};

TEST_F(SendInputTest, ThePointerMovesToWhereItIsSent) {
  const POINT to{pointer().x < 600 ? 700 : 300, 200};
  ASSERT_TRUE(sink_.move_to({to.x, to.y}).sent);
  EXPECT_TRUE(window_.wait_for_pointer(to));
}

TEST_F(SendInputTest, EachButtonGoesDownAndUp) {
  for (std::uint16_t button = 1; button <= 5; ++button) {
    injector_.mouse_button(button, true);
    injector_.mouse_button(button, false);
    const std::string name = "button " + std::to_string(button);
    EXPECT_THAT(window_.take(2), ElementsAre(name + " down", name + " up"));
  }
}

TEST_F(SendInputTest, TheWheelTurnsByWhatItIsTold) {
  injector_.mouse_wheel(0, 120);
  injector_.mouse_wheel(0, -240);
  injector_.mouse_wheel(120, 0);
  injector_.mouse_wheel(-30, 7);
  EXPECT_THAT(window_.take(5),
              ElementsAre("wheel 120", "wheel -240", "hwheel 120", "wheel 7", "hwheel -30"));
}

TEST_F(SendInputTest, KeysThatHaveAVirtualKeyOfTheirOwnArriveByIt) {
  constexpr std::uint16_t PAUSE = 0x48;
  injector_.key(PAUSE, true);
  injector_.key(PAUSE, false);
  EXPECT_THAT(window_.take(2), ElementsAre("key 13 45 down", "key 13 45 up"));
}

TEST_F(SendInputTest, ButtonsThatAVanishedClientHeldAreReleased) {
  injector_.mouse_button(1, true);
  injector_.mouse_button(5, true);
  EXPECT_THAT(window_.take(2), ElementsAre("button 1 down", "button 5 down"));
  injector_.release_all();
  EXPECT_THAT(window_.take(2), ElementsAre("button 1 up", "button 5 up"));
}

// ---- By scan code

using SendInputScanCodeTest = SendInputTest;

TEST_F(SendInputScanCodeTest, LettersType) {
  constexpr std::uint16_t A = 0x04;
  injector_.key(A, true);
  injector_.key(A, false);
  EXPECT_THAT(window_.take(3), ElementsAre("key 41 1e down", "char a", "key 41 1e up"));
}

TEST_F(SendInputScanCodeTest, ExtendedKeysDifferFromTheOnesThatShareTheirCode) {
  struct Key {
    std::uint16_t usage;
    const char* name;
  };
  constexpr Key KEYS[] = {
      {0xE0, "key 11 1d"},  {0xE4, "key 11 1de"},  // Ctrl, left and right
      {0x50, "key 25 4be"}, {0x5C, "key 25 4b"},   // Left, on its own and on the keypad
      {0x49, "key 2d 52e"}, {0x62, "key 2d 52"},   // Insert, the same
      {0xE3, "key 5b 5be"},                        // the system's key
  };
  for (const Key& key : KEYS) {
    injector_.key(key.usage, true);
    injector_.key(key.usage, false);
    EXPECT_THAT(window_.take(2),
                ElementsAre(std::string(key.name) + " down", std::string(key.name) + " up"));
  }
}

TEST_F(SendInputScanCodeTest, ARepeatedPressIsARepeat) {
  constexpr std::uint16_t F5 = 0x3E;
  injector_.key(F5, true);
  injector_.key(F5, true);
  injector_.key(F5, false);
  EXPECT_THAT(window_.take(3), ElementsAre("key 74 3f down", "key 74 3f down", "key 74 3f up"));
}

// ---- The desktop

class SendInputDesktopTest : public testing::Test {
 protected:
  ~SendInputDesktopTest() override {
    if (home_) SwitchDesktop(home_.get());
  }
  void SetUp() override {
    ASSERT_TRUE(home_);
    ASSERT_TRUE(other_);
  }
  static std::string input_desktop_name() {
    std::string name;
    read_desktop_name(open_input_desktop(DESKTOP_READOBJECTS).get(), &name);
    return name;
  }
  static std::string own_desktop_name() {
    std::string name;
    read_desktop_name(GetThreadDesktop(GetCurrentThreadId()), &name);
    return name;
  }

  const DesktopHandle home_ = open_input_desktop(GENERIC_ALL);
  const DesktopHandle other_{CreateDesktopW(L"Consent", nullptr, nullptr, 0, GENERIC_ALL, nullptr)};
  CapturedLog log_;
};

// On a thread of its own: one that has a window, or had one, can't leave its desktop.
TEST_F(SendInputDesktopTest, TheThreadFollowsTheInput) {
  std::thread([&] {
    InputInjector injector(make_send_input_sink());
    injector.set_input_desktop_tracking(true);
    injector.mouse_abs(whole_screen(), 0, 0);
    EXPECT_EQ(own_desktop_name(), "Default");
    ASSERT_TRUE(SwitchDesktop(other_.get()));
    ASSERT_EQ(input_desktop_name(), "Consent");
    injector.mouse_abs(whole_screen(), 65'535, 0);
    EXPECT_EQ(own_desktop_name(), "Consent");
    ASSERT_TRUE(SwitchDesktop(home_.get()));
    injector.mouse_abs(whole_screen(), 0, 0);
    EXPECT_EQ(own_desktop_name(), "Default");
    EXPECT_EQ(log_.count("SendInput"), 0);
  }).join();
}

TEST_F(SendInputDesktopTest, OnAnotherDesktopThanTheInputsNothingIsSentAndTheLogSaysSo) {
  std::thread([&] {
    ASSERT_TRUE(SetThreadDesktop(other_.get()));
    SendInputSink sink;
    const SendResult result = sink.move_to({1, 1});
    EXPECT_FALSE(result.sent);
    EXPECT_EQ(result.error, ERROR_ACCESS_DENIED);
    InputInjector injector(make_send_input_sink());
    injector.mouse_abs(whole_screen(), 0, 0);
    EXPECT_EQ(log_.count("SendInput(mouse) failed (5): secure desktop or an elevated window has "
                         "focus"),
              1);
  }).join();
}

TEST_F(SendInputDesktopTest, HandlesThatAreGivenOutAreTheOnesThatAreTaken) {
  SendInputSink sink;
  const InputSink::Desktop first = sink.open_input_desktop();
  const InputSink::Desktop second = sink.open_input_desktop();
  ASSERT_NE(first, InputSink::NO_DESKTOP);
  ASSERT_NE(second, InputSink::NO_DESKTOP);
  EXPECT_NE(first, second);
  std::string name;
  EXPECT_TRUE(sink.desktop_name(first, &name));
  EXPECT_EQ(name, "Default");
  sink.close_desktop(first);
  EXPECT_FALSE(sink.desktop_name(first, &name));
  EXPECT_FALSE(sink.attach_this_thread(first));
  EXPECT_TRUE(sink.desktop_name(second, &name));
  sink.close_desktop(second);
}

// On desktops that are made up, by events that send nothing.
TEST(SendInputDesktopCalls, EachEventLooksWhereTheInputIsAndAttachesTheThreadWhereItIsNotYet) {
  DesktopCalls calls;
  {
    InputInjector injector(make_send_input_sink());
    injector.mouse_wheel(0, 0);
    EXPECT_THAT(calls.take(), IsEmpty());
    injector.set_input_desktop_tracking(true);
    injector.mouse_wheel(0, 0);
    EXPECT_THAT(calls.take(), ElementsAre("open a1: 1", "attach 1"));
    injector.mouse_wheel(0, 0);
    EXPECT_THAT(calls.take(), ElementsAre("open a1: 2", "close 2"));
    calls.input = L"Winlogon";
    calls.attaches = false;
    injector.mouse_wheel(0, 0);
    EXPECT_THAT(calls.take(), ElementsAre("open a1: 3", "attach 3", "close 3"));
    calls.attaches = true;
    injector.mouse_wheel(0, 0);
    EXPECT_THAT(calls.take(), ElementsAre("open a1: 4", "attach 4", "close 1"));
    calls.tells_names = false;
    injector.mouse_wheel(0, 0);
    EXPECT_THAT(calls.take(), ElementsAre("open a1: 5", "close 5"));
    calls.opens = false;
    injector.mouse_wheel(0, 0);
    EXPECT_THAT(calls.take(), IsEmpty());
    EXPECT_EQ(calls.open_handles(), 1);
    calls.leave();
  }
  EXPECT_THAT(calls.take(), ElementsAre("close 4"));
  EXPECT_EQ(calls.open_handles(), 0);
}

}  // namespace
