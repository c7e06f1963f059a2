// Packetizer and reassembler together, over networks that lose, repeat, reorder and forge.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <set>

#include "media/video_transport.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/video_frames.h"

namespace {

using namespace video_frames;
using Random = std::mt19937;

bool chance(Random& random, double probability) {
  return std::uniform_real_distribution<double>()(random) < probability;
}

// What a receiver with room for 8 frames must make of the shards it gets, by the rules alone.
class Model {
 public:
  // Whether a frame is ready after this shard.
  bool push(const lund_video_shard& shard) {
    const std::uint32_t id = shard.frame_id;
    if (started_ && id < next_) return ready();
    started_ = true;
    if (!frames_.contains(id)) {
      if (frames_.size() == 8) {
        if (frames_.begin()->first > id) return ready();
        frames_.erase(frames_.begin());
      }
      frames_[id].blocks.resize(shard.block_count);
    }
    Frame& frame = frames_[id];
    if (frame.complete) return ready();
    frame.blocks[shard.block_index].insert(shard.shard_index);
    frame.needed[shard.block_index] = shard.data_shards;
    frame.complete = std::all_of(frame.blocks.begin(), frame.blocks.end(), [&](const auto& seen) {
      const auto block = static_cast<int>(&seen - frame.blocks.data());
      return !seen.empty() && seen.size() >= frame.needed[block];
    });
    if (frame.complete) {
      next_ = id + 1;
      std::erase_if(frames_, [&](const auto& f) { return f.first < id && !f.second.complete; });
    }
    return ready();
  }
  // The frame that a pop must give.
  std::uint32_t pop() {
    const auto oldest = std::find_if(frames_.begin(), frames_.end(),
                                     [](const auto& f) { return f.second.complete; });
    const std::uint32_t id = oldest->first;
    frames_.erase(oldest);
    return id;
  }
  bool ready() const {
    return std::any_of(frames_.begin(), frames_.end(),
                       [](const auto& f) { return f.second.complete; });
  }

 private:
  struct Frame {
    std::vector<std::set<int>> blocks;
    std::map<int, std::size_t> needed;
    bool complete = false;
  };
  std::map<std::uint32_t, Frame> frames_;
  std::uint32_t next_ = 0;
  bool started_ = false;
};

// The datagrams of many frames after a network: each may be lost or repeated, and comes up to
// `spread` places late.
std::vector<Bytes> through_network(Random& random, std::vector<Bytes> datagrams, double loss,
                                   double repeat, double spread) {
  std::vector<std::pair<double, std::size_t>> arrivals;
  for (std::size_t i = 0; i < datagrams.size(); ++i) {
    for (int copy = 0; copy < 2; ++copy) {
      if (chance(random, copy == 0 ? loss : 1 - repeat)) continue;
      arrivals.emplace_back(
          static_cast<double>(i) +
              spread * chance(random, 0.5) * std::uniform_real_distribution<double>()(random),
          i);
    }
  }
  std::sort(arrivals.begin(), arrivals.end());
  std::vector<Bytes> out;
  for (const auto& arrival : arrivals) out.push_back(datagrams[arrival.second]);
  return out;
}

TEST(Transport, DeliversExactlyWhatTheRulesSayOverABadNetwork) {
  std::size_t delivered = 0;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random random(seed);
    const auto p =
        make_packetizer(60, static_cast<int>(random() % 60), static_cast<int>(random() % 3));
    std::vector<Bytes> sent;
    std::vector<Bytes> datagrams;
    for (std::uint32_t id = 0; id < 40; ++id) {
      sent.push_back(random_bytes(1 + random() % (seed % 3 == 0 ? 3'000 : 500), random()));
      for (auto& datagram : packetize(p.get(), id, sent.back()))
        datagrams.push_back(std::move(datagram));
    }
    const double loss = (seed % 5) * 0.06;
    auto arrived = through_network(random, datagrams, loss, 0.1, (seed % 4) * 30.0);
    arrived.insert(arrived.begin(), datagrams[0]);  // so that the start stays at frame 0

    const auto r = make_reassembler();
    Model model;
    for (const auto& datagram : arrived) {
      ASSERT_EQ(push(r.get(), datagram), model.push(header_of(datagram)) ? 1 : 0);
      while (model.ready() && chance(random, 0.7)) {
        lund_reassembled_frame frame;
        ASSERT_EQ(lund_reassembler_pop(r.get(), &frame, nullptr), 1);
        ASSERT_EQ(frame.frame_id, model.pop());
        ASSERT_EQ(Bytes(frame.data, frame.data + frame.size), sent[frame.frame_id]);
        ++delivered;
      }
    }
    EXPECT_EQ(stats_of(r).shards_invalid, 0u);
  }
  EXPECT_GT(delivered, 1'000u);
}

TEST(Transport, AFrameIsCompleteWithTheShardThatGivesEveryBlockItsCount) {
  Random random(7);
  const auto p = make_packetizer(52, 30, 1);
  const auto r = make_reassembler();
  for (std::uint32_t id = 0; id < 60; ++id) {
    const Bytes sent = random_bytes(1 + random() % 2'000, random());
    auto datagrams = packetize(p.get(), id, sent);
    std::shuffle(datagrams.begin(), datagrams.end(), random);
    std::map<int, int> missing;
    for (const auto& datagram : datagrams) {
      const auto header = header_of(datagram);
      missing[header.block_index] = header.data_shards;
    }
    for (const auto& datagram : datagrams) {
      --missing[header_of(datagram).block_index];
      const bool complete = std::all_of(missing.begin(), missing.end(),
                                        [](const auto& block) { return block.second <= 0; });
      ASSERT_EQ(push(r.get(), datagram), complete ? 1 : 0) << "frame " << id;
      if (complete) break;
    }
    lund_reassembled_frame frame;
    ASSERT_EQ(lund_reassembler_pop(r.get(), &frame, nullptr), 1);
    ASSERT_EQ(Bytes(frame.data, frame.data + frame.size), sent);
  }
}

// The probability that at most m of n datagrams are lost.
double survives(int n, int m, double loss) {
  double sum = 0;
  for (int lost = 0; lost <= m; ++lost)
    sum += std::exp(std::lgamma(n + 1) - std::lgamma(lost + 1) - std::lgamma(n - lost + 1) +
                    lost * std::log(loss) + (n - lost) * std::log1p(-loss));
  return sum;
}

struct LossCase {
  double loss;
  int fec_percent;
  int min_parity;
  std::size_t frame_size;  // at 8 bytes a shard
};

class TransportLoss : public testing::TestWithParam<LossCase> {};

TEST_P(TransportLoss, TheShareOfCompleteFramesIsTheBinomialOne) {
  // One standard deviation is below 0.2 points for the shares that come out.
  constexpr std::uint32_t FRAMES = 30'000;
  const LossCase c = GetParam();
  Random random(42);
  const auto p = make_packetizer(50, c.fec_percent, c.min_parity);
  const auto r = make_reassembler();
  // The datagrams of each frame differ from those of the first by their number alone.
  auto datagrams = packetize(p.get(), 0, random_bytes(c.frame_size, 1));
  double predicted = 1;
  for (const auto& datagram : datagrams) {
    const auto header = header_of(datagram);
    if (header.shard_index == 0)
      predicted *=
          survives(header.data_shards + header.parity_shards, header.parity_shards, c.loss);
  }
  push(r.get(), datagrams[0]);  // so that the start is frame 0
  lund_reassembled_frame frame;
  for (std::uint32_t id = 1; id <= FRAMES; ++id) {
    for (auto& datagram : datagrams) {
      store_le(&datagram[8], id);
      if (!chance(random, c.loss)) push(r.get(), datagram);
    }
    while (lund_reassembler_pop(r.get(), &frame, nullptr) == 1) continue;
  }
  const double share = static_cast<double>(stats_of(r).frames_completed) / FRAMES;
  EXPECT_NEAR(share, predicted, 0.005);
  EXPECT_GT(predicted, 0.8);
  EXPECT_LT(predicted, 0.999);
  RecordProperty("share", std::to_string(share));
  RecordProperty("predicted", std::to_string(predicted));
}

INSTANTIATE_TEST_SUITE_P(Rates, TransportLoss,
                         testing::Values(LossCase{0.01, 0, 2, 64 * 8}, LossCase{0.01, 1, 1, 32 * 8},
                                         LossCase{0.05, 10, 2, 20 * 8},
                                         LossCase{0.05, 15, 2, 70 * 8},
                                         LossCase{0.10, 25, 2, 16 * 8},
                                         LossCase{0.10, 20, 2, 64 * 8}));

// Datagrams as a peer might forge them: noise, and real ones with some bytes or their length
// changed.
Bytes hostile_datagram(Random& random, const Bytes& real) {
  const auto any = [&random] { return static_cast<std::uint8_t>(random()); };
  if (random() % 4 == 0) {
    Bytes noise = random_bytes(random() % 1'500, random());
    for (std::size_t i = 0; i < std::min<std::size_t>(3, noise.size()) && random() % 8 != 0; ++i)
      noise[i] = std::array<std::uint8_t, 3>{0x50, 1, 16}[i];
    return noise;
  }
  Bytes datagram = real;
  for (auto changes = random() % 8; changes > 0 && changes < 4; --changes)
    datagram[random() % 10 == 0 ? random() % datagram.size() : random() % 42] = any();
  if (random() % 20 == 0) datagram.resize(random() % 1'500);
  return datagram;
}

TEST(Transport, HostileDatagramsNeitherCrashNorGrowTheReceiver) {
  constexpr std::uint64_t MAX_FRAME = 20'000;
  Random random(20);
  const auto p = make_packetizer(142, 150, 2);
  std::vector<Bytes> real;
  for (std::uint32_t id = 0; id < 12; ++id)
    for (auto& datagram : packetize(p.get(), id, random_bytes(1 + id * 400, id)))
      real.push_back(std::move(datagram));

  std::size_t next = 0;
  std::uint64_t popped = 0;
  std::uint64_t received = 0;
  // A receiver that a forged frame number has led far ahead takes real ones no more, so that there
  // are many receivers.
  for (int session = 0; session < 800; ++session) {
    const auto r = make_reassembler(MAX_FRAME);
    std::uint64_t grown = 0;
    for (int i = 0; i < 250; ++i) {
      const Bytes datagram = hostile_datagram(random, real[next++ % real.size()]);
      const AllocationCount allocations;
      push(r.get(), datagram);
      grown += allocations.count();
      lund_reassembled_frame frame;
      while (random() % 8 == 0 && lund_reassembler_pop(r.get(), &frame, nullptr) == 1) {
        ASSERT_LE(frame.size, MAX_FRAME);
        popped += std::accumulate(frame.data, frame.data + frame.size, 0u) > 0;
      }
    }
    // Three buffers in each of 8 slots, each of which grows by half at least up to its limit.
    ASSERT_LE(grown, 8u * 3u * 25u);
    received += stats_of(r).shards_received;
    EXPECT_GT(stats_of(r).shards_invalid, 40u);
  }
  EXPECT_GT(popped, 100u);
  EXPECT_GT(received, 10'000u);
}

TEST(Transport, NoBufferOutgrowsItsLimit) {
  constexpr std::uint64_t MAX_FRAME = 20'000;
  const auto small = make_packetizer(43, 0, 0);
  const auto large = make_packetizer(1472, 0, 0);
  std::vector<std::vector<Bytes>> frames;
  for (std::uint32_t id = 0; id < 60; ++id)
    frames.push_back(packetize(id % 2 ? small.get() : large.get(), id,
                               random_bytes(id * 1'000 % 19'999 + 1, id)));
  const auto r = make_reassembler(MAX_FRAME);
  // The frame's buffer, or 336 records of blocks of about 100 bytes: whatever would be larger
  // fails.
  const AllocationLimit limit(37'000);
  for (const auto& datagrams : frames) {
    for (const auto& datagram : datagrams) push(r.get(), datagram);
    lund_reassembled_frame frame;
    ASSERT_EQ(lund_reassembler_pop(r.get(), &frame, nullptr), 1);
  }
}

}  // namespace
