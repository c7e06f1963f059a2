// One end of the clipboard, stepped on the virtual clock: what it sends, logs and delivers is kept
// for the test to look at, and packets of the other end are made by hand.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "connection/clock.h"
#include "connection/protocol.h"
#include "streams/clipboard_internal.h"
#include "tests/support/virtual_time.h"

namespace clipboard_rig {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint32_t SESSION = 0x11223344;
inline constexpr std::uint32_t MTU = 1'376;           // the payload of a LAN path
inline constexpr std::uint32_t CHUNK = MTU - 21;      // of an item in one packet
inline constexpr std::uint32_t PASS_END_MS = 100;     // how long a sender waits before it probes
inline constexpr std::uint32_t BURST_BYTES = 16'384;  // beside one packet

// Differs from place to place, so that a byte in the wrong one shows.
inline Bytes item_of(std::size_t size, std::uint32_t seed = 1) {
  Bytes item(size);
  std::uint32_t state = seed * 2'654'435'761u;
  for (std::uint8_t& byte : item) {
    state = state * 1'664'525u + 1'013'904'223u;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  return item;
}

struct Chunk {
  lund_packet_header header;
  lund_clipboard_chunk chunk;
  Bytes bytes;
  std::uint32_t end() const { return chunk.offset + static_cast<std::uint32_t>(bytes.size()); }
};

inline Chunk chunk_of(const Bytes& packet) {
  Chunk out;
  const std::uint8_t* bytes = nullptr;
  std::size_t size = 0;
  EXPECT_EQ(lund_decode_header(packet.data(), packet.size(), &out.header), 0);
  EXPECT_EQ(lund_decode_clipboard(packet.data(), packet.size(), &out.chunk, &bytes, &size), 0);
  if (bytes != nullptr) out.bytes.assign(bytes, bytes + size);
  return out;
}

inline lund_clipboard_ack ack_of(const Bytes& packet) {
  lund_clipboard_ack ack;
  EXPECT_EQ(lund_decode_clipboard_ack(packet.data(), packet.size(), &ack), 0);
  return ack;
}

inline bool is_chunk(const Bytes& packet) {
  return packet.size() > 2 && packet[2] == LUND_PKT_CLIPBOARD;
}

inline Bytes chunk_packet(const Bytes& item, std::uint32_t offset, std::uint32_t length,
                          std::uint32_t id = 1, std::uint8_t kind = LUND_CLIP_PNG,
                          std::uint32_t session = SESSION) {
  const lund_packet_header header{.session_id = session};
  const lund_clipboard_chunk chunk{
      .id = id, .kind = kind, .total = static_cast<std::uint32_t>(item.size()), .offset = offset};
  Bytes packet(21 + length);
  EXPECT_EQ(lund_encode_clipboard(packet.data(), packet.size(), &header, &chunk,
                                  item.data() + offset, length),
            packet.size());
  return packet;
}

inline Bytes ack_packet(std::uint32_t id, std::uint8_t status,
                        const std::vector<lund_clipboard_range>& ranges = {},
                        std::uint32_t session = SESSION) {
  const lund_packet_header header{.session_id = session};
  lund_clipboard_ack ack{
      .id = id, .status = status, .range_count = static_cast<std::uint8_t>(ranges.size())};
  std::copy(ranges.begin(), ranges.end(), ack.ranges);
  Bytes packet(14 + 8 * ranges.size());
  EXPECT_EQ(lund_encode_clipboard_ack(packet.data(), packet.size(), &header, &ack), packet.size());
  return packet;
}

// When how many bytes were sent.
using Sendings = std::vector<std::pair<std::uint64_t, std::size_t>>;

// The most bytes that were sent in any span of this length, its ends included.
inline std::size_t most_within(const Sendings& sent, std::uint64_t window_us) {
  std::size_t most = 0, inside = 0;
  for (std::size_t first = 0, last = 0; last < sent.size(); ++last) {
    inside += sent[last].second;
    while (sent[last].first - sent[first].first > window_us) inside -= sent[first++].second;
    most = std::max(most, inside);
  }
  return most;
}

class End {
 public:
  struct Item {
    std::uint32_t id;
    std::uint8_t kind;
    Bytes bytes;
  };

  explicit End(std::uint32_t rate = 0, std::uint64_t mtu = MTU) {
    const lund_clip_config config{.send = &End::on_send,
                                  .on_data = &End::on_item,
                                  .log = &End::on_log,
                                  .user = this,
                                  .rate = rate};
    clip = lund_clip_create_stepped(&config);
    if (mtu != 0) lund_clip_set_session(clip, SESSION, mtu);
  }
  ~End() { lund_clip_destroy(clip); }
  End(const End&) = delete;
  End& operator=(const End&) = delete;

  std::uint32_t offer(const Bytes& item, std::uint8_t kind = LUND_CLIP_PNG) {
    return lund_clip_offer(clip, kind, item.data(), item.size());
  }
  int receive(const Bytes& packet) { return lund_clip_receive(clip, packet.data(), packet.size()); }
  std::vector<Bytes> take() { return std::exchange(sent, {}); }

  // All steps that are due from now to the end of this time, where the clock then stands.
  void run_for_us(std::uint64_t us) {
    const std::uint64_t end = lund_now_us() + us;
    for (;;) {
      const auto wait = lund_clip_step(clip);
      if (wait && *wait == 0) continue;
      const std::uint64_t left = end - lund_now_us();
      if (left == 0) return;
      virtual_time::advance_us(wait ? std::min(*wait * std::uint64_t{1000}, left) : left);
    }
  }
  void run_for_ms(std::uint64_t ms) { run_for_us(ms * 1000); }

  // Steps until the pass is over, and gives its chunks.
  std::vector<Chunk> pass() {
    std::vector<Chunk> chunks;
    for (int steps = 0; steps < 1'000'000; ++steps) {
      const auto wait = lund_clip_step(clip);
      for (const Bytes& packet : take()) chunks.push_back(chunk_of(packet));
      if (!wait || *wait >= PASS_END_MS) return chunks;
      virtual_time::advance_ms(*wait);
    }
    ADD_FAILURE() << "a pass without end";
    return chunks;
  }

  bool idle() { return !lund_clip_step(clip).has_value(); }  // with nothing to send any more
  int logged(const std::string& line) const {
    return static_cast<int>(std::count(log.begin(), log.end(), line));
  }

  lund_clip* clip = nullptr;
  std::vector<Bytes> sent;
  std::vector<std::string> log;
  std::vector<Item> items;
  std::function<void(const Bytes&)> wire;  // takes what is sent, in place of `sent`

 private:
  static void on_send(void* user, const std::uint8_t* packet, std::uint64_t length) {
    End& end = *static_cast<End*>(user);
    Bytes bytes(packet, packet + length);
    if (end.wire)
      end.wire(bytes);
    else
      end.sent.push_back(std::move(bytes));
  }
  static void on_item(void* user, std::uint32_t id, std::uint8_t kind, std::uint8_t* data,
                      std::uint64_t size) {
    static_cast<End*>(user)->items.push_back({id, kind, Bytes(data, data + size)});
    lund_clip_free(data);
  }
  static void on_log(void* user, const char* text) {
    static_cast<End*>(user)->log.emplace_back(text);
  }
};

// Everything that either has sent goes to the other, until there is no more.
inline void exchange(End& a, End& b) {
  while (!a.sent.empty() || !b.sent.empty()) {
    for (const Bytes& packet : a.take()) EXPECT_EQ(b.receive(packet), 1);
    for (const Bytes& packet : b.take()) EXPECT_EQ(a.receive(packet), 1);
  }
}

}  // namespace clipboard_rig
