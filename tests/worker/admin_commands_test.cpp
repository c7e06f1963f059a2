// What the service's commands do to a host on a fake computer.
#include "worker/admin_commands.h"

#include <gmock/gmock.h>

#include <new>
#include <stdexcept>

#include "control/keystore_internal.h"
#include "control/settings.h"
#include "tests/support/host_world.h"
#include "tests/support/wiped.h"

using host_app::Result;
using host_app::StatusView;
using host_service::Request;
using host_service::Status;
using host_service::Verb;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char RELAYS[] = "lunderhaze-relays-v1\nlunderhaze-relay://relay.example:9877#the-key\n";

std::vector<unsigned char> bytes_of(const std::string& text) {
  return {text.begin(), text.end()};
}

class AdminCommands : public HostWorld {
 protected:
  Result run(Verb verb, std::vector<unsigned char> payload = {}) {
    stop_ = false;
    return host_app::execute(host(), {verb, std::move(payload)}, &stop_);
  }
  Result run(Verb verb, const std::string& payload) { return run(verb, bytes_of(payload)); }

  Result open_pairing(unsigned char seconds) {
    return run(Verb::PairingOpen, std::vector<unsigned char>{seconds, 0, 0, 0});
  }

  // The machine's store, from here on; every write into it fails.
  void break_machine_store() {
    start_host();
    store().break_machine_store();
  }

  bool stop_ = false;
};

class MachineScope {
 public:
  MachineScope() { keystore::internal::reset_for_test(keystore::Machine, "/nonexistent/store"); }
  ~MachineScope() { keystore::internal::reset_for_test(keystore::User, {}); }
};

#define EXPECT_ANSWER(result, wanted_status, wanted_text) \
  do {                                                    \
    const Result answer_ = (result);                      \
    EXPECT_EQ(answer_.status, Status::wanted_status);     \
    EXPECT_EQ(answer_.text, std::string(wanted_text));    \
  } while (false)

std::string line_of(const std::string& text, std::size_t number) {
  std::size_t at = 0;
  while (number-- > 0) at = text.find('\n', at) + 1;
  return text.substr(at, text.find('\n', at) - at);
}

}  // namespace

// ---- The status text

TEST_F(AdminCommands, AnIdleHostsStatusTellsItsValuesAndDevices) {
  options.port = 9999;
  options.fps = 30;
  options.bitrate_kbps = 1'500;
  options.hevc = false;
  options.audio = false;
  options.virtual_display = "always";
  options.mac_keys = false;
  options.max_datagram = 1'200;
  TestLink laptop = link();
  TestLink tablet = link(TABLET);
  const Result result = run(Verb::Status);
  EXPECT_EQ(result.status, Status::Ok);
  EXPECT_FALSE(stop_);
  std::string laptop_key(2 * LUND_KEY_SIZE + 1, '\0');
  lund_hex_encode(laptop_key.data(), peer::keypair_of(LAPTOP).public_key, LUND_KEY_SIZE);
  laptop_key.pop_back();
  EXPECT_EQ(line_of(result.text, 0), "worker running; code " + host().key_code() + "; idle");
  EXPECT_EQ(line_of(result.text, 1), "defaults 9999 30 1500 2 0 2 0 1200");
  EXPECT_EQ(line_of(result.text, 2), "pairing closed; password unset; lockout inactive");
  EXPECT_EQ(line_of(result.text, 3), "device " + laptop_key + " " + laptop.code() + " Laptop");
  EXPECT_THAT(line_of(result.text, 4), EndsWith(" " + tablet.code() + " Tablet"));
  EXPECT_THAT(result.text, EndsWith("\n"));
}

TEST_F(AdminCommands, TheDefaultsOfTheOptionsReadAsTheDefaultRecord) {
  EXPECT_EQ(line_of(run(Verb::Status).text, 1), "defaults 9876 60 20000 1 1 1 1 1400");
}

TEST_F(AdminCommands, AVirtualDisplayThatIsOffIsZero) {
  options.virtual_display = "off";
  EXPECT_EQ(line_of(run(Verb::Status).text, 1), "defaults 9876 60 20000 1 1 0 1 1400");
}

TEST_F(AdminCommands, AStreamingHostsStatusTellsItsScreens) {
  platform.add_display("DP-2", 1920);
  TestLink main = stream();
  TestLink side = stream(hello_for(1));
  const std::string text = run(Verb::Status).text;
  EXPECT_THAT(line_of(text, 0), EndsWith("; connected"));
  EXPECT_EQ(line_of(text, 3), "screen 0; X11 CPU / libopenh264; 1920x1080");
  EXPECT_EQ(line_of(text, 4), "screen 1; X11 CPU / libopenh264; 1920x1080");
  EXPECT_THAT(line_of(text, 5), StartsWith("device "));
}

TEST_F(AdminCommands, OpenPairingAndAPasswordShowInTheStatus) {
  EXPECT_EQ(open_pairing(60).status, Status::Ok);
  EXPECT_EQ(run(Verb::SetPassword, "correct horse").status, Status::Ok);
  EXPECT_EQ(line_of(run(Verb::Status).text, 2),
            "pairing open; password configured; lockout inactive");
}

TEST(StatusText, ALockoutShows) {
  StatusView view;
  view.password_locked = true;
  EXPECT_THAT(host_app::status_text(view), EndsWith("password unset; lockout active\n"));
}

TEST(StatusText, ADeviceNameWithALineFeedShowsWithoutIt) {
  StatusView view;
  view.devices.push_back({"A\nworker\x7F running\r\x01\xC3\xA4", "CODE", std::string(32, '\x0F')});
  const std::string key = [] {
    std::string hex;
    for (int i = 0; i < 32; ++i) hex += "0f";
    return hex;
  }();
  EXPECT_THAT(host_app::status_text(view),
              EndsWith("\ndevice " + key + " CODE Aworker running\xC3\xA4\n"));
}

TEST(StatusText, ADeviceNameOf200BytesShowsItsFirst128) {
  StatusView view;
  view.devices.push_back({"\n" + std::string(128, 'n') + std::string(72, 'x'), "CODE", "k"});
  EXPECT_THAT(host_app::status_text(view), EndsWith(" CODE " + std::string(128, 'n') + "\n"));
}

TEST(StatusText, NamesOfEncodersAndBackEndsAndTheKeyCodeAreMadeSafeToo) {
  StatusView view;
  view.key_code = "7K2M\n-Q9TX";
  view.devices.push_back({"name", "CO\nDE", "k"});
  ScreenStatus screen;
  screen.backend = "X11\n CPU";
  screen.encoder = "lib\ropenh264";
  screen.width = 640;
  screen.height = 480;
  view.host.screens.push_back(screen);
  const std::string text = host_app::status_text(view);
  EXPECT_EQ(line_of(text, 0), "worker running; code 7K2M-Q9TX; idle");
  EXPECT_EQ(line_of(text, 3), "screen 0; X11 CPU / libopenh264; 640x480");
  EXPECT_EQ(line_of(text, 4), "device 6b CODE name");
}

TEST(StatusText, ItIsCutAt16380BytesAndStillGoesOut) {
  StatusView view;
  for (int i = 0; i < 100; ++i)
    view.devices.push_back({std::string(128, 'n'), "CODE", std::string(32, 'k')});
  const std::string text = host_app::status_text(view);
  EXPECT_EQ(text.size(), 16'380u);
  EXPECT_EQ(host_service::encode_response(Verb::Status, Status::Ok, text).size(), 16'396u);
}

// ---- Pairing, password, devices

TEST_F(AdminCommands, OpeningPairingAnswersWithThePin) {
  const Result result = open_pairing(120);
  EXPECT_EQ(result.status, Status::Ok);
  EXPECT_EQ(result.text.size(), 6u);
  EXPECT_EQ(result.text, host().pairing_status().pin);
  EXPECT_EQ(host().pairing_status().seconds_left, 120u);
}

TEST_F(AdminCommands, ClosingPairingClosesIt) {
  open_pairing(120);
  EXPECT_ANSWER(run(Verb::PairingClose), Ok, "completed");
  EXPECT_EQ(host().pairing_status().open, 0u);
}

TEST_F(AdminCommands, APasswordIsSetAndClearedAgain) {
  EXPECT_ANSWER(run(Verb::SetPassword, "correct horse"), Ok, "completed");
  EXPECT_EQ(host().pairing_status().has_password, 1u);
  EXPECT_NE(keystore::load_password_blob(), "");
  EXPECT_ANSWER(run(Verb::ClearPassword), Ok, "completed");
  EXPECT_EQ(host().pairing_status().has_password, 0u);
  EXPECT_EQ(keystore::load_password_blob(), "");
}

TEST_F(AdminCommands, APasswordThatTheEngineDoesNotTakeFails) {
  host().shutdown();
  EXPECT_ANSWER(run(Verb::SetPassword, "correct horse"), Failed, "password operation failed");
  EXPECT_FALSE(stop_);
}

TEST_F(AdminCommands, ADeviceIsRemovedByItsKey) {
  TestLink laptop = stream();
  EXPECT_ANSWER(run(Verb::RemoveDevice, laptop.key()), Ok, "completed");
  EXPECT_EQ(laptop.receive(LUND_PKT_BYE).size(), 1u);
  EXPECT_EQ(host().paired_devices().size(), 1u);
  EXPECT_ANSWER(run(Verb::RemoveDevice, laptop.key()), Failed, "device not paired");
  EXPECT_FALSE(stop_);
}

// ---- Relays and settings: only stored

TEST_F(AdminCommands, RelaysAreStoredAndTheRunningHostGoesOnAsItWas) {
  EXPECT_ANSWER(run(Verb::SetRelays, RELAYS), Ok, "completed");
  EXPECT_EQ(keystore::load_relays().count, 1);
  EXPECT_STREQ(keystore::load_relays().servers[0].host, "relay.example");
  EXPECT_TRUE(host().relay_states().empty());
}

TEST_F(AdminCommands, RelaysThatDoNotParseAreInvalidAndNothingIsStored) {
  EXPECT_ANSWER(run(Verb::SetRelays, "lunderhaze-relays-v1\nnot a link\n"), Invalid,
                "invalid relay configuration");
  EXPECT_EQ(keystore::load_relays().count, 0);
}

TEST_F(AdminCommands, RelaysThatCannotBeStoredAreAPersistenceFailure) {
  start_host();
  store().break_store();
  EXPECT_ANSWER(run(Verb::SetRelays, RELAYS), Persistence, "relay persistence failed");
}

TEST_F(AdminCommands, SettingsAreStoredAndTheStatusShowsTheRunningOnes) {
  host_service::Settings settings;
  settings.fps = 144;
  EXPECT_ANSWER(run(Verb::SetSettings, host_service::encode_settings(settings)), Ok, "completed");
  EXPECT_EQ(host_app::load_settings().fps, 144);
  EXPECT_EQ(line_of(run(Verb::Status).text, 1), "defaults 9876 60 20000 1 1 1 1 1400");
}

TEST_F(AdminCommands, SettingsThatDoNotDecodeAreInvalid) {
  EXPECT_ANSWER(run(Verb::SetSettings, std::string(16, '\0')), Invalid, "invalid stream settings");
}

TEST_F(AdminCommands, SettingsThatCannotBeStoredAreAPersistenceFailure) {
  start_host();
  store().break_store();
  EXPECT_ANSWER(run(Verb::SetSettings, host_service::encode_settings({})), Persistence,
                "settings persistence failed");
  EXPECT_FALSE(stop_);
}

// ---- The end

TEST_F(AdminCommands, StopStopsAfterItsAnswer) {
  EXPECT_ANSWER(run(Verb::Stop), Ok, "worker stopping");
  EXPECT_TRUE(stop_);
}

TEST_F(AdminCommands, Verb9AndTheWorkersOwnAreDenied) {
  for (const Verb verb : {Verb::Verb9, Verb::Heartbeat, Verb::SecureAttention, Verb{0}}) {
    EXPECT_ANSWER(run(verb), Denied, "command denied");
    EXPECT_FALSE(stop_);
  }
}

TEST_F(AdminCommands, AnUnhealthyStoreAnswersThatInPlaceOfAnyVerb) {
  start_host();
  const MachineScope machine;
  keystore::failHostStore("broken");
  for (const Verb verb : {Verb::Status, Verb::PairingClose, Verb::Verb9}) {
    EXPECT_ANSWER(run(verb), Persistence, "machine persistence failure");
    EXPECT_TRUE(stop_);
  }
  EXPECT_ANSWER(open_pairing(60), Persistence, "machine persistence failure");
  EXPECT_EQ(host().pairing_status().open, 0u);
}

TEST_F(AdminCommands, AStoreThatTurnsUnhealthyDuringSetSettingsIsTheAnswer) {
  break_machine_store();
  EXPECT_ANSWER(run(Verb::SetSettings, host_service::encode_settings({})), Persistence,
                "machine persistence failure");
  EXPECT_TRUE(stop_);
}

TEST_F(AdminCommands, AStoreThatTurnsUnhealthyDuringAVerbThatSucceedsIsTheAnswerToo) {
  break_machine_store();
  EXPECT_ANSWER(run(Verb::SetPassword, "correct horse"), Persistence,
                "machine persistence failure");
  EXPECT_TRUE(stop_);
}

TEST_F(AdminCommands, AnExceptionOutOfAVerbEndsTheWorkerInOrder) {
  host().on_status_change = [] { throw std::runtime_error("trouble"); };
  EXPECT_ANSWER(open_pairing(60), Persistence, "machine state invalid");
  EXPECT_TRUE(stop_);
}

TEST(AdminResult, LeavesNoByteOfAPin) {
  alignas(Result) unsigned char place[sizeof(Result)];
  auto* const result = new (place) Result;
  result->text = "123456";
  ASSERT_TRUE(contains(place, bytes_in("123456").first(6)));
  result->~Result();
  EXPECT_FALSE(contains(place, bytes_in("23456").first(5)));
}
