// Frames and their datagrams, for what tests, fuzzes or measures the media transport.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "media/video_transport.h"

namespace video_frames {

using Bytes = std::vector<std::uint8_t>;

inline Bytes random_bytes(std::size_t size, std::mt19937::result_type seed) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

struct PacketizerDelete {
  void operator()(lund_packetizer* p) const { lund_packetizer_destroy(p); }
};
struct ReassemblerDelete {
  void operator()(lund_reassembler* r) const { lund_reassembler_destroy(r); }
};
using Packetizer = std::unique_ptr<lund_packetizer, PacketizerDelete>;
using Reassembler = std::unique_ptr<lund_reassembler, ReassemblerDelete>;

inline Packetizer make_packetizer(std::uint64_t datagram_size, int fec_percent, int min_parity) {
  return Packetizer(lund_packetizer_create(datagram_size, fec_percent, min_parity));
}
inline Reassembler make_reassembler(std::uint64_t max_frame_size = 1 << 22) {
  return Reassembler(lund_reassembler_create(max_frame_size));
}

inline std::int32_t collect(void* datagrams, const std::uint8_t* packet, std::uint64_t length) {
  static_cast<std::vector<Bytes>*>(datagrams)->emplace_back(packet, packet + length);
  return 0;
}

inline lund_frame_info info_of(std::uint32_t frame_id, std::uint8_t flags = 0) {
  return {.frame_id = frame_id,
          .flags = flags,
          .capture_time_us = 1'000'000 + std::uint64_t{frame_id} * 16'667,
          .encode_time_us = 2'000 + frame_id % 1'000};
}

// The datagrams of a frame, in the order in which they were sent.
inline std::vector<Bytes> packetize(lund_packetizer* p, std::uint32_t frame_id, const Bytes& frame,
                                    std::uint8_t flags = 0) {
  std::vector<Bytes> datagrams;
  const lund_frame_info info = info_of(frame_id, flags);
  lund_packetizer_send_frame(p, 7, &info, frame.data(), frame.size(), collect, &datagrams);
  return datagrams;
}

inline lund_video_shard header_of(const Bytes& datagram) {
  lund_video_shard shard;
  lund_decode_video_shard(datagram.data(), datagram.size(), &shard, nullptr, nullptr);
  return shard;
}

inline std::int32_t push(lund_reassembler* r, const Bytes& datagram) {
  return lund_reassembler_push(r, datagram.data(), datagram.size());
}

inline lund_reassembler_stats stats_of(const Reassembler& r) {
  lund_reassembler_stats stats;
  lund_reassembler_get_stats(r.get(), &stats);
  return stats;
}

}  // namespace video_frames
