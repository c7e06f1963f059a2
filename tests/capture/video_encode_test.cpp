// One encode: keyframe rules, bit rate, errors, and what never leaves.
#include <gtest/gtest.h>

#include "tests/capture/video_fixture.h"

namespace {

using fake_capture::BARE_KEYFRAME;
using fake_capture::DELTA;
using fake_capture::Encoded;

constexpr const char* COULD_NOT_REOPEN = "negotiated encoder could not reopen; reconnect required";

class VideoEncode : public CaptureLoopTest {
 protected:
  void picture_frame() {
    picture_in_us(20'000);
    const std::size_t before = world_.forced.size();
    for (int i = 0; i < 100 && world_.forced.size() == before; ++i) loop_->pass();
  }
  void fill_failure() {
    picture_in_us(20'000);
    pass(2);
  }
};

TEST_F(VideoEncode, OnlyTheFirstOfManyFramesIsForced) {
  make_linux_like();
  ASSERT_TRUE(begin());
  pass_until_frames(1);
  for (int i = 0; i < 5; ++i) picture_frame();
  EXPECT_EQ(world_.forced,
            (std::vector<bool>{true /* the trial */, true, false, false, false, false, false}));
}

TEST_F(VideoEncode, After2000FramesWithoutAKeyframeTheNextIsForced) {
  make_linux_like();
  begin_settled();
  for (int i = 0; i < 2000; ++i) picture_frame();
  EXPECT_EQ(std::count(world_.forced.begin(), world_.forced.end(), true), 0);
  picture_frame();
  EXPECT_TRUE(world_.forced.back());
  picture_frame();
  EXPECT_FALSE(world_.forced.back()) << "the keyframe began a new count";
}

TEST_F(VideoEncode, RefreshAnsweredByANonKeyframeStands) {
  make_linux_like();
  begin_settled();
  for (int i = 0; i < 2000; ++i) picture_frame();
  world_.encoded = [](bool) { return Encoded{true, DELTA, false}; };
  picture_frame();
  EXPECT_TRUE(world_.forced.back());
  EXPECT_TRUE(requests_.keyframe);
  picture_frame();
  EXPECT_TRUE(world_.forced.back());
  EXPECT_EQ(frames_.size(), 2002u) << "the others are sent all the same";
}

TEST_F(VideoEncode, KeyframeThatTheEncoderSendsByItselfBeginsANewCount) {
  make_linux_like();
  begin_settled();
  for (int i = 0; i < 1999; ++i) picture_frame();
  world_.encoded = [](bool) { return Encoded{true, fake_capture::KEYFRAME, true}; };
  picture_frame();
  world_.encoded = [](bool force) { return Encoded{true, DELTA, force}; };
  picture_frame();
  EXPECT_FALSE(world_.forced.back());
}

TEST_F(VideoEncode, EmptyOutputOfAForcedFrameKeepsTheRequest) {
  make_linux_like();
  begin_settled();
  world_.encoded = [](bool) { return Encoded{true, {}, false}; };
  requests_.keyframe = true;
  picture_frame();
  EXPECT_TRUE(requests_.keyframe);
  EXPECT_TRUE(frames_.empty());
}

TEST_F(VideoEncode, EmptyOutputOfAnUnforcedFrameAsksForNothing) {
  make_linux_like();
  begin_settled();
  world_.encoded = [](bool) { return Encoded{true, {}, false}; };
  picture_frame();
  EXPECT_FALSE(requests_.keyframe);
  EXPECT_TRUE(frames_.empty());
}

TEST_F(VideoEncode, KeyframeWithoutParameterSetsIsNotSentAndEndsTheSession) {
  make_linux_like();
  begin_settled();
  world_.encoded = [](bool) { return Encoded{true, BARE_KEYFRAME, true}; };
  picture_frame();
  EXPECT_TRUE(frames_.empty());
  EXPECT_EQ(fatal(),
            std::vector<std::string>{"encoder keyframe omitted required in-band parameter sets"});
  EXPECT_FALSE(pass());
}

TEST_F(VideoEncode, FrameEncodedAcrossADesktopChangeIsDiscarded) {
  make_linux_like();
  begin_settled();
  world_.encoded = [this](bool force) {
    world_.input_desktop = "Winlogon";
    return Encoded{true, DELTA, force};
  };
  picture_frame();
  EXPECT_EQ(world_.forced.size(), 1u);
  EXPECT_TRUE(frames_.empty());
  EXPECT_EQ(world_.live_sources, 0);
}

TEST_F(VideoEncode, NothingIsEncodedOnceTheDesktopHasChanged) {
  make_linux_like();
  begin_settled();
  picture_in_us(20'000);
  world_.on_acquire = [this] { world_.input_desktop = "Winlogon"; };
  pass();
  EXPECT_TRUE(world_.forced.empty());
  EXPECT_EQ(world_.live_sources, 0);
}

TEST_F(VideoEncode, NewRateIsAppliedInPlaceWhereTheEncoderCan) {
  const CapturedLog log;
  make_windows_like();
  begin_settled();
  world_.rate_in_place = true;
  const std::size_t opened = world_.encoder_opened.size();
  requests_.bitrate_kbps = 5000;
  picture_frame();
  EXPECT_EQ(world_.encoder_opened.size(), opened);
  EXPECT_EQ(log.count("video: bitrate -> 5000 kbps (in place)"), 1);
  EXPECT_FALSE(world_.forced.back());
  EXPECT_EQ(requests_.bitrate_kbps, 0);
}

TEST_F(VideoEncode, NewRateReopensOtherEncodersWithItAndAKeyframe) {
  const CapturedLog log;
  make_linux_like();
  begin_settled();
  requests_.bitrate_kbps = 5000;
  picture_frame();
  EXPECT_EQ(world_.encoder_opened.back().bitrate_kbps, 5000);
  EXPECT_EQ(world_.encoder_opened.back().required, "libopenh264");
  EXPECT_EQ(log.count("video: bitrate -> 5000 kbps (reopening libopenh264)"), 1);
  ASSERT_EQ(frames_.size(), 1u);
  EXPECT_TRUE(frames_[0].keyframe);
}

TEST_F(VideoEncode, NewRateOutlivesARebuild) {
  make_linux_like();
  begin_settled();
  requests_.bitrate_kbps = 5000;
  picture_frame();
  event_now(AcquireResult::Lost);
  pass(2);
  EXPECT_EQ(world_.encoder_opened.back().bitrate_kbps, 5000);
}

TEST_F(VideoEncode, NewRateWaitsForTheNextEncode) {
  make_linux_like();
  begin_settled();
  requests_.bitrate_kbps = 5000;
  pass_for_ms(500);
  EXPECT_EQ(world_.encoder_opened.size(), 1u);
}

TEST_F(VideoEncode, EncoderThatCannotReopenIsFatal) {
  make_linux_like();
  begin_settled();
  world_.encoder_opens = false;
  requests_.bitrate_kbps = 5000;
  picture_in_us(20'000);
  EXPECT_FALSE(pass());
  EXPECT_EQ(fatal(), std::vector<std::string>{COULD_NOT_REOPEN});
  EXPECT_TRUE(frames_.empty());
}

TEST_F(VideoEncode, ReopeningForgetsTheSurfacesOfTheOldEncoderFirst) {
  make_windows_like();
  begin_settled();
  requests_.bitrate_kbps = 5000;
  picture_frame();
  EXPECT_EQ(world_.forgotten_surfaces, 1);
  EXPECT_TRUE(world_.encoder_had_device.back());
}

TEST_F(VideoEncode, EncoderIsReopenedAtTheSixthErrorInARow) {
  const CapturedLog log;
  make_linux_like();
  begin_settled();
  world_.encoded = [](bool) { return Encoded{false, {}, false}; };
  for (int i = 0; i < 5; ++i) picture_frame();
  EXPECT_EQ(world_.encoder_opened.size(), 1u);
  EXPECT_TRUE(requests_.keyframe);
  picture_frame();
  EXPECT_EQ(world_.encoder_opened.size(), 2u);
  EXPECT_EQ(log.count("video: repeated encoder errors; reopening libopenh264"), 1);
  for (int i = 0; i < 5; ++i) picture_frame();
  EXPECT_EQ(world_.encoder_opened.size(), 2u) << "the count began anew";
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoEncode, GoodFrameClearsTheCountOfErrors) {
  make_linux_like();
  begin_settled();
  for (int round = 0; round < 3; ++round) {
    world_.encoded = [](bool) { return Encoded{false, {}, false}; };
    for (int i = 0; i < 5; ++i) picture_frame();
    world_.encoded = [](bool force) {
      return Encoded{true, force ? fake_capture::KEYFRAME : DELTA, force};
    };
    picture_frame();
  }
  EXPECT_EQ(world_.encoder_opened.size(), 1u);
  EXPECT_EQ(frames_.size(), 3u);
}

TEST_F(VideoEncode, FrameThatCannotBeFilledCountsAsAnErrorWithoutAWord) {
  const CapturedLog log;
  make_linux_like();
  begin_settled();
  world_.draws = false;
  for (int i = 0; i < 3; ++i) fill_failure();  // the picture, and its repeat for the keyframe
  EXPECT_EQ(world_.encoder_opened.size(), 2u);
  EXPECT_EQ(log.count("repeated encoder errors"), 0);
  EXPECT_TRUE(world_.forced.empty());
  EXPECT_TRUE(requests_.keyframe);
}

TEST_F(VideoEncode, TimesSaturateAtTheLargest32BitValue) {
  make_linux_like();
  begin_settled();
  world_.encode_us = std::uint64_t{5'000'000'000};
  picture_frame();
  ASSERT_EQ(frames_.size(), 1u);
  EXPECT_EQ(frames_[0].encode_us, 0xFFFFFFFFu);
  EXPECT_EQ(frames_[0].submit_to_packet_us, 0xFFFFFFFFu);
}

TEST_F(VideoEncode, EmptySinksAreTolerated) {
  make_linux_like();
  sinks_.frame_sink = nullptr;
  sinks_.fatal_sink = nullptr;
  ASSERT_TRUE(begin());
  pass(3);
  world_.display.right = world_.display.width = 800;
  event_now(AcquireResult::Lost);
  EXPECT_FALSE(pass(2));
}

TEST_F(VideoEncode, ConverterThatFailsInASessionEncodesNothingAndKeepsCapturing) {
  make_windows_like();
  begin_settled();
  world_.converter_ready = false;
  picture_in_us(20'000);
  EXPECT_TRUE(pass(3));
  EXPECT_TRUE(world_.forced.empty());
  EXPECT_TRUE(fatal().empty());
}

}  // namespace
