// The picture: shards, their parity, and how a frame falls into blocks.
#include <gtest/gtest.h>

#include <map>

#include "connection/netsock.h"
#include "connection/protocol.h"
#include "media/fec.h"
#include "media/fec_internal.h"
#include "media/video_transport.h"
#include "tests/connection/documents/protocol_examples.h"

namespace protocol_examples {

namespace {

constexpr lund_frame_info INFO{
    .frame_id = 5, .flags = 1, .capture_time_us = 1'000'000'123, .encode_time_us = 3'500};

std::vector<Bytes> shards_of(const Bytes& frame, int datagram_size, int fec_percent) {
  std::vector<Bytes> sent;
  lund_packetizer* packetizer =
      lund_packetizer_create(static_cast<std::uint64_t>(datagram_size), fec_percent, 2);
  const auto keep = [](void* to, const std::uint8_t* packet, std::uint64_t length) {
    static_cast<std::vector<Bytes>*>(to)->emplace_back(packet, packet + length);
    return std::int32_t{0};
  };
  lund_packetizer_send_frame(packetizer, SESSION_ID, &INFO, frame.data(), frame.size(), keep,
                             &sent);
  lund_packetizer_destroy(packetizer);
  return sent;
}

// Of a frame of 11 bytes in datagrams of 46: three data shards of 4 bytes, two of parity.
void add_shards(Examples& examples) {
  const Bytes frame = bytes_of("hello world");
  const std::vector<Bytes> shards = shards_of(frame, 46, 15);
  ASSERT_EQ(shards.size(), 5u);
  PacketExample(examples, "VIDEO_SHARD", shards[2])
      .header(16, 0, SESSION_ID)
      .u32("frame_id", 5)
      .u16("block_index", 0)
      .u16("block_count", 1)
      .u8("shard_index", 2)
      .u8("data_shards", 3)
      .u8("parity_shards", 2)
      .u8("flags", 1)
      .u16("shard_size", 4)
      .u32("frame_size", 11)
      .u32("block_offset", 0)
      .u64("capture_time_us", 1'000'000'123)
      .u32("encode_time_us", 3'500)
      .variable("shard", Bytes{'r', 'l', 'd', 0});

  ValuesExample values(examples, "parity");
  for (std::size_t i = 0; i < shards.size(); ++i) {
    const std::span shard = std::span(shards[i]).subspan(LUND_SHARD_HEADER_SIZE);
    values.value((i < 3 ? "data " : "parity ") + std::to_string(i < 3 ? i : i - 3), shard);
  }
  // Parity of unit shards is the matrix itself.
  for (int i = 0; i < 2; ++i) {
    Bytes row;
    for (int j = 0; j < 3; ++j) {
      std::uint8_t unit[3] = {}, out[2];
      unit[j] = 1;
      const std::uint8_t* data[] = {unit, unit + 1, unit + 2};
      std::uint8_t* parity[] = {out, out + 1};
      EXPECT_EQ(lund_fec_encode(3, 2, 1, data, parity), 0);
      row.push_back(out[i]);
    }
    values.value("row " + std::to_string(i), row);
  }
}

void add_field(Examples& examples) {
  using namespace lund_fec;
  ValuesExample values(examples, "field");
  lund_fec_init();
  Bytes powers, inverses;
  for (unsigned i = 0; i < 16; ++i) powers.push_back(gf_exp[i]);
  for (unsigned v = 1; v <= 16; ++v) inverses.push_back(gf_exp[255 - gf_log[v]]);
  values.value("2^0 .. 2^15", powers).value("1/1 .. 1/16", inverses);
  values.value("53 * ca, 57 * 13", Bytes{gf_mul_table[0x53][0xCA], gf_mul_table[0x57][0x13]});
}

// What the headers of a frame's shards say of it.
std::string layout_of(std::size_t frame_size, int datagram_size, int fec_percent) {
  const std::vector<Bytes> shards = shards_of(Bytes(frame_size, 1), datagram_size, fec_percent);
  std::map<int, std::string> blocks;
  std::uint32_t shard_size = 0, data = 0;
  for (const Bytes& shard : shards) {
    lund_video_shard h;
    EXPECT_EQ(lund_decode_video_shard(shard.data(), shard.size(), &h, nullptr, nullptr), 0);
    shard_size = h.shard_size;
    data += h.shard_index < h.data_shards;
    blocks[h.block_index] = " " + std::to_string(h.data_shards) + "+" +
                            std::to_string(h.parity_shards) + "@" + std::to_string(h.block_offset);
  }
  std::string text = "S " + std::to_string(shard_size) + ", T " + std::to_string(data) + ", B " +
                     std::to_string(blocks.size()) + ":";
  for (const auto& [index, block] : blocks) text += block;
  return text + "; " + std::to_string(shards.size()) + " datagrams of " +
         std::to_string(shards.front().size());
}

void add_layouts(Examples& examples) {
  ValuesExample values(examples, "block layout");
  const auto add = [&](std::size_t frame, int datagram, int fec) {
    values.line(
        std::to_string(frame) + ", " + std::to_string(datagram) + ", " + std::to_string(fec) + " %",
        layout_of(frame, datagram, fec));
  };
  add(1, 1376, 0);
  add(1'334, 1376, 15);
  add(1'335, 1376, 15);
  add(86'710, 1376, 15);
  add(100'000, 1472, 20);
  add(200'000, 1176, 15);
}

void add_path_sizes(Examples& examples) {
  ValuesExample values(examples, "datagram sizes");
  for (const auto path : {LUND_PATH_LAN, LUND_PATH_DIRECT, LUND_PATH_P2P, LUND_PATH_RELAY})
    values.line(std::to_string(path) + " " + lund_path_name(path),
                "datagram " + std::to_string(lund_path_max_datagram(path)) + ", payload " +
                    std::to_string(lund_path_payload(path)));
}

}  // namespace

void add_media_packets(Examples& examples) {
  add_shards(examples);
  add_field(examples);
  add_layouts(examples);
  add_path_sizes(examples);
}

}  // namespace protocol_examples
