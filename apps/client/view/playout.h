// What lies between sound arriving from the network and the sound device taking it: 48 kHz stereo
// floats, in whatever portions either side likes. It keeps a small reserve against jitter, and
// never more than its limit together with what the device holds. The two clocks are never quite
// equal: where the reserve grows or shrinks over time, single frames are merged or inserted, at
// most one in 200, which nobody hears. Runs dry: the last sample fades out, and silence follows
// until the reserve is there again. Runs over: the oldest goes, down to the reserve, since late
// sound is worse than a gap.
//
// Pure; its owner locks. Nothing is allocated after construction.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

struct PlayoutLimits {
  // 15 ms: what is left at the least after the device has taken its portion. More comes on top of
  // it, now and then a packet more than usual between two portions.
  std::size_t target_frames = 720;
  std::size_t max_frames = 2880;  // 60 ms, the device's buffer included
};

struct PlayoutFigures {
  std::size_t buffered_frames = 0;  // at the last push or pull, the device's buffer included
  std::size_t most_frames = 0;      // of the run
  std::uint64_t played_frames = 0;  // sound, not silence
  std::uint64_t underruns = 0;
  std::uint64_t overruns = 0;
  std::uint64_t frames_dropped = 0;   // by overruns
  std::uint64_t frames_merged = 0;    // by the correction of drift
  std::uint64_t frames_inserted = 0;  // likewise
};

class PlayoutBuffer {
 public:
  static constexpr int RATE_HZ = 48'000;
  static constexpr std::size_t CHANNELS = 2;

  explicit PlayoutBuffer(PlayoutLimits limits);

  // Interleaved samples. `device_frames` wait in the device's buffer now.
  void push(const float* samples, std::size_t frames, std::size_t device_frames);
  // Always fills `out`. `device_frames` wait there when it has got these.
  void pull(float* out, std::size_t frames, std::size_t device_frames);
  void clear();  // silence until the reserve is there again; figures stay

  const PlayoutFigures& figures() const { return figures_; }

 private:
  using Frame = std::array<float, CHANNELS>;
  enum class Correction { None, Merge, Insert };

  Frame pop();
  Frame play_one(bool may_insert);
  void run_dry();
  void look_at_reserve(std::size_t pulled);
  void note_level(std::size_t device_frames);

  PlayoutLimits limits_;
  std::vector<Frame> ring_;
  std::size_t head_ = 0, level_ = 0;
  std::size_t device_full_ = 0;  // what the device holds when it has taken a portion
  bool playing_ = false;
  Frame last_{};
  std::size_t fade_ = 0;  // frames of the fade that are left

  // The reserve is the lowest level of a while: what comes and goes above it is jitter.
  std::size_t lowest_ = SIZE_MAX;
  std::size_t looked_frames_ = 0;
  Correction correction_ = Correction::None;
  std::size_t corrections_left_ = 0;
  std::size_t until_correction_ = 0;
  PlayoutFigures figures_;
};
