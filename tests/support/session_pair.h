// Two sides of a session with fixed keys, made without a handshake, and plain packets to send in
// it.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "connection/protocol.h"
#include "connection/secure.h"

struct session_pair {
  lund_session sender;
  lund_session receiver;

  session_pair() {
    sender.session_id = receiver.session_id = 0x11223344;
    sender.initiator = 1;
    std::memset(sender.send_key, 0xA1, sizeof sender.send_key);
    std::memset(sender.recv_key, 0xB2, sizeof sender.recv_key);
    std::memcpy(receiver.recv_key, sender.send_key, sizeof sender.send_key);
    std::memcpy(receiver.send_key, sender.recv_key, sizeof sender.recv_key);
  }
};

// A plain packet of `size` bytes: type 16, flags 0x5A, a body that counts up.
inline std::vector<std::uint8_t> plain_packet(std::size_t size) {
  std::vector<std::uint8_t> packet(size);
  for (std::size_t i = 0; i < size; ++i) packet[i] = static_cast<std::uint8_t>(i);
  packet[0] = LUND_MAGIC;
  packet[1] = LUND_VERSION_PLAIN;
  packet[2] = LUND_PKT_VIDEO_SHARD;
  packet[3] = 0x5A;
  return packet;
}

// Empty when lund_seal refuses.
inline std::vector<std::uint8_t> seal(lund_session& session,
                                      const std::vector<std::uint8_t>& plain) {
  std::vector<std::uint8_t> sealed(plain.size() + 24);
  sealed.resize(lund_seal(&session, plain.data(), plain.size(), sealed.data(), sealed.size()));
  return sealed;
}

struct opened_record {
  int result;
  std::vector<std::uint8_t> plain;
};

inline opened_record open(lund_session& session, const std::vector<std::uint8_t>& sealed) {
  opened_record opened{0, std::vector<std::uint8_t>(sealed.size())};
  std::size_t size = 0;
  opened.result = lund_open(&session, sealed.data(), sealed.size(), opened.plain.data(),
                            opened.plain.size(), &size);
  opened.plain.resize(size);
  return opened;
}
