// The rendezvous server's program: many hosts over real sockets, and what it says to a person.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "tests/support/rendezvous_sockets.h"

namespace {

using std::chrono::seconds;
using Bytes = LoopbackSocket::Bytes;

std::string program() {
  return own_program("lunderhaze-rendezvous");
}

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
  return found;
}

// "..., 12 refreshed": 12.
int number_before(const std::string& text, const std::string& word) {
  const std::size_t end = text.find(word);
  if (end == text.npos) return -1;
  return std::stoi(text.substr(text.rfind(' ', end - 1) + 1));
}

// The next datagram that isn't a message of the server's.
Bytes relayed(LoopbackPeer& peer) {
  while (const auto bytes = peer.socket.receive(seconds(10)))
    if (bytes->size() > 1 && (*bytes)[1] == 2) return *bytes;
  return {};
}

// That a socket has an address of its own in 127.0.0.0/8 as others see it.
bool addresses_are_seen() {
  const LoopbackSocket one("127.9.9.8"), other("127.9.9.9");
  one.send(other.address(), {1});
  const lund_socket waiting = other.handle();
  lund_udp_wait(&waiting, 1, 10'000);
  std::uint8_t byte;
  lund_rv_endpoint from;
  return lund_udp_recv(waiting, &byte, 1, &from) == 1 &&
         lund_rv_endpoint_equal(from, one.address());
}

// By its identity and by its code; the client's record reaches it, and its own the client.
void expect_found_and_relayed(LoopbackHosts& hosts, int number, LoopbackPeer& client,
                              const RendezvousProgram& server) {
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, hosts.key(number));
  const auto by_id = client.look_up(id, sizeof id);
  ASSERT_TRUE(by_id && by_id->status == 0) << number;
  EXPECT_EQ(Bytes(by_id->key, by_id->key + 32), Bytes(hosts.key(number), hosts.key(number) + 32));
  const auto by_code = client.look_up(id, 5);
  ASSERT_TRUE(by_code && by_code->status == 0) << number;
  EXPECT_EQ(by_code->allocation, by_id->allocation);

  LoopbackPeer& host = hosts.peer_of(number);
  EXPECT_TRUE(lund_rv_endpoint_equal(by_id->peer, host.socket.address()));
  const auto notice = host.receive(LUND_RV_PUNCH_NOTIFY, seconds(10));
  ASSERT_TRUE(notice);
  ASSERT_TRUE(client.bind(*by_id, 1));
  ASSERT_TRUE(host.bind(*notice, 0));
  Bytes record(1200, static_cast<std::uint8_t>(number));
  record[0] = 0x50;
  record[1] = 2;
  client.socket.send(server.address(), record);
  EXPECT_EQ(relayed(host), record);
  record[2] ^= 0xFF;
  host.socket.send(server.address(), record);
  EXPECT_EQ(relayed(client), record);
}

TEST(RendezvousProgramTest, HostsOfOneAddressAreFoundAndRelayedTo) {
  constexpr int HOSTS = 10;
  RendezvousProgram server;
  LoopbackHosts hosts(HOSTS, server, "127.0.0.1");
  EXPECT_EQ(hosts.register_all(seconds(20)), HOSTS);
  LoopbackPeer client("127.0.0.1", server);
  expect_found_and_relayed(hosts, 0, client, server);
  expect_found_and_relayed(hosts, HOSTS - 1, client, server);
  server.process().signal(SIGINT);
  EXPECT_EQ(server.process().wait(seconds(10)), 0);
  const std::string& said = server.process().output();
  EXPECT_TRUE(holds(said, "now: 10 hosts, 2 allocations\n")) << said;
  EXPECT_TRUE(holds(said, "relayed: 4 datagrams, 4800 bytes\n")) << said;
}

TEST(RendezvousProgramTest, AskedToReportItTellsItsStatisticsAndGoesOn) {
  RendezvousProgram server;
  for (int i = 0; i < 2; ++i)
    ASSERT_TRUE(holds(server.statistics(), "now: 0 hosts, 0 allocations\n"));
  server.process().signal(SIGTERM);
  EXPECT_EQ(server.process().wait(seconds(10)), 0);
  EXPECT_EQ(count(server.process().output(), "statistics: now"), 3u);  // and at the end
}

TEST(RendezvousProgramTest, TenThousandHostsRegisterStayAndAreFound) {
  constexpr int HOSTS = 10'000;
  if (!LoopbackHosts::can_open(HOSTS)) GTEST_SKIP() << "ulimit -n is below 10,100";
  ASSERT_TRUE(addresses_are_seen());
  RendezvousProgram server;
  LoopbackHosts hosts(HOSTS, server);
  EXPECT_EQ(hosts.register_all(seconds(60)), HOSTS);
  std::string said = server.statistics();
  EXPECT_TRUE(holds(said, "now: 10000 hosts, 0 allocations\n")) << said;
  EXPECT_TRUE(holds(said, "registrations: 10000 new")) << said;
  EXPECT_EQ(hosts.register_all(seconds(30)), HOSTS);
  said = server.statistics();
  EXPECT_TRUE(holds(said, "now: 10000 hosts, 0 allocations\n")) << said;
  EXPECT_GE(number_before(said, " refreshed"), HOSTS) << said;

  LoopbackPeer client("127.9.9.9", server);
  for (const int number : {0, 1234, HOSTS - 1})
    expect_found_and_relayed(hosts, number, client, server);
  server.process().signal(SIGINT);
  EXPECT_EQ(server.process().wait(seconds(10)), 0);
  EXPECT_TRUE(holds(server.process().output(), "now: 10000 hosts, 3 allocations\n"))
      << server.process().output();
  EXPECT_TRUE(holds(server.process().output(), "relayed: 6 datagrams, 7200 bytes\n"))
      << server.process().output();
}

TEST(RendezvousProgramTest, ItsLinkOpensItAndTheKeyStandsNowhereElse) {
  RendezvousProgram server;
  const std::string key = RendezvousProgram::KEY;
  const std::string link =
      "lunderhaze-relay://127.0.0.1:" + std::to_string(server.address().port) + "#" + key;
  EXPECT_TRUE(holds(server.process().output(), link)) << server.process().output();
  server.process().signal(SIGTERM);
  EXPECT_EQ(server.process().wait(seconds(10)), 0);
  EXPECT_EQ(count(server.process().output(), key), 1u);
  EXPECT_EQ(count(server.process().output(), "statistics: now"), 1u);
}

TEST(RendezvousProgramTest, SaysItsKeyNowhereWhenItsLinkIsToBeHidden) {
  RendezvousProgram server({"--hide-link"});
  server.process().signal(SIGTERM);
  EXPECT_EQ(server.process().wait(seconds(10)), 0);
  EXPECT_EQ(count(server.process().output(), RendezvousProgram::KEY), 0u);
  EXPECT_FALSE(holds(server.process().output(), "lunderhaze-relay:")) << server.process().output();
}

TEST(RendezvousProgramTest, WithoutAKeyItDrawsADifferentOneEachTime) {
  std::string keys[2];
  for (std::string& key : keys) {
    ChildProcess server({program(), "--port", "0"});
    ASSERT_TRUE(server.wait_for_output("Ctrl+C stops.\n", seconds(20))) << server.output();
    const std::size_t hash = server.output().find('#');
    key = server.output().substr(hash + 1, 48);
    EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), key.npos) << server.output();
    EXPECT_EQ(server.output()[hash + 49], '\n') << server.output();
  }
  EXPECT_NE(keys[0], keys[1]);
}

// Said, and gone with this status.
void expect_refusal(const std::vector<std::string>& arguments, int status,
                    const std::string& text) {
  std::vector<std::string> all = {program()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  const RunResult result = run_program(all, {}, seconds(20));
  EXPECT_EQ(result.status, status) << result.output;
  EXPECT_TRUE(holds(result.output, text)) << result.output;
}

TEST(RendezvousProgramTest, APortInUseIsNamed) {
  RendezvousProgram server;
  const std::string port = std::to_string(server.address().port);
  expect_refusal({"--port", port}, 2, "cannot listen on UDP port " + port);
  expect_refusal({"--port", port, "--bind", "127.0.0.1"}, 2, " of 127.0.0.1");
}

TEST(RendezvousProgramTest, ItAnswersFromTheAddressThatItIsBoundTo) {
  ChildProcess server({program(), "--port", "0", "--key", "k", "--bind", "127.3.2.1"});
  ASSERT_TRUE(server.wait_for_output("Ctrl+C stops.\n", seconds(20))) << server.output();
  constexpr std::string_view BEFORE = "lunderhaze-relay://";
  lund_relay_server relay;
  const std::string link = server.output().substr(server.output().find(BEFORE));
  ASSERT_EQ(lund_relay_link_parse(&relay, link.substr(0, link.find('\n')).c_str()), 0) << link;
  EXPECT_STREQ(relay.host, "127.3.2.1");

  std::uint8_t net_key[LUND_KEY_SIZE];
  lund_rv_net_key(net_key, relay.key, relay.key_size);
  lund_rv_message message;
  message.type = LUND_RV_REGISTER;
  Bytes bytes(LUND_RV_MESSAGE_MAX);
  bytes.resize(lund_rv_encode(bytes.data(), bytes.size(), net_key, &message));
  const LoopbackSocket asking("127.0.0.1");
  asking.send(relay.endpoint, bytes);
  bytes.resize(2048);
  lund_socket socket = asking.handle();
  ASSERT_EQ(lund_udp_wait(&socket, 1, 10'000), 1);
  lund_rv_endpoint from;
  EXPECT_GT(lund_udp_recv(socket, bytes.data(), bytes.size(), &from), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(from, relay.endpoint));
}

TEST(RendezvousProgramTest, ABadKeyOrLinkIsRefused) {
  TempDirectory directory;
  write_file(directory / "empty", "");
  write_file(directory / "blank", "two words\n");
  expect_refusal({"--key", ""}, 1, "--key: a key is");
  expect_refusal({"--key", "two words"}, 1, "--key: a key is");
  expect_refusal({"--key", "%zz"}, 1, "--key: a key is");
  expect_refusal({"--key", std::string(129, 'k')}, 1, "--key: a key is");
  expect_refusal({"--key-file", (directory / "none").string()}, 1, "cannot read a key");
  expect_refusal({"--key-file", (directory / "empty").string()}, 1, "cannot read a key");
  expect_refusal({"--key-file", (directory / "blank").string()}, 1, "a key is 1 to 128 bytes");
  expect_refusal({"--link", "lunderhaze-relay://here"}, 1, "--link: a relay link is");
  expect_refusal({"--key", "k", "--link", "lunderhaze-relay://here#k"}, 1, "--link");
  expect_refusal({"--key", "k", "--host", "10.0.0.256"}, 1, "no host name");
  expect_refusal({"--key", "k", "--bind", "localhost"}, 1, "no address of this computer");
  expect_refusal({"--max-hosts", "0"}, 1, "--max-hosts");
  expect_refusal({"--fly"}, 1, "--fly");
}

TEST(RendezvousProgramTest, AKeyMayBeWrittenAsInALinkAndAFileMayHoldTheLink) {
  TempDirectory directory;
  write_file(directory / "link", "lunderhaze-relay://relay.example.org:4567#a%20b\r\n");
  const std::vector<std::string> ways[] = {
      {"--key", "a%20b", "--host", "relay.example.org"},
      {"--key-file", (directory / "link").string()},
      {"--link", "LUNDERHAZE-RELAY://relay.example.org:4567#%61%20%62"}};
  for (const auto& way : ways) {
    std::vector<std::string> all = {program(), "--port", "0"};
    all.insert(all.end(), way.begin(), way.end());
    ChildProcess server(all);
    ASSERT_TRUE(server.wait_for_output("Ctrl+C stops.\n", seconds(20))) << server.output();
    EXPECT_TRUE(holds(server.output(), "lunderhaze-relay://relay.example.org:")) << server.output();
    EXPECT_TRUE(holds(server.output(), "#a%20b\n")) << server.output();
    // The port of a link that was given is where others reach the server, wherever it listens.
    EXPECT_EQ(holds(server.output(), ":4567#"), way[0] != "--key") << server.output();
  }
}

TEST(RendezvousProgramTest, VersionAndHelpAreSaid) {
  EXPECT_TRUE(holds(run_program({program(), "--version"}).output, "Lunderhaze "));
  EXPECT_TRUE(
      holds(run_program({program(), "--help"}).output, "Other users of this computer can see it"));
}

}  // namespace
