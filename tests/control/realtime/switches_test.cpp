#include "control/switches.h"

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"
#include "tests/support/text_file.h"

namespace {

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
  EXPECT_EQ(file_text(directory_ / "host.ini"), "[settings]\nmute_host=1\n");
  EXPECT_EQ(file_content(directory_ / "clipboard_sync"), "1\n");
}

TEST_F(SwitchesTest, AMuteSettingThatIsNoNumberIsOff) {
  for (const std::string value : {"0", "00", "off"}) {
    write("host.ini", "[settings]\nmute_host=" + value + "\n");
    EXPECT_FALSE(load_mute_host(directory_)) << value;
  }
  for (const std::string value : {"1", "2", "-1", "1 ; yes"}) {
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
