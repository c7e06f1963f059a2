// Packets for the codec's tests: a header whose bytes all differ, and what an encoder or a hand
// makes of a body behind it.
#pragma once

#include <cstdint>
#include <vector>

#include "connection/protocol.h"

namespace packets {

using Bytes = std::vector<lund_byte>;

inline constexpr lund_packet_header HEADER = {.type = 99, .flags = 0xA5, .session_id = 0x04030201};

// Runs an encoder into ample room and returns the packet.
template <class Encoder>
Bytes encoded(Encoder encode) {
  Bytes out(2048);
  out.resize(encode(out.data(), out.size()));
  return out;
}

// The header that HEADER gives for a type, then the body.
inline Bytes packet(std::uint8_t type, const Bytes& body) {
  Bytes out = {0x50, 1, type, 0xA5, 1, 2, 3, 4};
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

inline lund_cursor_shape shape_of(std::uint16_t width, std::uint16_t height,
                                  std::uint32_t offset = 0) {
  return {.shape_id = 1,
          .width = width,
          .height = height,
          .total_size = std::uint32_t{4} * width * height,
          .offset = offset};
}

inline lund_pair_back sample_pair_back() {
  return {.back_value = 0x1234, .back_count = 2, .back_values = {0x0A0B0C0D, 0x01020304}};
}
inline lund_clipboard_ack sample_clipboard_ack() {
  return {.id = 0x01020304,
          .status = 3,
          .range_count = 2,
          .ranges = {{0x11, 0x22}, {0xFFFFFFFF, 0x01020304}}};
}

}  // namespace packets
