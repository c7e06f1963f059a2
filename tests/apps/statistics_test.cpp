#include "apps/client/statistics.h"

#include <gtest/gtest.h>

namespace {

FrameTimes times_of(double total_us, std::optional<double> paint_us = std::nullopt) {
  FrameTimes times;
  times.us[static_cast<std::size_t>(Stage::Total)] = total_us;
  times.painted = paint_us.has_value();
  times.us[static_cast<std::size_t>(Stage::Paint)] = paint_us.value_or(0);
  return times;
}

}  // namespace

TEST(Percentile, IsTheNearestRank) {
  std::vector<double> samples = {40, 10, 30, 20};
  EXPECT_EQ(percentile(samples, 50), 20);
  EXPECT_EQ(percentile(samples, 95), 40);
  EXPECT_EQ(percentile(samples, 0), 10);
  std::vector<double> none;
  EXPECT_EQ(percentile(none, 50), 0);
}

TEST(LatencySamples, OfALongRunTheLastHourIsKept) {
  LatencySamples samples;
  for (int i = 0; i < 216'000; ++i) samples.add(9000);
  EXPECT_EQ(samples.report()["max"], 9.0);
  for (int i = 0; i < 216'000; ++i) samples.add(2000);
  EXPECT_EQ(samples.size(), 216'000U);
  EXPECT_EQ(samples.report()["max"], 2.0);
}

TEST(StreamStatistics, ASecondsCountsStartAfreshWithTheNext) {
  StreamStatistics statistics;
  statistics.frame_decoded(times_of(5000), 1000, true, 0);
  statistics.frame_decoded(times_of(7000), 1000, false, 3);
  statistics.frames_lost(2);
  const StreamStatistics::Second first = statistics.finish_second(1.0);
  EXPECT_EQ(first.received, 2U);
  EXPECT_EQ(first.lost, 2U);
  EXPECT_EQ(first.recovered_frames, 1U);
  EXPECT_NE(first.line.find("  2.0 fps"), std::string::npos) << first.line;
  EXPECT_NE(first.line.find("loss 50.0%"), std::string::npos) << first.line;
  EXPECT_NE(first.line.find("total  6.00 ms"), std::string::npos) << first.line;
  const StreamStatistics::Second second = statistics.finish_second(1.0);
  EXPECT_EQ(second.received, 0U);
  EXPECT_NE(second.line.find("  0.0 fps"), std::string::npos) << second.line;
}

TEST(StreamStatistics, TheReportHoldsTheWholeRun) {
  StreamStatistics statistics;
  for (int i = 1; i <= 100; ++i) statistics.frame_decoded(times_of(i * 1000.0), 100, i == 1, 0);
  statistics.finish_second(1.0);
  statistics.frame_undecodable();
  const nlohmann::json report = statistics.report(2.0);
  EXPECT_EQ(report["frames"], 100);
  EXPECT_EQ(report["keyframes"], 1);
  EXPECT_EQ(report["frames_undecodable"], 1);
  EXPECT_EQ(report["fps"], 50.0);
  EXPECT_EQ(report["latency_ms"]["total"]["p50"], 50.0);
  EXPECT_EQ(report["latency_ms"]["total"]["p95"], 95.0);
}

TEST(StreamStatistics, OnlyMarkedPicturesCountTowardsPaint) {
  StreamStatistics statistics;
  statistics.frame_decoded(times_of(5000), 100, true, 0);
  EXPECT_FALSE(statistics.report(1.0)["latency_ms"].contains("paint"));
  statistics.frame_decoded(times_of(5000, 300), 100, false, 0);
  EXPECT_EQ(statistics.report(1.0)["latency_ms"]["paint"]["samples"], 1);
}

TEST(StreamStatistics, RoundTripTimesAreSmoothed) {
  StreamStatistics statistics;
  statistics.rtt_measured(8000);
  EXPECT_EQ(statistics.rtt_us(), 8000);
  statistics.rtt_measured(16000);
  EXPECT_EQ(statistics.rtt_us(), 9000);
}
