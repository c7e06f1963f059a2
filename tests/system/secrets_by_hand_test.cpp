// What a user's own host and client keep in memory of their secrets while they run.
#include "connection/conn_client_internal.h"
#include "connection/conn_host_internal.h"
#include "connection/rendezvous.h"
#include "control/client_store.h"
#include "control/store_platform.h"
#include "tests/support/temp_directory.h"
#include "tests/system/secrets_support.h"
#include "tests/system/system_support.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;

constexpr char IDENTITY[] = "the identity";
constexpr char LINK_KEY[] = "the relay's key";
constexpr char NET_KEY[] = "the relay's net key";
constexpr char RELAY_KEY[] = "Qd8mWz3k/Xc5nVb7j/Rf2sPg9t/Hy4wKl6d/Tu1eBq0a";

class SecretsByHandTest : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    if (!not_searched().empty()) GTEST_SKIP() << not_searched();
  }
  // As it is sealed in a user's store.
  static lund_keypair identity_in(const fs::path& directory, const std::string& purpose) {
    std::string sealed, text;
    store_platform::read_file(directory / "identity", 65'536, &sealed);
    EXPECT_TRUE(store_platform::unprotect(keystore::User, directory, purpose, sealed, &text));
    lund_keypair identity;
    EXPECT_EQ(lund_identity_load(&identity, text.c_str()), 0);
    return identity;
  }
};

TEST_F(SecretsByHandTest, StayInTheEnginesRecordsAndTheClientsStore) {
  start_desktop(640, 400);
  const std::string link = "lunderhaze-relay://relay.invalid#" + std::string(RELAY_KEY);
  ASSERT_EQ(run_program(at({}, "lunderhaze", {"relays", "add", link}), environment_).status, 0);
  start_host();
  pair();
  ASSERT_EQ(client({"relay", "add", link}).status, 0);
  start_receiver();

  const lund_keypair hosts = identity_in(directory_ / "config" / "lunderhaze", "identity");
  const lund_keypair clients = identity_in(directory_ / "client", "client identity");
  const auto engine_secrets = [](const lund_keypair& identity) {
    std::uint8_t net_key[32];
    lund_rv_net_key(net_key, bytes_of_text(RELAY_KEY).data(), std::strlen(RELAY_KEY));
    return Secrets{{IDENTITY, {text_of(identity.secret)}},
                   {"the identity's text", {hex_of(identity.secret), HEX_PIECE}},
                   {LINK_KEY, {RELAY_KEY}},
                   {NET_KEY, {text_of(net_key)}}};
  };
  {
    SCOPED_TRACE("host");
    Secrets secrets = engine_secrets(hosts);
    secrets[IDENTITY].held_in = {
        member_of<lund_host>([](auto& host) -> auto& { return host.base.keypair; }),
        member_of<lund_host>([](auto& host) -> auto& { return host.pairing.pin_pair.keypair; })};
    secrets[NET_KEY].held_in = {
        member_of<lund_host>([](auto& host) -> auto& { return host.base.servers[0].net_key; })};
    expect_in_record_only(ProcessImage(host_->pid()), secrets);
  }
  SCOPED_TRACE("client");
  const ProcessImage image(receiver_->pid());
  Secrets engine = engine_secrets(clients);
  engine[IDENTITY].held_in = {
      member_of<lund_client>([](auto& client) -> auto& { return client.base.keypair; })};
  engine[NET_KEY].held_in = {
      member_of<lund_client>([](auto& client) -> auto& { return client.base.servers[0].net_key; })};
  Secrets store = engine_secrets(clients);
  store[IDENTITY].held_in = {
      member_of<ClientStore>([](auto& of) -> auto& { return of.identity(); })};
  store[LINK_KEY].held_in = {
      member_of<ClientStore>([](auto& of) -> auto& { return of.relays().servers[0].key; })};
  const std::uint64_t engine_record = find_record(image, engine);
  const std::uint64_t store_record = find_record(image, store);
  for (const auto& [name, secret] : engine) {
    std::set<std::uint64_t> expected = addresses(secret, engine_record);
    expected.merge(addresses(store[name], store_record));
    expect_only(image, name, secret, expected);
  }
}

}  // namespace
}  // namespace system_test
