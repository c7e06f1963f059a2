// Profile files by the system's own calls.
#include "control/profile_file.h"

#include <gmock/gmock.h>

#include "tests/support/temp_directory.h"

using testing::HasSubstr;

namespace {

class ProfileFile : public testing::Test {
 protected:
  long number(long otherwise = 7) const {
    return profile_file::number(path_, "settings", "mute_host", otherwise);
  }
  bool set(const std::string& value) const {
    return profile_file::set(path_, "settings", "mute_host", value);
  }

  const TempDirectory directory_;
  const std::filesystem::path path_ = directory_ / "host.ini";
};

TEST_F(ProfileFile, WithoutFileSectionOrKeyItIsWhatTheCallerSays) {
  EXPECT_EQ(number(), 7);
  EXPECT_FALSE(std::filesystem::exists(path_));
  write_file(path_, "[other]\r\nmute_host=0\r\n");
  EXPECT_EQ(number(), 7);
  write_file(path_, "[settings]\r\n;mute_host=0\r\nmute_host2=0\r\n");
  EXPECT_EQ(number(-3), -3);
}

TEST_F(ProfileFile, ANumberIsFoundWhateverTheCaseAndTheBlanks) {
  write_file(path_, "[a]\r\nmute_host=5\r\n[Settings]\r\n Mute_Host =  0 \r\n");
  EXPECT_EQ(number(), 0);
  write_file(path_, "[settings]\nmute_host=12\n");
  EXPECT_EQ(number(), 12);
}

// As Notepad saves it, where it is told to.
TEST_F(ProfileFile, OneInUtf16IsUnderstood) {
  std::string bytes = "\xFF\xFE";
  for (const char c : std::string("[settings]\r\nmute_host=0\r\n")) (bytes += c) += '\0';
  write_file(path_, bytes);
  EXPECT_EQ(number(), 0);
  EXPECT_TRUE(set("1"));
  EXPECT_EQ(number(), 1);
}

TEST_F(ProfileFile, WhatIsSetIsReadAndAllElseStays) {
  write_file(path_, "[a]\r\nx=1\r\n[settings]\r\nmute_host=1\r\ny=2\r\n");
  EXPECT_TRUE(set("0"));
  EXPECT_EQ(number(), 0);
  EXPECT_EQ(profile_file::number(path_, "a", "x", 7), 1);
  EXPECT_EQ(profile_file::number(path_, "settings", "y", 7), 2);
  EXPECT_TRUE(set("1"));
  EXPECT_EQ(number(), 1);
  EXPECT_THAT(file_content(path_), HasSubstr("mute_host=1\r\n"));
}

TEST_F(ProfileFile, OneThatCannotBeWrittenSaysSo) {
  std::filesystem::create_directories(path_);
  EXPECT_FALSE(set("0"));
  EXPECT_EQ(number(), 7);
  EXPECT_FALSE(profile_file::set(directory_ / "none" / "host.ini", "settings", "mute_host", "0"));
}

}  // namespace
