// What the doctor says of what it was given: each state of each check has its verdict, its words
// and what to do.
#include "apps/lunderhaze/doctor_checks.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "connection/resolver.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

void expect(const Finding& finding, const char* check, Verdict verdict, const std::string& text,
            const std::string& advice = "") {
  EXPECT_EQ(finding.check, check);
  EXPECT_EQ(finding.verdict, verdict) << finding.text;
  EXPECT_EQ(finding.text, text);
  EXPECT_EQ(finding.advice, advice);
}

// ---- The desktop

DisplayInfo monitor(const std::string& device, int width, int height, bool primary) {
  DisplayInfo display;
  display.device = device;
  display.width = width;
  display.height = height;
  display.primary = primary;
  return display;
}

TEST(DoctorDisplay, NamesServerAndMonitorsWithTheirSizes) {
  DisplayFacts facts;
  facts.server = "the X server :0";
  facts.displays = {monitor("eDP-1", 1920, 1080, true)};
  expect(check_display(facts), "display", Verdict::Ok,
         "the X server :0, 1 monitor: eDP-1 1920x1080 (primary)");
  facts.displays.push_back(monitor("HDMI-1", 2560, 1440, false));
  expect(check_display(facts), "display", Verdict::Ok,
         "the X server :0, 2 monitors: eDP-1 1920x1080 (primary), HDMI-1 2560x1440");
}

TEST(DoctorDisplay, AnObstacleIsAProblemWithItsAdvice) {
  DisplayFacts facts;
  facts.server = "the X server :3";
  facts.obstacle = "cannot connect to the X display :3";
  facts.advice = "see to it";
  expect(check_display(facts), "display", Verdict::Problem, "cannot connect to the X display :3",
         "see to it");
}

TEST(DoctorDisplay, MonitorsThatVanishMeanwhileAreAProblem) {
  DisplayFacts facts;
  facts.server = "the X server :0";
  expect(check_display(facts), "display", Verdict::Problem, "the X server :0 has no monitor",
         "switch a monitor on");
}

CaptureFacts picture_of(std::uint64_t coloured_pixels) {
  CaptureFacts facts;
  facts.device = "eDP-1";
  facts.backend = "X11 CPU";
  facts.width = 100;
  facts.height = 10;
  facts.time_us = 3'140;
  facts.coloured_pixels = coloured_pixels;
  return facts;
}

TEST(DoctorCapture, SaysWhatWasSeen) {
  expect(check_capture(picture_of(1000)), "capture", Verdict::Ok,
         "X11 CPU took a picture of eDP-1, 100x10, in 3.1 ms; 100 % of it isn't black");
  expect(check_capture(picture_of(129)), "capture", Verdict::Ok,
         "X11 CPU took a picture of eDP-1, 100x10, in 3.1 ms; 12 % of it isn't black");
}

TEST(DoctorCapture, ASinglePixelIsEnoughForNotBlack) {
  EXPECT_THAT(check_capture(picture_of(1)).text, HasSubstr("; 1 % of it isn't black"));
  EXPECT_EQ(check_capture(picture_of(1)).verdict, Verdict::Ok);
}

TEST(DoctorCapture, ABlackPictureIsAWarningSinceItMayBeRight) {
  expect(check_capture(picture_of(0)), "capture", Verdict::Warning,
         "X11 CPU took a picture of eDP-1, 100x10, in 3.1 ms, and all of it is black",
         "right if the screen is empty or switched off; otherwise what it shows is kept from "
         "being captured, by the graphics driver or a screen lock");
}

TEST(DoctorCapture, NoPictureIsAProblem) {
  CaptureFacts facts = picture_of(0);
  facts.failure = "no picture came";
  expect(check_capture(facts), "capture", Verdict::Problem,
         "no picture of eDP-1 could be taken: no picture came",
         "the log of a host that is started with --console says more");
}

TEST(DoctorGraphics, NamesTheCardsEncoderOrWarnsThatTheProcessorServes) {
  expect(check_graphics({"\\\\.\\DISPLAY1", "hevc_nvenc", true}), "graphics", Verdict::Ok,
         "the graphics card captures \\\\.\\DISPLAY1 and encodes it by hevc_nvenc (HEVC)");
  expect(
      check_graphics({"\\\\.\\DISPLAY1", "", false}), "graphics", Verdict::Warning,
      "the graphics card doesn't capture and encode \\\\.\\DISPLAY1: the processor does both, and "
      "needs longer for it",
      "install the driver of the card's maker, and see that these FFmpeg DLLs have an encoder for "
      "that card; the log of a host that is started with --console says which were tried");
}

TEST(DoctorEncoder, HoweverSlowIsWellWhereTheGraphicsCardsIsUsed) {
  expect(
      check_encoder({"libopenh264", false, 90'000, 50'000, true}), "encoder", Verdict::Ok,
      "libopenh264 (H.264) takes 90.0 ms for a frame of 1920x1080, where the graphics card can't "
      "be used");
}

TEST(DoctorEncoder, NamesItAndItsTime) {
  expect(check_encoder({"libopenh264", false, 7'890, 7'000}), "encoder", Verdict::Ok,
         "libopenh264 (H.264) takes 7.9 ms for a frame of 1920x1080");
  expect(check_encoder({"hevc_nvenc", true, 1'000, 900}), "encoder", Verdict::Ok,
         "hevc_nvenc (HEVC) takes 1.0 ms for a frame of 1920x1080");
}

TEST(DoctorEncoder, IsSlowBelow30FramesASecondByItsBestFrame) {
  EXPECT_EQ(check_encoder({"x", false, 90'000, 33'333}).verdict, Verdict::Ok);
  expect(check_encoder({"x", false, 90'000, 50'000}), "encoder", Verdict::Warning,
         "x (H.264) takes 90.0 ms for a frame of 1920x1080, so at most 20 of them a second",
         "stream less: --fps on the host, or a smaller picture at the client");
  EXPECT_EQ(check_encoder({"x", false, 90'000, 33'334}).verdict, Verdict::Warning);
}

TEST(DoctorEncoder, NoneIsAProblem) {
  expect(check_encoder({}), "encoder", Verdict::Problem, "no video encoder works on this computer",
         "install this program again: it comes with one that needs no hardware");
}

TEST(DoctorInput, WorksOrDoesNot) {
  expect(check_input({true, "XTest", "the X server lacks XTEST"}), "input", Verdict::Ok,
         "keyboard and mouse can be played (XTest)");
  expect(check_input({false, "XTest", "the X server lacks XTEST"}), "input", Verdict::Problem,
         "keyboard and mouse can't be played (XTest)", "the usual cause: the X server lacks XTEST");
}

TEST(DoctorClipboard, EveryState) {
  expect(check_clipboard({false, false, true}), "clipboard", Verdict::Warning,
         "there is no clipboard here that could be shared with clients");
  expect(check_clipboard({true, true, true}), "clipboard", Verdict::Ok,
         "can be read, and is shared with clients");
  expect(check_clipboard({true, false, true}), "clipboard", Verdict::Warning,
         "the program that has what was copied last doesn't give it out",
         "copy something in another program");
  for (const bool answers : {true, false})
    expect(check_clipboard({true, answers, false}), "clipboard", Verdict::Ok,
           "not shared with clients, as it was chosen (lunderhaze clipboard on)");
}

// ---- Sound

SoundFacts good_sound() {
  SoundFacts facts;
  facts.output = "out";
  facts.facility = "PulseAudio";
  facts.delivers = true;
  return facts;
}

TEST(DoctorSound, SaysWhetherTheSpeakersCanBeMuted) {
  SoundFacts facts = good_sound();
  expect(check_sound(facts), "sound", Verdict::Ok,
         "what out plays can be recorded; the speakers stay on while a client streams: muting them "
         "would silence the recording with this sound server");
  facts.can_be_muted = true;
  expect(check_sound(facts), "sound", Verdict::Ok,
         "what out plays can be recorded; the speakers can be muted while a client streams");
  facts.muted = true;  // the user's own choice, which the recording outlives
  EXPECT_EQ(check_sound(facts).verdict, Verdict::Ok);
}

TEST(DoctorSound, AMuteThatSilencesTheRecordingIsAWarning) {
  SoundFacts facts = good_sound();
  facts.muted = true;
  expect(check_sound(facts), "sound", Verdict::Warning,
         "out is muted, which silences its recording here: clients hear nothing", "unmute it");
}

TEST(DoctorSound, WithoutAServerClientsHearNothing) {
  SoundFacts facts;
  facts.unreachable = "cannot reach the sound server";
  facts.advice = "start it";
  expect(check_sound(facts), "sound", Verdict::Warning,
         "cannot reach the sound server: clients hear nothing", "start it");
}

TEST(DoctorSound, WithoutAnOutputClientsHearNothing) {
  SoundFacts facts = good_sound();
  facts.output.clear();
  expect(check_sound(facts), "sound", Verdict::Warning,
         "there is no sound output that could be recorded: clients hear nothing",
         "choose an output in the desktop's sound settings");
}

TEST(DoctorSound, ARecordingThatFailsOrStaysEmptyIsAWarning) {
  SoundFacts facts = good_sound();
  facts.delivers = false;
  expect(check_sound(facts), "sound", Verdict::Warning,
         "no sound came from the recording of out: clients hear nothing",
         "restart the sound server, or choose another output");
  facts.error = 5;
  expect(check_sound(facts), "sound", Verdict::Warning,
         "what out plays can't be recorded (PulseAudio error 5): clients hear nothing",
         "choose another output in the desktop's sound settings");
}

// ---- The network

TEST(DoctorPort, FreeOrTheRunningHosts) {
  PortFacts facts;
  facts.port = 9876;
  expect(check_port(facts), "port", Verdict::Ok, "UDP port 9876 is free");
  facts.host_port = 9876;
  expect(check_port(facts), "port", Verdict::Ok, "UDP port 9876 is this user's running host's");
  facts.host_port = 5000;
  expect(check_port(facts), "port", Verdict::Ok, "UDP port 9876 is free");
}

TEST(DoctorPort, ATakenOneNamesWhoHasItAsFarAsItCanBeTold) {
  constexpr const char* ADVICE =
      "end that program, or start the host with --port and another number";
  PortFacts facts;
  facts.port = 9876;
  facts.failure = "bind failed (errno 98)";
  facts.holder = PortHolder{123, "other", "joe"};
  expect(check_port(facts), "port", Verdict::Problem,
         "UDP port 9876 is taken by other (process 123) of user joe", ADVICE);
  facts.holder = PortHolder{0, "", "root"};
  expect(check_port(facts), "port", Verdict::Problem,
         "UDP port 9876 is taken by another program of user root", ADVICE);
  facts.host_port = 5000;  // a host of this user's on another port changes nothing
  EXPECT_EQ(check_port(facts).verdict, Verdict::Problem);
}

TEST(DoctorPort, OneThatNobodyHasAndThatCannotBeOpenedIsAProblem) {
  PortFacts facts;
  facts.port = 80;
  facts.failure = "bind failed (errno 13)";
  expect(check_port(facts), "port", Verdict::Problem,
         "UDP port 80 can't be opened: bind failed (errno 13)",
         "start the host with --port and another number, from 1024 up");
}

TEST(DoctorPort, AHostThatDoesNotAnswerIsAProblem) {
  PortFacts facts;
  facts.port = 9876;
  facts.silent_host = true;
  expect(check_port(facts), "port", Verdict::Problem,
         "a host runs on this user's store and doesn't answer", "end it and start it again");
}

TEST(DoctorFirewall, EveryState) {
  using State = FirewallStatus::State;
  expect(check_firewall({State::None, "none is installed"}), "firewall", Verdict::Ok,
         "none is installed: none that is known here holds clients off");
  expect(check_firewall({State::Open, "it lets them in"}), "firewall", Verdict::Ok,
         "it lets them in");
  expect(check_firewall({State::Closed, "it doesn't"}), "firewall", Verdict::Problem, "it doesn't",
         "lunderhaze firewall on lets clients on private networks in");
  expect(check_firewall({State::Unknown, "it can't be told"}), "firewall", Verdict::Warning,
         "it can't be told");
}

TEST(DoctorRelays, EachHasALineAndNoneIsFine) {
  const Findings findings =
      check_relay_servers({{"one.example:9877", {LUND_RELAY_REACHABLE, 12'300}},
                           {"two.example:9877", {LUND_RELAY_NO_ANSWER, 0}},
                           {"three.example:9877", {LUND_RELAY_NO_NAME, 0}}});
  ASSERT_EQ(findings.size(), 3U);
  expect(findings[0], "relays", Verdict::Ok, "one.example:9877: reachable (12.3 ms)");
  expect(findings[1], "relays", Verdict::Problem,
         "two.example:9877: no answer: offline, blocked, or wrong secret",
         "see that it runs and that its link holds the right key, or take it off the list: "
         "lunderhaze relays remove two.example:9877");
  EXPECT_EQ(findings[2].text, "three.example:9877: name not found");
  EXPECT_EQ(findings[2].verdict, Verdict::Problem);
  ASSERT_EQ(check_relay_servers({}).size(), 1U);
  EXPECT_EQ(check_relay_servers({})[0].verdict, Verdict::Ok);
}

// ---- The store

using State = keystore::StoredFile::State;
using Directory = StoreFacts::Directory;

const StoreAdvice ADVICE = {"get one", "close it", "put back a copy"};

StoreFacts whole_store() {
  StoreFacts facts;
  facts.advice = ADVICE;
  facts.path = "/home/x/store";
  facts.directory = Directory::Exists;
  facts.writable = true;
  facts.room_bytes = 12'345'000'000;
  facts.files = {{"identity", State::Whole},
                 {"authorized_clients", State::Whole},
                 {"pairing_password", State::Missing}};
  return facts;
}

Finding only(const StoreFacts& facts) {
  const Findings findings = check_store(facts);
  EXPECT_EQ(findings.size(), 1U);
  return findings.empty() ? Finding() : findings[0];
}

TEST(DoctorStore, AWholeOneSaysWhatItHolds) {
  StoreFacts facts = whole_store();
  expect(only(facts), "store", Verdict::Ok,
         "/home/x/store is whole: identity, authorized_clients; 12.3 GB left");
  facts.files.clear();
  facts.room_bytes.reset();
  expect(only(facts), "store", Verdict::Ok, "/home/x/store is whole");
}

TEST(DoctorStore, AMissingOneIsMadeByTheFirstStartIfItCanBe) {
  StoreFacts facts;
  facts.path = "/home/x/store";
  facts.directory = Directory::Missing;
  facts.writable = true;
  expect(only(facts), "store", Verdict::Ok, "none yet: the first start makes /home/x/store");
  facts.writable = false;
  expect(only(facts), "store", Verdict::Problem,
         "/home/x/store can't be made: nothing that changes would be kept",
         "see whose it is, its permissions, and whether its disk is mounted read-only");
}

TEST(DoctorStore, WithoutAPlaceForOneNothingIsKept) {
  StoreFacts facts;
  facts.advice = ADVICE;
  expect(only(facts), "store", Verdict::Problem,
         "this user has no home directory: nothing that changes would be kept", "get one");
  facts.path = "/home/x/store";
  facts.directory = Directory::NoDirectory;
  expect(only(facts), "store", Verdict::Problem,
         "/home/x/store is no directory: nothing that changes would be kept",
         "move it out of the way");
}

TEST(DoctorStore, OneThatCannotBeWrittenOrIsForeignOrExposedIsAProblem) {
  StoreFacts facts = whole_store();
  facts.writable = false;
  expect(only(facts), "store", Verdict::Problem,
         "/home/x/store can't be written: nothing that changes would be kept",
         "see whose it is, its permissions, and whether its disk is mounted read-only");
  facts = whole_store();
  facts.foreign = true;
  expect(only(facts), "store", Verdict::Problem, "/home/x/store belongs to another user",
         "start the host as the user whose store it is");
  facts = whole_store();
  facts.exposed = {"identity", "the directory"};
  expect(only(facts), "store", Verdict::Problem,
         "others than its owner can get at identity, the directory in /home/x/store", "close it");
}

TEST(DoctorStore, EachDamagedFileSaysWhatItCosts) {
  StoreFacts facts = whole_store();
  facts.files = {{"identity", State::Unreadable},
                 {"authorized_clients", State::Malformed},
                 {"pairing_password", State::Unreadable},
                 {"relays", State::Malformed}};
  const Findings findings = check_store(facts);
  ASSERT_EQ(findings.size(), 4U);
  expect(findings[0], "store", Verdict::Problem,
         "identity is damaged, or another computer's or user's: the next start makes a new one, "
         "and no paired device knows this computer then",
         "put back a copy");
  expect(findings[1], "store", Verdict::Problem,
         "authorized_clients is damaged, or another computer's or user's: no paired device may "
         "connect",
         "pair the devices again");
  expect(findings[2], "store", Verdict::Problem,
         "pairing_password is damaged, or another computer's or user's: nobody can pair by "
         "password",
         "set the pairing password again");
  expect(findings[3], "store", Verdict::Problem,
         "relays is damaged, or another computer's or user's: no relay server is used",
         "add them again: lunderhaze relays add");
}

TEST(DoctorStore, LittleRoomIsAWarningAndNoneAProblem) {
  const auto with_room = [](std::uint64_t bytes) {
    StoreFacts facts = whole_store();
    facts.room_bytes = bytes;
    return only(facts);
  };
  EXPECT_EQ(with_room(32 << 20).verdict, Verdict::Ok);
  expect(with_room((32 << 20) - 1), "store", Verdict::Warning,
         "the disk of /home/x/store has 33.6 MB left",
         "make room: what changes can't be kept otherwise");
  EXPECT_EQ(with_room(1 << 20).verdict, Verdict::Warning);
  EXPECT_EQ(with_room((1 << 20) - 1).verdict, Verdict::Problem);
  EXPECT_THAT(with_room(0).text, HasSubstr("has 0.0 MB left"));
}

TEST(DoctorStore, SeveralFaultsAreSeveralLines) {
  StoreFacts facts = whole_store();
  facts.writable = false;
  facts.room_bytes = 0;
  facts.files[0].state = State::Unreadable;
  EXPECT_EQ(check_store(facts).size(), 3U);
}

// ---- Checks without a result, and the report

TEST(DoctorReport, WhatWasNotTriedAndWhatHangs) {
  expect(not_tried("capture", "there is no display"), "capture", Verdict::Warning,
         "not tried: there is no display");
  expect(no_result("sound", "the sound server", 9), "sound", Verdict::Problem,
         "no result after 9 s: the sound server doesn't answer",
         "see what holds it up, or restart it");
}

TEST(DoctorReport, ALineForEachFindingItsAdviceBelowAndACountAtTheEnd) {
  const Findings findings{{"display", Verdict::Ok, "fine", ""},
                          {"clipboard", Verdict::Warning, "odd", "look"},
                          {"port", Verdict::Problem, "taken", "go"}};
  EXPECT_EQ(findings_text(findings),
            "ok       display    fine\n"
            "warning  clipboard  odd\n"
            "                    -> look\n"
            "problem  port       taken\n"
            "                    -> go\n"
            "1 problem, 1 warning\n");
  EXPECT_EQ(findings_text({}), "0 problems, 0 warnings\n");
}

TEST(DoctorReport, OnlyAProblemCountsAsOne) {
  EXPECT_FALSE(has_problem({{"a", Verdict::Ok, "", ""}, {"b", Verdict::Warning, "", ""}}));
  EXPECT_TRUE(has_problem({{"a", Verdict::Ok, "", ""}, {"b", Verdict::Problem, "", ""}}));
}

TEST(DoctorReport, AsJsonItSaysTheSame) {
  const auto json = nlohmann::json::parse(findings_json(
      {{"display", Verdict::Ok, "fine \"\xFF\"", ""}, {"port", Verdict::Problem, "taken", "go"}},
      9876));
  EXPECT_EQ(json["port"], 9876);
  EXPECT_EQ(json["problems"], 1);
  EXPECT_EQ(json["warnings"], 0);
  ASSERT_EQ(json["checks"].size(), 2U);
  EXPECT_EQ(json["checks"][0]["verdict"], "ok");
  EXPECT_EQ(json["checks"][0]["text"], "fine \"\xEF\xBF\xBD\"");
  EXPECT_FALSE(json["checks"][0].contains("advice"));
  EXPECT_EQ(json["checks"][1]["check"], "port");
  EXPECT_EQ(json["checks"][1]["verdict"], "problem");
  EXPECT_EQ(json["checks"][1]["advice"], "go");
}

}  // namespace
