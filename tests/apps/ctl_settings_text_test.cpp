#include "apps/ctl/settings_text.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

using host_service::Settings;

TEST(SettingsText, ShowsAllOrThoseNamedInOneOrder) {
  EXPECT_EQ(setting_lines({}),
            "port=9876\nfps=60\nbitrate_kbps=20000\ncodec=hevc\naudio=on\nvirtual_display=auto\n"
            "mac_keys=on\nmax_datagram=1400\n");
  EXPECT_EQ(setting_lines({}, {"codec", "port"}), "port=9876\ncodec=hevc\n");
  EXPECT_EQ(setting_values({}, {"codec", "port"}).dump(), R"({"port":9876,"codec":"hevc"})");
}

TEST(SettingsText, WhatIsShownCanBeSet) {
  Settings changed;
  changed.port = 1;
  changed.fps = 240;
  changed.bitrate_kbps = 500'000;
  changed.codec = 2;
  changed.audio = 0;
  changed.virtual_display = 2;
  changed.mac_keys = 0;
  changed.max_datagram = 512;
  std::vector<std::string> lines;
  std::string text = setting_lines(changed);
  for (std::size_t end; (end = text.find('\n')) != text.npos; text.erase(0, end + 1))
    lines.push_back(text.substr(0, end));
  EXPECT_TRUE(assigns_all(lines));
  Settings settings;
  EXPECT_EQ(assign_settings(lines, &settings), "");
  EXPECT_EQ(host_service::encode_settings(settings), host_service::encode_settings(changed));
  lines.pop_back();
  EXPECT_FALSE(assigns_all(lines));
}

TEST(SettingsText, BoundsAreThoseOfTheRecord) {
  struct Bound {
    const char* name;
    std::uint32_t low, high;
  };
  for (const Bound& bound :
       {Bound{"port", 1, 65'535}, Bound{"fps", 1, 240}, Bound{"bitrate_kbps", 500, 500'000},
        Bound{"max_datagram", 512, 1'400}}) {
    const std::string name = bound.name;
    Settings settings;
    for (const std::uint32_t good : {bound.low, bound.high}) {
      EXPECT_EQ(assign_settings({name + "=" + std::to_string(good)}, &settings), "");
      EXPECT_FALSE(host_service::encode_settings(settings).empty()) << name << good;
    }
    for (const std::uint32_t bad : {bound.low - 1, bound.high + 1})
      EXPECT_NE(assign_settings({name + "=" + std::to_string(bad)}, &settings), "") << name << bad;
  }
}

TEST(SettingsText, EachBadValueIsToldWithItsRange) {
  Settings settings;
  EXPECT_EQ(assign_settings({"port=0", "fps=61", "codec=av1", "audio=1", "virtual_display=yes",
                             "max_datagram=12e2", "bitrate_kbps="},
                            &settings),
            "port must be 1 to 65535, a UDP port; codec must be hevc or h264; audio must be off or "
            "on; virtual_display must be off, auto or always; max_datagram must be 512 to 1400 "
            "bytes; bitrate_kbps must be 500 to 500000 kbit/s");
  EXPECT_EQ(settings.fps, 60);  // all or nothing
}

TEST(SettingsText, WhatNamesNoSettingOrOneTwiceIsRefused) {
  Settings settings;
  EXPECT_EQ(assign_settings({"colour=blue"}, &settings), "there is no setting \"colour\"");
  EXPECT_EQ(assign_settings({"po\x1brt=1"}, &settings), "there is no setting \"po?rt\"");
  EXPECT_EQ(assign_settings({"=1"}, &settings), "there is no setting \"\"");
  EXPECT_EQ(assign_settings({"PORT=1"}, &settings), "there is no setting \"PORT\"");
  EXPECT_EQ(assign_settings({"port"}, &settings), "port: say port=VALUE");
  EXPECT_EQ(assign_settings({"port=1000", "port=2000"}, &settings), "port is named twice");
  EXPECT_EQ(settings.port, 9876);
}

TEST(SettingsText, DifferencesAreNamed) {
  Settings other;
  EXPECT_TRUE(differing_settings({}, other).empty());
  other.port = 1;
  other.mac_keys = 0;
  EXPECT_EQ(differing_settings({}, other), (std::vector<std::string>{"port", "mac_keys"}));
}

}  // namespace
}  // namespace ctl
