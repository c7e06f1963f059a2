#include "control/switches.h"

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"

namespace {

std::string set(const std::string& text, const std::string& value = "0") {
  return with_profile_value(text, "settings", "mute_host", value);
}

std::optional<std::string> get(const std::string& text) {
  return profile_value(text, "settings", "mute_host");
}

TEST(Profile, AValueIsFoundInItsSectionWhateverTheCaseAndTheBlanks) {
  EXPECT_EQ(get("[settings]\nmute_host=0\n"), "0");
  EXPECT_EQ(get("  [ SETTINGS ]\r\n\tMute_Host =  0 \r\n"), "0");
  EXPECT_EQ(get("[other]\nmute_host=5\n[settings]\nmute_host=1"), "1");
  EXPECT_EQ(get("[settings]\nmute_host=\n"), "");
}

TEST(Profile, WhatIsElsewhereIsNoValue) {
  EXPECT_EQ(get(""), std::nullopt);
  EXPECT_EQ(get("mute_host=0\n"), std::nullopt);
  EXPECT_EQ(get("[settings]\n;mute_host=0\nmute_host2=0\nmute_host\n"), std::nullopt);
  EXPECT_EQ(get("[settings]\n[other]\nmute_host=0\n"), std::nullopt);
}

TEST(Profile, TheFirstOfSeveralCounts) {
  EXPECT_EQ(get("[settings]\nmute_host=0\nmute_host=1\n"), "0");
  EXPECT_EQ(get("[settings]\na=1\n[settings]\nmute_host=1\n"), std::nullopt);
}

TEST(Profile, AChangeKeepsEverythingElse) {
  EXPECT_EQ(set("; mine\n[a]\nx=1\n[settings]\nmute_host = 1 \ny=2\n"),
            "; mine\n[a]\nx=1\n[settings]\nmute_host =0\ny=2\n");
  EXPECT_EQ(set("[settings]\r\nmute_host=1\r\nz=3"), "[settings]\r\nmute_host=0\r\nz=3");
}

TEST(Profile, AMissingKeyComesBehindTheLastOfItsSection) {
  EXPECT_EQ(set("[settings]\nx=1\n\n[b]\ny=2\n"), "[settings]\nx=1\nmute_host=0\n\n[b]\ny=2\n");
  EXPECT_EQ(set("[settings]\r\n"), "[settings]\r\nmute_host=0\r\n");
  EXPECT_EQ(set("[settings]"), "[settings]\nmute_host=0\n");
}

TEST(Profile, AMissingSectionComesLast) {
  EXPECT_EQ(set(""), "[settings]\nmute_host=0\n");
  EXPECT_EQ(set("[a]\r\nx=1"), "[a]\r\nx=1\r\n[settings]\r\nmute_host=0\r\n");
}

TEST(Profile, WhatWasSetIsFound) {
  for (const std::string before :
       {"", "[settings]", "[settings]\nmute_host=7\n", "x", "[a]\nb=c\n"})
    EXPECT_EQ(get(set(before, "1")), "1") << before;
}

class SwitchesTest : public testing::Test {
 protected:
  TempDirectory temporary_;
  std::filesystem::path directory_ = temporary_ / "store";

  void write(const std::string& name, const std::string& content) {
    std::filesystem::create_directories(directory_);
    write_file(directory_ / name, content);
  }
};

TEST_F(SwitchesTest, BothAreOnWhereNothingIsWritten) {
  EXPECT_TRUE(load_mute_host(directory_));
  EXPECT_TRUE(load_clipboard_sync(directory_));
  EXPECT_FALSE(std::filesystem::exists(directory_));
}

TEST_F(SwitchesTest, WhatIsSavedIsLoaded) {
  for (const bool on : {false, true}) {
    EXPECT_TRUE(save_mute_host(directory_, on));
    EXPECT_EQ(load_mute_host(directory_), on);
    EXPECT_TRUE(save_clipboard_sync(directory_, on));
    EXPECT_EQ(load_clipboard_sync(directory_), on);
  }
  EXPECT_EQ(file_content(directory_ / "host.ini"), "[settings]\nmute_host=1\n");
  EXPECT_EQ(file_content(directory_ / "clipboard_sync"), "1\n");
}

TEST_F(SwitchesTest, AMuteSettingThatIsNoNumberIsOff) {
  for (const std::string value : {"0", "00", "off", "", "0x1"}) {
    write("host.ini", "[settings]\nmute_host=" + value + "\n");
    EXPECT_FALSE(load_mute_host(directory_)) << value;
  }
  for (const std::string value : {"1", "2", "-1", "1 ; yes", "99999999999999999999"}) {
    write("host.ini", "[settings]\nmute_host=" + value + "\n");
    EXPECT_TRUE(load_mute_host(directory_)) << value;
  }
}

TEST_F(SwitchesTest, OfTheClipboardsFileOnlyTheFirstByteCounts) {
  for (const std::string content : {"0", "0\n", "01", "0 and a long line behind it\n"}) {
    write("clipboard_sync", content);
    EXPECT_FALSE(load_clipboard_sync(directory_)) << content;
  }
  for (const std::string content : {"", "1", "\n0", "yes"}) {
    write("clipboard_sync", content);
    EXPECT_TRUE(load_clipboard_sync(directory_)) << content;
  }
}

TEST_F(SwitchesTest, AHostIniThatCannotBeReadIsNotReplaced) {
  std::filesystem::create_directories(directory_ / "host.ini");
  EXPECT_FALSE(save_mute_host(directory_, false));
  EXPECT_TRUE(load_mute_host(directory_));
}

TEST_F(SwitchesTest, WithoutADirectoryNothingIsSavedAndTheCurrentOneIsLeftAlone) {
  write("clipboard_sync", "0\n");
  const std::filesystem::path former = std::filesystem::current_path();
  std::filesystem::current_path(directory_);
  EXPECT_TRUE(load_clipboard_sync({}));
  EXPECT_TRUE(load_mute_host({}));
  std::filesystem::current_path(former);
  EXPECT_FALSE(save_mute_host({}, false));
  EXPECT_FALSE(save_clipboard_sync({}, false));
}

}  // namespace
