#include "apps/client/statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "apps/client/json_report.h"

namespace {

constexpr std::size_t STAGES = static_cast<std::size_t>(Stage::Count);
constexpr std::size_t SAMPLES_KEPT = 216'000;

}  // namespace

const char* stage_name(Stage stage) {
  switch (stage) {
    case Stage::Paint:
      return "paint";
    case Stage::Encode:
      return "encode";
    case Stage::Transport:
      return "transport";
    case Stage::Queue:
      return "queue";
    case Stage::Decode:
      return "decode";
    case Stage::Total:
      return "total";
    case Stage::Count:
      break;
  }
  return "";
}

double percentile(std::vector<double>& samples, double p) {
  if (samples.empty()) return 0;
  const double rank = std::ceil(p / 100.0 * static_cast<double>(samples.size()));
  const auto index = static_cast<std::ptrdiff_t>(std::max(rank, 1.0)) - 1;
  std::nth_element(samples.begin(), samples.begin() + index, samples.end());
  return samples[static_cast<std::size_t>(index)];
}

void LatencySamples::add(double us) {
  if (us_.size() < SAMPLES_KEPT) {
    us_.push_back(us);
  } else {
    us_[oldest_] = us;
    oldest_ = (oldest_ + 1) % SAMPLES_KEPT;
  }
}

nlohmann::json LatencySamples::report() const {
  std::vector<double> samples = us_;
  return {{"p50", rounded(percentile(samples, 50) / 1000)},
          {"p95", rounded(percentile(samples, 95) / 1000)},
          {"max", rounded(percentile(samples, 100) / 1000)},
          {"samples", samples.size()}};
}

void StreamStatistics::frame_decoded(const FrameTimes& times, std::size_t bytes, bool keyframe,
                                     std::uint32_t recovered_shards) {
  ++second_.frames;
  ++decoded_;
  keyframes_ += keyframe;
  second_.bytes += bytes;
  bytes_ += bytes;
  recovered_shards_ += recovered_shards;
  second_.recovered_frames += recovered_shards != 0;
  recovered_frames_ += recovered_shards != 0;
  for (std::size_t stage = 0; stage < STAGES; ++stage) {
    if (stage == static_cast<std::size_t>(Stage::Paint) && !times.painted) continue;
    second_.stage_sum_us[stage] += times.us[stage];
    samples_[stage].add(times.us[stage]);
  }
}

void StreamStatistics::frames_lost(std::uint32_t count) {
  second_.lost += count;
  lost_ += count;
}

void StreamStatistics::frame_withheld() {
  ++withheld_;
}
void StreamStatistics::frame_undecodable() {
  ++undecodable_;
}

void StreamStatistics::rtt_measured(double us) {
  rtt_us_ = rtt_us_ == 0 ? us : (7 * rtt_us_ + us) / 8;
}

StreamStatistics::Second StreamStatistics::finish_second(double seconds) {
  const Counts counts = second_;
  second_ = {};
  const double frames = std::max(1.0, static_cast<double>(counts.frames));
  auto average_ms = [&](Stage stage) {
    return counts.stage_sum_us[static_cast<std::size_t>(stage)] / frames / 1000.0;
  };
  const double total = static_cast<double>(counts.frames + counts.lost);
  const double mbps = static_cast<double>(counts.bytes) * 8 / seconds / 1e6;
  const double loss_percent = total > 0 ? 100.0 * counts.lost / total : 0.0;
  char line[256];
  std::snprintf(line, sizeof line,
                "%5.1f fps %6.2f Mbps rtt %5.2f ms loss %4.1f%% recovered %u | "
                "total %5.2f ms = paint %.2f encode %.2f transport %.2f queue %.2f decode %.2f",
                counts.frames / seconds, mbps, rtt_us_ / 1000, loss_percent,
                counts.recovered_frames, average_ms(Stage::Total), average_ms(Stage::Paint),
                average_ms(Stage::Encode), average_ms(Stage::Transport), average_ms(Stage::Queue),
                average_ms(Stage::Decode));
  return {line,
          counts.frames,
          counts.lost,
          counts.recovered_frames,
          static_cast<std::uint32_t>(average_ms(Stage::Decode) * 1000),
          mbps};
}

nlohmann::json StreamStatistics::report(double seconds) const {
  nlohmann::json latency;
  for (std::size_t stage = 0; stage < STAGES; ++stage) {
    if (samples_[stage].size() > 0)
      latency[stage_name(static_cast<Stage>(stage))] = samples_[stage].report();
  }
  const double lasted = std::max(seconds, 1e-9);
  return {{"seconds", rounded(seconds)},
          {"frames", decoded_},
          {"keyframes", keyframes_},
          {"frames_lost", lost_},
          {"frames_withheld", withheld_},
          {"frames_undecodable", undecodable_},
          {"frames_recovered", recovered_frames_},
          {"shards_recovered", recovered_shards_},
          {"bytes", bytes_},
          {"fps", rounded(decoded_ / lasted)},
          {"mbps", rounded(static_cast<double>(bytes_) * 8 / lasted / 1e6)},
          {"rtt_ms", rounded(rtt_us_ / 1000)},
          {"latency_ms", latency}};
}
