#include "apps/ctl/commands.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "apps/ctl/words.h"
#include "tests/apps/ctl_support.h"

namespace ctl {
namespace {

using host_service::Status;
using host_service::Verb;
using Json = nlohmann::ordered_json;

Json json_of(const Outcome& outcome) {
  return Json::parse(json_text(outcome));
}

class CtlCommandsTest : public testing::Test {
 protected:
  void asked(const std::vector<Verb>& verbs) { EXPECT_EQ(service_.asked, verbs); }

  ScriptedService service_;
};

TEST_F(CtlCommandsTest, StatusShowsServiceWorkerScreensAndDevices) {
  service_.ok(SERVICE_LINES + worker_lines("connected") +
              "screen 0; X11 CPU / libopenh264; 1920x1080\n" +
              device_row(DESK_KEY, "AAAA-BBBB", "desk"));
  const Outcome outcome = show_status(service_);
  EXPECT_EQ(outcome.exit, Exit::Done);
  EXPECT_EQ(outcome.text,
            "service running; worker PID 4242; session 1; starts 3; last exit: code 3, the desktop "
            "was lost\n"
            "Host 7K2M-Q9TX: a client is connected\n"
            "Settings: port=9876 fps=60 bitrate_kbps=20000 codec=hevc audio=on "
            "virtual_display=auto mac_keys=on max_datagram=1400\n"
            "From the worker's next start: port=9999\n"
            "Pairing: closed; no password\n"
            "Screen 0: X11 CPU, libopenh264, 1920x1080\n"
            "AAAA-BBBB  " +
                std::string(DESK_KEY) + "  \"desk\"\n");
  const Json json = json_of(outcome);
  EXPECT_EQ(json["result"], "done");
  EXPECT_FALSE(json.contains("message"));
  EXPECT_EQ(json["service"]["worker_pid"], 4242);
  EXPECT_EQ(json["service"]["session"], 1);
  EXPECT_EQ(json["service"]["starts"], 3);
  EXPECT_EQ(json["service"]["last_exit"], "code 3, the desktop was lost");
  EXPECT_EQ(json["stored"]["port"], 9999);
  EXPECT_EQ(json["worker"]["key_code"], "7K2M-Q9TX");
  EXPECT_EQ(json["worker"]["connected"], true);
  EXPECT_EQ(json["worker"]["settings"]["port"], 9876);
  EXPECT_EQ(json["worker"]["pairing"].dump(), R"({"open":false,"password":false,"lockout":false})");
  EXPECT_EQ(
      json["worker"]["screens"].dump(),
      R"([{"screen":0,"capture":"X11 CPU","encoder":"libopenh264","width":1920,"height":1080}])");
  EXPECT_EQ(json["worker"]["devices"][0]["key"], DESK_KEY);
  EXPECT_EQ(json["worker"]["devices"][0]["key_code"], "AAAA-BBBB");
  EXPECT_EQ(json["worker"]["devices"][0]["name"], "desk");
  EXPECT_EQ(json["cut"], false);
}

TEST_F(CtlCommandsTest, StatusWithoutAWorkerIsShownAndCountsAsUnavailable) {
  service_.ok(
      "service running; no worker; starts 5; last exit: code 2\n"
      "stored 9876 60 20000 2 1 1 1 1400\n");
  const Outcome outcome = show_status(service_);
  EXPECT_EQ(outcome.exit, Exit::Unavailable);
  EXPECT_EQ(outcome.text,
            "service running; no worker; starts 5; last exit: code 2\n"
            "Stored: port=9876 fps=60 bitrate_kbps=20000 codec=h264 audio=on virtual_display=auto "
            "mac_keys=on max_datagram=1400\n");
  EXPECT_NE(outcome.error.find("the worker is not running"), std::string::npos);
  const Json json = json_of(outcome);
  EXPECT_EQ(json["result"], "unavailable");
  EXPECT_EQ(json["worker"], nullptr);
  EXPECT_EQ(json["service"]["worker_pid"], nullptr);
  EXPECT_EQ(json["stored"]["codec"], "h264");
}

TEST_F(CtlCommandsTest, AWorkerThatDoesNotAnswerIsTold) {
  service_.ok(SERVICE_LINES + "worker: bounded IPC request failed\x1b\n");
  const Outcome outcome = show_status(service_);
  EXPECT_EQ(outcome.exit, Exit::Unavailable);
  EXPECT_TRUE(
      outcome.error.starts_with("the worker does not answer (bounded IPC request failed?): "))
      << outcome.error;
  EXPECT_TRUE(outcome.text.starts_with("service running; worker PID 4242"));
}

TEST_F(CtlCommandsTest, StatusSaysWhenTheAnswerWasCutOff) {
  const std::string row = device_row(DESK_KEY, "AAAA-BBBB", "desk");
  service_.ok(worker_lines() + row + row.substr(0, row.size() - 1));
  const Outcome outcome = show_status(service_);
  EXPECT_TRUE(outcome.text.ends_with("\"desk\"\nThe service's answer was cut off here\n"));
  EXPECT_EQ(json_of(outcome)["cut"], true);
  EXPECT_EQ(json_of(outcome)["service"], nullptr);
}

TEST_F(CtlCommandsTest, NothingThatIsShownHoldsAControlCharacter) {
  const std::string evil =
      "\x1b[2J\xC2\x9B"
      "31m\x9B\x7F\xE2\x80\xAE"
      "gpj.exe";
  service_.ok("service running; worker PID 7; last exit: " + evil + "\nworker running; code " +
              evil + "; idle\nscreen 0; " + evil + " / " + evil + "; 1x2\n" +
              device_row(DESK_KEY, evil, evil));
  const Outcome outcome = show_status(service_);
  for (const std::string& text : {outcome.text, json_text(outcome)}) {
    EXPECT_NE(text.find("?[2J?31m???gpj.exe"), std::string::npos) << text;
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char byte) {
      return byte == '\n' || (byte >= ' ' && byte < 0x7F);
    })) << text;
  }
}

TEST_F(CtlCommandsTest, AnswersAreFilteredToo) {
  service_.answer(Status::Failed, "no\x1b[2J");
  EXPECT_EQ(close_pairing(service_).error, "no?[2J");
  service_.ok("\x1b]0;123456");
  EXPECT_EQ(open_pairing(service_, 120).json["pin"], "?]0;123456");
}

// ---- What is refused, and how it is said

TEST_F(CtlCommandsTest, EachAnswerHasItsExitStatusAndSaysWhatToDo) {
  struct Case {
    Status status;
    const char* text;
    Exit exit;
    const char* advice;
  };
  for (const Case& one : {
           Case{Status::Invalid, "invalid relay configuration", Exit::Invalid, ""},
           Case{Status::Denied, "untrusted service endpoint", Exit::Denied, "told nothing"},
           Case{Status::Denied, "command denied", Exit::Denied, "doesn't allow"},
           Case{Status::Unavailable, "service unavailable or access denied", Exit::Unavailable,
                START_SERVICE},
           Case{Status::Unavailable, "the worker waits", Exit::Unavailable, WORKER_LOG},
           Case{Status::Persistence, "machine persistence failure", Exit::Persistence, "the disk"},
           Case{Status::Failed, "bounded IPC request failed", Exit::Failed, "in time"},
           Case{Status::Failed, "device not paired", Exit::NotFound, ""},
           Case{Status::Failed, "password operation failed", Exit::Failed, ""},
       }) {
    service_.answer(one.status, one.text);
    const Outcome outcome = clear_password(service_);
    EXPECT_EQ(outcome.exit, one.exit) << one.text;
    EXPECT_EQ(outcome.text, "");
    EXPECT_TRUE(outcome.error.starts_with(one.text)) << outcome.error;
    EXPECT_NE(outcome.error.find(one.advice), std::string::npos) << outcome.error;
    EXPECT_EQ(json_of(outcome)["result"], exit_name(one.exit));
    EXPECT_EQ(json_of(outcome)["message"], outcome.error);
  }
}

TEST_F(CtlCommandsTest, ExitStatusesHaveTheirNumbersAndNames) {
  const char* names[] = {"done",        "usage",       "invalid", "denied",
                         "unavailable", "persistence", "failed",  "not-found"};
  for (int i = 0; i < 8; ++i) EXPECT_STREQ(exit_name(static_cast<Exit>(i)), names[i]);
}

// ---- Pairing

TEST_F(CtlCommandsTest, PairAsksForItsTimeAndShowsThePin) {
  service_.ok("012345");
  const Outcome outcome = open_pairing(service_, 300);
  EXPECT_EQ(outcome.text, "PIN 012345, for 300 seconds or one device\n");
  EXPECT_EQ(json_of(outcome).dump(), R"({"result":"done","pin":"012345","seconds":300})");
  asked({Verb::PairingOpen});
  EXPECT_EQ(service_.payloads[0], (std::vector<unsigned char>{0x2C, 0x01, 0, 0}));
}

TEST_F(CtlCommandsTest, PairWithinItsBoundsAlone) {
  for (const std::uint32_t seconds : {0U, 29U, 301U, UINT32_MAX}) {
    const Outcome outcome = open_pairing(service_, seconds);
    EXPECT_EQ(outcome.exit, Exit::Invalid);
    EXPECT_EQ(outcome.error, "pairing is open for 30 to 300 seconds");
  }
  asked({});
  service_.ok("012345");
  EXPECT_TRUE(open_pairing(service_, 30).done());
}

TEST_F(CtlCommandsTest, PairWithoutAPinHasFailed) {
  service_.ok("");
  EXPECT_EQ(open_pairing(service_, 30).exit, Exit::Failed);
}

TEST_F(CtlCommandsTest, OrdersWithoutArguments) {
  service_.ok().ok().ok("worker stopping");
  EXPECT_EQ(close_pairing(service_).text, "Pairing is closed\n");
  EXPECT_EQ(clear_password(service_).text, "There is no pairing password any more\n");
  EXPECT_EQ(stop_service(service_).text, "The worker and the service stop\n");
  asked({Verb::PairingClose, Verb::ClearPassword, Verb::Stop});
}

// ---- Devices

TEST_F(CtlCommandsTest, DevicesAreListed) {
  service_.ok(worker_lines() + device_row(DESK_KEY, "AAAA-BBBB", "desk") +
              device_row(PHONE_KEY, "CCCC-DDDD", ""));
  const Outcome outcome = list_devices(service_);
  EXPECT_EQ(outcome.text, "AAAA-BBBB  " + std::string(DESK_KEY) + "  \"desk\"\nCCCC-DDDD  " +
                              PHONE_KEY + "  \"\"\n");
  EXPECT_EQ(json_of(outcome)["devices"].size(), 2U);
}

TEST_F(CtlCommandsTest, NoDevicesAreAListToo) {
  service_.ok(worker_lines());
  const Outcome outcome = list_devices(service_);
  EXPECT_EQ(outcome.text, "No paired devices\n");
  EXPECT_EQ(json_of(outcome)["devices"].dump(), "[]");
}

TEST_F(CtlCommandsTest, DevicesNeedAWorker) {
  service_.ok(SERVICE_LINES).ok(SERVICE_LINES);
  EXPECT_EQ(list_devices(service_).exit, Exit::Unavailable);
  EXPECT_EQ(remove_device(service_, "desk").exit, Exit::Unavailable);
}

class CtlRemoveDeviceTest : public CtlCommandsTest {
 protected:
  Outcome remove(const std::string& selector) {
    service_.ok(worker_lines() + device_row(DESK_KEY, code_of_hex(DESK_KEY), desk_name_) +
                device_row(PHONE_KEY, code_of_hex(PHONE_KEY), phone_name_));
    return remove_device(service_, selector);
  }
  // The key that was to be removed.
  std::string removed() const {
    if (service_.asked != std::vector{Verb::Status, Verb::RemoveDevice}) return {};
    char hex[2 * LUND_KEY_SIZE + 1];
    lund_hex_encode(hex, service_.payloads[1].data(), service_.payloads[1].size());
    return hex;
  }

  std::string desk_name_ = "desk";
  std::string phone_name_ = "phone";
};

TEST_F(CtlRemoveDeviceTest, ByName) {
  service_.during = [this](const auto& request) {
    if (request.verb == Verb::RemoveDevice) service_.ok();
  };
  const Outcome outcome = remove("phone");
  EXPECT_TRUE(outcome.done());
  EXPECT_EQ(outcome.text,
            "Removed: " + code_of_hex(PHONE_KEY) + "  " + PHONE_KEY + "  \"phone\"\n");
  EXPECT_EQ(json_of(outcome)["removed"]["name"], "phone");
  EXPECT_EQ(removed(), PHONE_KEY);
}

TEST_F(CtlRemoveDeviceTest, ByKeyCodeAsPeopleWriteIt) {
  service_.during = [this](const auto& request) {
    if (request.verb == Verb::RemoveDevice) service_.ok();
  };
  std::string code = code_of_hex(DESK_KEY);
  std::erase(code, '-');
  std::transform(code.begin(), code.end(), code.begin(),
                 [](char c) { return static_cast<char>(std::tolower(c)); });
  EXPECT_TRUE(remove(code).done());
  EXPECT_EQ(removed(), DESK_KEY);
}

TEST_F(CtlRemoveDeviceTest, ByANameAsItIsShown) {
  service_.during = [this](const auto& request) {
    if (request.verb == Verb::RemoveDevice) service_.ok();
  };
  desk_name_ = "de\xC2\x9Bsk";
  EXPECT_TRUE(remove("de?sk").done());
  EXPECT_EQ(removed(), DESK_KEY);
}

TEST_F(CtlRemoveDeviceTest, NoneIsNotFound) {
  const Outcome outcome = remove("tablet\x1b");
  EXPECT_EQ(outcome.exit, Exit::NotFound);
  EXPECT_EQ(outcome.error, "no paired device answers to \"tablet?\"");
  asked({Verb::Status});
}

TEST_F(CtlRemoveDeviceTest, SeveralAreRefusedWithTheList) {
  phone_name_ = "desk";
  const Outcome outcome = remove("desk");
  EXPECT_EQ(outcome.exit, Exit::Invalid);
  EXPECT_NE(outcome.text.find(DESK_KEY), std::string::npos);
  EXPECT_NE(outcome.text.find(PHONE_KEY), std::string::npos);
  EXPECT_EQ(json_of(outcome)["devices"].size(), 2U);
  asked({Verb::Status});
}

// A device calls itself by another's key code, so that the other can't be named by it.
TEST_F(CtlRemoveDeviceTest, ADeviceThatStandsInTheWayIsPassedByTheWholeKey) {
  phone_name_ = code_of_hex(DESK_KEY);
  EXPECT_EQ(remove(phone_name_).exit, Exit::Invalid);
  service_.asked.clear();
  service_.payloads.clear();
  service_.during = [this](const auto& request) {
    if (request.verb == Verb::RemoveDevice) service_.ok();
  };
  EXPECT_TRUE(remove(DESK_KEY).done());
  EXPECT_EQ(removed(), DESK_KEY);
}

TEST_F(CtlRemoveDeviceTest, OneThatWentMeanwhileIsNotFound) {
  service_.during = [this](const auto& request) {
    if (request.verb == Verb::RemoveDevice) service_.answer(Status::Failed, "device not paired");
  };
  EXPECT_EQ(remove("desk").exit, Exit::NotFound);
}

// ---- Settings

TEST_F(CtlCommandsTest, GetShowsWhatIsStoredAndWhatRuns) {
  service_.ok(SERVICE_LINES + worker_lines());
  const Outcome outcome = get_settings(service_, {"fps", "port"});
  EXPECT_EQ(outcome.text, "port=9999\nfps=60\n");
  EXPECT_EQ(
      json_of(outcome).dump(),
      R"({"result":"done","stored":{"port":9999,"fps":60},"running":{"port":9876,"fps":60}})");
}

TEST_F(CtlCommandsTest, GetNeedsNoWorkerButNamesThatExist) {
  EXPECT_EQ(get_settings(service_, {"port", "colour"}).exit, Exit::Invalid);
  asked({});
  service_.ok(SERVICE_LINES);
  const Outcome outcome = get_settings(service_, {});
  EXPECT_TRUE(outcome.text.starts_with("port=9999\nfps=60\n"));
  EXPECT_EQ(json_of(outcome)["running"], nullptr);
  service_.ok(worker_lines());
  EXPECT_EQ(get_settings(service_, {}).exit, Exit::Failed);
}

TEST_F(CtlCommandsTest, SetMergesIntoWhatIsStoredNotIntoWhatRuns) {
  service_.ok(SERVICE_LINES + worker_lines("connected")).ok();
  const Outcome outcome = set_settings(service_, {"fps=30", "codec=h264"}, Apply::AtNextStart);
  EXPECT_TRUE(outcome.done()) << outcome.error;
  host_service::Settings expected;
  expected.port = 9999;
  expected.fps = 30;
  expected.codec = 2;
  asked({Verb::Status, Verb::SetSettings});
  EXPECT_EQ(service_.payloads[1], host_service::encode_settings(expected));
  EXPECT_TRUE(outcome.text.ends_with("Stored: the next start of the worker applies it\n"));
  EXPECT_EQ(json_of(outcome)["stored"]["port"], 9999);
  EXPECT_EQ(json_of(outcome)["stored"]["fps"], 30);
  EXPECT_EQ(json_of(outcome)["restarted"], false);
}

TEST_F(CtlCommandsTest, SetChangesAllOrNothing) {
  const Outcome outcome = set_settings(service_, {"fps=30", "port=0"}, Apply::AtNextStart);
  EXPECT_EQ(outcome.exit, Exit::Invalid);
  EXPECT_EQ(outcome.error, "port must be 1 to 65535, a UDP port; nothing was stored");
  asked({});
}

TEST_F(CtlCommandsTest, SetWithoutAStoredRecordNeedsEverySetting) {
  const std::vector<std::string> all = {"port=1",       "fps=1",           "bitrate_kbps=500",
                                        "codec=h264",   "audio=off",       "virtual_display=off",
                                        "mac_keys=off", "max_datagram=512"};
  service_.ok(worker_lines());
  EXPECT_EQ(set_settings(service_, {all.begin(), all.end() - 1}, Apply::AtNextStart).exit,
            Exit::Failed);
  asked({Verb::Status});
  service_.ok(worker_lines()).ok();
  EXPECT_TRUE(set_settings(service_, all, Apply::AtNextStart).done());
  EXPECT_EQ(service_.asked.back(), Verb::SetSettings);
}

TEST_F(CtlCommandsTest, SetWithRestartIsRefusedBeforehandWhileAClientIsConnected) {
  service_.ok(SERVICE_LINES + worker_lines("connected"));
  const Outcome outcome = set_settings(service_, {"fps=30"}, Apply::Now);
  EXPECT_EQ(outcome.exit, Exit::Failed);
  EXPECT_NE(outcome.error.find("a client is connected: nothing was stored"), std::string::npos);
  asked({Verb::Status});
}

TEST_F(CtlCommandsTest, SetWithRestartRestartsAnIdleWorker) {
  service_.ok(SERVICE_LINES + worker_lines()).ok().ok();
  const Outcome outcome = set_settings(service_, {"fps=30"}, Apply::Now);
  EXPECT_TRUE(outcome.text.ends_with("Stored\nThe worker restarts\n"));
  EXPECT_EQ(json_of(outcome)["restarted"], true);
  asked({Verb::Status, Verb::SetSettings, Verb::Verb9});
}

TEST_F(CtlCommandsTest, SetThatCannotRestartSaysThatItHasStored) {
  service_.ok(SERVICE_LINES + worker_lines()).ok().answer(Status::Failed, "busy");
  const Outcome outcome = set_settings(service_, {"fps=30"}, Apply::Now);
  EXPECT_EQ(outcome.exit, Exit::Failed);
  EXPECT_EQ(outcome.error, "stored, but not applied: busy");
  EXPECT_EQ(json_of(outcome)["restarted"], false);
}

TEST_F(CtlCommandsTest, SetThatTheWorkerCannotSaveIsAPersistenceFailure) {
  service_.ok(SERVICE_LINES + worker_lines())
      .answer(Status::Persistence, "settings persistence failed");
  const Outcome outcome = set_settings(service_, {"fps=30"}, Apply::Now);
  EXPECT_EQ(outcome.exit, Exit::Persistence);
  EXPECT_EQ(outcome.text, "");
  asked({Verb::Status, Verb::SetSettings});
}

// ---- Relay servers

lund_relay_config relays_of(const std::vector<std::string>& links) {
  lund_relay_config relays;
  std::string error;
  EXPECT_TRUE(read_relays(links, &relays, &error)) << error;
  return relays;
}

TEST_F(CtlCommandsTest, RelaysGoToTheWorkerInTheStoredFormAndAreShownWithoutTheirKeys) {
  service_.ok();
  const Outcome outcome = set_relays(
      service_,
      relays_of({"lunderhaze-relay://a.example#topsecret", "lunderhaze-relay://[::1]:7#k"}),
      Apply::AtNextStart);
  EXPECT_EQ(std::string(service_.payloads[0].begin(), service_.payloads[0].end()),
            "lunderhaze-relays-v1\nlunderhaze-relay://a.example:9877#topsecret\n"
            "lunderhaze-relay://[::1]:7#k\n");
  EXPECT_EQ(outcome.text,
            "1  a.example:9877\n2  [::1]:7\nStored: the next start of the worker applies it\n");
  EXPECT_EQ(json_of(outcome)["relays"].dump(), R"(["a.example:9877","[::1]:7"])");
  EXPECT_EQ(json_text(outcome).find("topsecret"), std::string::npos);
}

TEST_F(CtlCommandsTest, NoRelaysAreAListToo) {
  service_.ok();
  EXPECT_EQ(set_relays(service_, lund_relay_config(), Apply::AtNextStart).text,
            "no relay servers\nStored: the next start of the worker applies it\n");
  EXPECT_EQ(std::string(service_.payloads[0].begin(), service_.payloads[0].end()),
            "lunderhaze-relays-v1\n");
}

TEST_F(CtlCommandsTest, TheWorkersAnswerOnRelaysDecides) {
  service_.answer(Status::Invalid, "invalid relay configuration");
  EXPECT_EQ(set_relays(service_, lund_relay_config(), Apply::AtNextStart).exit, Exit::Invalid);
  service_.answer(Status::Persistence, "relay persistence failed");
  EXPECT_EQ(set_relays(service_, lund_relay_config(), Apply::AtNextStart).exit, Exit::Persistence);
}

TEST_F(CtlCommandsTest, RelaysWithRestartAreRefusedBeforehandWhileAClientIsConnected) {
  service_.ok(worker_lines("connected"));
  EXPECT_EQ(set_relays(service_, lund_relay_config(), Apply::Now).exit, Exit::Failed);
  service_.ok(worker_lines()).ok().ok();
  EXPECT_TRUE(set_relays(service_, lund_relay_config(), Apply::Now).done());
  asked({Verb::Status, Verb::Status, Verb::SetRelays, Verb::Verb9});
}

TEST(CtlReadRelays, WhatIsNoLinkIsRefusedWithoutShowingIt) {
  for (const char* bad : {"lunderhaze-relay://a.example", "lunderhaze-rely://a.example#topsecret",
                          "/nonexistent/topsecret"}) {
    lund_relay_config relays;
    std::string error;
    EXPECT_FALSE(read_relays({"lunderhaze-relay://b.example#k", bad}, &relays, &error)) << bad;
    EXPECT_NE(error.find('2'), std::string::npos) << error;
    EXPECT_EQ(error.find("topsecret"), std::string::npos) << error;
  }
}

TEST(CtlReadRelays, MoreThanCanBeListedAreRefused) {
  std::vector<std::string> links;
  for (int i = 0; i <= LUND_RELAYS_MAX; ++i)
    links.push_back("lunderhaze-relay://h" + std::to_string(i) + ".example#k");
  lund_relay_config relays;
  std::string error;
  EXPECT_FALSE(read_relays(links, &relays, &error));
  EXPECT_EQ(error, "8 relay servers are listed already");
  links.pop_back();
  lund_relay_config fits;
  EXPECT_TRUE(read_relays(links, &fits, &error));
  EXPECT_EQ(fits.count, LUND_RELAYS_MAX);
}

// ---- Restart

TEST_F(CtlCommandsTest, RestartIsRefusedWhileAClientIsConnectedUnlessForced) {
  service_.ok(SERVICE_LINES + worker_lines("connected"));
  const Outcome refused = restart_worker(service_, false);
  EXPECT_EQ(refused.exit, Exit::Failed);
  EXPECT_EQ(refused.error, "a client is connected: --force restarts the worker all the same");
  asked({Verb::Status});
  service_.ok();
  EXPECT_EQ(restart_worker(service_, true).text, "The worker restarts\n");
  EXPECT_EQ(service_.asked.back(), Verb::Verb9);
}

TEST_F(CtlCommandsTest, RestartStartsAWorkerThatDoesNotRun) {
  service_.ok(SERVICE_LINES).ok();
  EXPECT_TRUE(restart_worker(service_, false).done());
  asked({Verb::Status, Verb::Verb9});
}

}  // namespace
}  // namespace ctl
