#include "apps/ctl/status_text.h"

#include <gtest/gtest.h>

#include "tests/apps/ctl_support.h"

namespace ctl {
namespace {

TEST(StatusText, OfAStreamingHostIsReadWhole) {
  const HostReport report = parse_status(SERVICE_LINES + worker_lines("connected") +
                                         "screen 0; X11 CPU / libopenh264; 1920x1080\n"
                                         "screen 2; DDA GPU / hevc_nvenc; 640x480\n" +
                                         device_row(DESK_KEY, "AAAA-BBBB", "my desk") +
                                         device_row(PHONE_KEY, "CCCC-DDDD", ""));
  ASSERT_TRUE(report.service);
  EXPECT_EQ(report.service->worker_pid, 4242U);
  EXPECT_EQ(report.service->session, 1U);
  EXPECT_EQ(report.service->starts, 3U);
  EXPECT_EQ(report.service->last_exit, "code 3, the desktop was lost");
  ASSERT_TRUE(report.stored);
  EXPECT_EQ(report.stored->port, 9999);
  ASSERT_TRUE(report.worker);
  EXPECT_EQ(report.worker->key_code, "7K2M-Q9TX");
  EXPECT_TRUE(report.worker->connected);
  ASSERT_TRUE(report.running);
  EXPECT_EQ(report.running->port, 9876);
  EXPECT_EQ(report.running->max_datagram, 1'400);
  ASSERT_TRUE(report.pairing);
  EXPECT_FALSE(report.pairing->open);
  ASSERT_EQ(report.screens.size(), 2U);
  EXPECT_EQ(report.screens[1].screen, 2U);
  EXPECT_EQ(report.screens[1].capture, "DDA GPU");
  EXPECT_EQ(report.screens[1].encoder, "hevc_nvenc");
  EXPECT_EQ(report.screens[1].width, 640U);
  EXPECT_EQ(report.screens[1].height, 480U);
  ASSERT_EQ(report.devices.size(), 2U);
  EXPECT_EQ(report.devices[0].key[31], 0x1F);
  EXPECT_EQ(report.devices[0].code, "AAAA-BBBB");
  EXPECT_EQ(report.devices[0].name, "my desk");
  EXPECT_EQ(report.devices[1].name, "");
  EXPECT_FALSE(report.cut);
}

TEST(StatusText, PairingStatesAreRead) {
  const HostReport report = parse_status("pairing open; password configured; lockout active\n");
  ASSERT_TRUE(report.pairing);
  EXPECT_TRUE(report.pairing->open);
  EXPECT_TRUE(report.pairing->password);
  EXPECT_TRUE(report.pairing->lockout);
}

TEST(StatusText, WithoutAWorkerTheServiceLinesStandAlone) {
  const HostReport report = parse_status(
      "service running; no worker; starts 1; last exit: none\nstored 9876 60 20000 1 1 1 1 1400\n");
  ASSERT_TRUE(report.service);
  EXPECT_FALSE(report.service->worker_pid);
  EXPECT_FALSE(report.service->session);
  EXPECT_EQ(report.service->starts, 1U);
  EXPECT_TRUE(report.stored);
  EXPECT_FALSE(report.worker);
  EXPECT_FALSE(report.running);
}

TEST(StatusText, WithoutServiceLinesTheWorkersAreRead) {
  const HostReport report = parse_status(worker_lines());
  EXPECT_FALSE(report.service);
  EXPECT_FALSE(report.stored);
  ASSERT_TRUE(report.worker);
  EXPECT_FALSE(report.worker->connected);
}

TEST(StatusText, UnknownLinesAndPartsAreSkipped) {
  const HostReport report = parse_status(
      "weather fine; wind 3\n"
      "\n"
      "service running; mood good; worker PID 7; colour blue\n"
      "devices 12\n"
      "worker running\n"
      "worker running; code 7K2M-Q9TX; dancing\n" +
      worker_lines());
  ASSERT_TRUE(report.service);
  EXPECT_EQ(report.service->worker_pid, 7U);
  EXPECT_EQ(report.service->last_exit, "");
  EXPECT_TRUE(report.devices.empty());
  ASSERT_TRUE(report.worker);
  EXPECT_FALSE(report.worker->connected);
}

TEST(StatusText, TheLastExitKeepsItsSemicolons) {
  const HostReport report =
      parse_status("service running; worker PID 7; last exit: killed; session 9; starts 8\n");
  EXPECT_EQ(report.service->last_exit, "killed; session 9; starts 8");
  EXPECT_FALSE(report.service->session);
}

TEST(StatusText, ALineThatWasCutOffIsNotRead) {
  const std::string whole = SERVICE_LINES + worker_lines() +
                            device_row(DESK_KEY, "AAAA-BBBB", "desk") +
                            device_row(PHONE_KEY, "CCCC-DDDD", "phone");
  for (std::size_t cut = 1; cut <= device_row(PHONE_KEY, "CCCC-DDDD", "phone").size(); ++cut) {
    const HostReport report = parse_status(whole.substr(0, whole.size() - cut));
    EXPECT_EQ(report.devices.size(), 1U) << cut;
    EXPECT_EQ(report.cut, cut < device_row(PHONE_KEY, "CCCC-DDDD", "phone").size()) << cut;
  }
  EXPECT_FALSE(parse_status("").cut);
  EXPECT_TRUE(parse_status("worker running; code 7K2M-Q9TX; idle").cut);
}

// The worker drops control characters from names; all that is left to them is their own line.
TEST(StatusText, AHostileNameStaysAName) {
  for (const std::string name : {"worker running; code 0000-0000; connected", "x; device y",
                                 "  two  blanks ", "screen 0; a", "\x1b[2J\x1b]0;title\x07",
                                 "\xC2\x9B"
                                 "31m",
                                 "\xFF\xFE", "\"quoted\" \\ %s %n"}) {
    const HostReport report =
        parse_status(worker_lines() + device_row(DESK_KEY, "AAAA-BBBB", name));
    ASSERT_EQ(report.devices.size(), 1U) << name;
    EXPECT_EQ(report.devices[0].name, name);
    EXPECT_EQ(report.worker->key_code, "7K2M-Q9TX");
    EXPECT_FALSE(report.worker->connected);
    EXPECT_TRUE(report.screens.empty());
  }
}

TEST(StatusText, ADeviceNeedsAWholeKey) {
  for (const std::string& key : {std::string(DESK_KEY).substr(1), std::string(DESK_KEY) + "0",
                                 "x" + std::string(DESK_KEY).substr(1), std::string()}) {
    EXPECT_TRUE(parse_status(device_row(key, "AAAA-BBBB", "desk")).devices.empty()) << key;
  }
}

TEST(StatusText, SettingsThatCouldNotBeStoredAreNone) {
  for (const char* record : {"0 60 20000 1 1 1 1 1400", "9876 60 20000 1 1 1 1",
                             "9876 60 20000 1 1 1 1 1400 0", "9876 60 20000 257 1 1 1 1400",
                             "75412 60 20000 1 1 1 1 1400", "9876  60 20000 1 1 1 1 1400",
                             "9876 60 -1 1 1 1 1 1400", "9876 60 4294967296 1 1 1 1 1400", ""}) {
    EXPECT_FALSE(parse_status("stored " + std::string(record) + "\n").stored) << record;
    EXPECT_FALSE(parse_status("defaults " + std::string(record) + "\n").running) << record;
  }
}

TEST(StatusText, AScreenNeedsNumberAndSize) {
  EXPECT_TRUE(parse_status("screen x; a / b; 1x2\nscreen 1; a / b; 12\nscreen 1\nscreen 1; 1x2\n"
                           "screen 1; a / b; 1x\n")
                  .screens.empty());
  const HostReport report = parse_status("screen 1; a; b / c / d; 1x2\n");
  ASSERT_EQ(report.screens.size(), 1U);
  EXPECT_EQ(report.screens[0].capture, "a; b");
  EXPECT_EQ(report.screens[0].encoder, "c / d");
}

}  // namespace
}  // namespace ctl
