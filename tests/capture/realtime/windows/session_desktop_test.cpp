// The input desktop as a capture's thread follows it.
#include "capture/windows/session_desktop.h"

#include <gmock/gmock.h>

#include <thread>

#include "capture/windows/input_desktop.h"
#include "tests/support/windows/desktops/desktop_calls.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Look = InputDesktop::Look;

HDESK threads_desktop() {
  return GetThreadDesktop(GetCurrentThreadId());
}
std::string name_of(HDESK desktop) {
  std::string name;
  return read_desktop_name(desktop, &name) ? name : "";
}

// What a handle was opened for, by ntdll's NtQueryObject.
ACCESS_MASK granted_access(HANDLE handle) {
  struct {
    ULONG attributes;
    ACCESS_MASK granted;
    ULONG more[12];
  } information = {};
  constexpr int BASIC_INFORMATION = 0;
  using QueryObject = LONG(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);
  const auto query = reinterpret_cast<QueryObject>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryObject")));
  EXPECT_EQ(query(handle, BASIC_INFORMATION, &information, sizeof information, nullptr), 0);
  return information.granted;
}

LRESULT CALLBACK pass_on(int code, WPARAM w, LPARAM l) {
  return CallNextHookEx(nullptr, code, w, l);
}

TEST(SessionDesktop, IsDefaultAndTheSameWhileHeld) {
  const auto desktop = make_session_desktop();
  EXPECT_EQ(desktop->name(), "");
  EXPECT_FALSE(desktop->matches());
  EXPECT_FALSE(desktop->enter()) << "none has been found";
  ASSERT_EQ(desktop->look(), Look::Other);
  ASSERT_TRUE(desktop->enter());
  EXPECT_EQ(desktop->name(), "Default");
  EXPECT_EQ(desktop->look(), Look::Same);
  EXPECT_TRUE(desktop->matches());
  desktop->leave();
  EXPECT_EQ(desktop->name(), "");
  EXPECT_FALSE(desktop->matches());
  EXPECT_EQ(desktop->look(), Look::Other);
}

TEST(SessionDesktop, LeavingReturnsTheThreadAndGivesTheDesktopBack) {
  HDESK const own = threads_desktop();
  const auto desktop = make_session_desktop();
  ASSERT_EQ(desktop->look(), Look::Other);
  ASSERT_TRUE(desktop->enter());
  HDESK const held = threads_desktop();
  EXPECT_NE(held, own);
  EXPECT_EQ(name_of(held), "Default");
  desktop->leave();
  EXPECT_EQ(threads_desktop(), own);
  EXPECT_EQ(name_of(held), "") << "still open";
}

TEST(SessionDesktop, IsEnteredToReadToWriteAndToBeSwitchedTo) {
  const auto desktop = make_session_desktop();
  ASSERT_EQ(desktop->look(), Look::Other);
  ASSERT_TRUE(desktop->enter());
  EXPECT_EQ(granted_access(threads_desktop()), 0x181u);
  desktop->leave();
}

// As one with a window or a hook is bound to its desktop.
TEST(SessionDesktop, IsNotEnteredByAThreadThatIsBoundToAnother) {
  std::thread([] {
    const DesktopHandle other(
        CreateDesktopW(L"Elsewhere", nullptr, nullptr, 0, GENERIC_ALL, nullptr));
    ASSERT_TRUE(other);
    ASSERT_TRUE(SetThreadDesktop(other.get()));
    HHOOK const hook = SetWindowsHookExW(WH_CALLWNDPROC, pass_on, nullptr, GetCurrentThreadId());
    ASSERT_NE(hook, nullptr);
    const auto desktop = make_session_desktop();
    ASSERT_EQ(desktop->look(), Look::Other);
    EXPECT_FALSE(desktop->enter());
    EXPECT_EQ(desktop->name(), "");
    EXPECT_EQ(name_of(threads_desktop()), "Elsewhere");
    EXPECT_FALSE(desktop->enter()) << "what was found has been let go of";
    ASSERT_TRUE(UnhookWindowsHookEx(hook));
    ASSERT_EQ(desktop->look(), Look::Other);
    EXPECT_TRUE(desktop->enter());
    EXPECT_EQ(desktop->name(), "Default");
    desktop->leave();
    EXPECT_EQ(name_of(threads_desktop()), "Elsewhere");
  }).join();
}

// Switching works under Wine 10, not under Wine 8.
class SwitchedDesktop : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(other_);
    ASSERT_TRUE(first_);
    ASSERT_EQ(desktop_->look(), Look::Other);
    ASSERT_TRUE(desktop_->enter());
  }
  void TearDown() override {
    SwitchDesktop(first_.get());
    desktop_->leave();
  }

  const DesktopHandle first_ = open_input_desktop(DESKTOP_READOBJECTS | DESKTOP_SWITCHDESKTOP);
  const DesktopHandle other_{CreateDesktopW(L"Secure", nullptr, nullptr, 0, GENERIC_ALL, nullptr)};
  const std::unique_ptr<InputDesktop> desktop_ = make_session_desktop();
};

TEST_F(SwitchedDesktop, IsAnotherAndIsEntered) {
  ASSERT_TRUE(SwitchDesktop(other_.get()));
  EXPECT_FALSE(desktop_->matches());
  ASSERT_EQ(desktop_->look(), Look::Other);
  HDESK const left = threads_desktop();
  ASSERT_TRUE(desktop_->enter());
  EXPECT_EQ(desktop_->name(), "Secure");
  EXPECT_EQ(name_of(threads_desktop()), "Secure");
  EXPECT_EQ(name_of(left), "") << "the former is still open";
  EXPECT_TRUE(desktop_->matches());
  ASSERT_TRUE(SwitchDesktop(first_.get()));
  EXPECT_FALSE(desktop_->matches());
  ASSERT_EQ(desktop_->look(), Look::Other);
  ASSERT_TRUE(desktop_->enter());
  EXPECT_EQ(desktop_->name(), "Default");
}

// ---- On desktops that are made up

class SessionDesktopCalls : public testing::Test {
 protected:
  ~SessionDesktopCalls() override { EXPECT_EQ(calls_.open_handles(), 0); }

  DesktopCalls calls_;
  const std::unique_ptr<InputDesktop> desktop_ = make_session_desktop();
};

TEST_F(SessionDesktopCalls, AreForWritingAndSwitchingAndEachHandleIsClosedOnceItIsLeft) {
  EXPECT_EQ(desktop_->look(), Look::Other);
  EXPECT_TRUE(desktop_->enter());
  EXPECT_THAT(calls_.take(), ElementsAre("open 181: 1", "attach 1"));
  EXPECT_EQ(desktop_->look(), Look::Same);
  EXPECT_THAT(calls_.take(), ElementsAre("open 181: 2", "close 2"));
  EXPECT_TRUE(desktop_->matches());
  EXPECT_THAT(calls_.take(), ElementsAre("open 1: 3", "close 3"));
  calls_.input = L"Winlogon";
  EXPECT_FALSE(desktop_->matches());
  EXPECT_THAT(calls_.take(), ElementsAre("open 1: 4", "close 4"));
  EXPECT_EQ(desktop_->look(), Look::Other);
  EXPECT_TRUE(desktop_->enter());
  EXPECT_THAT(calls_.take(), ElementsAre("open 181: 5", "attach 5", "close 1"));
  EXPECT_EQ(desktop_->name(), "Winlogon");
  desktop_->leave();
  EXPECT_THAT(calls_.take(), ElementsAre("attach 0", "close 5"));
  desktop_->leave();
  EXPECT_THAT(calls_.take(), IsEmpty());
}

TEST_F(SessionDesktopCalls, ADesktopThatCannotBeOpenedOrNamedIsUnreachableAndTheHeldOneStays) {
  ASSERT_EQ(desktop_->look(), Look::Other);
  ASSERT_TRUE(desktop_->enter());
  calls_.take();
  calls_.opens = false;
  EXPECT_EQ(desktop_->look(), Look::Unreachable);
  EXPECT_FALSE(desktop_->matches());
  EXPECT_THAT(calls_.take(), IsEmpty());
  calls_.opens = true;
  calls_.tells_names = false;
  EXPECT_EQ(desktop_->look(), Look::Unreachable);
  EXPECT_FALSE(desktop_->matches());
  EXPECT_THAT(calls_.take(), ElementsAre("open 181: 2", "close 2", "open 1: 3", "close 3"));
  EXPECT_FALSE(desktop_->enter()) << "none has been found";
  calls_.tells_names = true;
  EXPECT_EQ(desktop_->look(), Look::Same);
  EXPECT_EQ(desktop_->name(), "Default");
  desktop_->leave();
}

TEST_F(SessionDesktopCalls, AThreadThatCannotGoThereKeepsTheDesktopThatItIsOn) {
  ASSERT_EQ(desktop_->look(), Look::Other);
  ASSERT_TRUE(desktop_->enter());
  calls_.input = L"Winlogon";
  ASSERT_EQ(desktop_->look(), Look::Other);
  calls_.take();
  calls_.attaches = false;
  EXPECT_FALSE(desktop_->enter());
  EXPECT_THAT(calls_.take(), ElementsAre("attach 2", "close 2"));
  EXPECT_EQ(desktop_->name(), "Default");
  calls_.attaches = true;
  ASSERT_EQ(desktop_->look(), Look::Other);
  EXPECT_TRUE(desktop_->enter());
  EXPECT_EQ(desktop_->name(), "Winlogon");
  desktop_->leave();
}

}  // namespace
