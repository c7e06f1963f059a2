#include "capture/windows/input_desktop.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(InputDesktopCalls, TheDesktopThatHasTheInputIsFoundByName) {
  const DesktopHandle first = open_input_desktop(DESKTOP_READOBJECTS);
  const DesktopHandle second = open_input_desktop(DESKTOP_READOBJECTS | DESKTOP_WRITEOBJECTS);
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);
  std::string first_name, second_name;
  EXPECT_TRUE(read_desktop_name(first.get(), &first_name));
  EXPECT_TRUE(read_desktop_name(second.get(), &second_name));
  EXPECT_EQ(first_name, "Default");
  EXPECT_EQ(second_name, "Default");
}

TEST(InputDesktopCalls, AnotherDesktopHasAnotherName) {
  const DesktopHandle other(
      CreateDesktopW(L"Löschen", nullptr, nullptr, 0, DESKTOP_READOBJECTS, nullptr));
  ASSERT_TRUE(other);
  std::string name;
  EXPECT_TRUE(read_desktop_name(other.get(), &name));
  EXPECT_EQ(name, "L\u00f6schen");
}

TEST(InputDesktopCalls, AThreadCanBePutOnIt) {
  std::thread([] {
    const DesktopHandle desktop = open_input_desktop(DESKTOP_READOBJECTS | DESKTOP_WRITEOBJECTS);
    ASSERT_TRUE(desktop);
    EXPECT_TRUE(SetThreadDesktop(desktop.get()));
    std::string name;
    EXPECT_TRUE(read_desktop_name(GetThreadDesktop(GetCurrentThreadId()), &name));
    EXPECT_EQ(name, "Default");
  }).join();
}

TEST(InputDesktopCalls, ANameThatCannotBeReadLeavesTheFormerOne) {
  std::string name = "Winlogon";
  EXPECT_FALSE(read_desktop_name(nullptr, &name));
  EXPECT_EQ(name, "Winlogon");
}

}  // namespace
