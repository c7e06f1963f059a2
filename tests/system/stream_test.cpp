// The stream as a whole: loss, endings, a still screen, a second device.
#include <signal.h>

#include <chrono>
#include <fstream>

#include "tests/system/loss_support.h"
#include "tests/system/system_support.h"

namespace system_test {
namespace {

class StreamTest : public SystemTest {
 protected:
  void prepare(bool moving) {
    start_desktop(1280, 720);
    if (moving)
      screen_ = std::make_unique<ChildProcess>(
          std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
    start_host();
    pair();
  }
  void TearDown() override {
    screen_.reset();
    SystemTest::TearDown();
  }
  std::unique_ptr<ChildProcess> screen_;
};

TEST_F(StreamTest, AFewSecondsOfAMovingScreenArriveCompleteAndDecodable) {
  prepare(true);
  stream(3);
  const auto json = report();
  EXPECT_GT(json["frames"].get<int>(), 90) << json.dump();
  EXPECT_EQ(json["frames_undecodable"], 0);
  const RunResult decoded = decode_with_ffmpeg(recording());
  EXPECT_EQ(decoded.status, 0);
  EXPECT_EQ(decoded.output, "");
}

TEST_F(StreamTest, RecordingsUnderLossDecodeWithoutAMessage) {
  prepare(true);
  for (const char* percent : {"1", "5", "10"}) {
    stream(2, {"--drop", percent, "--seed", "7"});
    const auto json = report();
    EXPECT_GT(json["datagrams_dropped_on_purpose"].get<int>(), 0) << json.dump();
    EXPECT_EQ(json["frames_undecodable"], 0) << json.dump();
    const RunResult decoded = decode_with_ffmpeg(recording());
    EXPECT_EQ(decoded.status, 0) << percent << " %";
    EXPECT_EQ(decoded.output, "") << percent << " %";
  }
}

class StreamOverABadNetworkTest : public StreamTest {
 protected:
  // The host's port is known from the beginning, so that pairing goes through it, too.
  void SetUp() override {
    StreamTest::SetUp();
    network_ = std::make_unique<LossyPath>(port_);
  }
  std::string host_address() const override { return network_->host_address(); }

  std::unique_ptr<LossyPath> network_;
};

TEST_F(StreamOverABadNetworkTest, PairsAndArrivesDecodable) {
  prepare(true);
  network_->stream(start_receiver({"--out", out().string()}), *screen_, *painter_);
  network_->expect_a_sound_stream(report(), recording(), last_frame());
}

TEST_F(StreamTest, FromALostFrameToTheNextKeyframeNothingIsRecorded) {
  prepare(true);
  // Of three datagrams of a small frame all are lost in one of 23; a keyframe has parity to spare.
  stream(5, {"--drop", "35", "--seed", "3", "--fec", "100"});
  const auto json = report();
  EXPECT_GT(json["frames_recovered"].get<int>(), 0) << json.dump();
  EXPECT_GT(json["frames_lost"].get<int>(), 0) << json.dump();
  EXPECT_GT(json["frames_withheld"].get<int>(), 0) << json.dump();
  EXPECT_GT(json["keyframes"].get<int>(), 1) << json.dump();
  EXPECT_EQ(json["frames_undecodable"], 0) << json.dump();
  const RunResult decoded = decode_with_ffmpeg(recording());
  EXPECT_EQ(decoded.status, 0);
  EXPECT_EQ(decoded.output, "");
}

TEST_F(StreamTest, AStillScreenSendsNoFramesAndCostsNextToNothing) {
  prepare(false);
  ChildProcess& receiver = start_receiver({"--out", out().string()});
  const double before = host_->processor_seconds();
  const auto begin = std::chrono::steady_clock::now();
  const std::size_t said = receiver.output().size();
  ASSERT_TRUE(receiver.wait_for_output("\x01", seconds(5)) == false);  // five seconds of stillness
  const double lasted =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  // Pings and statistics are answered all the while.
  EXPECT_LT((host_->processor_seconds() - before) / lasted, 0.02);
  EXPECT_NE(receiver.output().find("  0.0 fps", said), std::string::npos) << receiver.output();
  receiver.signal(SIGINT);
  EXPECT_EQ(receiver.wait(seconds(20)), 0);
  EXPECT_LE(report()["frames"].get<int>(), 3) << report().dump();
}

TEST_F(StreamTest, StoppingTheHostTellsTheClient) {
  prepare(true);
  ChildProcess& receiver = start_receiver();
  EXPECT_EQ(stop_host(), 0);
  EXPECT_EQ(receiver.wait(seconds(3)), 3) << receiver.output();
  EXPECT_NE(receiver.output().find("the host ended the stream"), std::string::npos);
  EXPECT_NE(host_log().find("host shutting down"), std::string::npos);
}

TEST_F(StreamTest, AClientThatIsKilledMayComeBackAtOnce) {
  prepare(true);
  {
    ChildProcess& receiver = start_receiver();
    receiver.signal(SIGKILL);
    receiver.wait(seconds(5));
  }
  stream(1);  // the same device is never busy with itself
  EXPECT_EQ(stop_host(), 0);
  EXPECT_NE(host_log().find("ended"), std::string::npos);
}

TEST_F(StreamTest, AskedForAVirtualDisplayAHostWithoutADriverShowsItsMonitorAndSaysWhy) {
  start_desktop(1280, 720);
  start_host({"--codec", "h264", "--virtual-display", "always"});
  pair();
  stream(0.1, {"--virtual", "--width", "640", "--height", "400", "--fps", "30"});
  EXPECT_EQ(report()["stream"]["width"], 640);
  EXPECT_EQ(report()["stream"]["height"], 360);  // as the monitor's shape has it
  EXPECT_NE(host_log().find("client max 640x400@30 mode 1,"), std::string::npos) << host_log();
  EXPECT_NE(host_log().find("screen 0: client asked for a virtual display; streaming the physical "
                            "monitor (no usable virtual display driver)"),
            std::string::npos)
      << host_log();
}

TEST_F(StreamTest, ASecondDeviceIsToldThatTheHostIsBusy) {
  start_desktop(1280, 720);
  start_host({"--codec", "h264", "--pin", "for-two"});
  const auto other = [this](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {program("lunderhaze-client"), "--store", (directory_ / "other").string()});
    return run_program(arguments, environment_);
  };
  const std::vector<std::string> pairing = {"pair", "--host", host_address(), "--password",
                                            "for-two"};
  ASSERT_EQ(client(pairing).status, 0);
  // The host takes one password attempt a second; the client repeats its own until it is answered.
  const RunResult paired = other(pairing);
  ASSERT_EQ(paired.status, 0) << paired.output;
  start_receiver();
  const RunResult refused = other({"connect", "--host", host_address(), "--seconds", "1"});
  EXPECT_EQ(refused.status, 3) << refused.output;
  EXPECT_NE(refused.output.find("the host is busy"), std::string::npos) << refused.output;
}

TEST_F(StreamTest, ANewDeviceCannotPairByPinOnceOneIsPaired) {
  prepare(true);
  start_receiver();
  const RunResult other =
      run_program({program("lunderhaze-client"), "--store", (directory_ / "other").string(), "pair",
                   "--host", host_address(), "--pin", "123456"},
                  environment_);
  EXPECT_EQ(other.status, 4) << other.output;
  EXPECT_NE(other.output.find("not in pairing mode"), std::string::npos) << other.output;
}

TEST_F(StreamTest, DiscoveryFindsTheHostOnThisComputer) {
  start_desktop(1280, 720);
  start_host();
  const RunResult found = client({"discover", "--port", std::to_string(port_)});
  EXPECT_EQ(found.status, 0) << found.output;
  EXPECT_NE(found.output.find("1280x720"), std::string::npos) << found.output;
}

}  // namespace
}  // namespace system_test
