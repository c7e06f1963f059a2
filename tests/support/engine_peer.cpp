#include "tests/support/engine_peer.h"

#include <algorithm>
#include <cstring>

#include "connection/byte_order.h"
#include "connection/clock.h"
#include "connection/conn.h"
#include "connection/protocol.h"

namespace peer {

lund_rv_endpoint at(const char* address) {
  lund_rv_endpoint endpoint;
  lund_addr_parse(&endpoint, address, 0);
  return endpoint;
}

lund_keypair keypair_of(std::uint8_t seed) {
  std::uint8_t secret[LUND_KEY_SIZE];
  std::fill(std::begin(secret), std::end(secret), seed);
  lund_keypair keys;
  lund_keypair_from_secret(&keys, secret);
  return keys;
}

bytes packet(std::uint8_t type, std::uint8_t flags, const bytes& body) {
  bytes out{LUND_MAGIC, LUND_VERSION_PLAIN, type, flags, 0, 0, 0, 0};
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

bytes probe(std::uint8_t flags, std::uint32_t seq) {
  bytes out(LUND_PROBE_SIZE);
  conn_make_probe(out.data(), LUND_PKT_PATH_PROBE, flags, seq, lund_now_us());
  return out;
}

bytes rekey(std::uint32_t session_id) {
  bytes out(LUND_REKEY_SIZE);
  conn_make_rekey(out.data(), LUND_PKT_REKEY, session_id);
  return out;
}

bytes info_request(std::uint32_t nonce) {
  bytes out = packet(LUND_PKT_HOST_INFO_REQUEST, 0, bytes(56));
  store_le(out.data() + 8, nonce);
  return out;
}

bytes seal(lund_session& session, const bytes& plain) {
  bytes out(plain.size() + LUND_SEAL_OVERHEAD);
  out.resize(lund_seal(&session, plain.data(), plain.size(), out.data(), out.size()));
  return out;
}

std::optional<bytes> open(lund_session& session, const bytes& sealed) {
  bytes out(sealed.size());
  std::size_t size = 0;
  if (lund_open(&session, sealed.data(), sealed.size(), out.data(), out.size(), &size) != LUND_OK)
    return std::nullopt;
  out.resize(size);
  return out;
}

}  // namespace peer

engine_peer::engine_peer(std::uint8_t seed, const std::uint8_t host_public[LUND_KEY_SIZE])
    : keys(peer::keypair_of(seed)) {
  std::memcpy(host_key_, host_public, sizeof host_key_);
}

peer::bytes engine_peer::hs_init() {
  return hs_init(std::max(lund_wall_us(), last_timestamp_ + 1));
}

peer::bytes engine_peer::hs_init(std::uint64_t timestamp) {
  last_timestamp_ = std::max(last_timestamp_, timestamp);
  peer::bytes out(LUND_HS_INIT_SIZE);
  std::size_t size = 0;
  lund_hs_client_start(&state_, &keys, host_key_, timestamp, out.data(), out.size(), &size);
  out.resize(size);
  return out;
}

bool engine_peer::hs_finish(const peer::bytes& answer) {
  return lund_hs_client_finish(&state_, answer.data(), answer.size(), &session) == LUND_OK;
}

peer::bytes engine_peer::pair_init(const char* secret, std::uint32_t kind, const char* name) {
  peer::bytes out(LUND_PAIR_MESSAGE_MAX);
  std::size_t size = 0;
  lund_pair_client_start(&pair, &keys, name, secret, out.data(), out.size(), &size);
  out.resize(size);
  out[3] = kind == LUND_KIND_PASSWORD ? 1 : 0;
  return out;
}

peer::bytes engine_peer::pair_take(const peer::bytes& datagram) {
  peer::bytes out(LUND_PAIR_MESSAGE_MAX);
  std::size_t size = 0;
  pair_result =
      lund_pair_handle(&pair, datagram.data(), datagram.size(), out.data(), out.size(), &size);
  out.resize(size);
  return out;
}
