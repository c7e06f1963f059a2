// The largest item over a bad link that a video shares: how long it takes, and what it costs the
// video. What is measured is printed; what is promised is tested.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <regex>

#include "tests/streams/clipboard_link.h"
#include "tests/support/video_frames.h"

namespace {

using namespace clipboard_rig;

constexpr std::uint64_t MBIT = 125'000;  // bytes a second
constexpr std::uint32_t CLIPBOARD_RATE = 5'000'000;
constexpr std::uint64_t ONE_WAY_US = 25'000;
constexpr int HOST = 0, CLIENT = 1;

// 60 pictures a second of 20 Mbit/s, each sent at once as the capture thread does, 15 % parity.
class Video {
 public:
  explicit Video(SimulatedLink& link) : link_(link) {
    link.net.add_node({}, [this] {
      send_frame();
      return std::uint64_t{16'667};
    });
    link.other = [this](int side, const Bytes& packet) {
      ASSERT_EQ(side, CLIENT);
      const lund_video_shard shard = video_frames::header_of(packet);
      const std::uint64_t took = lund_now_us() - sent_at_.at(shard.frame_id);
      ASSERT_GE(took, ONE_WAY_US);
      delays_.push_back(took - ONE_WAY_US);
    };
  }

  struct Delays {
    std::uint64_t mean_us, p99_us, max_us;
  };
  Delays delays() {
    std::sort(delays_.begin(), delays_.end());
    std::uint64_t sum = 0;
    for (const std::uint64_t delay : delays_) sum += delay;
    return {sum / delays_.size(), delays_[delays_.size() * 99 / 100], delays_.back()};
  }
  std::uint64_t sent = 0;
  std::uint64_t arrived() const { return delays_.size(); }

 private:
  void send_frame() {
    const std::uint32_t id = next_++;
    sent_at_[id] = lund_now_us();
    for (const Bytes& shard : video_frames::packetize(packetizer_.get(), id, frame_)) {
      link_.send(HOST, shard);
      ++sent;
    }
  }

  SimulatedLink& link_;
  const video_frames::Packetizer packetizer_ = video_frames::make_packetizer(MTU, 15, 1);
  const Bytes frame_ = video_frames::random_bytes(41'667, 1);
  std::uint32_t next_ = 0;
  std::map<std::uint32_t, std::uint64_t> sent_at_;
  std::vector<std::uint64_t> delays_;  // in queues: beyond the way itself
};

struct Outcome {
  double seconds = 0;
  int passes = 0;
  bool whole = false;
  std::size_t clipboard_bytes = 0;
  Sendings sendings;  // of the clipboard
  Video::Delays video{};
  std::uint64_t video_sent = 0, video_arrived = 0;
};

struct Scene {
  double loss = 0;
  std::uint64_t link_rate = 0;
  bool clipboard = true;
  std::uint32_t clipboard_rate = 0;
  bool video = true;
};

Outcome run(const Scene& scene) {
  Outcome out;
  SimulatedLink link(
      1, {.delay_us = ONE_WAY_US, .loss = scene.loss, .bytes_per_second = scene.link_rate},
      scene.clipboard_rate);
  std::optional<Video> video;
  if (scene.video) video.emplace(link);
  link.tap = [&](int side, const Bytes& packet) {
    if (side == HOST) out.sendings.emplace_back(lund_now_us(), packet.size());
  };
  const std::uint64_t start = lund_now_us();
  const Bytes item = item_of(LUND_CLIP_IMAGE_MAX);
  if (scene.clipboard) {
    link.offer(HOST, item);
    EXPECT_TRUE(link.net.run_until([&] { return link.end(HOST).log.size() > 1; }, 121'000));
    std::smatch found;
    const std::string& line = link.end(HOST).log.back();
    if (std::regex_search(line, found, std::regex("delivered in \\d+ ms \\((\\d+) pass")))
      out.passes = std::stoi(found[1]);
    EXPECT_GT(out.passes, 0) << line;
    const auto& items = link.end(CLIENT).items;
    out.whole = items.size() == 1 && items[0].bytes == item;
    for (const auto& [when, bytes] : out.sendings) out.clipboard_bytes += bytes;
    out.seconds = static_cast<double>(lund_now_us() - start) / 1e6;
  } else {
    link.net.run_for_ms(5'000);
  }
  if (video) {
    out.video = video->delays();
    out.video_sent = video->sent;
    out.video_arrived = video->arrived();
  }
  return out;
}

void print(const char* name, const Outcome& run) {
  std::printf("%s:", name);
  if (run.passes > 0)
    std::printf(" 16,777,216 B in %.2f s, %d passes, %zu B sent;", run.seconds, run.passes,
                run.clipboard_bytes);
  if (run.video_sent > 0)
    std::printf(
        " video queued %.2f ms on average, %.2f ms at p99, %.2f ms at most; %llu of %llu arrived",
        static_cast<double>(run.video.mean_us) / 1e3, static_cast<double>(run.video.p99_us) / 1e3,
        static_cast<double>(run.video.max_us) / 1e3,
        static_cast<unsigned long long>(run.video_arrived),
        static_cast<unsigned long long>(run.video_sent));
  std::printf("\n");
}

// The bucket's bytes, and a probe each 100 ms, which no bucket holds back.
std::uint64_t most_allowed(std::uint64_t rate, std::uint64_t window_us) {
  const std::uint64_t probes = window_us / 100'000 + 1;
  return rate * window_us / 1'000'000 + BURST_BYTES + MTU + probes * MTU;
}

TEST(NetSimRate, DatagramsQueueForTheLinkInEachDirectionByItself) {
  virtual_time::reset();
  const std::uint64_t start = lund_now_us();
  NetSim net(1);
  const int network = net.add_network({.delay_us = 1'000, .bytes_per_second = 1'000'000});
  const lund_rv_endpoint addresses[] = {endpoint("10.0.0.1:1"), endpoint("10.0.0.2:1")};
  std::vector<std::uint64_t> arrivals[2];
  for (const int i : {0, 1})
    net.attach(
        net.add_node([&arrivals, i, start](
                         const NetSim::Datagram&) { arrivals[i].push_back(lund_now_us() - start); },
                     {}),
        network, addresses[i]);
  const Bytes datagram(500);
  for (int i = 0; i < 3; ++i) net.send(0, addresses[1], datagram.data(), datagram.size());
  net.send(1, addresses[0], datagram.data(), datagram.size());
  net.run_for_ms(10);
  EXPECT_THAT(arrivals[1], testing::ElementsAre(1'500, 2'000, 2'500));
  EXPECT_THAT(arrivals[0], testing::ElementsAre(1'500));
  net.send(0, addresses[1], datagram.data(), datagram.size());  // the link is free again
  net.run_for_ms(10);
  EXPECT_EQ(arrivals[1].back(), 11'500u);
}

TEST(ClipboardNetSim, TheLargestImageArrivesAt10PercentLossAnd50MsRoundTripBesideAVideo) {
  const Outcome r = run({.loss = 0.1, .link_rate = 100 * MBIT});
  print("10 % loss, 50 ms, 100 Mbit/s", r);
  RecordProperty("seconds", std::to_string(r.seconds));
  RecordProperty("passes", r.passes);
  EXPECT_TRUE(r.whole);
  EXPECT_LT(r.seconds, 120);
  for (const std::uint64_t window : {10'000, 100'000, 1'000'000})
    EXPECT_LE(most_within(r.sendings, window), most_allowed(CLIPBOARD_RATE, window)) << window;
}

TEST(ClipboardNetSim, WithoutLossTheLargestImageIsOnePassAtTheRate) {
  const Outcome r = run({.link_rate = 100 * MBIT});
  print("no loss, 50 ms, 100 Mbit/s", r);
  EXPECT_TRUE(r.whole);
  EXPECT_EQ(r.passes, 1);
  // The bytes at the rate, the round trip, and sleeps of whole milliseconds.
  const double least = static_cast<double>(r.clipboard_bytes) / CLIPBOARD_RATE;
  EXPECT_GT(r.seconds, least);
  EXPECT_LT(r.seconds, least * 1.02 + 0.05);
}

// What the clipboard adds to the queue is its burst at most; the rest of what it sends the link has
// carried by then, as long as it carries video and clipboard together.
TEST(ClipboardNetSim, VideoWaitsNoLongerThanTheBurstForTheClipboard) {
  for (const double loss : {0.0, 0.1}) {
    const std::uint64_t rate = 100 * MBIT;
    const Outcome alone = run({.loss = loss, .link_rate = rate, .clipboard = false});
    const Outcome shared = run({.loss = loss, .link_rate = rate});
    std::printf("%.0f %% loss, 100 Mbit/s\n", loss * 100);
    print("  video alone", alone);
    print("  video and clipboard", shared);
    RecordProperty("alone_max_us", std::to_string(alone.video.max_us));
    RecordProperty("shared_max_us", std::to_string(shared.video.max_us));
    // A burst of packets, and a probe, with what is around each on the wire.
    const std::uint64_t burst = BURST_BYTES + 2 * MTU;
    const std::uint64_t burst_wire = burst + (burst / MTU + 1) * SimulatedLink::AROUND;
    EXPECT_LE(shared.video.max_us, alone.video.max_us + burst_wire * 1'000'000 / rate + 2);
    EXPECT_NEAR(static_cast<double>(shared.video_arrived) / static_cast<double>(shared.video_sent),
                1 - loss, 0.02);
  }
}

// The clipboard doesn't feel for what the link carries: where video and it together are above that,
// the queue grows until the item is through, unless the caller sets a lower rate.
TEST(ClipboardNetSim, OnALinkThatIsTooSlowForBothALowerRateSparesTheVideo) {
  const std::uint64_t rate = 50 * MBIT;
  const Outcome alone = run({.link_rate = rate, .clipboard = false});
  const Outcome full = run({.link_rate = rate});
  const Outcome lower = run({.link_rate = rate, .clipboard_rate = 2'000'000});
  std::printf("no loss, 50 Mbit/s\n");
  print("  video alone", alone);
  print("  clipboard at 5 MB/s", full);
  print("  clipboard at 2 MB/s", lower);
  EXPECT_TRUE(full.whole);
  EXPECT_TRUE(lower.whole);
  EXPECT_LT(lower.video.max_us, alone.video.max_us + 5'000);
  EXPECT_GT(full.video.max_us, 10 * lower.video.max_us);
}

// The engine's packets name the session, which outlives its keys.
TEST(ClipboardNetSim, ATransferThroughSealedRecordsOutlivesARekey) {
  EnginePair::Options options;
  options.lan = {.delay_us = ONE_WAY_US, .jitter_us = 5'000, .loss = 0.1};
  EnginePair pair(options);
  pair.add_lan();
  ASSERT_TRUE(pair.connect());
  const std::uint32_t session = pair.status().session_id;
  End host(0, 0), client(0, 0);
  const int payload = lund_path_payload(LUND_PATH_LAN);
  lund_clip_set_session(host.clip, session, static_cast<std::uint64_t>(payload));
  lund_clip_set_session(client.clip, session, static_cast<std::uint64_t>(payload));
  host.wire = [&](const Bytes& packet) { pair.host_sends(packet, session); };
  client.wire = [&](const Bytes& packet) { pair.client_sends(packet, session); };

  const Bytes item = item_of(1'000'000);
  host.offer(item);
  for (int ms = 0; ms < 10'000 && client.items.empty(); ++ms) {
    if (ms == 50) lund_client_rekey(pair.client);
    while (lund_clip_step(host.clip) == 0u) continue;
    pair.net.run_for_ms(1);
    for (const auto& packet : std::exchange(pair.client_packets, {})) client.receive(packet.bytes);
    for (const auto& packet : std::exchange(pair.host_packets, {})) host.receive(packet.bytes);
  }
  ASSERT_EQ(client.items.size(), 1u);
  EXPECT_TRUE(client.items[0].bytes == item);
  EXPECT_EQ(pair.client_events(LUND_EV_REKEYED).size(), 1u);
}

}  // namespace
