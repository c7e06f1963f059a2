#include "apps/client/view/sound_output.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "connection/clock.h"

namespace {

// A device that takes 1,024 frames at a time, whatever it is asked for.
TEST(SoundOutput, ADeviceWithPortionsOfItsOwnPlaysWhatComesAndKeepsTheLimit) {
  SDL_setenv("SDL_AUDIODRIVER", "dummy", 1);
  SoundOutput output;
  std::string error;
  ASSERT_TRUE(output.open(&error)) << error;
  const std::vector<float> tone(480 * SOUND_CHANNELS, 0.25F);
  SoundBlock block{};
  block.samples = tone.data();
  block.frames = 480;
  const std::uint64_t until_us = lund_now_us() + 10'000'000;
  SoundOutput::Figures figures;
  while (figures.playout.played_frames < 48'000 / 2 && lund_now_us() < until_us) {
    output.play(block);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    figures = output.take_figures();
  }
  EXPECT_GE(figures.playout.played_frames, 48'000U / 2) << "half a second of sound";
  EXPECT_LE(figures.most_ms, 60.0);
  output.close();
  SDL_setenv("SDL_AUDIODRIVER", "", 1);
}

}  // namespace
