// What a stream's receiver measures: counts of the running second and of the whole run, and
// latencies by stage with their percentiles. One thread at a time; the owner locks.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// A frame's stages in order. Each is the time from the end of the one before it, in microseconds.
enum class Stage {
  Paint,      // from the time painted into the picture to the notification, where there is a marker
  Encode,     // from the notification to the end of the encoder call, conversion included
  Transport,  // from there to the last datagram needed: packetizing, sealing, network, repair
  Queue,      // waiting for the decoder
  Decode,
  Total,  // from the earliest known of these to the decoded picture
  Count
};
const char* stage_name(Stage stage);

struct FrameTimes {
  std::array<double, static_cast<std::size_t>(Stage::Count)> us{};
  bool painted = false;  // Paint holds a measurement
};

// Percentile p (0..100) of samples, by the nearest rank; 0 for none. Reorders the samples.
double percentile(std::vector<double>& samples, double p);

// One latency's measurements of a run, however long it is: of the last 216,000 pictures, an hour at
// 60 a second.
class LatencySamples {
 public:
  void add(double us);
  std::size_t size() const { return us_.size(); }
  nlohmann::json report() const;  // p50, p95 and max in milliseconds, and how many

 private:
  std::vector<double> us_;
  std::size_t oldest_ = 0;  // once they are all there
};

class StreamStatistics {
 public:
  void frame_decoded(const FrameTimes& times, std::size_t bytes, bool keyframe,
                     std::uint32_t recovered_shards);
  void frames_lost(std::uint32_t count);
  void frame_withheld();  // complete, but waiting for a keyframe
  void frame_undecodable();
  void rtt_measured(double us);

  // The line of the second that has passed, and the counts that the host is told; starts the next.
  struct Second {
    std::string line;
    std::uint32_t received = 0;
    std::uint32_t lost = 0;
    std::uint32_t recovered_frames = 0;
    std::uint32_t decode_us = 0;
    double mbps = 0;
  };
  Second finish_second(double seconds);

  double rtt_us() const { return rtt_us_; }
  std::uint32_t decoded() const { return decoded_; }
  std::uint32_t lost() const { return lost_; }
  // Counts and latencies of the run.
  nlohmann::json report(double seconds) const;

 private:
  struct Counts {
    std::uint32_t frames = 0, lost = 0, recovered_frames = 0;
    std::uint64_t bytes = 0;
    std::array<double, static_cast<std::size_t>(Stage::Count)> stage_sum_us{};
  };
  Counts second_;
  double rtt_us_ = 0;
  std::uint32_t decoded_ = 0, keyframes_ = 0, lost_ = 0, withheld_ = 0, undecodable_ = 0;
  std::uint32_t recovered_frames_ = 0;
  std::uint64_t recovered_shards_ = 0, bytes_ = 0;
  std::array<LatencySamples, static_cast<std::size_t>(Stage::Count)> samples_;
};
