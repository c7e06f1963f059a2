#include "control/autostart.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "control/linux/desktop_entry.h"
#include "control/sysinfo.h"
#include "tests/support/linux/environment.h"
#include "tests/support/temp_directory.h"

namespace {

std::string exec_line(const std::string& program) {
  const std::string entry = desktop_entry(program).value_or("");
  const std::size_t at = entry.find("Exec=");
  return entry.substr(at + 5, entry.find('\n', at) - at - 5);
}

std::string entry_of(const std::string& exec, const std::string& more = "") {
  return "[Desktop Entry]\nType=Application\nName=Lunderhaze\nExec=" + exec + "\n" + more;
}

// ---- The entry's text

TEST(DesktopEntry, HoldsThePathInDoubleQuotesAndNothingElse) {
  EXPECT_EQ(desktop_entry("/usr/bin/lunderhaze"),
            "[Desktop Entry]\n"
            "Type=Application\n"
            "Version=1.5\n"
            "Name=Lunderhaze\n"
            "Comment=Lets paired devices reach this computer's screen\n"
            "Exec=\"/usr/bin/lunderhaze\"\n"
            "Terminal=false\n");
}

// freedesktop.org's Desktop Entry, of the Exec key: a backslash in a quoted argument is four of
// them in the value, and a dollar sign is "\\$".
TEST(DesktopEntry, SpecialCharactersAreEscapedTwice) {
  EXPECT_EQ(exec_line("/a b"), "\"/a b\"");
  EXPECT_EQ(exec_line("/a\\b"), "\"/a\\\\\\\\b\"");
  EXPECT_EQ(exec_line("/a$b"), "\"/a\\\\$b\"");
  EXPECT_EQ(exec_line("/a`b\"c"), "\"/a\\\\`b\\\\\"c\"");
  EXPECT_EQ(exec_line("/100%"), "\"/100%%\"");
  EXPECT_EQ(exec_line("/a\nb\tc"), "\"/a\\nb\\tc\"");
}

TEST(DesktopEntry, APathWithAnEqualsSignCannotBeSaid) {
  EXPECT_FALSE(desktop_entry("/a=b/lunderhaze"));
  EXPECT_FALSE(desktop_entry(""));
}

TEST(DesktopEntry, EveryPathIsReadBackAsItWas) {
  for (const char* path :
       {"/usr/bin/lunderhaze", "/with blank/x", "/a\\b", "/a\\\\nb", "/$HOME/`x`/\"y\"", "/100%f",
        "/a\nb\rc\td", "/\xC3\xBC\x01\x7F", "/;#&|<>*?()~'"})
    EXPECT_EQ(entry_program(desktop_entry(path).value_or("")), path);
}

TEST(DesktopEntry, AProgramIsReadWithoutQuotesAndWithArguments) {
  EXPECT_EQ(entry_program(entry_of("/usr/bin/x")), "/usr/bin/x");
  EXPECT_EQ(entry_program(entry_of("/usr/bin/x --port 9")), "/usr/bin/x");
  EXPECT_EQ(entry_program(entry_of("\"/usr/bin/x y\" --port 9")), "/usr/bin/x y");
  EXPECT_EQ(entry_program(entry_of(" /usr/bin/x ")), "/usr/bin/x");
}

TEST(DesktopEntry, WhatIsNotWholeNamesNoProgram) {
  for (const char* exec :
       {"", "\"/usr/bin/x", "\"/usr/bin/x\\", "/a\\qb", "/a%", "/a%f", "/a$b", "\"/a\\\\"})
    EXPECT_FALSE(entry_program(entry_of(exec))) << exec;
  EXPECT_FALSE(entry_program(""));
  EXPECT_FALSE(entry_program("[Desktop Action]\nExec=/x\n"));
  EXPECT_FALSE(entry_program("[Desktop Entry]\n#Exec=/x\n"));
}

TEST(DesktopEntry, HiddenAndSwitchedOffEntriesStartNothing) {
  EXPECT_TRUE(is_started(entry_of("/x")));
  EXPECT_TRUE(is_started(entry_of("/x", "Hidden=false\nX-GNOME-Autostart-enabled=true\n")));
  EXPECT_FALSE(is_started(entry_of("/x", "Hidden=true\n")));
  EXPECT_FALSE(is_started(entry_of("/x", "Hidden = true \n")));
  EXPECT_FALSE(is_started(entry_of("/x", "X-GNOME-Autostart-enabled=false\n")));
}

// ---- The entry in its place

class Autostart : public testing::Test {
 protected:
  void put(const std::string& entry) const {
    std::filesystem::create_directories(entry_.parent_path());
    write_file(entry_, entry);
  }
  std::string own() const { return desktop_entry(exe_path()).value_or("?"); }

  TempDirectory home_;
  Variable config_{"XDG_CONFIG_HOME", (home_ / "config").c_str()};
  const std::filesystem::path entry_ = home_ / "config" / "autostart" / "lunderhaze.desktop";
  std::string text_ = "untouched";
};

TEST_F(Autostart, IsOffWithoutAnEntryAndOnWithOurs) {
  EXPECT_FALSE(autostart_enabled());
  EXPECT_TRUE(set_autostart(true, &text_));
  EXPECT_EQ(text_, "");
  EXPECT_TRUE(autostart_enabled());
  EXPECT_EQ(file_content(entry_), own());
  EXPECT_TRUE(set_autostart(true));
  EXPECT_TRUE(set_autostart(false, &text_));
  EXPECT_EQ(text_, "");
  EXPECT_FALSE(std::filesystem::exists(entry_));
  EXPECT_FALSE(autostart_enabled());
}

TEST_F(Autostart, SwitchingOffWithoutAnEntryIsASuccess) {
  EXPECT_TRUE(set_autostart(false, &text_));
  EXPECT_EQ(text_, "");
}

TEST_F(Autostart, WithoutTheVariableTheEntryIsInTheHome) {
  const Variable unset("XDG_CONFIG_HOME", nullptr);
  const Variable home("HOME", home_.path().c_str());
  EXPECT_TRUE(set_autostart(true));
  EXPECT_EQ(file_content(home_ / ".config" / "autostart" / "lunderhaze.desktop"), own());
}

TEST_F(Autostart, AHiddenEntryCountsAsOffAndIsSwitchedOnWithoutAWord) {
  put(own() + "Hidden=true\n");
  EXPECT_FALSE(autostart_enabled());
  EXPECT_TRUE(set_autostart(true, &text_));
  EXPECT_EQ(text_, "");
  EXPECT_TRUE(autostart_enabled());
}

TEST_F(Autostart, AnEntryForAnotherExecutableCountsAsOffAndIsReplacedWithALine) {
  put(entry_of("\"/opt/other/lunderhaze\""));
  EXPECT_FALSE(autostart_enabled());
  EXPECT_TRUE(set_autostart(true, &text_));
  EXPECT_EQ(text_,
            entry_.string() + " was replaced: it was an entry that started /opt/other/lunderhaze");
  EXPECT_EQ(file_content(entry_), own());
}

TEST_F(Autostart, AnEntryForALongerPathIsAnother) {
  put(entry_of("\"" + exe_path().string() + "-old\""));
  EXPECT_FALSE(autostart_enabled());
}

TEST_F(Autostart, AForeignEntryIsRemovedWithALine) {
  put("nonsense");
  EXPECT_TRUE(set_autostart(false, &text_));
  EXPECT_EQ(text_, entry_.string() + " was removed: it was an entry that starts no program");
  EXPECT_FALSE(std::filesystem::exists(entry_));
}

TEST_F(Autostart, ALinkIsReplacedAndWhatItPointsToStays) {
  std::filesystem::create_directories(entry_.parent_path());
  write_file(home_ / "precious", "untouched");
  std::filesystem::create_symlink(home_ / "precious", entry_);
  EXPECT_TRUE(set_autostart(true));
  EXPECT_FALSE(std::filesystem::is_symlink(entry_));
  EXPECT_EQ(file_content(home_ / "precious"), "untouched");
}

TEST_F(Autostart, AWriteThatFailsLeavesNothingBehindAndSaysSo) {
  std::filesystem::create_directories(entry_);  // a directory where the file belongs
  write_file(entry_ / "x", "");
  EXPECT_FALSE(set_autostart(true, &text_));
  EXPECT_EQ(text_, "could not write " + entry_.string());
  EXPECT_EQ(entry_count(entry_.parent_path()), 1U);
  EXPECT_FALSE(set_autostart(false, &text_));
  EXPECT_EQ(text_, "could not remove " + entry_.string());
}

TEST_F(Autostart, AFileWhereTheDirectoryBelongsIsAFailure) {
  write_file(home_ / "config", "in the way");
  EXPECT_FALSE(set_autostart(true, &text_));
  EXPECT_EQ(text_, "could not write " + entry_.string());
}

}  // namespace
