// Sealed records beside the bare AEAD of the library beneath and beside libsodium's, and a whole
// handshake beside the X25519 operations that its host side can't do without.
#include <benchmark/benchmark.h>
#include <monocypher.h>
#include <sodium.h>

#include <cstring>

#include "connection/noise.h"
#include "connection/protocol.h"
#include "connection/secure.h"

namespace {

constexpr std::size_t PLAIN_SIZE = 1376;  // the payload of a 1400-byte datagram
constexpr std::size_t BODY_SIZE = PLAIN_SIZE - LUND_HEADER_SIZE;
constexpr std::size_t SEALED_SIZE = PLAIN_SIZE + 24;

struct Packet {
  std::uint8_t plain[PLAIN_SIZE] = {LUND_MAGIC, LUND_VERSION_PLAIN, LUND_PKT_VIDEO_SHARD};
  std::uint8_t sealed[SEALED_SIZE] = {};
  std::uint8_t opened[PLAIN_SIZE] = {};
  std::uint8_t key[LUND_KEY_SIZE] = {1, 2, 3};
  std::uint8_t nonce[12] = {};
};

lund_session session_with(const std::uint8_t key[LUND_KEY_SIZE]) {
  lund_session session;
  session.session_id = 1;
  std::memcpy(session.send_key, key, LUND_KEY_SIZE);
  std::memcpy(session.recv_key, key, LUND_KEY_SIZE);
  return session;
}

void count_bytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(PLAIN_SIZE) * state.iterations());
}

void Seal(benchmark::State& state) {
  Packet packet;
  lund_session session = session_with(packet.key);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        lund_seal(&session, packet.plain, PLAIN_SIZE, packet.sealed, SEALED_SIZE));
  count_bytes(state);
}
BENCHMARK(Seal);

void SealWithMonocypher(benchmark::State& state) {
  Packet packet;
  for (auto _ : state) {
    crypto_aead_ctx context;
    crypto_aead_init_ietf(&context, packet.key, packet.nonce);
    crypto_aead_write(&context, packet.sealed + 16, packet.sealed + 16 + BODY_SIZE, packet.plain, 8,
                      packet.plain + 8, BODY_SIZE);
    benchmark::DoNotOptimize(packet.sealed);
  }
  count_bytes(state);
}
BENCHMARK(SealWithMonocypher);

void SealWithLibsodium(benchmark::State& state) {
  if (sodium_init() < 0) return state.SkipWithError("libsodium doesn't start");
  Packet packet;
  unsigned long long size = 0;
  for (auto _ : state) {
    crypto_aead_chacha20poly1305_ietf_encrypt(packet.sealed + 16, &size, packet.plain + 8,
                                              BODY_SIZE, packet.plain, 8, nullptr, packet.nonce,
                                              packet.key);
    benchmark::DoNotOptimize(packet.sealed);
  }
  count_bytes(state);
}
BENCHMARK(SealWithLibsodium);

// The record is opened again and again; its replay state is set back each time.
void Open(benchmark::State& state) {
  Packet packet;
  lund_session session = session_with(packet.key);
  lund_seal(&session, packet.plain, PLAIN_SIZE, packet.sealed, SEALED_SIZE);
  std::size_t size = 0;
  for (auto _ : state) {
    session.recv_next = 0;
    session.recv_window[0] = 0;
    if (lund_open(&session, packet.sealed, SEALED_SIZE, packet.opened, PLAIN_SIZE, &size) !=
        LUND_OK)
      return state.SkipWithError("the record doesn't open");
  }
  count_bytes(state);
}
BENCHMARK(Open);

void OpenWithMonocypher(benchmark::State& state) {
  Packet packet;
  lund_session session = session_with(packet.key);
  lund_seal(&session, packet.plain, PLAIN_SIZE, packet.sealed, SEALED_SIZE);
  for (auto _ : state) {
    crypto_aead_ctx context;
    crypto_aead_init_ietf(&context, packet.key, packet.nonce);
    if (crypto_aead_read(&context, packet.opened + 8, packet.sealed + 16 + BODY_SIZE, packet.sealed,
                         8, packet.sealed + 16, BODY_SIZE) != 0)
      return state.SkipWithError("the record doesn't open");
  }
  count_bytes(state);
}
BENCHMARK(OpenWithMonocypher);

void OpenWithLibsodium(benchmark::State& state) {
  if (sodium_init() < 0) return state.SkipWithError("libsodium doesn't start");
  Packet packet;
  lund_session session = session_with(packet.key);
  lund_seal(&session, packet.plain, PLAIN_SIZE, packet.sealed, SEALED_SIZE);
  unsigned long long size = 0;
  for (auto _ : state) {
    if (crypto_aead_chacha20poly1305_ietf_decrypt(packet.opened + 8, &size, nullptr,
                                                  packet.sealed + 16, BODY_SIZE + LUND_MAC_SIZE,
                                                  packet.sealed, 8, packet.nonce, packet.key) != 0)
      return state.SkipWithError("the record doesn't open");
  }
  count_bytes(state);
}
BENCHMARK(OpenWithLibsodium);

void RefuseAReplay(benchmark::State& state) {
  Packet packet;
  lund_session session = session_with(packet.key);
  lund_seal(&session, packet.plain, PLAIN_SIZE, packet.sealed, SEALED_SIZE);
  std::size_t size = 0;
  lund_open(&session, packet.sealed, SEALED_SIZE, packet.opened, PLAIN_SIZE, &size);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        lund_open(&session, packet.sealed, SEALED_SIZE, packet.opened, PLAIN_SIZE, &size));
}
BENCHMARK(RefuseAReplay);

// Both sides, all four message functions: eight X25519 and two new ephemeral keys.
void Handshake(benchmark::State& state) {
  lund_keypair client_keys, host_keys;
  if (lund_keypair_generate(&client_keys) != LUND_OK ||
      lund_keypair_generate(&host_keys) != LUND_OK)
    return state.SkipWithError("no random source");
  std::uint64_t timestamp = 0;
  for (auto _ : state) {
    lund_noise_ik client, host;
    lund_session client_session, host_session;
    std::uint8_t init[LUND_HS_INIT_SIZE], resp[LUND_HS_RESP_SIZE], client_public[LUND_KEY_SIZE];
    std::size_t size = 0;
    lund_hs_client_start(&client, &client_keys, host_keys.public_key, ++timestamp, init,
                         sizeof init, &size);
    lund_hs_host_read(&host, &host_keys, init, sizeof init, client_public, &timestamp);
    lund_hs_host_respond(&host, 1, resp, sizeof resp, &size, &host_session);
    if (lund_hs_client_finish(&client, resp, sizeof resp, &client_session) != LUND_OK)
      return state.SkipWithError("the handshake fails");
  }
}
BENCHMARK(Handshake)->Unit(benchmark::kMicrosecond);

void FourX25519(benchmark::State& state) {
  lund_keypair a, b;
  if (lund_keypair_generate(&a) != LUND_OK || lund_keypair_generate(&b) != LUND_OK)
    return state.SkipWithError("no random source");
  std::uint8_t shared[LUND_KEY_SIZE];
  for (auto _ : state) {
    for (int i = 0; i < 4; ++i) crypto_x25519(shared, a.secret, b.public_key);
    benchmark::DoNotOptimize(shared);
  }
}
BENCHMARK(FourX25519)->Unit(benchmark::kMicrosecond);

}  // namespace
