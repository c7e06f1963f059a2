// That the tests' own sound server, tone and ear work, before anything is told by them.
#include "tests/support/linux/sound_server.h"

#include <gtest/gtest.h>

#include "tests/support/spectrum.h"

namespace {

using std::chrono::milliseconds;

TEST(SoundServer, AToneIsHeardAtItsSinkAndNowhereElse) {
  const SoundServer server;
  ASSERT_TRUE(server.running());
  ASSERT_TRUE(server.add_sink("other"));
  const Tone tone(server, 440.0, "out");
  Ear ear(server, "out");
  ASSERT_TRUE(ear.hears(440.0));
  const auto heard = ear.listen(milliseconds(200));
  EXPECT_NEAR(loudest_hz(heard, Ear::RATE, 300, 600), 440, 1);
  EXPECT_NEAR(tone_amplitude(heard, Ear::RATE, 440.0), 0.5, 0.02);
  EXPECT_LT(tone_amplitude(heard, Ear::RATE, 880.0), 0.01);
  EXPECT_EQ(loudest_hz(Ear(server, "other").listen(milliseconds(200)), Ear::RATE, 300, 600), 0);
}

TEST(SoundServer, SinksAreAddedMutedAndRemoved) {
  const SoundServer server;
  EXPECT_TRUE(server.add_sink("second", 44'100, 6));
  EXPECT_TRUE(server.set_default_sink("second"));
  EXPECT_NE(server.pactl({"info"}).output.find("Default Sink: second"), std::string::npos);
  EXPECT_FALSE(server.muted("out"));
  EXPECT_TRUE(server.set_mute("out", true));
  EXPECT_TRUE(server.muted("out"));
  EXPECT_FALSE(server.muted("second"));
  EXPECT_TRUE(server.remove_sink("second"));
  EXPECT_NE(server.pactl({"info"}).output.find("Default Sink: out"), std::string::npos);
}

TEST(SoundServer, ServesAgainAtItsAddressAfterAKill) {
  SoundServer server;
  const std::string address = server.address();
  server.kill();
  EXPECT_FALSE(server.running());
  server.restart();
  EXPECT_TRUE(server.running());
  EXPECT_EQ(server.address(), address);
  const Tone tone(server);
  EXPECT_TRUE(Ear(server).hears(440.0));
}

}  // namespace
