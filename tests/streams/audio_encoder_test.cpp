#include "streams/audio_encoder.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <numbers>
#include <vector>

#include "tests/support/captured_log.h"
#include "tests/support/opus_decoder.h"
#include "tests/support/spectrum.h"

using namespace audio_internal;

namespace {

using Block = std::array<float, BLOCK_FLOATS>;

// The block after `index` others of a sine on the left and another on the right.
Block sines(int index, double left_hz, double right_hz) {
  Block block;
  for (std::size_t i = 0; i < BLOCK_FRAMES; ++i) {
    const double turn =
        2 * std::numbers::pi * (index * static_cast<double>(BLOCK_FRAMES) + static_cast<double>(i));
    block[2 * i] = static_cast<float>(0.5 * std::sin(turn * left_hz / 48'000));
    block[2 * i + 1] = static_cast<float>(0.5 * std::sin(turn * right_hz / 48'000));
  }
  return block;
}

TEST(AudioEncoder, GivesOneStereoPacketOfTenMillisecondsForEachBlock) {
  AudioEncoder encoder;
  ASSERT_TRUE(encoder.open());
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(encoder.send(sines(i, 440, 1'000)));
    const auto packet = encoder.receive();
    const OpusPacketFacts facts = opus_packet_facts(packet);
    EXPECT_FALSE(facts.damaged);
    EXPECT_EQ(facts.frames, 480);
    EXPECT_TRUE(facts.stereo);
    EXPECT_TRUE(facts.low_delay_mode);
    EXPECT_TRUE(encoder.receive().empty());
  }
}

TEST(AudioEncoder, WhatWentInComesOutOfADecoder) {
  AudioEncoder encoder;
  ASSERT_TRUE(encoder.open());
  SoundDecoder decoder;
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(encoder.send(sines(i, 440, 1'000)));
    decoder.decode(encoder.receive());
  }
  const std::span<const float> left(decoder.left);
  const std::span<const float> right(decoder.right);
  EXPECT_NEAR(tone_amplitude(left.last(14'400), 48'000, 440), 0.5, 0.02);
  EXPECT_NEAR(tone_amplitude(right.last(14'400), 48'000, 1'000), 0.5, 0.02);
  EXPECT_LT(tone_amplitude(left.last(14'400), 48'000, 1'000), 0.02);
}

// 128 kbps are 160 bytes in 10 ms. Noise has nothing to save on.
TEST(AudioEncoder, KeepsToItsBitRate) {
  AudioEncoder encoder;
  ASSERT_TRUE(encoder.open());
  std::uint32_t seed = 1;
  std::size_t bytes = 0;
  for (int i = 0; i < 200; ++i) {
    Block noise;
    for (float& sample : noise) {
      seed = seed * 1'664'525 + 1'013'904'223;
      sample = static_cast<float>(seed >> 8) / (1 << 23) - 1;
    }
    ASSERT_TRUE(encoder.send(noise));
    const std::size_t size = encoder.receive().size();
    EXPECT_LE(size, 2 * 160U);
    bytes += size;
  }
  EXPECT_NEAR(static_cast<double>(bytes) / 200, 160, 16);
}

TEST(AudioEncoder, SaysThatTheEncoderIsMissing) {
  const CapturedLog log;
  EXPECT_FALSE(AudioEncoder().open({.encoder = "no-such-encoder"}));
  EXPECT_EQ(log.count("audio: libopus encoder missing from FFmpeg; audio disabled"), 1);
}

TEST(AudioEncoder, SaysWhyItDoesNotOpen) {
  const CapturedLog log;
  EXPECT_FALSE(AudioEncoder().open({.rate = 44'100}));  // Opus knows no such rate
  EXPECT_EQ(log.count("audio: libopus open failed (-22)"), 1);
}

TEST(AudioEncoder, RefusesFramesOfAnotherLength) {
  const CapturedLog log;
  EXPECT_FALSE(AudioEncoder().open({.frame_duration_ms = "20"}));
  EXPECT_EQ(log.count("audio: unexpected Opus frame size 960"), 1);
}

}  // namespace
