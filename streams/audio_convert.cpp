#include "streams/audio_convert.h"

#include <cstring>

namespace audio_internal {
namespace {

// WAVEFORMATEX tags, and how much an extensible format adds to it.
constexpr std::uint16_t TAG_PCM = 1;
constexpr std::uint16_t TAG_IEEE_FLOAT = 3;
constexpr std::uint16_t TAG_EXTENSIBLE = 0xFFFE;
constexpr std::uint16_t EXTENSIBLE_BYTES = 22;

constexpr std::uint32_t LOWEST_RATE = 8'000;

constexpr float FROM_16_BITS = 3.0517578e-5F;  // 1 / 2^15
constexpr float FROM_32_BITS = 4.656613e-10F;  // 1 / 2^31

bool is_encoded_as(const MixFormat& mix, std::uint16_t tag, MixFormat::SubFormat sub_format) {
  return mix.tag == tag || (mix.tag == TAG_EXTENSIBLE && mix.extra_bytes >= EXTENSIBLE_BYTES &&
                            mix.sub_format == sub_format);
}

std::uint32_t byte_at(const std::uint8_t* bytes, std::size_t index) {
  return bytes[index];
}

}  // namespace

std::optional<SourceFormat> readable_format(const MixFormat& mix) {
  const bool is_float = is_encoded_as(mix, TAG_IEEE_FLOAT, MixFormat::SubFormat::Float);
  if (!is_float && !is_encoded_as(mix, TAG_PCM, MixFormat::SubFormat::Pcm)) return {};
  const bool bits_fit =
      is_float ? mix.bits == 32 : mix.bits == 16 || mix.bits == 24 || mix.bits == 32;
  if (!bits_fit || mix.rate < LOWEST_RATE) return {};
  if (mix.channels == 0 || mix.channels > mix.block_align) return {};
  return SourceFormat{mix.block_align, mix.channels, mix.bits, false, is_float};
}

float sample_at(const std::uint8_t* bytes, std::uint32_t bits, bool is_float) {
  if (is_float) {
    float sample;
    std::memcpy(&sample, bytes, sizeof sample);
    return sample;
  }
  if (bits == 16) {
    const auto sample = static_cast<std::int16_t>(byte_at(bytes, 0) | byte_at(bytes, 1) << 8);
    return static_cast<float>(sample) * FROM_16_BITS;
  }
  // The topmost bytes of 32 bits.
  std::uint32_t sample = byte_at(bytes, 0) << 8 | byte_at(bytes, 1) << 16 | byte_at(bytes, 2) << 24;
  if (bits != 24) sample = sample >> 8 | byte_at(bytes, 3) << 24;
  return static_cast<float>(static_cast<std::int32_t>(sample)) * FROM_32_BITS;
}

void to_stereo(const SourceFormat& format, const std::uint8_t* data, std::size_t frames,
               float* stereo) {
  if (format.engine_converts) {
    std::memcpy(stereo, data, frames * format.block_align);
    return;
  }
  const std::uint32_t sample_bytes = format.bits / 8;
  const std::uint32_t right = format.channels == 1 ? 0 : format.block_align / format.channels;
  // A device that counts fewer bytes a frame than its samples take can't be read.
  if (right + sample_bytes > format.block_align) {
    std::memset(stereo, 0, frames * STEREO * sizeof(float));
    return;
  }
  for (; frames > 0; --frames, data += format.block_align) {
    *stereo++ = sample_at(data, format.bits, format.is_float);
    *stereo++ = sample_at(data + right, format.bits, format.is_float);
  }
}

void Resampler::reset(double source_rate_over_opus_rate) {
  *this = Resampler();
  ratio_ = source_rate_over_opus_rate;
}

void Resampler::append(const float* stereo, std::size_t frames, std::vector<float>* out) {
  for (; frames > 0; --frames, stereo += STEREO) {
    previous_ = current_;
    current_ = {stereo[0], stereo[1]};
    if (!have_previous_) {
      have_previous_ = true;
      continue;
    }
    const double left_step = static_cast<double>(current_.left) - previous_.left;
    const double right_step = static_cast<double>(current_.right) - previous_.right;
    for (; position_ < 1.0; position_ += ratio_) {
      out->push_back(static_cast<float>(left_step * position_ + previous_.left));
      out->push_back(static_cast<float>(right_step * position_ + previous_.right));
    }
    position_ -= 1.0;
  }
}

}  // namespace audio_internal
