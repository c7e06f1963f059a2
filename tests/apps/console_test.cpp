#include "apps/lunderhaze/console.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr std::uint64_t LEAP_DAY_2024 = 1'709'164'800;  // 2024-02-29 00:00:00 UTC

HostReport idle_report() {
  HostReport report;
  report.key_code = "7K2M-Q9TX";
  report.port = 9876;
  report.internet = {"Internet: no relay servers (LAN / direct only)"};
  report.status.virtual_display_line = "Virtual display: driver not installed";
  return report;
}

lund_pairing_status open_pairing(std::uint32_t seconds_left) {
  lund_pairing_status pairing;
  pairing.open = 1;
  std::strcpy(pairing.pin, "012345");
  std::strcpy(pairing.key_code, "7K2M-Q9TX");
  pairing.seconds_left = seconds_left;
  return pairing;
}

TEST(HostReportText, OfAnIdleHost) {
  EXPECT_EQ(report_text(idle_report()),
            "Host 7K2M-Q9TX on UDP port 9876\n"
            "Pairing: closed; no password\n"
            "Internet: no relay servers (LAN / direct only)\n"
            "Virtual display: driver not installed\n"
            "No client is connected\n"
            "No paired devices\n");
}

TEST(HostReportText, NamesItsPortSoThatItCanBeReadBack) {
  HostReport report = idle_report();
  EXPECT_EQ(reported_port(report_text(report)), 9876);
  report.port = 65'535;
  report.devices = {{"name on UDP port 5", "AAAA-BBBB", "", 0, false}};
  EXPECT_EQ(reported_port(report_text(report)), 65'535);
  for (const char* text : {"", "Host X\n on UDP port 9\n", "Host X on UDP port \n",
                           "Host X on UDP port 65536\n", "Host X on UDP port 0\n"})
    EXPECT_FALSE(reported_port(text)) << text;
}

TEST(HostReportText, OfAStreamingHost) {
  HostReport report = idle_report();
  report.pairing = open_pairing(118);
  report.pairing.has_password = 1;
  report.pairing.password_locked = 1;
  report.internet = {"Internet: reachable by key code (public 1.2.3.4:5)",
                     "Relay one.example:9877: Registered (12 ms)"};
  report.status.active = true;
  report.status.client_name = "tablet";
  report.status.client_code = "AAAA-BBBB";
  report.status.audio_allowed = true;
  ScreenStatus screen;
  screen.peer = "10.0.0.7:4000";
  screen.path = "LAN";
  screen.device = "HDMI-1";
  screen.width = 1920;
  screen.height = 1080;
  screen.fps = 60;
  screen.bitrate_kbps = 20'000;
  screen.encoder = "libopenh264";
  screen.backend = "X11 CPU";
  screen.measured_fps = 59.94;
  screen.measured_mbps = 12.25;
  screen.encode_ms = 3.71;
  screen.client_stats_valid = true;
  screen.rtt_ms = 0.34;
  screen.loss_percent = 0.5;
  screen.decode_ms = 0.61;
  report.status.screens = {screen};
  screen.screen = 1;
  screen.is_virtual = true;
  screen.client_stats_valid = false;
  screen.peer.clear();
  report.status.screens.push_back(screen);
  report.devices = {{"tablet", "AAAA-BBBB", "", LEAP_DAY_2024, true},
                    {"phone", "CCCC-DDDD", "", LEAP_DAY_2024 + 86'400, false}};
  EXPECT_EQ(report_text(report),
            "Host 7K2M-Q9TX on UDP port 9876\n"
            "Pairing: open for 118 s, PIN 012345; password set (locked after wrong guesses)\n"
            "Internet: reachable by key code (public 1.2.3.4:5)\n"
            "Relay one.example:9877: Registered (12 ms)\n"
            "Virtual display: driver not installed\n"
            "Client \"tablet\" (AAAA-BBBB), sound off\n"
            "  Screen 0: HDMI-1, 1920x1080 at 60 fps, 20000 kbit/s, libopenh264, X11 CPU, "
            "LAN 10.0.0.7:4000\n"
            "    59.9 fps, 12.25 Mbit/s, encode 3.7 ms, rtt 0.3 ms, loss 0.5 %, decode 0.6 ms\n"
            "  Screen 1: HDMI-1 (virtual), 1920x1080 at 60 fps, 20000 kbit/s, libopenh264, "
            "X11 CPU\n"
            "    59.9 fps, 12.25 Mbit/s, encode 3.7 ms\n"
            "Paired devices:\n"
            "  \"tablet\" (AAAA-BBBB), added 2024-02-29, connected\n"
            "  \"phone\" (CCCC-DDDD), added 2024-03-01\n");
}

TEST(HostReportText, TellsOfTheSpeakersWhereThereIsSomethingToTell) {
  HostReport report = idle_report();
  report.speakers = "This PC's speakers: unmuted by you";
  EXPECT_NE(report_text(report).find("No client is connected\nThis PC's speakers: unmuted by you\n"
                                     "No paired devices\n"),
            std::string::npos);
}

TEST(SwitchLines, SayHowASwitchStands) {
  EXPECT_EQ(mute_line(true), "This computer's speakers are muted while a client streams");
  EXPECT_EQ(mute_line(false), "This computer's speakers stay on while a client streams");
  EXPECT_EQ(clipboard_line(true), "The clipboard is shared with clients");
  EXPECT_EQ(clipboard_line(false), "The clipboard is not shared with clients");
}

TEST(HostReportText, AClientOnItsWayInIsNotNobody) {
  HostReport report = idle_report();
  report.status.pending = 1;
  EXPECT_NE(report_text(report).find("A client is connecting\n"), std::string::npos);
}

TEST(StoredText, SaysWhatThereIsWithoutAHost) {
  EXPECT_EQ(stored_text({}),
            "No identity yet: the first start makes one\n"
            "No pairing password\n"
            "No relay servers\n"
            "No paired devices\n");
  StoredHost stored;
  stored.key_code = "7K2M-Q9TX";
  stored.has_password = true;
  stored.relays = {"one.example:9877"};
  stored.devices = {{"phone", "CCCC-DDDD", "", 0, false}};
  EXPECT_EQ(stored_text(stored),
            "Host 7K2M-Q9TX\n"
            "Pairing password set\n"
            "Relay one.example:9877\n"
            "Paired devices:\n"
            "  \"phone\" (CCCC-DDDD), added 1970-01-01\n");
}

TEST(PairingLine, ShowsCodeAndPinWhileTheWindowIsOpen) {
  EXPECT_EQ(pairing_line(open_pairing(0)), "To pair a device: key code 7K2M-Q9TX, PIN 012345");
  EXPECT_EQ(pairing_line(open_pairing(120)),
            "To pair a device: key code 7K2M-Q9TX, PIN 012345, open for 120 s");
  EXPECT_EQ(pairing_line({}), "Pairing is closed");
}

TEST(ListeningLine, NamesTheKeysWhereThereAreSome) {
  EXPECT_EQ(listening_line("7K2M-Q9TX", 9876, false),
            "Listening on UDP port 9876, key code 7K2M-Q9TX. Ctrl+C stops.");
  EXPECT_EQ(listening_line("7K2M-Q9TX", 9876, true),
            "Listening on UDP port 9876, key code 7K2M-Q9TX. Keys: p pairs a device, s status, "
            "h help, q or Ctrl+C stops.");
}

TEST(PairBackQuestion, NamesWhoOffersAndWhere) {
  EXPECT_EQ(pair_back_question("desk", "7K2M-Q9TX", "10.0.0.1:9876"),
            "\"desk\" (7K2M-Q9TX) at 10.0.0.1:9876 offers to be reached from this computer: "
            "accept? [y/N]");
  EXPECT_EQ(pair_back_question("desk", "7K2M-Q9TX", ""),
            "\"desk\" (7K2M-Q9TX) at no LAN address offers to be reached from this computer: "
            "accept? [y/N]");
}

}  // namespace
