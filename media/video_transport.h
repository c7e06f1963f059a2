// Cuts encoded frames into self-describing, erasure-protected datagrams (lund_packetizer), and puts
// them together again in order (lund_reassembler). Neither has a clock or a thread; neither
// allocates in steady state. An object belongs to one thread at a time; different objects are
// independent.
#pragma once

#include <cstddef>
#include <cstdint>

struct lund_packetizer;
struct lund_reassembler;

inline constexpr std::uint64_t LUND_DATAGRAM_MIN = 43;
inline constexpr std::uint64_t LUND_DATAGRAM_MAX = 1472;
inline constexpr std::uint64_t LUND_SHARD_MAX = 1430;  // LUND_DATAGRAM_MAX less the shard header

struct lund_frame_info {
  std::uint32_t frame_id = 0;
  std::uint8_t flags = 0;  // 1 for a keyframe
  std::uint64_t capture_time_us = 0;
  std::uint32_t encode_time_us = 0;
};

// The packet is valid only during the call; the result is ignored.
using lund_packet_send_fn = std::int32_t (*)(void* ctx, const std::uint8_t* packet,
                                             std::uint64_t length);

// `datagram_size` 43..1472, header included, else null. `fec_percent` is clamped to 0..1000,
// `min_parity` to 0..255.
lund_packetizer* lund_packetizer_create(std::uint64_t datagram_size, std::int32_t fec_percent,
                                        std::int32_t min_parity);
void lund_packetizer_destroy(lund_packetizer* p);
void lund_packetizer_set_fec(lund_packetizer* p, std::int32_t fec_percent, std::int32_t min_parity);

// The number of datagrams handed to `send`, data of each block first and then its parity; -1, with
// nothing sent, for a null argument, an empty frame, or one too large.
std::int64_t lund_packetizer_send_frame(lund_packetizer* p, std::uint32_t session_id,
                                        const lund_frame_info* info, const std::uint8_t* data,
                                        std::uint64_t size, lund_packet_send_fn send,
                                        void* send_ctx);

struct lund_reassembled_frame {
  const std::uint8_t* data = nullptr;  // valid until a later push
  std::uint64_t size = 0;
  std::uint32_t frame_id = 0;
  std::uint8_t flags = 0;
  std::uint64_t capture_time_us = 0;
  std::uint32_t encode_time_us = 0;
  std::uint32_t recovered = 0;  // data shards rebuilt by FEC
};

struct lund_reassembler_stats {
  std::uint64_t frames_completed = 0;
  std::uint64_t frames_skipped = 0;
  std::uint64_t shards_received = 0;
  std::uint64_t shards_recovered = 0;
  std::uint64_t shards_invalid = 0;
};

// `max_frame_size` 1..0xFFFFFFFF bytes, else null.
lund_reassembler* lund_reassembler_create(std::uint64_t max_frame_size);
void lund_reassembler_destroy(lund_reassembler* r);

// Takes one plain video shard packet. -1 for an invalid one, otherwise 1 if a frame is ready, else
// 0.
std::int32_t lund_reassembler_push(lund_reassembler* r, const std::uint8_t* packet,
                                   std::size_t length);

// 1 with the oldest complete frame, 0 when none is. `skipped` (may be null): frame numbers between
// the last pop and this one.
std::int32_t lund_reassembler_pop(lund_reassembler* r, lund_reassembled_frame* frame,
                                  std::uint32_t* skipped);
void lund_reassembler_get_stats(const lund_reassembler* r, lund_reassembler_stats* stats);
