#include "tests/connection/documents/conversation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "connection/protocol.h"
#include "tests/connection/documents/fixed_random.h"
#include "tests/support/virtual_time.h"

namespace protocol_examples {

namespace {

lund_rv_endpoint at(const char* text) {
  lund_rv_endpoint out;
  EXPECT_EQ(lund_addr_parse(&out, text, 0), 0) << text;
  return out;
}

lund_relay_config relays() {
  lund_relay_config config;
  EXPECT_EQ(lund_relay_config_add_link(
                &config, (std::string("lunderhaze-relay://203.0.113.5#") + RELAY_KEY).c_str()),
            0);
  return config;
}

void keep(void* user, const lund_rv_endpoint*, const std::uint8_t* bytes, std::size_t size) {
  static_cast<std::vector<Bytes>*>(user)->emplace_back(bytes, bytes + size);
}

const Bytes& nth_of_type(const std::vector<Bytes>& sent, std::uint8_t type, std::size_t index) {
  for (const Bytes& datagram : sent)
    if (datagram[1] == LUND_VERSION_PLAIN && datagram[2] == type && index-- == 0) return datagram;
  ADD_FAILURE() << "no datagram of type " << int{type};
  static const Bytes none(LUND_HEADER_SIZE);
  return none;
}

void fill(std::uint8_t (&out)[16], const Bytes& bytes) {
  std::copy(bytes.begin(), bytes.end(), out);
}

}  // namespace

lund_rv_endpoint host_lan() {
  return at("192.168.1.10:9876");
}
lund_rv_endpoint host_seen() {
  return at("198.51.100.7:9876");
}
lund_rv_endpoint client_lan() {
  return at("192.168.1.20:50000");
}
lund_rv_endpoint client_seen() {
  return at("203.0.113.20:50000");
}
lund_rv_endpoint server_address() {
  return at("203.0.113.5:9877");
}

Bytes client_ephemeral() {
  return counting(0x50);
}
Bytes host_ephemeral() {
  return counting(0x70);
}
Bytes client_scalar() {
  return counting(0xB0);
}
Bytes host_scalar() {
  return counting(0xD0);
}
Bytes pair_sid() {
  return counting(0x01, 16);
}
Bytes password_salt() {
  return counting(0xC0, 16);
}
Bytes challenge_token() {
  return counting(0x21, 16);
}
Bytes punch_token() {
  return counting(0x41, 16);
}
Bytes host_bind_token() {
  return counting(0x61, 16);
}
Bytes client_bind_token() {
  return counting(0x81, 16);
}

lund_rv_message challenge_message() {
  lund_rv_message message;
  message.type = LUND_RV_CHALLENGE;
  fill(message.token, challenge_token());
  const lund_keypair server = server_keypair();
  std::ranges::copy(server.public_key, message.key);
  message.observed = host_seen();
  return message;
}

lund_rv_message registered_message() {
  lund_rv_message message;
  message.type = LUND_RV_REGISTERED;
  message.observed = host_seen();
  message.lease_seconds = 20;
  return message;
}

lund_rv_message notify_message() {
  lund_rv_message message;
  message.type = LUND_RV_PUNCH_NOTIFY;
  message.nonce = 1;
  message.peer = client_seen();
  message.lan_count = 1;
  message.lan[0] = client_lan();
  fill(message.punch_token, punch_token());
  message.allocation = ALLOCATION;
  fill(message.token, host_bind_token());
  return message;
}

Bytes server_says(const lund_rv_message& message) {
  std::uint8_t net_key[32];
  lund_rv_net_key(net_key, reinterpret_cast<const std::uint8_t*>(RELAY_KEY),
                  std::strlen(RELAY_KEY));
  Bytes out(LUND_RV_MESSAGE_MAX);
  out.resize(lund_rv_encode(out.data(), out.size(), net_key, &message));
  return out;
}

Conversation::Conversation() {
  virtual_time::reset();
  create_host();
  create_client();
  register_host();
  pair();
  connect();
  to_host(server_says(notify_message()), server_address());
  EXPECT_TRUE(fixed_random::all_drawn());
}

Conversation::~Conversation() {
  lund_client_destroy(client);
  lund_host_destroy(host);
}

const Bytes& Conversation::host_sent(std::uint8_t type, std::size_t index) const {
  return nth_of_type(from_host_, type, index);
}

const Bytes& Conversation::client_sent(std::uint8_t type, std::size_t index) const {
  return nth_of_type(from_client_, type, index);
}

void Conversation::create_host() {
  lund_host_config config;
  config.identity = host_keypair();
  config.name = HOST_NAME;
  config.relays = relays();
  config.lan_count = 1;
  config.lan_endpoints[0] = host_lan();
  config.send = keep;
  config.user = &from_host_;
  lund_password_record record{.mem_kib = PASSWORD_KIB, .iterations = PASSWORD_PASSES};
  fill(record.salt, password_salt());
  EXPECT_EQ(lund_password_derive(record.verifier, PASSWORD, record.salt, record.mem_kib,
                                 record.iterations),
            0);
  char blob[LUND_PASSWORD_BLOB_MAX];
  EXPECT_NE(lund_password_blob_format(blob, sizeof blob, &record), 0u);

  fixed_random::plan({0x40, 0xE2, 0x01, 0x00});  // 123456
  host = lund_host_create(&config, nullptr, blob);
  lund_pairing_status status;
  lund_host_pairing_status(host, &status);
  EXPECT_STREQ(status.pin, PIN);
}

void Conversation::create_client() {
  lund_client_config config;
  config.identity = client_keypair();
  config.name = CLIENT_NAME;
  config.relays = relays();
  config.lan_count = 1;
  config.lan_endpoints[0] = client_lan();
  config.send = keep;
  config.user = &from_client_;
  client = lund_client_create(&config);
  const lund_rv_endpoint address = host_seen();
  EXPECT_EQ(lund_client_add_candidate(client, &address, LUND_PATH_NONE), 0);
}

void Conversation::to_host(const Bytes& datagram, const lund_rv_endpoint& from) {
  std::uint8_t out[2048];
  lund_host_receive(host, datagram.data(), datagram.size(), from, out, sizeof out, nullptr,
                    nullptr);
}

void Conversation::to_client(const Bytes& datagram) {
  std::uint8_t out[2048];
  lund_client_receive(client, datagram.data(), datagram.size(), host_seen(), out, sizeof out,
                      nullptr, nullptr);
}

void Conversation::register_host() {
  lund_host_tick(host);
  to_host(server_says(challenge_message()), server_address());
  to_host(server_says(registered_message()), server_address());
}

void Conversation::pair() {
  EXPECT_EQ(lund_client_pair(client, PIN, LUND_KIND_PIN), 0);
  lund_client_tick(client);
  to_host(client_sent(LUND_PKT_HOST_INFO_REQUEST), client_seen());
  fixed_random::plan(pair_sid());
  fixed_random::plan(client_scalar());
  to_client(host_sent(LUND_PKT_HOST_INFO));
  fixed_random::plan(host_scalar());
  to_host(client_sent(LUND_PKT_PAIR_INIT), client_seen());
  to_client(host_sent(LUND_PKT_PAIR_RESP));
  to_host(client_sent(LUND_PKT_PAIR_CONFIRM), client_seen());
  to_client(host_sent(LUND_PKT_PAIR_OK));
}

void Conversation::connect() {
  fixed_random::plan(client_ephemeral());
  lund_client_tick(client);
  fixed_random::plan({0x44, 0x33, 0x22, 0x11});
  fixed_random::plan(host_ephemeral());
  to_host(client_sent(LUND_PKT_HS_INIT), client_seen());
  to_client(host_sent(LUND_PKT_HS_RESP));
  lund_client_status status;
  lund_client_status_get(client, &status);
  EXPECT_EQ(status.session_id, SESSION_ID);
}

const Conversation& conversation() {
  static const Conversation held;
  return held;
}

}  // namespace protocol_examples
