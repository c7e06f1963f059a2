// What plays on the Windows host is what the client hears. On Wine 10: before it, there is no
// loopback capture.
#include <signal.h>

#include <algorithm>

#include "tests/support/wav_file.h"
#include "tests/system/windows/windows_host_support.h"

namespace system_test {
namespace {

class WindowsSoundTest : public WindowsHostTest {
 protected:
  static void SetUpTestSuite() { open_desk({.ten = true, .sound = true}); }

  std::filesystem::path recording_path() const { return directory_ / "sound.wav"; }
  void start_recording() {
    launch_receiver({"--out", out().string(), "--audio-out", recording_path().string()});
    EXPECT_TRUE(receiver_->wait_for_output("path: ", seconds(20))) << receiver_->output();
  }
  // Waits until the newest stretch holds this.
  template <typename Condition>
  bool hears(const Condition& condition) {
    return comes_true(
        [&] {
          recording_ = WavFile(recording_path());
          recording_.read_on();
          const double at = recording_.seconds() - STRETCH_S;
          return at >= 0 && condition(piece(recording_.left, at, STRETCH_S)) &&
                 condition(piece(recording_.right, at, STRETCH_S));
        },
        seconds(30));
  }
  void end_recording() {
    receiver_->signal(SIGINT);
    EXPECT_EQ(receiver_->wait(seconds(20)), 0) << receiver_->output();
    recording_ = WavFile(recording_path());
    recording_.read_on();
    recording_.check_header();
  }

  static constexpr double STRETCH_S = 0.25;
  WavFile recording_{""};
};

TEST_F(WindowsSoundTest, AToneKeepsItsPitchAndItsLoudness) {
  serve();
  open("tone_player.exe", {"440"}, "plays");
  start_recording();
  EXPECT_TRUE(hears([](std::span<const float> heard) {
    // Wine's capture leaves out a piece now and then; between two of them it is the tone alone.
    return purity(heard, 440) > 0.97 && loudest_hz(heard, WavFile::RATE, 100, 1'000) == 440 &&
           std::abs(tone_amplitude(heard, WavFile::RATE, 440) - 0.5) < 0.05;
  }));
  end_recording();
  const auto sound = report()["sound"];
  std::printf("%s\n", sound.dump().c_str());
  EXPECT_EQ(sound["undecodable"], 0) << sound.dump();
  EXPECT_EQ(sound["lost"], 0) << sound.dump();
}

}  // namespace
}  // namespace system_test
