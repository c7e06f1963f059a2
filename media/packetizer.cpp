#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "media/fec.h"
#include "media/shard_geometry.h"
#include "media/video_transport.h"

namespace {

constexpr std::int32_t FEC_PERCENT_MAX = 1000;
constexpr std::int32_t MIN_PARITY_MAX = 255;
constexpr std::size_t PARITY_SLOTS = 255;

constexpr std::size_t SHARD_INDEX_OFFSET = 16;

}  // namespace

struct lund_packetizer {
  std::uint64_t datagram_size = 0;                // bytes, header included
  std::int32_t fec_percent = 0;                   // parity for each hundred data shards of a block
  std::int32_t min_parity = 0;                    // parity shards of a block at least
  std::unique_ptr<std::uint8_t[]> packet_buffer;  // a data shard's datagram
  std::unique_ptr<std::uint8_t[]> pad_buffer;     // the frame's last shard, zeros behind it
  std::unique_ptr<std::uint8_t[]> parity_area;    // a slot for each parity shard's datagram
};

namespace {

// What the steps of sending one frame share.
struct frame_job {
  lund_packetizer& p;
  std::uint32_t session_id;
  const lund_frame_info& info;
  const std::uint8_t* data;
  std::uint32_t size;
  shard_geometry geometry;
  lund_packet_send_fn send;
  void* send_ctx;

  std::size_t datagram_length() const { return LUND_SHARD_HEADER_SIZE + geometry.shard_size; }
};

std::uint32_t parity_shards(const lund_packetizer& p, std::uint32_t k) {
  const auto data = static_cast<std::int32_t>(k);
  const std::int32_t wanted = std::max(p.min_parity, (data * p.fec_percent + 99) / 100);
  return static_cast<std::uint32_t>(std::min(wanted, LUND_FEC_MAX_SHARDS - data));
}

// The header of a block's shards, but for the shard's index.
void write_block_header(const frame_job& job, std::uint32_t block, std::uint32_t m,
                        std::uint8_t* out) {
  const shard_geometry& g = job.geometry;
  out[0] = LUND_MAGIC;
  out[1] = LUND_VERSION_PLAIN;
  out[2] = LUND_PKT_VIDEO_SHARD;
  out[3] = 0;
  store_le(out + 4, job.session_id);
  store_le(out + 8, job.info.frame_id);
  store_le(out + 12, static_cast<std::uint16_t>(block));
  store_le(out + 14, static_cast<std::uint16_t>(g.block_count));
  out[17] = static_cast<std::uint8_t>(g.data_shards(block));
  out[18] = static_cast<std::uint8_t>(m);
  out[19] = job.info.flags;
  store_le(out + 20, static_cast<std::uint16_t>(g.shard_size));
  store_le(out + 22, job.size);
  store_le(out + 26, g.block_offset(block));
  store_le(out + 30, job.info.capture_time_us);
  store_le(out + 38, job.info.encode_time_us);
}

// A shard's bytes: in the frame itself, or, where it reaches beyond the frame's end, padded.
const std::uint8_t* shard_bytes(const frame_job& job, std::uint32_t offset) {
  const std::uint32_t size = job.geometry.shard_size;
  const std::uint32_t left = job.size - offset;
  if (left >= size) return job.data + offset;
  std::uint8_t* pad = job.p.pad_buffer.get();
  std::memcpy(pad, job.data + offset, left);
  std::memset(pad + left, 0, size - left);
  return pad;
}

std::uint32_t send_block(const frame_job& job, std::uint32_t block) {
  lund_packetizer& p = job.p;
  const shard_geometry& g = job.geometry;
  const std::uint32_t k = g.data_shards(block);
  const std::uint32_t m = parity_shards(p, k);
  std::uint8_t* packet = p.packet_buffer.get();
  write_block_header(job, block, m, packet);

  const std::uint8_t* shards[LUND_FEC_MAX_DATA];
  for (std::uint32_t i = 0; i < k; ++i) {
    shards[i] = shard_bytes(job, g.block_offset(block) + i * g.shard_size);
    packet[SHARD_INDEX_OFFSET] = static_cast<std::uint8_t>(i);
    std::memcpy(packet + LUND_SHARD_HEADER_SIZE, shards[i], g.shard_size);
    job.send(job.send_ctx, packet, job.datagram_length());
  }
  if (m == 0) return k;

  // Parity is computed where it is sent from: each shard has room for its header before it.
  std::uint8_t* parity[PARITY_SLOTS];
  for (std::uint32_t i = 0; i < m; ++i)
    parity[i] = p.parity_area.get() + LUND_SHARD_HEADER_SIZE + i * p.datagram_size;
  lund_fec_encode(static_cast<std::int32_t>(k), static_cast<std::int32_t>(m), g.shard_size, shards,
                  parity);
  for (std::uint32_t i = 0; i < m; ++i) {
    std::uint8_t* datagram = parity[i] - LUND_SHARD_HEADER_SIZE;
    std::memcpy(datagram, packet, LUND_SHARD_HEADER_SIZE);
    datagram[SHARD_INDEX_OFFSET] = static_cast<std::uint8_t>(k + i);
    job.send(job.send_ctx, datagram, job.datagram_length());
  }
  return k + m;
}

}  // namespace

lund_packetizer* lund_packetizer_create(std::uint64_t datagram_size, std::int32_t fec_percent,
                                        std::int32_t min_parity) {
  if (datagram_size < LUND_DATAGRAM_MIN || datagram_size > LUND_DATAGRAM_MAX) return nullptr;
  std::unique_ptr<lund_packetizer> p(new (std::nothrow) lund_packetizer);
  if (!p) return nullptr;
  p->datagram_size = datagram_size;
  p->packet_buffer.reset(new (std::nothrow) std::uint8_t[datagram_size]);
  p->pad_buffer.reset(new (std::nothrow) std::uint8_t[datagram_size]);
  p->parity_area.reset(new (std::nothrow) std::uint8_t[PARITY_SLOTS * datagram_size]);
  if (!p->packet_buffer || !p->pad_buffer || !p->parity_area) return nullptr;
  lund_packetizer_set_fec(p.get(), fec_percent, min_parity);
  lund_fec_init();
  return p.release();
}

void lund_packetizer_destroy(lund_packetizer* p) {
  delete p;
}

void lund_packetizer_set_fec(lund_packetizer* p, std::int32_t fec_percent,
                             std::int32_t min_parity) {
  if (!p) return;
  p->fec_percent = std::clamp(fec_percent, 0, FEC_PERCENT_MAX);
  p->min_parity = std::clamp(min_parity, 0, MIN_PARITY_MAX);
}

std::int64_t lund_packetizer_send_frame(lund_packetizer* p, std::uint32_t session_id,
                                        const lund_frame_info* info, const std::uint8_t* data,
                                        std::uint64_t size, lund_packet_send_fn send,
                                        void* send_ctx) {
  if (!p || !info || !data || !send || size == 0 || size > UINT32_MAX) return -1;
  // As many shards as full datagrams would need, but all of about the same size.
  const std::uint64_t payload_max = p->datagram_size - LUND_SHARD_HEADER_SIZE;
  const std::uint64_t wanted = (size + payload_max - 1) / payload_max;
  const auto shard_size = static_cast<std::uint32_t>((size + wanted - 1) / wanted);
  const auto geometry = frame_geometry(static_cast<std::uint32_t>(size), shard_size);
  if (!geometry) return -1;

  const frame_job job{*p,        session_id, *info,   data, static_cast<std::uint32_t>(size),
                      *geometry, send,       send_ctx};
  std::int64_t datagrams = 0;
  for (std::uint32_t block = 0; block < geometry->block_count; ++block)
    datagrams += send_block(job, block);
  return datagrams;
}
