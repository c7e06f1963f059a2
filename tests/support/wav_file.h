// A WAV file of 48 kHz, stereo, 16 bits, also while it is being written, and what is heard in it.
// One thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <span>
#include <vector>

#include "connection/byte_order.h"
#include "tests/support/spectrum.h"

class WavFile {
 public:
  static constexpr int RATE = 48'000;
  static constexpr std::size_t HEADER_BYTES = 44;

  explicit WavFile(std::filesystem::path path) : path_(std::move(path)) {}

  // Reads what has come since the last time.
  void read_on() {
    std::ifstream file(path_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(HEADER_BYTES + left.size() * FRAME_BYTES));
    std::array<std::uint8_t, FRAME_BYTES> frame;
    while (file.read(reinterpret_cast<char*>(frame.data()), FRAME_BYTES)) {
      left.push_back(sample(&frame[0]));
      right.push_back(sample(&frame[2]));
    }
  }

  // Of a file that is complete: fails the test when its header doesn't describe what it holds.
  void check_header() const {
    std::ifstream file(path_, std::ios::binary);
    std::array<std::uint8_t, HEADER_BYTES> header{};
    file.read(reinterpret_cast<char*>(header.data()), HEADER_BYTES);
    const std::string_view text(reinterpret_cast<const char*>(header.data()), HEADER_BYTES);
    EXPECT_EQ(text.substr(0, 4), "RIFF");
    EXPECT_EQ(text.substr(8, 8), "WAVEfmt ");
    EXPECT_EQ(load_le<std::uint16_t>(&header[20]), 1);  // PCM
    EXPECT_EQ(load_le<std::uint16_t>(&header[22]), 2);
    EXPECT_EQ(load_le<std::uint32_t>(&header[24]), RATE);
    EXPECT_EQ(load_le<std::uint16_t>(&header[34]), 16);
    EXPECT_EQ(text.substr(36, 4), "data");
    EXPECT_EQ(load_le<std::uint32_t>(&header[40]), left.size() * FRAME_BYTES);
  }

  double seconds() const { return static_cast<double>(left.size()) / RATE; }

  std::vector<float> left;
  std::vector<float> right;

 private:
  static constexpr std::size_t FRAME_BYTES = 4;

  static float sample(const std::uint8_t* bytes) {
    return static_cast<float>(static_cast<std::int16_t>(load_le<std::uint16_t>(bytes))) / 32'768;
  }

  std::filesystem::path path_;
};

// A piece of a channel, from a second on.
inline std::span<const float> piece(const std::vector<float>& channel, double from_s,
                                    double length_s) {
  const auto frames = [](double s) { return static_cast<std::size_t>(s * WavFile::RATE + 0.5); };
  return std::span(channel).subspan(frames(from_s), frames(length_s));
}

// How much of the power heard is this one sine's, 0 to 1, through the window of tone_amplitude. A
// gap of a hundredth of the length already takes a hundredth off.
inline double purity(std::span<const float> samples, double hz) {
  const double count = static_cast<double>(samples.size());
  double power = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const double window =
        1.0 - std::cos(2 * std::numbers::pi * (static_cast<double>(i) + 0.5) / count);
    power += std::pow(window * double{samples[i]}, 2);
  }
  const double amplitude = tone_amplitude(samples, WavFile::RATE, hz);
  const double of_sine = amplitude * amplitude / 2 * 1.5 * count;  // 1.5: the window's mean square
  return power == 0 ? 0 : of_sine / power;
}

// Stretches of silence between sounds, of 5 ms at least: so long no tone is near zero.
struct Gap {
  double from_s = 0;
  double length_s = 0;
};
inline std::vector<Gap> gaps(std::span<const float> channel) {
  constexpr float AUDIBLE = 0.05F;
  constexpr std::size_t SHORTEST = WavFile::RATE / 200;
  std::vector<Gap> found;
  std::optional<std::size_t> last_heard;
  for (std::size_t i = 0; i < channel.size(); ++i) {
    if (std::abs(channel[i]) < AUDIBLE) continue;
    if (last_heard && i - *last_heard > SHORTEST)
      found.push_back({static_cast<double>(*last_heard) / WavFile::RATE,
                       static_cast<double>(i - *last_heard) / WavFile::RATE});
    last_heard = i;
  }
  return found;
}
