#include "apps/client/view/playout.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "tests/support/allocation_counter.h"

namespace {

constexpr std::size_t PACKET = 480;  // 10 ms
constexpr double RATE = PlayoutBuffer::RATE_HZ;

double ms(std::size_t frames) {
  return static_cast<double>(frames) * 1000 / RATE;
}

// Two clocks in virtual time: packets of a 440 Hz tone come at the sender's, late by up to
// `jitter_ms`, in order; the device takes its portions at the player's.
struct Line {
  double sender_rate = 1.0;  // the sender's seconds per second of the player
  double jitter_ms = 0;
  std::size_t device_frames = 480;
  PlayoutLimits limits;

  // What the device still holds so long after it has taken a portion.
  std::size_t in_device(double seconds) const {
    const double sounded = std::max(0.0, seconds) * RATE;
    return static_cast<std::size_t>(std::max(0.0, static_cast<double>(device_frames) - sounded));
  }

  PlayoutFigures run(double seconds, std::vector<float>* played = nullptr) {
    PlayoutBuffer buffer(limits);
    std::mt19937 random(7);
    std::uniform_real_distribution<double> late(0, jitter_ms / 1000);
    std::vector<float> packet(PACKET * 2), out(device_frames * 2);
    double sent_s = 0, arrives_s = 0, pulled_s = 0, taken_s = -1;
    std::size_t tone = 0;
    while (pulled_s < seconds) {
      while (arrives_s <= pulled_s) {
        for (std::size_t i = 0; i < PACKET; ++i, ++tone)
          packet[2 * i] = packet[2 * i + 1] = static_cast<float>(
              0.5 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(tone) / RATE));
        buffer.push(packet.data(), PACKET, in_device(arrives_s - taken_s));
        sent_s += PACKET / RATE / sender_rate;
        arrives_s = std::max(arrives_s, sent_s + late(random));
      }
      buffer.pull(out.data(), device_frames, device_frames);
      taken_s = pulled_s;
      if (played) played->insert(played->end(), out.begin(), out.end());
      EXPECT_LE(buffer.figures().buffered_frames, limits.max_frames);
      pulled_s += static_cast<double>(device_frames) / RATE;
    }
    return buffer.figures();
  }
};

TEST(PlayoutBuffer, PlaysWhatItWasGivenInOrderOnceTheReserveIsThere) {
  PlayoutBuffer buffer({960, 2880});
  std::vector<float> packet(PACKET * 2), out(PACKET * 2);
  float next = 1;
  auto push = [&] {
    for (std::size_t i = 0; i < PACKET; ++i) {
      packet[2 * i] = next++;
      packet[2 * i + 1] = -packet[2 * i];
    }
    buffer.push(packet.data(), PACKET, 0);
  };
  push();
  push();
  buffer.pull(out.data(), PACKET, 0);
  EXPECT_EQ(out, std::vector<float>(PACKET * 2, 0.0F)) << "960 frames are there, 1440 are wanted";
  push();
  buffer.pull(out.data(), PACKET, 0);
  EXPECT_EQ(out[0], 1.0F);
  EXPECT_EQ(out[1], -1.0F);
  EXPECT_EQ(out[2 * PACKET - 2], static_cast<float>(PACKET));
}

TEST(PlayoutBuffer, EqualClocksNeedNoCorrectionButOfTheStart) {
  const PlayoutFigures figures = Line{}.run(60);
  EXPECT_EQ(figures.underruns, 0U);
  EXPECT_EQ(figures.frames_inserted + figures.frames_dropped, 0U);
  EXPECT_LE(figures.frames_merged, PACKET) << "it starts with whole packets above the reserve";
  EXPECT_EQ(Line{}.run(10).frames_merged, figures.frames_merged);
  EXPECT_LE(ms(figures.most_frames), 60.0);
}

TEST(PlayoutBuffer, AFastSenderIsCaughtUpWithByMergingSingleFrames) {
  Line line;
  line.sender_rate = 1.001;
  const PlayoutFigures figures = line.run(300);
  EXPECT_EQ(figures.underruns, 0U);
  EXPECT_EQ(figures.overruns, 0U);
  EXPECT_NEAR(static_cast<double>(figures.frames_merged), 300 * RATE * 0.001, 600);
  EXPECT_LE(figures.most_frames, line.limits.max_frames);
}

TEST(PlayoutBuffer, ASlowSenderIsStretchedBySingleFrames) {
  Line line;
  line.sender_rate = 0.999;
  const PlayoutFigures figures = line.run(300);
  EXPECT_EQ(figures.underruns, 0U);
  EXPECT_NEAR(static_cast<double>(figures.frames_inserted), 300 * RATE * 0.001, 1000);
}

TEST(PlayoutBuffer, JitterWithinTheReserveIsNotHeard) {
  Line line;
  line.jitter_ms = 14;
  const PlayoutFigures figures = line.run(120);
  EXPECT_LE(figures.underruns, 1U) << "before the reserve fits the jitter";
  EXPECT_LE(figures.most_frames, line.limits.max_frames);
}

TEST(PlayoutBuffer, DevicesOfOtherPortionsAreServedToo) {
  for (const std::size_t portion :
       {std::size_t{128}, std::size_t{441}, std::size_t{512}, std::size_t{960}}) {
    Line line;
    line.device_frames = portion;
    line.sender_rate = 1.0005;
    const PlayoutFigures figures = line.run(60);
    EXPECT_EQ(figures.underruns, 0U) << portion;
    EXPECT_LE(figures.most_frames, line.limits.max_frames) << portion;
  }
}

TEST(PlayoutBuffer, CorrectionsLeaveTheToneWhole) {
  Line line;
  line.sender_rate = 1.001;
  std::vector<float> played;
  line.run(30, &played);
  const std::size_t start = played.size() / 2;
  double steepest = 0;
  for (std::size_t i = start; i + 2 < played.size(); i += 2)
    steepest = std::max(steepest, std::abs(static_cast<double>(played[i + 2] - played[i])));
  // A whole sine of amplitude 0.5 moves by at most 0.5 * 2 pi f / rate a frame; a merged frame by
  // one and a half times as much.
  EXPECT_LE(steepest, 1.6 * 0.5 * 2 * std::numbers::pi * 440 / RATE);
}

TEST(PlayoutBuffer, RunningDryFadesOutAndWaitsForTheReserve) {
  PlayoutBuffer buffer({960, 2880});
  std::vector<float> packet(PACKET * 2, 0.5F), out(PACKET * 2);
  for (int i = 0; i < 3; ++i) buffer.push(packet.data(), PACKET, 0);
  for (int i = 0; i < 3; ++i) buffer.pull(out.data(), PACKET, 0);
  EXPECT_EQ(buffer.figures().underruns, 0U);
  buffer.pull(out.data(), PACKET, 0);
  EXPECT_EQ(buffer.figures().underruns, 1U);
  EXPECT_GT(out[0], 0.49F);
  for (std::size_t i = 2; i < out.size(); i += 2) EXPECT_LE(out[i], out[i - 2]);
  EXPECT_EQ(out.back(), 0.0F);
  buffer.push(packet.data(), PACKET, 0);
  buffer.pull(out.data(), PACKET, 0);
  EXPECT_EQ(out[0], 0.0F) << "one packet is not the reserve";
  EXPECT_EQ(buffer.figures().underruns, 1U) << "silence is one gap, however long";
}

TEST(PlayoutBuffer, ABurstIsCutDownToTheReserve) {
  PlayoutBuffer buffer({960, 2880});
  std::vector<float> packet(PACKET * 2);
  for (int i = 0; i < 50; ++i) {
    buffer.push(packet.data(), PACKET, 0);
    ASSERT_LE(buffer.figures().most_frames, 2880U);
  }
  EXPECT_GT(buffer.figures().overruns, 0U);
  EXPECT_EQ(buffer.figures().frames_dropped + buffer.figures().buffered_frames, 50 * PACKET);
}

TEST(PlayoutBuffer, WhatTheDeviceHoldsCountsAgainstTheLimit) {
  PlayoutBuffer buffer({720, 2880});
  std::vector<float> packet(PACKET * 2), out(960 * 2);
  buffer.pull(out.data(), 960, 1200);
  for (int i = 0; i < 50; ++i) buffer.push(packet.data(), PACKET, 1200);
  EXPECT_LE(buffer.figures().most_frames, 2880U);
  EXPECT_GT(buffer.figures().overruns, 0U);
  buffer.push(packet.data(), PACKET, 5000);
  EXPECT_EQ(buffer.figures().buffered_frames, 5000U) << "there is no room beside such a device";
}

TEST(PlayoutBuffer, FramesInsertedWhileItIsFullDontLiftItOverTheLimit) {
  const PlayoutLimits limits;
  PlayoutBuffer buffer(limits);
  const std::vector<float> sound(limits.max_frames * 2);
  std::vector<float> out(PACKET * 2);
  buffer.push(sound.data(), limits.target_frames + PACKET, 0);
  buffer.pull(out.data(), PACKET, PACKET);
  // 5 ms are left after each portion, which is too little: frames are to be inserted.
  while (buffer.figures().frames_inserted == 0) {
    buffer.pull(out.data(), PACKET, PACKET);
    buffer.push(sound.data(), PACKET, 0);
    ASSERT_EQ(buffer.figures().underruns, 0U);
  }
  buffer.push(sound.data(), limits.max_frames - buffer.figures().buffered_frames, 0);
  ASSERT_EQ(buffer.figures().most_frames, limits.max_frames);
  const std::uint64_t inserted = buffer.figures().frames_inserted;
  buffer.pull(out.data(), PACKET, PACKET);
  EXPECT_EQ(buffer.figures().most_frames, limits.max_frames);
  EXPECT_EQ(buffer.figures().frames_inserted, inserted);
  EXPECT_EQ(buffer.figures().frames_dropped, 0U);
}

TEST(PlayoutBuffer, AfterADeviceThatStoodStillItGoesOnWithoutRunningDry) {
  PlayoutBuffer buffer({720, 2880});
  std::vector<float> packet(PACKET * 2, 0.5F), out(960 * 2);
  for (int i = 0; i < 4; ++i) buffer.push(packet.data(), PACKET, 0);
  buffer.pull(out.data(), 960, 1200);
  for (int i = 0; i < 20; ++i) buffer.push(packet.data(), PACKET, 0);  // 200 ms
  EXPECT_GT(buffer.figures().overruns, 0U);
  for (int i = 0; i < 100; ++i) {
    buffer.pull(out.data(), 960, 1200);
    buffer.push(packet.data(), PACKET, 720);
    buffer.push(packet.data(), PACKET, 240);
  }
  EXPECT_EQ(buffer.figures().underruns, 0U);
}

TEST(PlayoutBuffer, APortionLongerThanTheBufferKeepsItsEnd) {
  PlayoutBuffer buffer({960, 2880});
  std::vector<float> samples(2 * 4000);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<float>(i / 2);
  buffer.push(samples.data(), 4000, 0);
  std::vector<float> out(2 * 480);
  buffer.pull(out.data(), 480, 0);
  EXPECT_EQ(out[0], 4000.0F - 2880.0F);
}

TEST(PlayoutBuffer, AfterClearingOldSoundIsGone) {
  PlayoutBuffer buffer({960, 2880});
  std::vector<float> packet(PACKET * 2, 0.5F), out(PACKET * 2);
  for (int i = 0; i < 3; ++i) buffer.push(packet.data(), PACKET, 0);
  buffer.clear();
  buffer.pull(out.data(), PACKET, 0);
  EXPECT_EQ(out, std::vector<float>(PACKET * 2, 0.0F));
  EXPECT_EQ(buffer.figures().buffered_frames, 0U);
}

TEST(PlayoutBuffer, TheHotPathAllocatesNothing) {
  PlayoutBuffer buffer({960, 2880});
  std::vector<float> packet(PACKET * 2, 0.5F), out(PACKET * 2);
  const AllocationCount allocations;
  for (int i = 0; i < 1000; ++i) {
    buffer.push(packet.data(), PACKET, 0);
    buffer.pull(out.data(), PACKET, 0);
  }
  EXPECT_EQ(allocations.count(), 0U);
}

}  // namespace
