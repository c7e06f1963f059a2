// The host's sound at the person's ear: a sound server on each side.
#include "tests/support/linux/sound_server.h"
#include "tests/support/spectrum.h"
#include "tests/system/view_support.h"

namespace system_test {
namespace {

class ViewSoundTest : public ViewTest {
 protected:
  void sit_between_sound_servers() {
    host_sound_ = std::make_unique<SoundServer>();
    for (const auto& [name, value] : host_sound_->environment()) environment_[name] = value;
    sit_down();
    seat_sound_ = std::make_unique<SoundServer>();
    for (const auto& [name, value] : seat_sound_->environment()) seat_environment_[name] = value;
  }
  void TearDown() override {
    viewer_.reset();
    host_.reset();
    seat_sound_.reset();
    host_sound_.reset();
    ViewTest::TearDown();
  }
  std::unique_ptr<SoundServer> host_sound_;
  std::unique_ptr<SoundServer> seat_sound_;
};

TEST_F(ViewSoundTest, AToneIsHeardWithAtMostSixtyMillisecondsWaiting) {
  sit_between_sound_servers();
  view();
  {
    const Tone tone(*host_sound_);
    Ear ear(*seat_sound_);
    ASSERT_TRUE(ear.hears(440));
    ear.listen(seconds(3));
    const std::vector<float> heard = ear.listen(seconds(1));
    // The correction of drift may shift it by half a percent.
    EXPECT_NEAR(loudest_hz(heard, Ear::RATE, 200, 900), 440, 3);
  }
  EXPECT_EQ(leave(), 0);
  const nlohmann::json sound = view_report()["sound"];
  EXPECT_TRUE(sound["device"]);
  EXPECT_LE(sound["buffered_max_ms"], 60.0);
  EXPECT_GT(sound["played_ms"], 3000.0);
  std::printf("sound buffered at most %.1f ms, %d underruns, %d overruns\n",
              sound["buffered_max_ms"].get<double>(), sound["underruns"].get<int>(),
              sound["overruns"].get<int>());
}

TEST_F(ViewSoundTest, SwitchedOffAtTheWindowItIsSilentAndComesBack) {
  sit_between_sound_servers();
  view();
  const Tone tone(*host_sound_);
  Ear ear(*seat_sound_);
  ASSERT_TRUE(ear.hears(440));
  user_->command('m');
  EXPECT_TRUE(comes_true([&] {
    return tone_amplitude(ear.listen(std::chrono::milliseconds(300)), Ear::RATE, 440) < 0.001;
  }));
  user_->command('m');
  EXPECT_TRUE(ear.hears(440));
}

}  // namespace
}  // namespace system_test
