// From a device's bytes to 48 kHz stereo: which mix formats can be read, how their samples are, and
// the change of rate. No threads, no platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "streams/audio_source.h"

namespace audio_internal {

inline constexpr std::uint32_t OPUS_RATE = 48'000;
inline constexpr std::size_t STEREO = 2;

// How the bytes of a source are to be read.
struct SourceFormat {
  std::uint32_t block_align = 0;  // bytes of a frame
  std::uint32_t channels = 0;
  std::uint32_t bits = 0;  // a sample's container
  bool engine_converts = false;
  bool is_float = false;
};

// What a source delivers in the form Converted.
inline constexpr SourceFormat CONVERTED_FORMAT{STEREO * sizeof(float), STEREO, 32, true, true};

// Nothing where a mix format can't be read.
std::optional<SourceFormat> readable_format(const MixFormat& mix);

// One sample as -1 to 1. Integers are little-endian and signed, floats as they stand.
float sample_at(const std::uint8_t* bytes, std::uint32_t bits, bool is_float);

// Interleaved stereo of `frames` frames. Of more channels the first two count, one is both.
void to_stereo(const SourceFormat& format, const std::uint8_t* data, std::size_t frames,
               float* stereo);

// Linear interpolation to 48 kHz, without a filter against aliases: devices that run at another
// rate and don't convert by themselves are rare.
class Resampler {
 public:
  void reset(double source_rate_over_opus_rate);

  bool changes_rate() const { return ratio_ != 1.0; }

  // Interleaved stereo; appends what follows from it. The first frame after a reset gives nothing
  // yet: there is none before it to interpolate from.
  void append(const float* stereo, std::size_t frames, std::vector<float>* out);

 private:
  struct Frame {
    float left = 0;
    float right = 0;
  };

  double ratio_ = 1.0;
  double position_ = 0;  // of the next output frame, from `previous_` (0) to `current_` (1)
  bool have_previous_ = false;
  Frame previous_;
  Frame current_;
};

}  // namespace audio_internal
