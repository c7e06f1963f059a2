#include "streams/audio_convert.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "tests/support/fake_audio_source.h"

using namespace audio_internal;
using fake_audio::as_bytes;
using testing::ElementsAre;
using testing::FloatEq;
using testing::Pointwise;

namespace {

using SubFormat = MixFormat::SubFormat;

constexpr std::uint16_t PCM = 1;
constexpr std::uint16_t FLOAT = 3;
constexpr std::uint16_t EXTENSIBLE = 0xFFFE;

struct MixCase {
  const char* what;
  MixFormat mix;
  bool accepted;
  bool is_float = false;
};

MixFormat plain(std::uint16_t tag, std::uint16_t bits, std::uint16_t channels = 2,
                std::uint32_t rate = 48'000) {
  const auto block_align = static_cast<std::uint16_t>(channels * bits / 8);
  return {tag, 0, SubFormat::Other, rate, channels, bits, block_align};
}

MixFormat extensible(SubFormat sub_format, std::uint16_t bits, std::uint16_t extra_bytes = 22) {
  MixFormat mix = plain(EXTENSIBLE, bits);
  mix.extra_bytes = extra_bytes;
  mix.sub_format = sub_format;
  return mix;
}

MixFormat with_block_align(MixFormat mix, std::uint16_t block_align) {
  mix.block_align = block_align;
  return mix;
}

const MixCase MIX_CASES[] = {
    {"float", plain(FLOAT, 32), true, true},
    {"float of 64 bits", plain(FLOAT, 64), false},
    {"float of 16 bits", plain(FLOAT, 16), false},
    {"integers of 16 bits", plain(PCM, 16), true},
    {"integers of 24 bits", plain(PCM, 24), true},
    {"integers of 32 bits", plain(PCM, 32), true},
    {"integers of 8 bits", plain(PCM, 8), false},
    {"integers of 20 bits", plain(PCM, 20), false},
    {"extensible float", extensible(SubFormat::Float, 32), true, true},
    {"extensible integers", extensible(SubFormat::Pcm, 24), true},
    {"extensible with more than it needs", extensible(SubFormat::Pcm, 24, 40), true},
    {"extensible cut short", extensible(SubFormat::Float, 32, 21), false},
    {"extensible of another sub-format", extensible(SubFormat::Other, 32), false},
    {"a tag of its own with a known sub-format", {2, 22, SubFormat::Pcm, 48'000, 2, 16, 4}, false},
    {"no tag", plain(0, 16), false},
    {"the lowest rate", plain(PCM, 16, 2, 8'000), true},
    {"a lower rate", plain(PCM, 16, 2, 7'999), false},
    {"a lower rate of floats", plain(FLOAT, 32, 2, 7'999), false},
    {"one channel", plain(PCM, 16, 1), true},
    {"eight channels", plain(FLOAT, 32, 8), true, true},
    {"no channel", with_block_align(plain(PCM, 16, 0), 4), false},
    {"as many channels as bytes", with_block_align(plain(PCM, 16, 4), 4), true},
    {"more channels than bytes", with_block_align(plain(PCM, 16, 5), 4), false},
    {"more channels of floats than bytes", with_block_align(plain(FLOAT, 32, 5), 4), false},
};

TEST(MixFormats, AreReadableByTheirTagBitsRateAndChannels) {
  for (const MixCase& c : MIX_CASES) {
    SCOPED_TRACE(c.what);
    const auto format = readable_format(c.mix);
    ASSERT_EQ(format.has_value(), c.accepted);
    if (!format) continue;
    EXPECT_EQ(format->is_float, c.is_float);
    EXPECT_EQ(format->bits, c.mix.bits);
    EXPECT_EQ(format->channels, c.mix.channels);
    EXPECT_EQ(format->block_align, c.mix.block_align);
    EXPECT_FALSE(format->engine_converts);
  }
}

float sample(std::vector<std::uint8_t> bytes, std::uint32_t bits) {
  return sample_at(bytes.data(), bits, false);
}

TEST(SampleAt, FloatsStandAsTheyAre) {
  for (const float value : {0.0F, 1.0F, -1.0F, 0.1F, 1.5F}) {
    EXPECT_EQ(sample_at(as_bytes<float>({value}).data(), 32, true), value);
  }
}

TEST(SampleAt, IntegersAreLittleEndianAndSignedAndFillMinusOneToOne) {
  EXPECT_EQ(sample({0x00, 0x00}, 16), 0.0F);
  EXPECT_FLOAT_EQ(sample({0x01, 0x00}, 16), 1.0F / 32'768);
  EXPECT_FLOAT_EQ(sample({0xFF, 0x7F}, 16), 32'767.0F / 32'768);
  EXPECT_FLOAT_EQ(sample({0x00, 0x80}, 16), -1.0F);

  EXPECT_FLOAT_EQ(sample({0x01, 0x00, 0x00}, 24), 1.0F / 8'388'608);
  EXPECT_FLOAT_EQ(sample({0x00, 0x00, 0x40}, 24), 0.5F);
  EXPECT_FLOAT_EQ(sample({0xFF, 0xFF, 0xFF}, 24), -1.0F / 8'388'608);
  EXPECT_FLOAT_EQ(sample({0x00, 0x00, 0x80}, 24), -1.0F);

  EXPECT_FLOAT_EQ(sample({0x01, 0x00, 0x00, 0x00}, 32), 1.0F / 2'147'483'648);
  EXPECT_FLOAT_EQ(sample({0x00, 0x00, 0x00, 0xC0}, 32), -0.5F);
  EXPECT_FLOAT_EQ(sample({0x00, 0x00, 0x00, 0x80}, 32), -1.0F);
}

template <typename Sample>
std::vector<float> stereo(const MixFormat& mix, const std::vector<Sample>& samples) {
  const auto format = readable_format(mix);
  if (!format) return {};
  const std::vector<std::uint8_t> bytes = as_bytes(samples);
  const std::size_t frames = bytes.size() / format->block_align;
  std::vector<float> out(frames * 2, -9.0F);
  to_stereo(*format, bytes.data(), frames, out.data());
  return out;
}

TEST(ToStereo, AMonoMixIsTheSameLeftAndRight) {
  EXPECT_THAT(stereo<float>(plain(FLOAT, 32, 1), {0.5F, -0.25F}),
              ElementsAre(0.5F, 0.5F, -0.25F, -0.25F));
  EXPECT_THAT(stereo<std::int16_t>(plain(PCM, 16, 1), {16'384, -8'192}),
              Pointwise(FloatEq(), {0.5F, 0.5F, -0.25F, -0.25F}));
}

TEST(ToStereo, AFivePointOneMixKeepsItsFirstTwoChannelsAlone) {
  EXPECT_THAT(stereo<float>(plain(FLOAT, 32, 6), {0.1F, 0.2F, 0.9F, 0.9F, 0.9F, 0.9F,  //
                                                  0.3F, 0.4F, 0.9F, 0.9F, 0.9F, 0.9F}),
              ElementsAre(0.1F, 0.2F, 0.3F, 0.4F));
}

TEST(ToStereo, ReadsPackedAndWideIntegers) {
  EXPECT_THAT(stereo<std::uint8_t>(plain(PCM, 24), {0, 0, 0x40, 0, 0, 0xC0}),
              Pointwise(FloatEq(), {0.5F, -0.5F}));
  EXPECT_THAT(stereo<std::int32_t>(plain(PCM, 32), {1 << 30, -(1 << 30)}),
              Pointwise(FloatEq(), {0.5F, -0.5F}));
}

TEST(ToStereo, WhatTheEngineHasConvertedIsCopied) {
  const std::vector<float> samples = {0.1F, -0.2F, 0.3F, -0.4F};
  std::vector<float> out(4);
  to_stereo(CONVERTED_FORMAT, as_bytes(samples).data(), 2, out.data());
  EXPECT_EQ(out, samples);
}

// The address sanitizer would see a byte read beyond the buffer.
TEST(ToStereo, FramesTooShortForTheirSamplesAreSilence) {
  EXPECT_THAT(stereo<std::uint8_t>(with_block_align(plain(PCM, 16, 2), 2), {1, 2}),
              ElementsAre(0.0F, 0.0F));
  EXPECT_THAT(stereo<std::uint8_t>(with_block_align(plain(FLOAT, 32, 1), 2), {1, 2, 3, 4}),
              ElementsAre(0.0F, 0.0F, 0.0F, 0.0F));
}

// A ramp, so that a value tells the place that it was taken from; right is left negated.
std::vector<float> ramp(std::size_t frames, std::size_t from = 0) {
  std::vector<float> samples;
  for (std::size_t i = from; i < from + frames; ++i)
    samples.insert(samples.end(), {static_cast<float>(i), -static_cast<float>(i)});
  return samples;
}

std::vector<float> resampled(Resampler& resampler, const std::vector<float>& samples) {
  std::vector<float> out;
  resampler.append(samples.data(), samples.size() / 2, &out);
  return out;
}

TEST(Resample, InterpolatesBetweenFramesAndTheFirstOnlyPrimes) {
  Resampler resampler;
  resampler.reset(0.5);
  EXPECT_THAT(resampled(resampler, ramp(1)), ElementsAre());
  EXPECT_THAT(resampled(resampler, ramp(2, 1)),
              ElementsAre(0.0F, -0.0F, 0.5F, -0.5F, 1.0F, -1.0F, 1.5F, -1.5F));
}

TEST(Resample, AboveTheTargetRateFramesBetweenAreDropped) {
  Resampler resampler;
  resampler.reset(2.0);
  EXPECT_THAT(resampled(resampler, ramp(7)), ElementsAre(0, 0, 2, -2, 4, -4));
}

TEST(Resample, HowTheInputIsCutIntoBuffersMakesNoDifference) {
  const std::vector<float> input = ramp(1'000);
  Resampler whole;
  whole.reset(44'100 / 48'000.0);
  Resampler pieces;
  pieces.reset(44'100 / 48'000.0);
  std::vector<float> out;
  for (std::size_t at = 0, size = 1; at < 1'000; at += size, size = size * 2 % 61) {
    pieces.append(&input[at * 2], std::min(size, 1'000 - at), &out);
  }
  EXPECT_EQ(out, resampled(whole, input));
}

TEST(Resample, KeepsTheRateOverALongTime) {
  for (const double rate : {8'000.0, 44'100.0, 96'000.0, 192'000.0}) {
    Resampler resampler;
    resampler.reset(rate / 48'000.0);
    std::vector<float> out;
    const std::vector<float> tenth(static_cast<std::size_t>(rate / 10) * 2);
    for (int i = 0; i < 100; ++i) resampler.append(tenth.data(), tenth.size() / 2, &out);
    EXPECT_NEAR(static_cast<double>(out.size()) / 2, 480'000.0, 48'000.0 / rate + 1) << rate;
  }
}

TEST(Resample, AResetForgetsPlaceAndFrames) {
  Resampler resampler;
  resampler.reset(0.7);
  const std::vector<float> first = resampled(resampler, ramp(10, 5));
  resampler.reset(0.7);
  EXPECT_EQ(resampled(resampler, ramp(10, 5)), first);
}

TEST(Resample, ChangesTheRateUnlessItIsTheSame) {
  Resampler resampler;
  resampler.reset(1.0);
  EXPECT_FALSE(resampler.changes_rate());
  resampler.reset(44'100 / 48'000.0);
  EXPECT_TRUE(resampler.changes_rate());
}

}  // namespace
