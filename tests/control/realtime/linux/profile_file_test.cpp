// Profile files as text, and host.ini's way of reading numbers.
#include "control/profile_file.h"

#include <gtest/gtest.h>

#include "control/linux/profile_text.h"
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

TEST(ProfileFile, ANumberIsWhatAValueBeginsWith) {
  const TempDirectory directory;
  const std::filesystem::path path = directory / "host.ini";
  const auto number = [&](const std::string& value) {
    write_file(path, "[settings]\nmute_host=" + value + "\n");
    return profile_file::number(path, "settings", "mute_host", 7);
  };
  EXPECT_EQ(number("12"), 12);
  EXPECT_EQ(number("-1"), -1);
  EXPECT_EQ(number("1 ; yes"), 1);
  EXPECT_EQ(number(""), 0);
  EXPECT_EQ(number("0x1"), 0);
  EXPECT_NE(number("99999999999999999999"), 0);
}

TEST(ProfileFile, IsReplacedAsAWholeWithAllElseAsItWas) {
  const TempDirectory directory;
  const std::filesystem::path path = directory / "host.ini";
  write_file(path, "; mine\n[a]\nx=1\n");
  EXPECT_TRUE(profile_file::set(path, "settings", "mute_host", "0"));
  EXPECT_EQ(file_content(path), "; mine\n[a]\nx=1\n[settings]\nmute_host=0\n");
  EXPECT_EQ(entry_count(directory.path()), 1u);
}

}  // namespace
