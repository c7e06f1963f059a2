#include "apps/client/view/keyboard_grab.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "apps/client/view/alt_gr.h"
#include "apps/client/view/sdl_handles.h"
#include "control/windows/handles.h"

namespace {

using Hook = Owned<NullableKind<HHOOK, UnhookWindowsHookEx>>;

struct Key {
  bool down;
  SDL_Scancode scancode;
  bool operator==(const Key&) const = default;
};
void PrintTo(const Key& key, std::ostream* out) {
  *out << SDL_GetScancodeName(key.scancode) << (key.down ? " down" : " up");
}

// A window with the focus, and in the place of Windows a hook that was set before any other and so
// is asked last: what it gets, the desktop's shortcuts would have got. It keeps all keys, so that
// none is pressed here.
class KeyboardGrabTest : public testing::Test {
 protected:
  void SetUp() override {
    windows_got().clear();
    const auto keep = [](int code, WPARAM, LPARAM event) -> LRESULT {
      if (code == HC_ACTION) {
        windows_got().push_back(reinterpret_cast<const KBDLLHOOKSTRUCT*>(event)->vkCode);
        last_scan_code() = reinterpret_cast<const KBDLLHOOKSTRUCT*>(event)->scanCode;
      }
      return 1;
    };
    in_place_of_windows_ = Hook(SetWindowsHookExW(WH_KEYBOARD_LL, keep, nullptr, 0));
    ASSERT_TRUE(in_place_of_windows_);
    ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
    window_.reset(SDL_CreateWindow("grab", 100, 100, 300, 200, 0));
    ASSERT_TRUE(window_) << SDL_GetError();
    SDL_RaiseWindow(window_.get());
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (SDL_GetKeyboardFocus() != window_.get() && std::chrono::steady_clock::now() < until)
      SDL_WaitEventTimeout(nullptr, 10);
    ASSERT_EQ(SDL_GetKeyboardFocus(), window_.get());
    SDL_FlushEvents(SDL_FIRSTEVENT, SDL_LASTEVENT);
  }
  void TearDown() override {
    window_.reset();
    SDL_Quit();
  }

  static void press(WORD key, bool down, WORD scan_code = 0, DWORD flags = 0) {
    INPUT input{};
    input.type = INPUT_KEYBOARD;
    input.ki.wVk = key;
    input.ki.wScan = scan_code;
    input.ki.dwFlags = down ? flags : flags | KEYEVENTF_KEYUP;
    ASSERT_EQ(SendInput(1, &input, sizeof input), 1U);
  }
  // The window's events up to a key that SDL leaves to Windows, which comes to the hooks in its
  // turn.
  static std::vector<Key> events() {
    press(LAST, true);
    std::vector<Key> keys;
    SDL_Event event;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (windows_got().empty() || windows_got().back() != LAST || SDL_PollEvent(nullptr) != 0) {
      if (std::chrono::steady_clock::now() > until) {
        ADD_FAILURE() << "no hook was asked";
        return keys;
      }
      if (SDL_WaitEventTimeout(&event, 10) != 0 &&
          (event.type == SDL_KEYDOWN || event.type == SDL_KEYUP))
        keys.push_back({event.type == SDL_KEYDOWN, event.key.keysym.scancode});
    }
    windows_got().pop_back();
    return keys;
  }
  static std::vector<DWORD>& windows_got() {
    static std::vector<DWORD> keys;
    return keys;
  }
  static DWORD& last_scan_code() {
    static DWORD scan_code;
    return scan_code;
  }

  static void expect_to_the_window(WORD key, SDL_Scancode scancode) {
    press(key, true);
    press(key, false);
    EXPECT_EQ(events(), (std::vector<Key>{{true, scancode}, {false, scancode}}));
    EXPECT_TRUE(windows_got().empty()) << windows_got().front();
    windows_got().clear();
  }
  static void expect_to_windows(WORD key) {
    press(key, true);
    press(key, false);
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(windows_got(), (std::vector<DWORD>{key, key}));
    windows_got().clear();
  }

  static constexpr WORD LAST = VK_F24;
  Hook in_place_of_windows_;
  SdlPtr<SDL_Window> window_;
};

TEST_F(KeyboardGrabTest, TheKeysOfTheDesktopsShortcutsComeToTheWindowAlone) {
  SDL_SetWindowKeyboardGrab(window_.get(), SDL_TRUE);
  expect_to_the_window(VK_LWIN, SDL_SCANCODE_LGUI);
  expect_to_the_window(VK_RWIN, SDL_SCANCODE_RGUI);
  expect_to_the_window(VK_LMENU, SDL_SCANCODE_LALT);
  expect_to_the_window(VK_TAB, SDL_SCANCODE_TAB);
  expect_to_the_window(VK_LCONTROL, SDL_SCANCODE_LCTRL);
  expect_to_the_window(VK_ESCAPE, SDL_SCANCODE_ESCAPE);
  SDL_SetWindowKeyboardGrab(window_.get(), SDL_FALSE);
  expect_to_windows(VK_LWIN);
}

TEST_F(KeyboardGrabTest, RenewedItStandsAndAHeldKeyStaysHeld) {
  SDL_SetWindowKeyboardGrab(window_.get(), SDL_TRUE);
  renew_keyboard_grab(window_.get());
  EXPECT_EQ(SDL_GetWindowKeyboardGrab(window_.get()), SDL_TRUE);
  press(VK_LMENU, true);
  EXPECT_EQ(events(), (std::vector<Key>{{true, SDL_SCANCODE_LALT}}));
  renew_keyboard_grab(window_.get());
  EXPECT_TRUE(events().empty());
  EXPECT_EQ(SDL_GetKeyboardState(nullptr)[SDL_SCANCODE_LALT], SDL_PRESSED);
  expect_to_the_window(VK_TAB, SDL_SCANCODE_TAB);
  press(VK_LMENU, false);
  EXPECT_EQ(events(), (std::vector<Key>{{false, SDL_SCANCODE_LALT}}));
}

// The one that was set last is asked first, and may keep what it is asked about.
TEST_F(KeyboardGrabTest, RenewedItComesAheadOfAHookThatWasSetSince) {
  SDL_SetWindowKeyboardGrab(window_.get(), SDL_TRUE);
  const auto keep = [](int code, WPARAM first, LPARAM event) -> LRESULT {
    const bool last = reinterpret_cast<const KBDLLHOOKSTRUCT*>(event)->vkCode == LAST;
    return last ? CallNextHookEx(nullptr, code, first, event) : 1;
  };
  const Hook other(SetWindowsHookExW(WH_KEYBOARD_LL, keep, nullptr, 0));
  ASSERT_TRUE(other);
  press(VK_LWIN, true);
  press(VK_LWIN, false);
  EXPECT_TRUE(events().empty());
  EXPECT_TRUE(windows_got().empty());
  renew_keyboard_grab(window_.get());
  expect_to_the_window(VK_LWIN, SDL_SCANCODE_LGUI);
}

TEST_F(KeyboardGrabTest, OfAWindowThatWantsNoneNothingIsRenewed) {
  renew_keyboard_grab(window_.get());
  EXPECT_EQ(SDL_GetWindowKeyboardGrab(window_.get()), SDL_FALSE);
  expect_to_windows(VK_LWIN);
}

// ---- AltGr

// As Windows shows it to hooks, of a layout that has it.
class AltGrFilterTest : public KeyboardGrabTest {
 protected:
  void SetUp() override {
    KeyboardGrabTest::SetUp();
    if (HasFatalFailure()) return;
    press_made_up_ctrl(false);
    if (last_scan_code() != 0x21D) GTEST_SKIP() << "of a scan code that is sent, 8 bits come";
    windows_got().clear();
  }
  static void press_alt_gr(bool down) {
    press_made_up_ctrl(down);
    press(VK_RMENU, down, 0x38, KEYEVENTF_EXTENDEDKEY);
  }
  static void press_made_up_ctrl(bool down) { press(VK_LCONTROL, down, 0x21D); }
  static void press_ctrl(bool down) { press(VK_LCONTROL, down, 0x1D); }

  // Without the stand-in for Windows: the window's next key.
  static Key next_key() {
    SDL_Event event;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < until)
      if (SDL_WaitEventTimeout(&event, 10) != 0 &&
          (event.type == SDL_KEYDOWN || event.type == SDL_KEYUP))
        return {event.type == SDL_KEYDOWN, event.key.keysym.scancode};
    ADD_FAILURE() << "no key came";
    return {};
  }

  static constexpr Key ALT_DOWN{true, SDL_SCANCODE_RALT}, ALT_UP{false, SDL_SCANCODE_RALT},
      CTRL_DOWN{true, SDL_SCANCODE_LCTRL}, CTRL_UP{false, SDL_SCANCODE_LCTRL};
  AltGrFilter filter_;
};

TEST_F(AltGrFilterTest, UnfilteredTheMadeUpCtrlComesToTheWindow) {
  SDL_SetWindowKeyboardGrab(window_.get(), SDL_TRUE);
  filter_.want(true);
  filter_.want(false);
  press_alt_gr(true);
  press_alt_gr(false);
  EXPECT_EQ(events(), (std::vector<Key>{CTRL_DOWN, ALT_DOWN, CTRL_UP, ALT_UP}));
}

TEST_F(AltGrFilterTest, OfAGrabbedKeyboardTheRightAltComesAlone) {
  SDL_SetWindowKeyboardGrab(window_.get(), SDL_TRUE);
  filter_.want(true);
  press_alt_gr(true);
  EXPECT_EQ(events(), (std::vector<Key>{ALT_DOWN}));
  renew_keyboard_grab(window_.get());
  filter_.want(true);
  press_alt_gr(false);
  EXPECT_EQ(events(), (std::vector<Key>{ALT_UP}));
  EXPECT_TRUE(windows_got().empty());
}

TEST_F(AltGrFilterTest, ACtrlThatIsPressedWithItComes) {
  SDL_SetWindowKeyboardGrab(window_.get(), SDL_TRUE);
  filter_.want(true);
  press_ctrl(true);
  press_alt_gr(true);
  press_alt_gr(false);
  press_ctrl(false);
  EXPECT_EQ(events(), (std::vector<Key>{CTRL_DOWN, ALT_DOWN, ALT_UP, CTRL_UP}));
}

TEST_F(AltGrFilterTest, OfAKeyboardThatIsNotGrabbedWindowsGetsTheRightAltAlone) {
  filter_.want(true);
  press_alt_gr(true);
  press_alt_gr(false);
  EXPECT_TRUE(events().empty());
  EXPECT_EQ(windows_got(), (std::vector<DWORD>{VK_RMENU, VK_RMENU}));
}

TEST_F(AltGrFilterTest, WithoutAWindowOfOursInFrontNothingIsKept) {
  filter_.want(true);
  SDL_HideWindow(window_.get());
  press_alt_gr(true);
  press_alt_gr(false);
  EXPECT_TRUE(events().empty());
  EXPECT_EQ(windows_got(), (std::vector<DWORD>{VK_LCONTROL, VK_RMENU, VK_LCONTROL, VK_RMENU}));
}

TEST_F(AltGrFilterTest, OfAKeyboardThatIsNotGrabbedTheRightAltComesAlone) {
  in_place_of_windows_.reset();
  filter_.want(true);
  press_alt_gr(true);
  press_alt_gr(false);
  EXPECT_EQ(next_key(), ALT_DOWN);
  EXPECT_EQ(next_key(), ALT_UP);
  EXPECT_GE(GetAsyncKeyState(VK_LCONTROL), 0);
}

}  // namespace
