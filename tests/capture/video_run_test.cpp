// The loop: pacing, waits, retries and recovery.
#include <gtest/gtest.h>

#include "tests/capture/video_fixture.h"

namespace {

using fake_capture::MEMORY_POLLED;

constexpr std::uint64_t T_US = 16'666;  // at 60 frames a second
constexpr std::uint64_t M_US = 14'999;

class VideoRun : public CaptureLoopTest {};

TEST_F(VideoRun, FirstFrameLeavesWithoutWaitingForAChangeAndIsAKeyframe) {
  make_linux_like();
  ASSERT_TRUE(begin());
  EXPECT_EQ(elapsed_us_of_pass(), 0u);
  ASSERT_EQ(frames_.size(), 1u);
  EXPECT_TRUE(frames_[0].keyframe);
}

TEST_F(VideoRun, StaticScreenGivesNoFramesAndWakesAtMostEvery50Ms) {
  make_linux_like();
  begin_settled();
  pass_for_ms(10'000);
  EXPECT_TRUE(frames_.empty());
  EXPECT_LE(world_.waits_ms.size(), 201u);
  for (const std::uint32_t wait_ms : world_.waits_ms) EXPECT_EQ(wait_ms, 50u);
}

TEST_F(VideoRun, RequestedKeyframeOfAStaticScreenComesOneAndAHalfFrameTimesAfterTheLastPicture) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  picture_in_us(0);
  pass_until_frames(1);
  const std::uint64_t picture_us = frames_[0].at_us;
  forget_seen();
  requests_.keyframe = true;
  pass_until_frames(1);
  EXPECT_TRUE(frames_[0].keyframe);
  const std::uint64_t later_us = frames_[0].at_us - picture_us;
  EXPECT_GE(later_us, T_US * 3 / 2);
  EXPECT_LE(later_us, T_US * 3 / 2 + 1000) << "the wait is rounded up to a millisecond";
  EXPECT_EQ(world_.waits_ms, std::vector<std::uint32_t>{25});
  EXPECT_EQ(frames_[0].capture_us, frames_[0].at_us) << "a repeat counts as captured now";
}

TEST_F(VideoRun, RequestedKeyframeOfALongStaticScreenComesAtOnce) {
  make_linux_like();
  begin_settled();
  pass_for_ms(1000);
  requests_.keyframe = true;
  EXPECT_EQ(elapsed_us_of_pass(), 0u);
  EXPECT_EQ(frames_.size(), 1u);
}

TEST_F(VideoRun, RepeatsOfAnUnansweredRequestKeepOneAndAHalfFrameTimes) {
  make_linux_like();
  begin_settled();
  world_.encoded = [](bool) { return fake_capture::Encoded{true, fake_capture::DELTA, false}; };
  pass_for_ms(100);
  forget_seen();
  requests_.keyframe = true;
  pass_until_frames(3);
  EXPECT_EQ(frames_[1].at_us - frames_[0].at_us, 25'000u);
  EXPECT_EQ(frames_[2].at_us - frames_[1].at_us, 25'000u);
}

TEST_F(VideoRun, TwoKeyframeRequestsInARowYieldOneKeyframe) {
  make_linux_like();
  begin_settled();
  requests_.keyframe = true;
  requests_.keyframe = true;
  pass_for_ms(500);
  ASSERT_EQ(frames_.size(), 1u);
  EXPECT_TRUE(frames_[0].keyframe);
}

TEST_F(VideoRun, PicturesInsideThePacingIntervalBecomeOneFrameAtItsEnd) {
  make_linux_like();
  begin_settled();
  picture_in_us(50'000);
  picture_in_us(52'000);
  picture_in_us(54'000);
  pass_until_frames(2);
  EXPECT_EQ(frames_.size(), 2u);
  const std::uint64_t apart_us = frames_[1].at_us - frames_[0].at_us;
  EXPECT_GE(apart_us, M_US);
  EXPECT_LE(apart_us, M_US + 1000);
  pass_for_ms(200);
  EXPECT_EQ(frames_.size(), 2u);
}

TEST_F(VideoRun, PictureAfterThePacingIntervalLeavesAtOnce) {
  make_linux_like();
  begin_settled();
  picture_in_us(30'000);
  pass_until_frames(1);
  EXPECT_EQ(frames_[0].at_us, frames_[0].capture_us);
  EXPECT_EQ(frames_[0].encode_us, 0u);
}

TEST_F(VideoRun, FpsOfZeroOrLessPacesAsOne) {
  for (const int fps : {0, -60}) {
    SCOPED_TRACE(fps);
    fresh_world();
    frames_.clear();
    settings_.fps = fps;
    make_linux_like();
    begin_settled();
    picture_in_us(2'000'000);
    picture_in_us(2'100'000);
    pass_until_frames(2);
    EXPECT_EQ(frames_[1].at_us - frames_[0].at_us, 900'000u);
  }
}

TEST_F(VideoRun, WaitWhileAPictureIsPendingEndsWithThePacingInterval) {
  make_linux_like();
  begin_settled();
  picture_in_us(1'000);
  pass();  // acquires; the first frame was just encoded
  EXPECT_TRUE(frames_.empty());
  forget_seen();
  pass();
  EXPECT_EQ(world_.waits_ms, std::vector<std::uint32_t>{14});  // 14,999 us less 1,000
  EXPECT_EQ(frames_.size(), 1u);
}

TEST_F(VideoRun, SlowPacingStillWakesEvery50Ms) {
  settings_.fps = 1;
  make_linux_like();
  begin_settled();
  picture_in_us(0);
  pass(3);
  EXPECT_EQ(world_.waits_ms.back(), 50u);
}

TEST_F(VideoRun, PointerOnlyResultsEncodeNothing) {
  make_linux_like();
  begin_settled();
  for (int i = 0; i < 20; ++i) {
    world_.events.push_back(
        {lund_now_us() + 10'000u * static_cast<unsigned>(i), AcquireResult::PointerOnly, 0, 0});
  }
  pass_for_ms(300);
  EXPECT_TRUE(world_.events.empty());
  EXPECT_TRUE(world_.forced.empty());
}

TEST_F(VideoRun, PresentTimeOfThePictureIsItsCaptureTime) {
  make_linux_like();
  begin_settled();
  const std::uint64_t at_us = lund_now_us() + 40'000;
  world_.events.push_back({at_us, AcquireResult::Picture, at_us - 3'000, 0});
  pass_until_frames(1);
  EXPECT_EQ(frames_[0].capture_us, at_us - 3'000);
}

TEST_F(VideoRun, PresentTimeInTheFutureIsTheTimeOfAcquiring) {
  make_linux_like();
  begin_settled();
  const std::uint64_t at_us = lund_now_us() + 40'000;
  world_.events.push_back({at_us, AcquireResult::Picture, at_us + 3'000, 0});
  pass_until_frames(1);
  EXPECT_EQ(frames_[0].capture_us, at_us);
}

TEST_F(VideoRun, SubmissionCountsFromAcquiringOnlyWhenThatWasHalfAMillisecondAgo) {
  world_.encode_us = 4'000;
  make_linux_like();
  begin_settled();
  picture_in_us(40'000);
  pass_until_frames(1);
  EXPECT_EQ(frames_[0].encode_us, 4'000u);
  EXPECT_EQ(frames_[0].submit_to_packet_us, 4'000u);
  picture_in_us(0);  // inside the pacing interval: waits, and then counts from its encode
  pass_until_frames(2);
  EXPECT_EQ(frames_[1].encode_us, 4'000u);
}

TEST_F(VideoRun, PolledSourceCapturesAtTheFullRate) {
  make(nullptr, MEMORY_POLLED);
  ASSERT_TRUE(begin());
  pass_until_frames(4);
  for (std::size_t i = 1; i < 4; ++i) {
    EXPECT_EQ(frames_[i].at_us - frames_[i - 1].at_us, 17'000u);  // T rounded up to milliseconds
  }
}

TEST_F(VideoRun, PolledSourceDoesNotWaitWhenAPassTookLongerThanAFrame) {
  make(nullptr, MEMORY_POLLED);
  ASSERT_TRUE(begin());
  world_.encode_us = 20'000;
  pass();
  EXPECT_EQ(elapsed_us_of_pass(), 20'000u);
}

TEST_F(VideoRun, FailedPollIsTriedAgainAfter200MsOnAFreshCapture) {
  make(nullptr, MEMORY_POLLED);
  ASSERT_TRUE(begin());
  event_now(AcquireResult::Busy);
  EXPECT_EQ(elapsed_us_of_pass(), 200'000u);
  EXPECT_EQ(world_.live_sources, 0);
  pass();
  EXPECT_EQ(world_.memory_made, 2);
  EXPECT_EQ(frames_.size(), 1u);
}

TEST_F(VideoRun, PolledDisplayThatChangedItsSizeIsFatal) {
  make(nullptr, MEMORY_POLLED);
  ASSERT_TRUE(begin());
  world_.display.right = world_.display.width = 800;
  EXPECT_FALSE(pass());
  EXPECT_EQ(fatal(),
            std::vector<std::string>{"display geometry changed; a fresh session is required"});
}

TEST_F(VideoRun, PolledDisplayThatMovedIsFollowedBeforeItsNextPicture) {
  make(nullptr, MEMORY_POLLED);
  ASSERT_TRUE(begin());
  world_.display.left = 100;
  world_.display.right = 1380;
  world_.display.top = -50;
  world_.display.bottom = 670;
  DesktopPoint at_acquire;
  world_.on_acquire = [&] { at_acquire = world_.followed_to; };
  EXPECT_TRUE(pass());
  EXPECT_EQ(at_acquire, (DesktopPoint{100, -50}));
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoRun, UnreachableDesktopIsTriedAgainAfter200Ms) {
  make_linux_like();
  begin_settled();
  world_.desktop_reachable = false;
  EXPECT_EQ(elapsed_us_of_pass(), 200'000u);
  EXPECT_EQ(world_.live_sources, 0);
  world_.desktop_reachable = true;
  pass();
  ASSERT_EQ(frames_.size(), 1u);
  EXPECT_TRUE(frames_[0].keyframe);
}

TEST_F(VideoRun, DesktopChangeRebuildsEverythingOnTheNewDesktop) {
  make_windows_like();
  begin_settled();
  world_.input_desktop = "Winlogon";
  pass_until_frames(1);
  EXPECT_EQ(world_.desktops_entered, 2);
  EXPECT_EQ(world_.gpu_made, 2);
  EXPECT_EQ(world_.live_sources, 1);
  ASSERT_EQ(frames_.size(), 1u);
  EXPECT_TRUE(frames_[0].keyframe);
}

TEST_F(VideoRun, LostCaptureIsRebuiltInTheNextPassWithoutAPause) {
  make_windows_like();
  begin_settled();
  pass_for_ms(100);
  event_now(AcquireResult::Lost);
  EXPECT_EQ(elapsed_us_of_pass(), 0u);
  EXPECT_EQ(world_.live_sources, 0);
  EXPECT_EQ(elapsed_us_of_pass(), 0u);
  EXPECT_EQ(world_.gpu_made, 2);
  EXPECT_EQ(frames_.size(), 1u);
}

TEST_F(VideoRun, RebuiltCaptureCountsAsANewPictureAndWaitsForThePacingAlone) {
  const std::vector<std::pair<const char*, std::function<void()>>> rebuilds = {
      {"lost", [this] { event_now(AcquireResult::Lost); }},
      {"another desktop", [this] { world_.input_desktop = "Winlogon"; }},
  };
  for (const auto& [what, rebuild] : rebuilds) {
    SCOPED_TRACE(what);
    fresh_world();
    make_windows_like();
    begin_settled();
    pass_for_ms(100);
    picture_in_us(0);
    pass_until_frames(1);
    rebuild();
    pass_until_frames(2);
    const std::uint64_t apart_us = frames_[1].at_us - frames_[0].at_us;
    EXPECT_GE(apart_us, M_US);
    EXPECT_LE(apart_us, M_US + 1000) << "not the longer time of a repeat";
    forget_seen();
  }
}

TEST_F(VideoRun, BusySourceIsSubscribedAnewAfter100Ms) {
  make_windows_like();
  begin_settled();
  event_now(AcquireResult::Busy);
  EXPECT_EQ(elapsed_us_of_pass(), 100'000u);
  pass();
  EXPECT_EQ(world_.gpu_made, 1) << "the device is kept";
  EXPECT_EQ(world_.subscriptions, 2);
}

TEST_F(VideoRun, BusySourceKeepsAPendingPicturePending) {
  make_windows_like();
  begin_settled();
  picture_in_us(1'000);
  pass();
  ASSERT_TRUE(frames_.empty());
  event_now(AcquireResult::Busy);
  pass(2);
  EXPECT_EQ(frames_.size(), 1u);
}

TEST_F(VideoRun, GoneSourceIsRebuiltAfter100Ms) {
  make_windows_like();
  begin_settled();
  event_now(AcquireResult::Gone);
  EXPECT_EQ(elapsed_us_of_pass(), 100'000u);
  EXPECT_EQ(world_.live_sources, 0);
  pass();
  EXPECT_EQ(world_.gpu_made, 2);
}

TEST_F(VideoRun, FailedDeviceIsRebuilt) {
  make_windows_like();
  begin_settled();
  world_.device_alive = false;
  pass();
  EXPECT_EQ(world_.live_sources, 0);
  world_.device_alive = true;
  pass();
  EXPECT_EQ(frames_.size(), 1u);
}

class VideoRunSubscription : public CaptureLoopTest {
 protected:
  void SetUp() override {
    make_windows_like();
    begin_settled();
    world_.subscribe_tries = 0;
    world_.subscribes = false;
    event_now(AcquireResult::Busy);
    pass();
  }
};

TEST_F(VideoRunSubscription, FailureIsTriedAgainEvery200MsAndLoggedAtMostOnceIn5Seconds) {
  const CapturedLog log;
  for (int i = 0; i < 14; ++i) EXPECT_EQ(elapsed_us_of_pass(), 200'000u);
  EXPECT_EQ(world_.subscribe_tries, 14);
  EXPECT_EQ(log.count("video: Subscribe failed (7); retrying"), 1);
  EXPECT_EQ(world_.gpu_made, 1);
}

TEST_F(VideoRunSubscription, SameFailureIsLoggedAgainAfter5Seconds) {
  const CapturedLog log;
  pass();
  virtual_time::advance_us(5'000'000 - 200'000);
  pass();
  EXPECT_EQ(log.count("retrying"), 1) << "5,000,000 us after the first";
  pass();
  EXPECT_EQ(log.count("retrying"), 2);
}

TEST_F(VideoRunSubscription, OtherFailureIsLoggedAtOnce) {
  const CapturedLog log;
  pass();
  world_.subscribe_failure = {8, "Subscribe failed (8)", false};
  pass();
  EXPECT_EQ(log.count("video: Subscribe failed (8); retrying"), 1);
}

TEST_F(VideoRunSubscription, FifteenthFailureInARowRebuildsTheDevice) {
  const CapturedLog log;
  pass(14);
  EXPECT_EQ(world_.live_sources, 1);
  EXPECT_EQ(elapsed_us_of_pass(), 200'000u);
  EXPECT_EQ(world_.live_sources, 0);
  EXPECT_EQ(log.count("video: rebuilding the capture device"), 1);
  world_.subscribes = true;
  pass();
  EXPECT_EQ(world_.gpu_made, 2);
  EXPECT_EQ(frames_.size(), 1u);
}

TEST_F(VideoRunSubscription, SuccessForgetsTheFailuresBefore) {
  pass(14);
  world_.subscribes = true;
  pass();
  world_.subscribes = false;
  event_now(AcquireResult::Busy);
  pass(15);
  EXPECT_EQ(world_.gpu_made, 1);
}

TEST_F(VideoRunSubscription, FailureBecauseTheDesktopMovedFollowsIt) {
  world_.subscribe_failure = {5, "Subscribe failed (5)", true};
  // Between the loop's look at it and the subscription.
  world_.on_subscribe = [this] { world_.input_desktop = "Winlogon"; };
  EXPECT_EQ(elapsed_us_of_pass(), 200'000u);
  EXPECT_EQ(world_.desktops_entered, 2);
  EXPECT_EQ(world_.live_sources, 0);
}

TEST_F(VideoRun, StopEndsTheLoopAndEveryWait) {
  make_linux_like();
  begin_settled();
  requests_.stop = true;
  requests_.wake.set();
  EXPECT_FALSE(pass());
}

TEST_F(VideoRun, SetWakeUpCutsTheRetryWaitsShort) {
  make_linux_like();
  begin_settled();
  world_.desktop_reachable = false;
  requests_.wake.set();
  EXPECT_EQ(elapsed_us_of_pass(), 0u);
}

}  // namespace
