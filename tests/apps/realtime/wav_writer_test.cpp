#include "apps/client/wav_writer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "connection/byte_order.h"
#include "tests/support/temp_directory.h"

namespace {

constexpr std::uint64_t START = 5'000'000;
constexpr std::uint64_t MS = 1'000;

class WavWriterTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(wav_.open(path_, &error)) << error;
    wav_.begin(START);
  }
  // 10 ms of one value.
  void put(std::uint64_t at_us, float value, bool concealed = false) {
    const std::vector<float> samples(480 * 2, value);
    wav_.put({samples.data(), 480, START + at_us, concealed});
  }
  // One channel's samples in the file.
  std::vector<int> finish(std::uint64_t at_us) {
    EXPECT_TRUE(wav_.finish(START + at_us));
    std::ifstream file(path_, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(file), {});
    std::vector<int> left;
    for (std::size_t i = 44; i + 3 < bytes_.size(); i += 4)
      left.push_back(static_cast<std::int16_t>(load_le<std::uint16_t>(&bytes_[i])));
    return left;
  }
  static int first_of(const std::vector<int>& samples, int value) {
    return static_cast<int>(std::find(samples.begin(), samples.end(), value) - samples.begin());
  }

  TempDirectory directory_;
  std::filesystem::path path_ = directory_.path() / "a.wav";
  WavWriter wav_;
  std::vector<std::uint8_t> bytes_;
};

}  // namespace

TEST_F(WavWriterTest, TheHeaderDescribesWhatFollows) {
  put(0, 0.5F);
  finish(10 * MS);
  ASSERT_EQ(bytes_.size(), 44u + 480 * 4);
  EXPECT_EQ(std::string(bytes_.begin(), bytes_.begin() + 4), "RIFF");
  EXPECT_EQ(load_le<std::uint32_t>(&bytes_[4]), bytes_.size() - 8);
  EXPECT_EQ(std::string(bytes_.begin() + 8, bytes_.begin() + 16), "WAVEfmt ");
  EXPECT_EQ(load_le<std::uint32_t>(&bytes_[16]), 16u);
  EXPECT_EQ(load_le<std::uint16_t>(&bytes_[20]), 1);  // PCM
  EXPECT_EQ(load_le<std::uint16_t>(&bytes_[22]), 2);  // channels
  EXPECT_EQ(load_le<std::uint32_t>(&bytes_[24]), 48'000u);
  EXPECT_EQ(load_le<std::uint32_t>(&bytes_[28]), 192'000u);
  EXPECT_EQ(load_le<std::uint16_t>(&bytes_[32]), 4);
  EXPECT_EQ(load_le<std::uint16_t>(&bytes_[34]), 16);
  EXPECT_EQ(std::string(bytes_.begin() + 36, bytes_.begin() + 40), "data");
  EXPECT_EQ(load_le<std::uint32_t>(&bytes_[40]), 480u * 4);
}

TEST_F(WavWriterTest, TheFileLastsAsLongAsTheTime) {
  EXPECT_EQ(finish(1'500 * MS).size(), 72'000u);
}

TEST_F(WavWriterTest, SoundStandsAtItsTimeWithSilenceAround) {
  put(300 * MS, 0.5F);
  put(700 * MS, -0.5F);
  const auto samples = finish(1'000 * MS);
  ASSERT_EQ(samples.size(), 48'000u);
  EXPECT_EQ(first_of(samples, 16'384), 14'400);
  EXPECT_EQ(first_of(samples, -16'384), 33'600);
  EXPECT_EQ(std::count(samples.begin(), samples.end(), 0), 48'000 - 960);
}

TEST_F(WavWriterTest, StampsThatJitterLeaveNoGapsAndNoOverlap) {
  for (int i = 0; i < 100; ++i)
    put(static_cast<std::uint64_t>(i) * 10 * MS + (i % 3) * 4 * MS, 0.25F);
  const auto samples = finish(1'000 * MS);
  EXPECT_EQ(std::count(samples.begin(), samples.end(), 8'192), 48'000);
}

TEST_F(WavWriterTest, AClockThatDriftsIsFollowed) {
  // 1 % fast: after 10 s the sound is 100 ms ahead of its samples.
  for (std::uint64_t i = 0; i < 1'000; ++i) put(i * 10'100, 0.25F);
  const auto samples = finish(10'100 * MS);
  EXPECT_EQ(samples.size(), 484'800u);
  const auto last = std::find(samples.rbegin(), samples.rend(), 8'192);
  EXPECT_LT(last - samples.rbegin(), 960 + 1);
}

TEST_F(WavWriterTest, StampsThatFallBackLoseNothing) {
  // A quarter of a second of delay that the host's sound system believes in for half a second.
  for (std::uint64_t i = 0; i < 50; ++i) put(i * 10 * MS, 0.0F);
  for (std::uint64_t i = 50; i < 100; ++i) put((i - 25) * 10 * MS, 0.25F);
  for (std::uint64_t i = 100; i < 150; ++i) put(i * 10 * MS, 0.25F);
  const auto samples = finish(1'500 * MS);
  EXPECT_EQ(samples.size(), 72'000u);
  EXPECT_EQ(first_of(samples, 8'192), 24'000);
  EXPECT_EQ(std::count(samples.begin(), samples.end(), 8'192), 48'000);
}

TEST_F(WavWriterTest, ButMoreThanHalfASecondLateNothingIsPut) {
  for (std::uint64_t i = 0; i < 1'000; ++i) put(i * 9'000, 0.25F);  // sound 10 % too long
  EXPECT_GT(wav_.frames(), 432'000u + 23'000u);
  EXPECT_LE(wav_.frames(), 432'000u + 24'000u + 480u);  // 480,000 without the rule
  EXPECT_EQ(finish(9'000 * MS).size(), 432'000u);       // the file still ends with the time
}

TEST_F(WavWriterTest, WhatWasPlayedBeforeTheBeginningIsLeftOut) {
  const std::vector<float> samples(480 * 2, 0.5F);
  wav_.put({samples.data(), 480, START - 5 * MS, false});
  const auto written = finish(10 * MS);
  EXPECT_EQ(std::count(written.begin(), written.end(), 16'384), 240);
  EXPECT_EQ(written[0], 16'384);
}

TEST_F(WavWriterTest, WhatWasMadeUpIsSilence) {
  put(0, 0.25F);
  put(10 * MS, 0.25F, true);
  put(20 * MS, 0.25F);
  const auto samples = finish(30 * MS);
  EXPECT_EQ(samples.size(), 1'440u);
  EXPECT_EQ(std::count(samples.begin(), samples.end(), 0), 480);
}

TEST_F(WavWriterTest, LoudnessIsHeldAtTheLimits) {
  put(0, 2.0F);
  put(10 * MS, -2.0F);
  const auto samples = finish(20 * MS);
  EXPECT_EQ(*std::max_element(samples.begin(), samples.end()), 32'767);
  EXPECT_EQ(*std::min_element(samples.begin(), samples.end()), -32'768);
}

TEST(WavFile, ThatCannotBeMadeIsSaid) {
  WavWriter wav;
  std::string error;
  EXPECT_FALSE(wav.open("/nonexistent/a.wav", &error));
  EXPECT_EQ(error, "cannot write /nonexistent/a.wav");
}

TEST(WavFile, AFullDiskIsSaid) {
  WavWriter wav;
  std::string error;
  ASSERT_TRUE(wav.open("/dev/full", &error));
  wav.begin(START);
  EXPECT_FALSE(wav.finish(START + 1'000 * MS));
}
