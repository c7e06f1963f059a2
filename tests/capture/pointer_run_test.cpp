// The pointer in the capture loop.
#include <gtest/gtest.h>

#include "tests/capture/video_fixture.h"

namespace {

using fake_capture::MEMORY_POLLED;

constexpr std::uint64_t REPORT_US = 8'000;
constexpr std::uint32_t WHITE = 0xFFFFFFFF;

class PointerInLoop : public CaptureLoopTest {
 protected:
  PointerInLoop() { world_.pointer.system = DesktopPoint{100, 100}; }
  void pointer_event_in_us(std::uint64_t us) {
    world_.events.push_back({lund_now_us() + us, AcquireResult::PointerOnly, 0, 0});
  }
};

TEST_F(PointerInLoop, ImageThatArrivesDuringTheSetUpIsHeldAndDeliveredWhenTheRunBegins) {
  const auto sink = std::exchange(sinks_.cursor_sink, nullptr);
  world_.pointer.draw(1, {WHITE});
  make_windows_like();
  ASSERT_TRUE(begin());
  EXPECT_TRUE(images_.empty());
  sinks_.cursor_sink = sink;
  pass();
  EXPECT_EQ(images_.size(), 1u);
}

TEST_F(PointerInLoop, ImageIsHeldDuringTheSetUpEvenWhereTheSinkIsThere) {
  world_.pointer.draw(1, {WHITE});
  make_linux_like();
  ASSERT_TRUE(loop_->init_all());
  EXPECT_TRUE(images_.empty());
  loop_->begin_run();
  pass();
  EXPECT_EQ(images_.size(), 1u);
}

TEST_F(PointerInLoop, HeldImageIsDroppedWithTheCaptureThatGaveIt) {
  const auto sink = std::exchange(sinks_.cursor_sink, nullptr);
  world_.pointer.draw(1, {WHITE});
  make_linux_like();
  ASSERT_TRUE(begin());
  world_.input_desktop = "Winlogon";
  world_.can_enter = false;
  pass();
  sinks_.cursor_sink = sink;
  world_.can_enter = true;
  pass(2);
  EXPECT_TRUE(images_.empty());
}

TEST_F(PointerInLoop, PictureOfAConverterThatFailsBringsNoPointer) {
  world_.converter_ready = false;
  world_.pointer.draw(1, {WHITE});
  make(&fake_capture::GPU_NOTIFYING, MEMORY_POLLED);
  ASSERT_TRUE(begin());
  EXPECT_EQ(active_.backend, "GDI CPU");
  pass();
  EXPECT_TRUE(images_.empty());
}

TEST_F(PointerInLoop, PointerUpdatesEncodeNothingAndLeaveWithin8Ms) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  forget_seen();
  world_.pointer.move(10, 10);
  pointer_event_in_us(0);
  pass();
  EXPECT_EQ(positions_.size(), 1u);
  const std::uint64_t sent_us = positions_.at(0).at_us;
  world_.pointer.move(20, 20);
  pointer_event_in_us(1'000);
  pass_for_ms(50);
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].at_us - sent_us, REPORT_US);
  EXPECT_TRUE(world_.forced.empty());
}

TEST_F(PointerInLoop, ChangeThatWaitsBoundsTheWaitTo8MsAfterTheLastReport) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  world_.pointer.move(10, 10);
  pointer_event_in_us(0);
  pass();
  world_.pointer.move(20, 20);
  pointer_event_in_us(3'000);
  pass();
  forget_seen();
  pass();
  EXPECT_EQ(world_.waits_ms, std::vector<std::uint32_t>{5});
  pass();
  EXPECT_EQ(world_.waits_ms.back(), 50u) << "once it is told nothing hurries";
}

TEST_F(PointerInLoop, ShapeOfAPointerUpdateLeavesInTheSamePass) {
  make_linux_like();
  begin_settled();
  world_.pointer.draw(1, {WHITE});
  pointer_event_in_us(0);
  pass();
  EXPECT_EQ(images_.size(), 1u);
}

TEST_F(PointerInLoop, UpdateThatComesWithAPictureCountsToo) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  forget_seen();
  world_.pointer.move(10, 10);
  world_.pointer.draw(1, {WHITE});
  picture_in_us(0);
  pass();
  EXPECT_EQ(frames_.size(), 1u);
  EXPECT_EQ(positions_.size(), 1u);
  EXPECT_EQ(images_.size(), 1u);
}

TEST_F(PointerInLoop, MotionOf1000AsecondDelaysNoPicture) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  forget_seen();
  const std::uint64_t picture_us = lund_now_us() + 20'500;
  for (std::uint64_t i = 0; i < 40; ++i) {
    pointer_event_in_us(i * 1'000);
    if (i == 20) world_.events.push_back({picture_us, AcquireResult::Picture, 0, 0});
  }
  world_.on_acquire = [this] { world_.pointer.move(static_cast<int>(lund_now_us() % 1'000), 5); };
  pass_for_ms(40);
  ASSERT_EQ(frames_.size(), 1u);
  EXPECT_EQ(frames_[0].at_us, picture_us);
  EXPECT_LE(positions_.size(), 6u);
}

TEST_F(PointerInLoop, IdleDesktopWakesEvery50MsAndReportsNothing) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  forget_seen();
  pass_for_ms(10'000);
  EXPECT_LE(world_.waits_ms.size(), 201u);
  EXPECT_TRUE(positions_.empty());
}

TEST_F(PointerInLoop, PolledSourceIsAskedOnceAPassAfterItsEncode) {
  make(nullptr, MEMORY_POLLED);
  world_.pointer.icons[3] = {1, 1, {WHITE}, {}, 0, 0};
  world_.pointer.cursor = CursorState{true, {1279, 719}, 3};
  ASSERT_TRUE(begin());
  EXPECT_TRUE(images_.empty()) << "nothing is polled before the run";
  pass();
  EXPECT_EQ(images_.size(), 1u);
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 65'535);
  pass(5);
  EXPECT_EQ(images_.size(), 1u);
  EXPECT_EQ(positions_.size(), 1u);
}

TEST_F(PointerInLoop, OtherDesktopHidesThePointerUntilItsSourceTellsOfIt) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  world_.pointer.move(10, 10);
  pointer_event_in_us(0);
  pass();
  forget_seen();
  world_.input_desktop = "Winlogon";
  pass_for_ms(50);
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].visible, 0);
  world_.pointer.move(10, 10);
  pointer_event_in_us(0);
  pass_for_ms(50);
  ASSERT_EQ(positions_.size(), 2u);
  EXPECT_EQ(positions_[1].visible, 1);
}

TEST_F(PointerInLoop, LostCaptureKeepsWhatIsKnownOfThePointer) {
  make_linux_like();
  begin_settled();
  pass_for_ms(100);
  world_.pointer.move(10, 10);
  pointer_event_in_us(0);
  pass();
  forget_seen();
  event_now(AcquireResult::Lost);
  pass_for_ms(100);
  EXPECT_TRUE(positions_.empty());
}

TEST_F(PointerInLoop, SecondInitTellsEverythingAgain) {
  make(nullptr, MEMORY_POLLED);
  world_.pointer.icons[3] = {1, 1, {WHITE}, {}, 0, 0};
  world_.pointer.cursor = CursorState{true, {5, 5}, 3};
  ASSERT_TRUE(begin());
  pass();
  loop_->end();
  loop_->reset(settings_);
  forget_seen();
  ASSERT_TRUE(begin());
  pass();
  EXPECT_EQ(images_.size(), 1u);
  EXPECT_EQ(positions_.size(), 1u);
}

}  // namespace
