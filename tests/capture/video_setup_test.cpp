// Setting up: which source and encoder a session ends up with, and what a rebuild may change.
#include <gtest/gtest.h>

#include "tests/capture/video_fixture.h"

namespace {

using fake_capture::BARE_KEYFRAME;
using fake_capture::DELTA;
using fake_capture::Encoded;
using fake_capture::KEYFRAME;

class VideoSetup : public CaptureLoopTest {};

constexpr const char* NO_LONGER_WORKS =
    "negotiated hardware encoder/capture no longer works; reconnect required";

TEST_F(VideoSetup, GpuIsTakenWhenItsKeyframeIsGood) {
  make_windows_like();
  ASSERT_TRUE(loop_->init_all());
  EXPECT_EQ(active_.backend, "DDA GPU");
  EXPECT_EQ(active_.encoder, "h264_nvenc");
  EXPECT_FALSE(active_.is_hevc);
  EXPECT_EQ(world_.memory_made, 0);
  EXPECT_EQ(world_.encoder_had_device, std::vector<bool>{true});
}

TEST_F(VideoSetup, GpuKeyframeWithoutParameterSetsFallsToMemory) {
  make_windows_like();
  world_.encoded = [this](bool) {
    return Encoded{true, world_.memory_made ? KEYFRAME : BARE_KEYFRAME, true};
  };
  ASSERT_TRUE(loop_->init_all());
  EXPECT_EQ(active_.backend, "GDI CPU");
  EXPECT_EQ(active_.encoder, "libopenh264");
  EXPECT_EQ(world_.live_sources, 1);
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoSetup, HevcKeyframeIsJudgedByHevcRules) {
  make_windows_like();
  world_.gpu_encoder = "hevc_nvenc";  // its keyframe here is an H.264 one
  ASSERT_TRUE(loop_->init_all());
  EXPECT_EQ(active_.encoder, "libopenh264");
}

TEST_F(VideoSetup, EachFailureOfTheGpuFallsToMemory) {
  const std::vector<std::pair<const char*, std::function<void()>>> failures = {
      {"no adapter", [this] { world_.display.has_adapter = false; }},
      {"source", [this] { world_.gpu_opens = false; }},
      {"encoder", [this] { world_.gpu_encoder.clear(); }},
      {"converter", [this] { world_.converter_ready = false; }},
  };
  for (const auto& [what, arrange] : failures) {
    SCOPED_TRACE(what);
    fresh_world();
    arrange();
    make_windows_like();
    ASSERT_TRUE(loop_->init_all());
    EXPECT_EQ(active_.backend, "GDI CPU");
  }
}

TEST_F(VideoSetup, DisplayWithoutAdapterIsLoggedAsGone) {
  const CapturedLog log;
  world_.display.has_adapter = false;
  make_windows_like();
  loop_->init_all();
  EXPECT_EQ(log.count("video: display SCREEN is gone"), 1);
}

TEST_F(VideoSetup, NotifyingMemorySourceIsProvenByOneKeyframeWithoutADevice) {
  make_linux_like();
  ASSERT_TRUE(loop_->init_all());
  EXPECT_EQ(active_.backend, "X11 CPU");
  EXPECT_EQ(world_.encoder_had_device, std::vector<bool>{false});
  EXPECT_EQ(world_.forced, std::vector<bool>{true});
  EXPECT_EQ(world_.subscriptions, 1);
}

TEST_F(VideoSetup, TrialFrameIsWithheld) {
  make_linux_like();
  ASSERT_TRUE(loop_->init_all());
  EXPECT_EQ(world_.forced.size(), 1u);
  EXPECT_TRUE(frames_.empty());
}

TEST_F(VideoSetup, TrialFrameOfARebuildIsWithheldToo) {
  make_linux_like();
  begin_settled();
  event_now(AcquireResult::Lost);
  pass();
  world_.events.push_back({lund_now_us() + 1'000'000, AcquireResult::Picture, 0, 0});
  pass();
  ASSERT_EQ(world_.forced.size(), 2u) << "the trial and the first of the run";
  EXPECT_EQ(frames_.size(), 1u);
}

TEST_F(VideoSetup, FailsWithoutDisplayDesktopSourceEncoderOrGoodKeyframe) {
  const std::vector<std::pair<const char*, std::function<void()>>> failures = {
      {"display", [this] { world_.display_present = false; }},
      {"desktop", [this] { world_.desktop_reachable = false; }},
      {"entering", [this] { world_.can_enter = false; }},
      {"source", [this] { world_.memory_opens = false; }},
      {"subscription", [this] { world_.subscribes = false; }},
      {"first picture",
       [this] {
         world_.events.push_back({0, AcquireResult::Busy, 0, 0});
       }},
      {"frame", [this] { world_.draws = false; }},
      {"encoder", [this] { world_.encoder_opens = false; }},
      {"encode", [this] { world_.encoded = [](bool) {
                            return Encoded{false, {}, false};
                          }; }},
      {"no output", [this] { world_.encoded = [](bool) {
                               return Encoded{true, {}, false};
                             }; }},
      {"delta", [this] { world_.encoded = [](bool) {
                           return Encoded{true, DELTA, false};
                         }; }},
      {"bare keyframe",
       [this] { world_.encoded = [](bool) {
                  return Encoded{true, BARE_KEYFRAME, true};
                }; }},
  };
  for (const auto& [what, arrange] : failures) {
    SCOPED_TRACE(what);
    fresh_world();
    arrange();
    make_linux_like();
    EXPECT_FALSE(loop_->init_all());
    EXPECT_TRUE(fatal().empty());
  }
}

TEST_F(VideoSetup, EncoderIsAskedForWhatTheSettingsSay) {
  settings_.fps = 30;
  settings_.bitrate_kbps = 7000;
  settings_.prefer_hevc = false;
  settings_.encoder = "h264_amf";
  make_linux_like();
  ASSERT_TRUE(loop_->init_all());
  const EncoderSettings& asked = world_.encoder_opened.at(0);
  EXPECT_EQ(asked.width, 1280);
  EXPECT_EQ(asked.height, 720);
  EXPECT_EQ(asked.fps, 30);
  EXPECT_EQ(asked.bitrate_kbps, 7000);
  EXPECT_FALSE(asked.prefer_hevc);
  EXPECT_EQ(asked.preferred, "h264_amf");
  EXPECT_EQ(asked.required, "");
}

TEST_F(VideoSetup, RebuildRequiresTheSettledEncoder) {
  make_linux_like();
  begin_settled();
  event_now(AcquireResult::Lost);
  pass(2);
  EXPECT_EQ(world_.encoder_opened.back().required, "libopenh264");
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoSetup, RebuildOfAHardwareSessionMayNotFallToMemory) {
  make_windows_like();
  begin_settled();
  world_.gpu_opens = false;
  event_now(AcquireResult::Lost);
  EXPECT_FALSE(pass(2));
  EXPECT_EQ(fatal(), std::vector<std::string>{NO_LONGER_WORKS});
  EXPECT_EQ(world_.memory_made, 0);
}

TEST_F(VideoSetup, RebuildOfASoftwareSessionTriesTheGpuAndFallsToMemory) {
  make_windows_like();
  world_.gpu_opens = false;
  ASSERT_TRUE(begin());
  world_.gpu_opens = true;  // back, but it can't be libopenh264
  world_.events.push_back({0, AcquireResult::Busy, 0, 0});
  pass(2);
  EXPECT_EQ(world_.gpu_made, 2);
  EXPECT_EQ(active_.backend, "GDI CPU");
  EXPECT_EQ(active_.encoder, "libopenh264");
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoSetup, KeyframeWithoutParameterSetsInASessionIsFatalOnceEvenOnRebuild) {
  make_windows_like();
  begin_settled();
  world_.encoded = [](bool) { return Encoded{true, BARE_KEYFRAME, true}; };
  event_now(AcquireResult::Lost);
  EXPECT_FALSE(pass(2));
  EXPECT_EQ(fatal(),
            std::vector<std::string>{"encoder keyframe omitted required in-band parameter sets"});
}

TEST_F(VideoSetup, SizeThatChangedBeforeTheFirstLookIsTakenAsItIs) {
  make_linux_like();
  world_.display.right = world_.display.width = 800;
  EXPECT_TRUE(loop_->init_all());
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoSetup, SizeThatChangesInsideASessionEndsIt) {
  make_linux_like();
  begin_settled();
  world_.display.right = world_.display.width = 800;
  event_now(AcquireResult::Lost);
  EXPECT_FALSE(pass(2));
  EXPECT_EQ(fatal(),
            std::vector<std::string>{"display geometry changed; a fresh session is required"});
  EXPECT_FALSE(pass()) << "a fatal state is final";
}

TEST_F(VideoSetup, SizeThatChangesAfterAFailedFirstInitIsFatal) {
  make_linux_like();
  world_.encoder_opens = false;
  EXPECT_FALSE(loop_->init_all());
  world_.display.bottom = world_.display.height = 600;
  EXPECT_FALSE(loop_->init_all());
  EXPECT_EQ(fatal().size(), 1u) << "the size was fixed at the first look";
}

TEST_F(VideoSetup, MovedDisplayOfTheSameSizeIsFollowed) {
  make_linux_like();
  begin_settled();
  world_.display.left += 100;
  world_.display.right += 100;
  event_now(AcquireResult::Lost);
  EXPECT_TRUE(pass(2));
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoSetup, PictureOfAnotherSizeIsFatalAndNamesTheBackEnd) {
  make_windows_like();
  begin_settled();
  world_.events.push_back({lund_now_us(), AcquireResult::Picture, 0, 640});
  EXPECT_FALSE(pass());
  EXPECT_EQ(fatal(), std::vector<std::string>{"DDA capture geometry changed; reconnect required"});
  EXPECT_TRUE(frames_.empty());
}

TEST_F(VideoSetup, ResetForgetsTheSettledEncoderAndSize) {
  make_linux_like();
  begin_settled();
  loop_->end();
  world_.display.right = world_.display.width = 800;
  loop_->reset(settings_);
  EXPECT_TRUE(loop_->init_all());
  EXPECT_EQ(world_.encoder_opened.back().required, "");
  EXPECT_TRUE(fatal().empty());
}

TEST_F(VideoSetup, EndReleasesEverything) {
  make_linux_like();
  begin_settled();
  loop_->end();
  EXPECT_EQ(world_.live_sources, 0);
}

TEST_F(VideoSetup, InitFailureOfARunIsTriedAgainAfterTwoSeconds) {
  make_linux_like();
  begin_settled();
  event_now(AcquireResult::Lost);
  pass();
  world_.memory_opens = false;
  EXPECT_EQ(elapsed_us_of_pass(), 2'000'000u);
  EXPECT_EQ(world_.live_sources, 0);
  EXPECT_EQ(elapsed_us_of_pass(), 2'000'000u);
  world_.memory_opens = true;
  pass();
  EXPECT_EQ(frames_.size(), 1u);
}

}  // namespace
