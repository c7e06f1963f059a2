// How a host looks from outside, and who may connect to it.
#include "host/status.h"

#include <gmock/gmock.h>

#include "control/keystore.h"
#include "host/server.h"
#include "tests/support/host_world.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

class HostStatusTest : public HostWorld {
 protected:
  std::string code_of(const std::string& key_of_client) {
    char code[LUND_KEY_CODE_TEXT];
    lund_key_code(code, reinterpret_cast<const std::uint8_t*>(key_of_client.data()));
    return code;
  }
  std::string key_of(std::uint8_t seed) {
    const lund_keypair keys = peer::keypair_of(seed);
    return {keys.public_key, keys.public_key + LUND_KEY_SIZE};
  }
  bool authorize(std::uint8_t seed, const std::string& name) {
    return host().authorize_client(peer::keypair_of(seed).public_key, name);
  }
};

}  // namespace

TEST_F(HostStatusTest, WithoutASessionOnlySetupsAndVirtualDisplaysShow) {
  TestLink laptop = link();
  ASSERT_TRUE(laptop.connect());
  laptop.hello();
  const HostStatus status = host().status();
  EXPECT_FALSE(status.active);
  EXPECT_EQ(status.pending, 1u);
  EXPECT_EQ(status.client_name, "");
  EXPECT_THAT(status.screens, IsEmpty());
  EXPECT_EQ(status.virtual_display_line, "Virtual display: fake");
}

TEST_F(HostStatusTest, ASessionShowsWithAllItsValues) {
  lund_hello hello;
  hello.width = 1280;
  hello.height = 720;
  hello.fps = 30;
  hello.audio = 1;
  TestLink laptop = stream(hello);
  const HostStatus status = host().status();
  EXPECT_TRUE(status.active);
  EXPECT_EQ(status.client_name, "Laptop");
  EXPECT_EQ(status.client_code, laptop.code());
  EXPECT_EQ(status.pending, 0u);
  EXPECT_TRUE(status.audio_allowed);
  EXPECT_TRUE(status.audio_running);
  ASSERT_EQ(status.screens.size(), 1u);
  const ScreenStatus& screen = status.screens[0];
  EXPECT_EQ(screen.screen, 0);
  EXPECT_EQ(screen.session, laptop.id());
  EXPECT_EQ(screen.peer, "192.168.1.20:5000");
  EXPECT_EQ(screen.path, "LAN");
  EXPECT_EQ(screen.device, "DP-1");
  EXPECT_FALSE(screen.is_virtual);
  EXPECT_EQ(screen.width, 1280);
  EXPECT_EQ(screen.height, 720);
  EXPECT_EQ(screen.fps, 30);
  EXPECT_EQ(screen.bitrate_kbps, 20'000);
  EXPECT_EQ(screen.encoder, "libopenh264");
  EXPECT_EQ(screen.backend, "X11 CPU");
}

TEST_F(HostStatusTest, ScreensComeOutSorted) {
  platform.add_display("DP-2", 1920);
  stream(hello_for(1));
  stream(hello_for(0));
  EXPECT_EQ(host().sessions()[0]->setup.screen, 1);
  const HostStatus status = host().status();
  ASSERT_EQ(status.screens.size(), 2u);
  EXPECT_EQ(status.screens[0].screen, 0);
  EXPECT_EQ(status.screens[1].screen, 1);
}

TEST_F(HostStatusTest, ASessionThatTheEngineHasForgottenHasNoAddress) {
  TestLink laptop = stream();
  virtual_time::advance_ms(61'000);  // the engine's own limit; no tick of the host meanwhile
  host().conn_step();
  const HostStatus status = host().status();
  ASSERT_EQ(status.screens.size(), 1u);
  EXPECT_EQ(status.screens[0].peer, "");
  EXPECT_EQ(status.screens[0].path, "");
}

// ---- Devices

TEST_F(HostStatusTest, ADeviceIsConnectedWhileASessionRunsNotWhileASetupDoes) {
  TestLink laptop = link();
  ASSERT_TRUE(laptop.connect());
  laptop.hello();
  const auto connected = [&] {
    std::vector<std::string> names;
    for (const PairedDevice& device : host().paired_devices())
      if (device.connected) names.push_back(device.name);
    return names;
  };
  EXPECT_THAT(connected(), IsEmpty());
  setup();
  EXPECT_THAT(connected(), ElementsAre("Laptop"));
  const std::vector<PairedDevice> devices = host().paired_devices();
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].key, laptop.key());
  EXPECT_EQ(devices[0].code, laptop.code());
  EXPECT_EQ(devices[0].added_at, virtual_time::START_WALL_US / 1'000'000);
  EXPECT_EQ(devices[1].name, "Tablet");
}

TEST_F(HostStatusTest, AKeyOf31BytesRemovesNothing) {
  TestLink laptop = stream();
  EXPECT_FALSE(host().remove_device(laptop.key().substr(0, 31)));
  EXPECT_EQ(host().sessions().size(), 1u);
  EXPECT_EQ(host().paired_devices().size(), 2u);
}

TEST_F(HostStatusTest, ARemovedDeviceLosesItsSessionsWithAByeEach) {
  platform.add_display("DP-2", 1920);
  TestLink main = stream();
  TestLink side = stream(hello_for(1));
  log();
  EXPECT_TRUE(host().remove_device(main.key()));
  EXPECT_EQ(main.receive(LUND_PKT_BYE).size(), 1u);
  EXPECT_EQ(side.receive(LUND_PKT_BYE).size(), 1u);
  const std::vector<std::string> lines = log();
  EXPECT_THAT(
      lines,
      testing::IsSupersetOf(
          {testing::Matcher<std::string>(
               AllOf(StartsWith("screen 1: session "),
                     HasSubstr(" ended (device removed from Paired Devices): "))),
           testing::Matcher<std::string>(AllOf(
               StartsWith("session "), HasSubstr(" ended (device removed from Paired Devices): "))),
           testing::Matcher<std::string>("removed paired device " + main.code())}));
  EXPECT_EQ(keystore::load_clients().count, 1);
  TestLink again = link();
  EXPECT_FALSE(again.connect());
}

TEST_F(HostStatusTest, RemovingAnUnknownDeviceFailsButStillTells) {
  start_host();
  int changes = 0;
  host().on_status_change = [&] { ++changes; };
  EXPECT_FALSE(host().remove_device(key_of(99)));
  EXPECT_EQ(changes, 1);
}

TEST_F(HostStatusTest, ARemovalThatCannotBeSavedStandsInTheUsersScope) {
  start_host();
  store().break_store();
  EXPECT_TRUE(host().remove_device(key_of(TABLET)));
  EXPECT_EQ(host().paired_devices().size(), 1u);
}

TEST_F(HostStatusTest, AnAuthorizedClientMayConnect) {
  start_host();
  log();
  EXPECT_TRUE(authorize(40, "Desk"));
  EXPECT_TRUE(logged("two-way pairing: \"Desk\" (" + code_of(key_of(40)) +
                     ") may now connect to this PC; saved"));
  EXPECT_EQ(keystore::load_clients().count, 3);
  TestLink desk = link(40);
  EXPECT_TRUE(desk.connect());
}

TEST_F(HostStatusTest, TheHostItselfIsNotAuthorized) {
  start_host();
  EXPECT_FALSE(host().authorize_client(host_key, "me"));
  EXPECT_EQ(host().paired_devices().size(), 2u);
}

TEST_F(HostStatusTest, AThirtyThirdClientIsNotAuthorized) {
  start_host();
  for (std::uint8_t seed = 40; seed < 70; ++seed) EXPECT_TRUE(authorize(seed, "x"));
  log();
  EXPECT_FALSE(authorize(70, "One too many"));
  EXPECT_TRUE(logged("two-way pairing: \"One too many\" (" + code_of(key_of(70)) +
                     ") NOT authorized: 32 devices are already paired"));
}

TEST_F(HostStatusTest, AnAuthorizationThatCannotBeSavedIsSaidAndStandsInTheUsersScope) {
  start_host();
  store().break_store();
  EXPECT_TRUE(authorize(40, "Desk"));
  EXPECT_TRUE(logged("two-way pairing: \"Desk\" (" + code_of(key_of(40)) +
                     ") authorization was not saved"));
}

TEST_F(HostStatusTest, OnTheMachineAnAuthorizationThatCannotBeSavedFails) {
  start_host();
  store().break_machine_store();
  EXPECT_FALSE(authorize(40, "Desk"));
  EXPECT_TRUE(logged("two-way pairing: \"Desk\" (" + code_of(key_of(40)) +
                     ") authorization was not saved"));
}

TEST_F(HostStatusTest, OnTheMachineARemovalThatCannotBeSavedFailsWithoutAWord) {
  start_host();
  store().break_machine_store();
  int changes = 0;
  host().on_status_change = [&] { ++changes; };
  log();
  EXPECT_FALSE(host().remove_device(key_of(TABLET)));
  EXPECT_EQ(changes, 0);
  EXPECT_THAT(log(), testing::Not(Contains(HasSubstr("removed paired device"))));
  EXPECT_EQ(host().paired_devices().size(), 1u);  // gone from the engine all the same
}

// ---- Two-way pairing

TEST_F(HostStatusTest, APairBackIsAnsweredWithWhatTheEmbedderSays) {
  start_host();
  TestLink laptop = link();
  ASSERT_TRUE(laptop.connect());
  const peer::bytes offer =
      peer::packet(LUND_PKT_PAIR_BACK, 0, {5, 0, 1, 9, 0, 0, 0, 4, 'D', 'e', 's', 'k'});
  const auto answer = [&] {
    laptop.send(offer);
    const std::vector<peer::bytes> acks = laptop.receive(LUND_PKT_PAIR_BACK_ACK);
    std::uint8_t accepted = 77;
    if (acks.size() == 1) lund_decode_pair_back_ack(acks[0].data(), acks[0].size(), &accepted);
    return int{accepted};
  };
  EXPECT_EQ(answer(), 0);
  host().on_pair_back = [&](const lund_pair_back& back, const lund_session_info& info) {
    EXPECT_EQ(back.back_value, 5);
    EXPECT_EQ(back.back_values[0], 9u);
    EXPECT_STREQ(back.name, "Desk");
    EXPECT_STREQ(info.client_name, "Laptop");
    return 1;
  };
  EXPECT_EQ(answer(), 1);
  host().on_pair_back = [](const lund_pair_back&, const lund_session_info&) { return 256; };
  EXPECT_EQ(answer(), 0);  // its low byte counts
}

TEST_F(HostStatusTest, APairBackThatDoesNotDecodeIsNotAnswered) {
  start_host();
  int asked = 0;
  host().on_pair_back = [&](const lund_pair_back&, const lund_session_info&) { return ++asked; };
  TestLink laptop = connected();
  laptop.send(peer::packet(LUND_PKT_PAIR_BACK, 0, {5, 0, 5, 0}));  // five addresses are too many
  EXPECT_THAT(laptop.receive(LUND_PKT_PAIR_BACK_ACK), IsEmpty());
  EXPECT_EQ(asked, 0);
}

TEST_F(HostStatusTest, APairBackMayBeAnsweredByAuthorizingSomebody) {
  start_host();
  host().on_pair_back = [&](const lund_pair_back&, const lund_session_info&) {
    return authorize(40, "Desk") ? 1 : 0;
  };
  TestLink laptop = connected();
  laptop.send(peer::packet(LUND_PKT_PAIR_BACK, 0, {5, 0, 0, 0}));
  EXPECT_EQ(laptop.receive(LUND_PKT_PAIR_BACK_ACK).size(), 1u);
  EXPECT_EQ(host().paired_devices().back().name, "Desk");
}

TEST_F(HostStatusTest, AnAuthorizationTellsWhateverCameOfIt) {
  start_host();
  int changes = 0;
  host().on_status_change = [&] { ++changes; };
  authorize(40, "Desk");
  EXPECT_EQ(changes, 1);
  for (std::uint8_t seed = 41; seed < 70; ++seed) authorize(seed, "x");
  changes = 0;
  EXPECT_FALSE(authorize(70, "One too many"));
  EXPECT_EQ(changes, 1);
  EXPECT_FALSE(host().authorize_client(host_key, "me"));
  EXPECT_EQ(changes, 1);
}

// ---- Pairing and password

TEST_F(HostStatusTest, PairingOpensAndClosesAndTells) {
  start_host();
  int changes = 0;
  host().on_status_change = [&] { ++changes; };
  host().pairing_open(60);
  EXPECT_EQ(host().pairing_status().open, 1u);
  EXPECT_EQ(host().pairing_status().seconds_left, 60u);
  host().pairing_close();
  EXPECT_EQ(host().pairing_status().open, 0u);
  EXPECT_EQ(changes, 2);
}

TEST_F(HostStatusTest, APasswordIsSetStoredAndCleared) {
  start_host();
  log();
  EXPECT_TRUE(host().set_password("open sesame"));
  EXPECT_THAT(log(), Contains(StartsWith("pairing password set (Argon2id ")));
  EXPECT_EQ(host().pairing_status().has_password, 1u);
  EXPECT_THAT(keystore::load_password_blob(), StartsWith("lunderhaze-pw1 "));
  host().clear_password();
  EXPECT_EQ(host().pairing_status().has_password, 0u);
  EXPECT_EQ(keystore::load_password_blob(), "");
}

TEST_F(HostStatusTest, AnEmptyPasswordIsRefused) {
  start_host();
  EXPECT_FALSE(host().set_password(""));
  EXPECT_TRUE(logged("setting the pairing password failed (out of memory?)"));
  EXPECT_EQ(keystore::load_password_blob(), "");
}

TEST_F(HostStatusTest, APasswordForThisRunIsNotStored) {
  start_host();
  EXPECT_TRUE(host().set_password("4711", HostServer::Keep::ThisRun));
  EXPECT_EQ(host().pairing_status().has_password, 1u);
  EXPECT_EQ(keystore::load_password_blob(), "");
}

TEST_F(HostStatusTest, AStoredPasswordIsThereAtTheNextStart) {
  start_host();
  EXPECT_TRUE(host().set_password("open sesame"));
  drop_host();
  EXPECT_EQ(host().pairing_status().has_password, 1u);
}

TEST_F(HostStatusTest, AfterTheShutdownViewsAreEmptyAndChangesFail) {
  start_host();
  host().shutdown();
  EXPECT_FALSE(host().status().active);
  EXPECT_THAT(host().paired_devices(), IsEmpty());
  EXPECT_EQ(host().pairing_status().open, 0u);
  EXPECT_FALSE(host().remove_device(key_of(LAPTOP)));
  EXPECT_FALSE(authorize(40, "Desk"));
  EXPECT_FALSE(host().set_password("x"));
  host().pairing_open(1);
  host().pairing_close();
}

// ---- The wish for sound

TEST_F(HostStatusTest, AWishBeforeTheFirstSessionIsAppliedWhenScreen0Starts) {
  platform.add_display("DP-2", 1920);
  TestLink side = stream(hello_for(1));
  side.send(peer::packet(LUND_PKT_AUDIO_CONTROL, 0, {1}));
  EXPECT_THAT(platform.audios, IsEmpty());
  stream();
  ASSERT_EQ(platform.audios.size(), 1u);
  EXPECT_TRUE(platform.audios[0]->running);
}

TEST_F(HostStatusTest, AnotherClientsWishIsNotTaken) {
  host().set_audio(key_of(TABLET), true);
  stream();
  EXPECT_FALSE(platform.audios[0]->running);
}

// ---- The clipboard's switch

TEST_F(HostStatusTest, TheClipboardIsSwitchedThroughTheHost) {
  start_host();
  EXPECT_TRUE(host().clipboard_enabled());
  host().set_clipboard_enabled(false);
  EXPECT_FALSE(platform.clipboard->enabled);
  EXPECT_FALSE(host().clipboard_enabled());
}

TEST_F(HostStatusTest, WithoutAClipboardItsSwitchStaysOff) {
  platform.has_clipboard = false;
  host().set_clipboard_enabled(true);
  EXPECT_FALSE(host().clipboard_enabled());
}
