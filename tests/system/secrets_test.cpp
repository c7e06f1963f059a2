// What the service and its worker keep in memory of the secrets that they are given or make: a copy
// where the engine needs it, and nothing anywhere else. And that none of them gets into a log, onto
// a command line or into an environment.
#include <gmock/gmock.h>
#include <monocypher.h>

#include "connection/conn_host_internal.h"
#include "connection/rendezvous.h"
#include "control/store_platform.h"
#include "tests/support/temp_directory.h"
#include "tests/system/secrets_support.h"
#include "tests/system/service_support.h"

namespace system_test {
namespace {

using host_service::Verb;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr char STORE[] = "/var/lib/lunderhaze/host";
constexpr char PASSWORD[] = "wKx7-Rv2q-pZ9t-Lm4c-Hs8b-Ny3f-Jd6g-Tq5e";
// In the store's text of it each "/" is "%2F".
constexpr char RELAY_KEY[] = "Qd8mWz3k/Xc5nVb7j/Rf2sPg9t/Hy4wKl6d/Tu1eBq0a";
constexpr char RELAY_KEY_STORED[] = "Qd8mWz3k%2FXc5nVb7j%2FRf2sPg9t%2FHy4wKl6d%2FTu1eBq0a";
// What a service that runs has in memory of its own, as the text for its status.
constexpr char SERVICES_OWN[] = "/run/lunderhaze/host-worker-v1-";
// A name that never has an address: no server is asked for anything while memory is looked at.
const std::string RELAYS =
    "lunderhaze-relays-v1\nlunderhaze-relay://relay.invalid#" + std::string(RELAY_KEY) + "\n";

const Member KEYPAIR = member_of<lund_host>([](auto& host) -> auto& { return host.base.keypair; });
const Member PIN_KEYPAIR =
    member_of<lund_host>([](auto& host) -> auto& { return host.pairing.pin_pair.keypair; });
const Member PASSWORD_KEYPAIR =
    member_of<lund_host>([](auto& host) -> auto& { return host.pairing.password_pair.keypair; });
const Member PIN = member_of<lund_host>([](auto& host) -> auto& { return host.pairing.pin; });
const Member PIN_SECRET =
    member_of<lund_host>([](auto& host) -> auto& { return host.pairing.pin_pair.secret; });
const Member VERIFIER =
    member_of<lund_host>([](auto& host) -> auto& { return host.pairing.pw_verifier; });
const Member PASSWORD_SECRET =
    member_of<lund_host>([](auto& host) -> auto& { return host.pairing.password_pair.secret; });
const Member NET_KEY =
    member_of<lund_host>([](auto& host) -> auto& { return host.base.servers[0].net_key; });

class SecretsTest : public ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    if (!not_searched().empty()) GTEST_SKIP() << not_searched();
  }

  // ---- What the store holds, by which the rest is known

  std::string opened(const std::string& name) const {
    std::string sealed, text;
    lab_->call([&] {
      const fs::path directory = STORE;
      store_platform::read_file(directory / name, 65'536, &sealed);
      EXPECT_TRUE(store_platform::unprotect(keystore::Machine, directory, name, sealed, &text))
          << name;
    });
    return text;
  }
  void learn_identity() {
    const std::string text = opened("identity");
    ASSERT_EQ(lund_identity_load(&identity_, text.c_str()), 0);
    secrets_["the identity"] = {text_of(identity_.secret), 8, {KEYPAIR, PIN_KEYPAIR}};
    secrets_["the identity's text"] = {text, HEX_PIECE};
  }
  // As the store's own files say: 32 bytes behind a head, and the key that is derived from them.
  void learn_store_key() {
    const std::string file = file_content(lab_->path(STORE) / "store.key");
    ASSERT_EQ(file.size(), 16u + 1 + 32);
    const std::string key = file.substr(17);
    std::string machine_id = file[16] != 0 ? file_content("/etc/machine-id") : "";
    while (!machine_id.empty() && machine_id.back() == '\n') machine_id.pop_back();
    const std::string derived_from = "lunderhaze store secret" + file.substr(16, 1) + machine_id;
    std::uint8_t derived[32];
    crypto_blake2b_keyed(derived, sizeof derived, bytes_of_text(key).data(), key.size(),
                         bytes_of_text(derived_from).data(), derived_from.size());
    // It is the one: it opens what the store has sealed.
    const std::string sealed = file_content(lab_->path(STORE) / "identity");
    constexpr std::size_t MAGIC = 8, NONCE = 24, TAG = 16, HEAD = MAGIC + NONCE + TAG;
    const std::string ad = "LHSTORE1identity";
    std::string text(sealed.size() - HEAD, '\0');
    const std::uint8_t* const bytes = bytes_of_text(sealed).data();
    EXPECT_EQ(crypto_aead_unlock(reinterpret_cast<std::uint8_t*>(text.data()),
                                 bytes + MAGIC + NONCE, derived, bytes + MAGIC,
                                 bytes_of_text(ad).data(), ad.size(), bytes + HEAD, text.size()),
              0);
    secrets_["the store's key"] = {key};
    secrets_["the store's derived key"] = {text_of(derived)};
  }
  void learn_verifier() {
    const std::string blob = opened("pairing_password");
    lund_password_record record;
    ASSERT_EQ(lund_password_blob_parse(&record, blob.c_str()), 0);
    secrets_["the password's verifier"] = {text_of(record.verifier), 8, {VERIFIER}};
    secrets_["the verifier's text"] = {hex_of(record.verifier), HEX_PIECE, {PASSWORD_SECRET}};
    secrets_["the identity"].held_in.insert(PASSWORD_KEYPAIR);
  }

  // ---- The search, at a moment

  void look(const std::string& moment) {
    SCOPED_TRACE(moment);
    {
      SCOPED_TRACE("worker");
      const ProcessImage image(worker());
      expect_in_record_only(image, secrets_);
    }
    SCOPED_TRACE("service");
    const ProcessImage image(service_->pid());
    EXPECT_FALSE(
        image.find(bytes_of_text(SERVICES_OWN)).empty());  // the search finds what is there
    expect_nowhere(image, secrets_);
    EXPECT_TRUE(comes_true([this] { return worker_runs(); }));  // it may have been late meanwhile
  }

  std::string open_pairing() {
    const host_service::Result opened = ask(Verb::PairingOpen, {60, 0, 0, 0});
    EXPECT_EQ(opened.text.size(), 6u) << opened.text;
    return opened.text;
  }
  void pair(const std::string& store, const std::string& option, const std::string& secret) {
    const RunResult paired = run_program(at(client_place_, "lunderhaze-client",
                                            {"--store", (directory_ / store).string(), "pair",
                                             "--host", host_address(), option, secret}),
                                         environment_);
    ASSERT_EQ(paired.status, 0) << paired.output;
  }
  std::vector<unsigned char> payload(const std::string& text) { return {text.begin(), text.end()}; }
  void restart_worker() {
    const pid_t former = worker();
    ask(Verb::Verb9);
    ASSERT_TRUE(comes_true([&] { return worker() != former && worker_runs(); }, seconds(20)));
  }

  lund_keypair identity_;
  Secrets secrets_;
};

TEST_F(SecretsTest, StayInTheEnginesRecordThroughTheWorkersLife) {
  secrets_["the password"] = {PASSWORD};
  secrets_["the relay's key"] = {RELAY_KEY};
  secrets_["the relay's key in the store's text"] = {RELAY_KEY_STORED};
  start_service();
  learn_identity();
  learn_store_key();
  look("a store and an identity were made");

  pair("client", "--pin", open_pairing());
  look("a client was paired by PIN");

  ASSERT_EQ(ask(Verb::SetPassword, payload(PASSWORD)).text, "completed");
  learn_verifier();
  look("a password was set");
  pair("second", "--password", PASSWORD);
  look("a client was paired by password");

  ASSERT_EQ(ask(Verb::SetRelays, payload(RELAYS)).text, "completed");
  std::uint8_t net_key[32];
  lund_rv_net_key(net_key, bytes_of_text(RELAY_KEY).data(), std::strlen(RELAY_KEY));
  secrets_["the relay's net key"] = {text_of(net_key)};
  look("relays were set, for the next start");

  restart_worker();
  secrets_["the relay's net key"].held_in = {NET_KEY};
  look("a worker has loaded it all");

  start_receiver();
  look("a client streams");
  EXPECT_TRUE(receiver_->wait_for_output("fps", seconds(20), receiver_->output().size()));
  receiver_.reset();
  status();
  open_pairing();
  EXPECT_EQ(ask(Verb::PairingClose).text, "completed");
  look("status was asked for, pairing opened and closed");

  ASSERT_EQ(ask(Verb::ClearPassword).text, "completed");
  secrets_["the password's verifier"].held_in = {};
  secrets_["the verifier's text"].held_in = {};
  secrets_["the identity"].held_in.erase(PASSWORD_KEYPAIR);
  look("the password was cleared");
}

// Six digits may stand in memory by chance. What is new since a moment before the PIN was drawn, in
// two rounds of three, is there by a leak.
TEST_F(SecretsTest, PinsAreInTheEnginesRecordWhileTheWindowIsOpenAndNowhereAfterwards) {
  start_service();
  learn_identity();
  constexpr int ROUNDS = 3;
  std::map<std::string, std::vector<std::string>> leaks;  // by the moment
  for (int round = 0; round < ROUNDS; ++round) {
    const ProcessImage before(worker());
    const ProcessImage service_before(service_->pid());
    const std::string pin = open_pairing();
    const auto look_for_pin = [&](const std::string& moment, bool open) {
      const ProcessImage image(worker());
      const std::uint64_t engine = find_record(image, secrets_);
      std::set<std::uint64_t> known;
      for (const Member held : {PIN, PIN_SECRET}) {
        const auto bytes = image.at(engine + held, pin.size());
        EXPECT_EQ(std::ranges::equal(bytes, bytes_of_text(pin)), open) << moment;
        if (open) known.insert(engine + held);
      }
      const std::string in_worker = new_places(before, image, pin, known);
      if (!in_worker.empty()) leaks["worker: " + moment].push_back(in_worker);
      const std::string in_service =
          new_places(service_before, ProcessImage(service_->pid()), pin, {});
      if (!in_service.empty()) leaks["service: " + moment].push_back(in_service);
    };
    look_for_pin("the window is open", true);
    pair("client", "--pin", pin);
    ASSERT_TRUE(
        comes_true([this] { return status().find("pairing closed") != std::string::npos; }));
    look_for_pin("a client has paired", false);
  }
  for (const auto& [moment, places] : leaks)
    EXPECT_LT(places.size(), 2u) << moment << testing::PrintToString(places);
}

TEST_F(SecretsTest, AreInNoLogOnNoCommandLineAndInNoEnvironment) {
  start_service();
  learn_identity();
  learn_store_key();
  const std::string pin = open_pairing();
  pair("client", "--pin", pin);
  ASSERT_EQ(ask(Verb::SetPassword, payload(PASSWORD)).text, "completed");
  learn_verifier();
  pair("second", "--password", PASSWORD);
  ASSERT_EQ(ask(Verb::SetRelays, payload(RELAYS)).text, "completed");
  restart_worker();
  status();

  secrets_["the password"] = {PASSWORD};
  secrets_["the relay's key"] = {RELAY_KEY};
  std::map<std::string, std::string> texts = {{"host.log", worker_log()},
                                              {"the service's output", service_->output()}};
  for (const pid_t pid : {worker(), service_->pid()})
    for (const char* file : {"cmdline", "environ"}) {
      const std::string path = "/proc/" + std::to_string(pid) + "/" + file;
      texts[path] = file_content(path);
      EXPECT_THAT(texts[path],
                  HasSubstr(file == std::string("cmdline") ? "lunderhaze-" : "DISPLAY"));
    }
  EXPECT_THAT(texts["host.log"], HasSubstr("paired with"));
  for (const auto& [where, text] : texts) {
    for (const auto& [name, secret] : secrets_) {
      EXPECT_THAT(text, Not(HasSubstr(secret.bytes))) << name << " in " << where;
      EXPECT_THAT(text, Not(HasSubstr(hex_of(bytes_of_text(secret.bytes)))))
          << name << " in " << where;
    }
    // As a number of its own: times and process ids have digits too.
    EXPECT_THAT(text, Not(testing::ContainsRegex("(^|[^0-9])" + pin + "([^0-9]|$)"))) << where;
  }
}

}  // namespace
}  // namespace system_test
