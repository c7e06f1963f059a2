// A rendezvous server put together by hand: what it says, tagged with its key, and what an engine
// says to it. It keeps no registrations: a test plays the server message by message.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <optional>

#include "connection/lists.h"
#include "connection/rendezvous.h"
#include "tests/support/engine_peer.h"

class server_peer {
 public:
  // `seed` gives its net key and its static key; `name` stands in the relay list, with the port of
  // its address.
  server_peer(const char* name, const char* at, std::uint8_t seed)
      : address(peer::at(at)), keys(peer::keypair_of(seed)) {
    std::snprintf(relay.host, sizeof relay.host, "%s", name);
    relay.port = address.port;
    relay.key_size = 16;
    std::memset(relay.key, seed, relay.key_size);
    relay.endpoint = address;
    lund_rv_net_key(net_key, relay.key, relay.key_size);
  }

  peer::bytes say(const lund_rv_message& message) const {
    peer::bytes out(LUND_RV_MESSAGE_MAX);
    out.resize(lund_rv_encode(out.data(), out.size(), net_key, &message));
    return out;
  }
  peer::bytes challenge(std::uint8_t token = 0xC4) const {
    lund_rv_message message = of_type(LUND_RV_CHALLENGE);
    std::memset(message.token, token, sizeof message.token);
    std::memcpy(message.key, keys.public_key, sizeof message.key);
    return say(message);
  }
  peer::bytes registered(const lund_rv_endpoint& observed, std::uint16_t lease_seconds = 0) const {
    lund_rv_message message = of_type(LUND_RV_REGISTERED);
    message.observed = observed;
    message.lease_seconds = lease_seconds;
    return say(message);
  }
  peer::bytes error(std::uint8_t code) const {
    lund_rv_message message = of_type(LUND_RV_ERROR);
    message.status = code;
    return say(message);
  }
  peer::bytes bound(std::uint32_t allocation, std::uint8_t status = 0) const {
    lund_rv_message message = of_type(LUND_RV_BOUND);
    message.allocation = allocation;
    message.status = status;
    return say(message);
  }

  // A client at `client` wants in. The tokens are the bytes of `allocation`, for a test to tell
  // them: its lowest for the punch token, the next for the allocation's.
  static lund_rv_message notification(const lund_rv_endpoint& client, std::uint32_t allocation) {
    lund_rv_message message = of_type(LUND_RV_PUNCH_NOTIFY);
    message.peer = client;
    message.allocation = allocation;
    std::memset(message.punch_token, static_cast<int>(allocation & 0xFF), 16);
    std::memset(message.token, static_cast<int>(allocation >> 8 & 0xFF), 16);
    return message;
  }
  peer::bytes notify(const lund_rv_endpoint& client, std::uint32_t allocation) const {
    return say(notification(client, allocation));
  }

  // Nothing for what doesn't carry this server's tag.
  std::optional<lund_rv_message> read(const peer::bytes& datagram) const {
    lund_rv_message message;
    if (lund_rv_decode(datagram.data(), datagram.size(), net_key, &message) != LUND_OK) return {};
    return message;
  }
  // Whether a REGISTER proves the secret of its key and the LAN addresses it announces. The two
  // sides of an X25519 exchange agree, so the server computes the proof as the host does.
  bool accepts(const lund_rv_message& message) const {
    std::uint8_t proof[16];
    return lund_rv_register_proof(proof, keys.secret, message.key, message.token, message.key,
                                  message.lan, message.lan_count) == LUND_OK &&
           std::memcmp(proof, message.proof, sizeof proof) == 0;
  }

  static lund_rv_message of_type(std::uint8_t type) {
    lund_rv_message message;
    message.type = type;
    return message;
  }

  lund_rv_endpoint address;
  lund_keypair keys;
  lund_relay_server relay;
  std::uint8_t net_key[32];
};

namespace peer {

inline lund_relay_config relays_of(std::initializer_list<server_peer> servers) {
  lund_relay_config config;
  for (const server_peer& server : servers) config.servers[config.count++] = server.relay;
  return config;
}

inline bool filled(const std::uint8_t (&field)[16], std::uint8_t value) {
  return std::all_of(std::begin(field), std::end(field),
                     [value](std::uint8_t byte) { return byte == value; });
}

// What goes from peer to peer, without a tag.
inline bytes punch(std::uint8_t type, const std::uint8_t punch_token[16], std::uint32_t nonce,
                   std::uint8_t side = 1) {
  lund_rv_message message;
  message.type = type;
  message.side = side;
  message.nonce = nonce;
  std::memcpy(message.punch_token, punch_token, sizeof message.punch_token);
  bytes out(LUND_RV_MESSAGE_MAX);
  out.resize(lund_rv_encode(out.data(), out.size(), nullptr, &message));
  return out;
}

}  // namespace peer
