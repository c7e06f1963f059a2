// A receiver against a sequence of steps: packets as they come, real shards with bytes changed, and
// pops. The input: largest frame and parity, then steps of an operation byte and what it needs.
#include <cstdint>
#include <numeric>
#include <utility>

#include "fuzz/input.h"
#include "fuzz/require.h"
#include "tests/support/video_frames.h"

namespace {

using namespace video_frames;

struct Pick {
  unsigned index;
  unsigned sent = 0;
  Bytes datagram;
};
std::int32_t keep_picked(void* pick, const std::uint8_t* packet, std::uint64_t length) {
  auto& p = *static_cast<Pick*>(pick);
  if (p.sent++ <= p.index) p.datagram.assign(packet, packet + length);
  return 0;
}

// A shard of a real frame, with up to 3 bytes changed.
Bytes mutated_shard(Input& in, lund_packetizer* p) {
  const std::uint32_t frame_id = in.byte();
  const Bytes frame(1 + in.u16() % 4096, static_cast<std::uint8_t>(frame_id));
  const lund_frame_info info = info_of(frame_id);
  Pick pick{.index = in.byte(), .datagram = {}};
  lund_packetizer_send_frame(p, 7, &info, frame.data(), frame.size(), keep_picked, &pick);
  Bytes& datagram = pick.datagram;
  for (unsigned changes = in.byte() % 4; changes > 0; --changes) {
    const std::size_t offset = in.byte() % datagram.size();
    datagram[offset] = static_cast<std::uint8_t>(in.byte());
  }
  return std::move(datagram);
}

bool pop_and_read(lund_reassembler* r, std::uint64_t max_frame_size) {
  lund_reassembled_frame frame;
  std::uint32_t skipped = 0;
  if (lund_reassembler_pop(r, &frame, &skipped) == 0) return false;
  require(frame.size >= 1 && frame.size <= max_frame_size, "a frame is within the limit");
  volatile unsigned sum = std::accumulate(frame.data, frame.data + frame.size, 0u);
  static_cast<void>(sum);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  const std::uint64_t max_frame_size = 1 + in.u16() % 8192;
  const auto p = make_packetizer(43 + in.byte(), static_cast<int>(in.byte()), 1);
  const auto r = make_reassembler(max_frame_size);
  while (!in.done()) {
    switch (in.byte() % 4) {
      case 0:
        pop_and_read(r.get(), max_frame_size);
        break;
      case 1:
        push(r.get(), in.bytes(in.u16() % 1600));
        break;
      default:
        if (push(r.get(), mutated_shard(in, p.get())) == 1 && in.byte() % 2 == 0)
          require(pop_and_read(r.get(), max_frame_size), "pop gives what push promised");
    }
  }
  while (pop_and_read(r.get(), max_frame_size)) continue;
  return 0;
}
