// Keys and what is derived from them: ids, codes, pairing, handshake, sealed records.
#include <gtest/gtest.h>
#include <monocypher-ed25519.h>
#include <monocypher.h>

#include <cstring>

#include "connection/byte_order.h"
#include "connection/cpace.h"
#include "connection/noise.h"
#include "connection/protocol.h"
#include "tests/connection/documents/conversation.h"
#include "tests/support/vectors.h"
#include "tests/support/virtual_time.h"

namespace protocol_examples {

namespace {

constexpr char CHANNEL[] = "lunderhaze-pair-v1";
constexpr std::uint64_t TIMESTAMP = virtual_time::START_WALL_US;

Bytes x25519(const Bytes& secret, std::span<const std::uint8_t> point) {
  Bytes out(32);
  crypto_x25519(out.data(), secret.data(), point.data());
  return out;
}

Bytes secret_of(const lund_keypair& keypair) {
  return {std::begin(keypair.secret), std::end(keypair.secret)};
}

Bytes pair_key(const Bytes& isk, const char* info) {
  Bytes out(32);
  const Bytes sid = pair_sid();
  crypto_sha512_hkdf(out.data(), out.size(), isk.data(), isk.size(), sid.data(), sid.size(),
                     reinterpret_cast<const std::uint8_t*>(info), std::strlen(info));
  return out;
}

Bytes generator_of(const std::string& secret) {
  Bytes out(32);
  const Bytes sid = pair_sid();
  lund_cpace_generator(out.data(), reinterpret_cast<const std::uint8_t*>(secret.data()),
                       secret.size(), reinterpret_cast<const std::uint8_t*>(CHANNEL),
                       sizeof CHANNEL - 1, sid.data(), sid.size());
  return out;
}

// The identity that a pairing packet carries behind its first `at` bytes.
Bytes opened_identity(const Bytes& packet, std::size_t at, const Bytes& key) {
  Bytes clear(packet.size() - at - LUND_MAC_SIZE);
  EXPECT_EQ(lund_aead_decrypt(key.data(), 0, packet.data(), at, packet.data() + at, clear.size(),
                              packet.data() + packet.size() - LUND_MAC_SIZE, clear.data()),
            LUND_OK);
  return clear;
}

Bytes identity(const lund_keypair& keypair, const char* name) {
  Bytes out(std::begin(keypair.public_key), std::end(keypair.public_key));
  out.push_back(static_cast<std::uint8_t>(std::strlen(name)));
  const Bytes text = bytes_of(name);
  out.insert(out.end(), text.begin(), text.end());
  return out;
}

void add_cpace(Examples& examples) {
  const Conversation& talk = conversation();
  const Bytes& init = talk.client_sent(LUND_PKT_PAIR_INIT);
  const Bytes& resp = talk.host_sent(LUND_PKT_PAIR_RESP);
  const Bytes client_point(init.begin() + 24, init.begin() + 56);
  const Bytes host_point(resp.begin() + 24, resp.begin() + 56);
  const Bytes sid = pair_sid();
  const Bytes generator = generator_of(PIN);
  EXPECT_EQ(x25519(client_scalar(), generator), client_point);
  EXPECT_EQ(x25519(host_scalar(), generator), host_point);
  Bytes isk(64);
  EXPECT_EQ(
      lund_cpace_isk(isk.data(), sid.data(), sid.size(), client_scalar().data(), host_point.data(),
                     client_point.data(), nullptr, 0, host_point.data(), nullptr, 0),
      LUND_OK);
  const Bytes to_client = pair_key(isk, "lunderhaze-pair-v1 host->client");
  const Bytes to_host = pair_key(isk, "lunderhaze-pair-v1 client->host");
  const Bytes& confirm = talk.client_sent(LUND_PKT_PAIR_CONFIRM);
  EXPECT_EQ(opened_identity(resp, 56, to_client), identity(host_keypair(), HOST_NAME));
  EXPECT_EQ(opened_identity(confirm, 24, to_host), identity(client_keypair(), CLIENT_NAME));
  ValuesExample(examples, "CPace")
      .value("sid", sid)
      .value("generator", generator)
      .value("client's scalar", client_scalar())
      .value("client's point A", client_point)
      .value("host's scalar", host_scalar())
      .value("host's point B", host_point)
      .value("K", x25519(client_scalar(), host_point))
      .value("ISK", isk)
      .value("host->client key", to_client)
      .value("client->host key", to_host);
}

void add_password(Examples& examples) {
  Bytes verifier(32);
  EXPECT_EQ(lund_password_derive(verifier.data(), PASSWORD, password_salt().data(), PASSWORD_KIB,
                                 PASSWORD_PASSES),
            0);
  ValuesExample(examples, "password")
      .line("password", PASSWORD)
      .value("salt", password_salt())
      .line("memory, passes",
            std::to_string(PASSWORD_KIB) + " KiB, " + std::to_string(PASSWORD_PASSES))
      .value("verifier", verifier)
      .value("generator, same sid", generator_of(vectors::to_hex(verifier)));
}

void add_pairing_packets(Examples& examples) {
  const Conversation& talk = conversation();
  const lund_keypair host = host_keypair();
  const Bytes sid = pair_sid();
  PacketExample(examples, "HOST_INFO_REQUEST", talk.client_sent(LUND_PKT_HOST_INFO_REQUEST))
      .header(85)
      .id("nonce", 0x01020304)
      .bytes("padding, zero", Bytes(52));
  PacketExample(examples, "HOST_INFO", talk.host_sent(LUND_PKT_HOST_INFO))
      .header(86)
      .id("nonce", 0x01020304)
      .u8("capabilities", 3)
      .u32("pw_mem_kib", PASSWORD_KIB)
      .u32("pw_iterations", PASSWORD_PASSES)
      .bytes("pw_salt", password_salt())
      .bytes("host's public key", host.public_key)
      .u8("name_len", 5)
      .text("name", HOST_NAME);
  PacketExample(examples, "PAIR_INIT", talk.client_sent(LUND_PKT_PAIR_INIT))
      .header(80)
      .bytes("sid", sid)
      .sealed("client's point", 32);
  PacketExample(examples, "PAIR_RESP", talk.host_sent(LUND_PKT_PAIR_RESP))
      .header(81)
      .bytes("sid", sid)
      .sealed("host's point", 32)
      .sealed("key, name_len, encrypted", 33)
      .variable_sealed("name, encrypted", 5)
      .sealed("tag", LUND_MAC_SIZE);
  PacketExample(examples, "PAIR_CONFIRM", talk.client_sent(LUND_PKT_PAIR_CONFIRM))
      .header(82)
      .bytes("sid", sid)
      .sealed("key, name_len, encrypted", 33)
      .variable_sealed("name, encrypted", 6)
      .sealed("tag", LUND_MAC_SIZE);
  PacketExample(examples, "PAIR_OK", talk.host_sent(LUND_PKT_PAIR_OK))
      .header(83)
      .bytes("sid", sid)
      .sealed("0, encrypted", 1)
      .sealed("tag", LUND_MAC_SIZE);
  Bytes fail(25);
  EXPECT_EQ(lund_pair_encode_fail(fail.data(), fail.size(), sid.data(), LUND_PAIR_FAIL_LOCKED),
            fail.size());
  PacketExample(examples, "PAIR_FAIL", fail).header(84).bytes("sid", sid).u8("reason", 2);
}

struct Handshake {
  lund_noise_ik client, host;
  Bytes start_hash, hash1, chain1, message1, hash2, message2;
  Bytes key1 = Bytes(32), key2 = Bytes(32);

  Handshake() {
    const Bytes prologue = bytes_of("lunderhaze-ik-v1");
    const lund_keypair client_keys = client_keypair(), host_keys = host_keypair();
    lund_noise_ik_init(&client, true, prologue.data(), prologue.size(), &client_keys,
                       host_keys.public_key);
    lund_noise_ik_init(&host, false, prologue.data(), prologue.size(), &host_keys, nullptr);
    start_hash.assign(client.h, client.h + 64);
    std::uint8_t payload[8], session[4];
    store_le(payload, TIMESTAMP);
    store_le(session, SESSION_ID);
    message1 = written(lund_noise_ik_write1, &client, client_ephemeral(), payload);
    hash1.assign(client.h, client.h + 64);
    chain1.assign(client.ck, client.ck + 64);
    std::size_t size = 0;
    EXPECT_EQ(lund_noise_ik_read1(&host, message1.data(), message1.size(), payload, 8, &size),
              LUND_OK);
    message2 = written(lund_noise_ik_write2, &host, host_ephemeral(), session);
    EXPECT_EQ(lund_noise_ik_read2(&client, message2.data(), message2.size(), session, 4, &size),
              LUND_OK);
    hash2.assign(client.h, client.h + 64);
    lund_noise_split(&client, key1.data(), key2.data());
  }

  template <class Write, std::size_t N>
  static Bytes written(Write write, lund_noise_ik* state, const Bytes& ephemeral,
                       const std::uint8_t (&payload)[N]) {
    Bytes out(256);
    std::size_t size = 0;
    EXPECT_EQ(write(state, ephemeral.data(), payload, N, out.data(), out.size(), &size), LUND_OK);
    out.resize(size);
    return out;
  }

  lund_session session() const {
    lund_session out;
    out.session_id = SESSION_ID;
    out.initiator = 1;
    std::copy(key1.begin(), key1.end(), out.send_key);
    std::copy(key2.begin(), key2.end(), out.recv_key);
    return out;
  }
};

void add_noise(Examples& examples, const Handshake& noise) {
  const Conversation& talk = conversation();
  const Bytes& init = talk.client_sent(LUND_PKT_HS_INIT);
  const Bytes& resp = talk.host_sent(LUND_PKT_HS_RESP);
  EXPECT_EQ(Bytes(init.begin() + 8, init.end()), noise.message1);
  EXPECT_EQ(Bytes(resp.begin() + 8, resp.end()), noise.message2);
  const Bytes client = secret_of(client_keypair()), host = secret_of(host_keypair());
  const lund_keypair client_e = keypair_of(client_ephemeral());
  const lund_keypair host_e = keypair_of(host_ephemeral());
  Bytes timestamp(8), session(4);
  store_le(timestamp.data(), TIMESTAMP);
  store_le(session.data(), SESSION_ID);
  EXPECT_EQ(x25519(client_ephemeral(), host_keypair().public_key),
            x25519(host, client_e.public_key));
  ValuesExample(examples, "Noise IK")
      .value("prologue", bytes_of("lunderhaze-ik-v1"))
      .value("h at the start", noise.start_hash)
      .value("client's ephemeral secret", client_ephemeral())
      .value("its public key", client_e.public_key)
      .value("es", x25519(client_ephemeral(), host_keypair().public_key))
      .value("ss", x25519(client, host_keypair().public_key))
      .value("payload 1", timestamp)
      .value("h after message 1", noise.hash1)
      .value("ck after message 1", noise.chain1)
      .value("host's ephemeral secret", host_ephemeral())
      .value("its public key", host_e.public_key)
      .value("ee", x25519(client_ephemeral(), host_e.public_key))
      .value("se", x25519(client, host_e.public_key))
      .value("payload 2", session)
      .value("h after message 2", noise.hash2)
      .value("client's sending key", noise.key1)
      .value("host's sending key", noise.key2);
}

void add_handshake_packets(Examples& examples) {
  const Conversation& talk = conversation();
  PacketExample(examples, "HS_INIT", talk.client_sent(LUND_PKT_HS_INIT))
      .header(88)
      .bytes("client's ephemeral key", keypair_of(client_ephemeral()).public_key)
      .sealed("client's static key", 32)
      .sealed("tag", LUND_MAC_SIZE)
      .sealed("timestamp", 8)
      .sealed("tag", LUND_MAC_SIZE);
  PacketExample(examples, "HS_RESP", talk.host_sent(LUND_PKT_HS_RESP))
      .header(89, 0, SESSION_ID)
      .bytes("host's ephemeral key", keypair_of(host_ephemeral()).public_key)
      .sealed("session id", 4)
      .sealed("tag", LUND_MAC_SIZE);
  Bytes reject(LUND_HS_REJECT_SIZE);
  EXPECT_EQ(lund_hs_encode_reject(reject.data(), reject.size(), LUND_REJECT_BUSY), reject.size());
  PacketExample(examples, "HS_REJECT", reject).header(90).u8("reason", 2);
}

// A PING under a counter whose bytes all differ; the host's engine takes it for a record of the
// session.
void add_sealed_record(Examples& examples, const Handshake& noise) {
  lund_session session = noise.session();
  session.send_counter = 0x0102030405060708;
  const lund_packet_header header{};
  const lund_ping ping{.seq = 7, .client_time_us = 1'000'000'123, .host_time_us = 0};
  std::uint8_t plain[64];
  const std::size_t plain_size = lund_encode_ping(plain, sizeof plain, &header, &ping);
  Bytes sealed(plain_size + LUND_SEAL_OVERHEAD);
  ASSERT_EQ(lund_seal(&session, plain, plain_size, sealed.data(), sealed.size()), sealed.size());
  std::uint8_t out[64];
  EXPECT_EQ(lund_host_receive(conversation().host, sealed.data(), sealed.size(), client_seen(), out,
                              sizeof out, nullptr, nullptr),
            LUND_RX_OPENED);
  PacketExample(examples, "sealed record", sealed)
      .bytes("magic, version, type, flags", Bytes{0x50, 2, 3, 0})
      .id("session id", SESSION_ID)
      .u64("counter", 0x0102030405060708)
      .variable_sealed("body, encrypted", plain_size - LUND_HEADER_SIZE)
      .sealed("tag", LUND_MAC_SIZE);
  Bytes nonce(12);
  store_le(nonce.data() + 4, std::uint64_t{0x0102030405060708});
  ValuesExample(examples, "sealing")
      .value("key", noise.key1)
      .value("nonce", nonce)
      .value("additional data", std::span(sealed).first(LUND_HEADER_SIZE))
      .value("clear text", std::span(plain, plain_size).subspan(LUND_HEADER_SIZE));
}

}  // namespace

lund_keypair keypair_of(const Bytes& secret) {
  lund_keypair out;
  lund_keypair_from_secret(&out, secret.data());
  return out;
}
lund_keypair client_keypair() {
  return keypair_of(counting(0x10));
}
lund_keypair host_keypair() {
  return keypair_of(counting(0x30));
}
lund_keypair server_keypair() {
  return keypair_of(counting(0x90));
}

void add_key_material(Examples& examples) {
  ValuesExample values(examples, "keys");
  const auto add = [&](const std::string& whose, const lund_keypair& keypair) {
    std::uint8_t id[LUND_KEY_ID_SIZE];
    char code[LUND_KEY_CODE_TEXT];
    lund_key_id(id, keypair.public_key);
    lund_key_code(code, keypair.public_key);
    values.value(whose + " secret", keypair.secret)
        .value(whose + " public key", keypair.public_key)
        .value(whose + " key id", id)
        .line(whose + " key code", code);
  };
  add("client's", client_keypair());
  add("host's", host_keypair());
  values.value("server's secret", server_keypair().secret)
      .value("server's public key", server_keypair().public_key);
}

void add_pairing(Examples& examples) {
  add_pairing_packets(examples);
  add_cpace(examples);
  add_password(examples);
}

void add_handshake(Examples& examples) {
  const Handshake noise;
  add_handshake_packets(examples);
  add_noise(examples, noise);
  add_sealed_record(examples, noise);
}

}  // namespace protocol_examples
