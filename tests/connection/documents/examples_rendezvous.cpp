// The rendezvous messages: those of the engines as they send them, those of the server encoded.
#include <gtest/gtest.h>
#include <monocypher.h>

#include <cstring>

#include "connection/rendezvous.h"
#include "tests/connection/documents/conversation.h"

namespace protocol_examples {

namespace {

constexpr std::size_t TAG = 16;

// An endpoint as it stands on the wire.
Bytes wire(const lund_rv_endpoint& endpoint) {
  Bytes out = {endpoint.family, static_cast<std::uint8_t>(endpoint.port & 0xFF),
               static_cast<std::uint8_t>(endpoint.port >> 8)};
  out.insert(out.end(), endpoint.address.begin(), endpoint.address.end());
  return out;
}

void fill(std::uint8_t (&out)[16], const Bytes& bytes) {
  std::copy(bytes.begin(), bytes.end(), out);
}

Bytes proof() {
  const lund_keypair host = host_keypair(), server = server_keypair();
  const lund_rv_endpoint lan = host_lan();
  Bytes out(16);
  EXPECT_EQ(lund_rv_register_proof(out.data(), host.secret, server.public_key,
                                   challenge_token().data(), host.public_key, &lan, 1),
            LUND_OK);
  return out;
}

void add_keys(Examples& examples) {
  const lund_keypair host = host_keypair(), server = server_keypair();
  std::uint8_t net_key[32], shared[32];
  lund_rv_net_key(net_key, reinterpret_cast<const std::uint8_t*>(RELAY_KEY),
                  std::strlen(RELAY_KEY));
  crypto_x25519(shared, server.secret, host.public_key);
  const Bytes labelled = joined({bytes_of("lunderhaze-rv-proof-v1"), shared});
  std::uint8_t proof_key[32];
  crypto_blake2b(proof_key, sizeof proof_key, labelled.data(), labelled.size());
  const Bytes proved = joined({challenge_token(), host.public_key, Bytes{1}, wire(host_lan())});
  Bytes by_hand(16);
  crypto_blake2b_keyed(by_hand.data(), by_hand.size(), proof_key, sizeof proof_key, proved.data(),
                       proved.size());
  EXPECT_EQ(by_hand, proof());
  ValuesExample(examples, "rendezvous keys")
      .line("relay link's key", RELAY_KEY)
      .value("net key", net_key)
      .value("challenge", challenge_token())
      .value("shared", shared)
      .value("k", proof_key)
      .value("proof", proof());
}

void add_registration(Examples& examples) {
  const Conversation& talk = conversation();
  const lund_keypair host = host_keypair(), server = server_keypair();
  const Bytes& first = talk.host_sent(LUND_RV_REGISTER, 0);
  EXPECT_EQ(Bytes(first.begin() + 40, first.begin() + 72), Bytes(32));
  PacketExample(examples, "RV_REGISTER", talk.host_sent(LUND_RV_REGISTER, 1))
      .header(96)
      .bytes("key", host.public_key)
      .bytes("token", challenge_token())
      .bytes("proof", proof())
      .u8("lan count", 1)
      .variable("lan", wire(host_lan()))
      .sealed("tag", TAG);
  PacketExample(examples, "RV_CHALLENGE", server_says(challenge_message()))
      .header(97)
      .bytes("token", challenge_token())
      .bytes("key", server.public_key)
      .bytes("observed", wire(host_seen()))
      .sealed("tag", TAG);
  PacketExample(examples, "RV_REGISTERED", server_says(registered_message()))
      .header(98)
      .bytes("observed", wire(host_seen()))
      .u16("lease_seconds", 20)
      .sealed("tag", TAG);
}

void add_look_up(Examples& examples) {
  const lund_keypair host = host_keypair();
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, host.public_key);
  PacketExample(examples, "RV_LOOKUP", conversation().client_sent(LUND_RV_LOOKUP))
      .header(99)
      .id("nonce", 0x01020304)
      .u8("target_size", 16)
      .bytes("target", id)
      .u8("lan count", 1)
      .variable("lan", wire(client_lan()))
      .sealed("tag", TAG);

  lund_rv_message result;
  result.type = LUND_RV_LOOKUP_RESULT;
  result.nonce = 0x01020304;
  std::ranges::copy(host.public_key, result.key);
  result.peer = host_seen();
  result.lan_count = 1;
  result.lan[0] = host_lan();
  result.observed = client_seen();
  fill(result.punch_token, punch_token());
  result.allocation = ALLOCATION;
  fill(result.token, client_bind_token());
  PacketExample(examples, "RV_LOOKUP_RESULT", server_says(result))
      .header(100)
      .id("nonce", 0x01020304)
      .u8("status", 0)
      .bytes("key", host.public_key)
      .bytes("peer", wire(host_seen()))
      .u8("lan count", 1)
      .variable("lan", wire(host_lan()))
      .bytes("observed", wire(client_seen()))
      .bytes("punch_token", punch_token())
      .id("allocation", ALLOCATION)
      .bytes("token", client_bind_token())
      .sealed("tag", TAG);

  PacketExample(examples, "RV_PUNCH_NOTIFY", server_says(notify_message()))
      .header(101)
      .id("nonce", 1)
      .bytes("peer", wire(client_seen()))
      .u8("lan count", 1)
      .variable("lan", wire(client_lan()))
      .bytes("punch_token", punch_token())
      .id("allocation", ALLOCATION)
      .bytes("token", host_bind_token())
      .sealed("tag", TAG);
}

void add_punch_and_bind(Examples& examples) {
  const Conversation& talk = conversation();
  PacketExample(examples, "RV_PUNCH", talk.host_sent(LUND_RV_PUNCH, 1))
      .header(102)
      .bytes("punch_token", punch_token())
      .id("nonce", 1)
      .u8("side", 0);
  lund_rv_message ack;
  ack.type = LUND_RV_PUNCH_ACK;
  ack.nonce = 1;
  ack.side = 1;
  fill(ack.punch_token, punch_token());
  Bytes untagged(LUND_RV_MESSAGE_MAX);
  untagged.resize(lund_rv_encode(untagged.data(), untagged.size(), nullptr, &ack));
  PacketExample(examples, "RV_PUNCH_ACK", untagged)
      .header(103)
      .bytes("punch_token", punch_token())
      .id("nonce", 1)
      .u8("side", 1);

  PacketExample(examples, "RV_BIND", talk.host_sent(LUND_RV_BIND))
      .header(104)
      .id("allocation", ALLOCATION)
      .bytes("token", host_bind_token())
      .u8("side", 0)
      .sealed("tag", TAG);
  lund_rv_message bound;
  bound.type = LUND_RV_BOUND;
  bound.allocation = ALLOCATION;
  bound.observed = host_seen();
  PacketExample(examples, "RV_BOUND", server_says(bound))
      .header(105)
      .id("allocation", ALLOCATION)
      .u8("status", 0)
      .bytes("observed", wire(host_seen()))
      .sealed("tag", TAG);
  lund_rv_message error;
  error.type = LUND_RV_ERROR;
  error.nonce = 0x01020304;
  error.status = 4;
  PacketExample(examples, "RV_ERROR", server_says(error))
      .header(106)
      .id("nonce", 0x01020304)
      .u8("status", 4)
      .sealed("tag", TAG);
}

}  // namespace

void add_rendezvous(Examples& examples) {
  add_keys(examples);
  add_registration(examples);
  add_look_up(examples);
  add_punch_and_bind(examples);
}

}  // namespace protocol_examples
