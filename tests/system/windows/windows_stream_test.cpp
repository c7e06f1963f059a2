// The Windows host's stream: a moving screen by GDI and libopenh264, its picture, a bad network,
// its end.
#include <signal.h>

#include "tests/system/loss_support.h"
#include "tests/system/windows/windows_host_support.h"

namespace system_test {
namespace {

// A picture that moves, and not a speed: with nothing else to do two processors manage 50.
constexpr int LEAST_FPS = 15;

class WindowsStreamTest : public WindowsHostTest {
 protected:
  void serve_a_moving_picture() {
    screen_ = &open("moving_picture.exe", {}, "painted");
    serve();
  }
  void expect_a_clean_recording() const {
    const RunResult decoded = decode_with_ffmpeg(recording());
    EXPECT_EQ(decoded.status, 0);
    EXPECT_EQ(decoded.output, "");
  }
  void stream_a_moving_picture(int length_s) {
    serve_a_moving_picture();
    stream(length_s);
    const auto json = report();
    std::printf("%d s: %s\n", length_s, json.dump().c_str());
    EXPECT_GT(json["frames"].get<int>(), LEAST_FPS * length_s);
    EXPECT_EQ(json["frames_undecodable"], 0);
    EXPECT_EQ(json["frames_lost"], 0);
    expect_a_clean_recording();
  }

  ChildProcess* screen_ = nullptr;
};

TEST_F(WindowsStreamTest, AMovingPictureArrivesCompleteAndDecodable) {
  stream_a_moving_picture(10);
}

using WindowsStreamSoakTest = WindowsStreamTest;

TEST_F(WindowsStreamSoakTest, AMinuteOfAMovingPictureArrivesCompleteAndDecodable) {
  stream_a_moving_picture(60);
}

// Windows's clock begins elsewhere than this computer's: where the client would take them for one,
// the way from the one to the other would take days, or no time.
TEST_F(WindowsStreamTest, TimesOnTheWayAreThoseOfOneClock) {
  serve_a_moving_picture();
  stream(3);
  const auto latency = report()["latency_ms"];
  ASSERT_TRUE(latency.contains("paint")) << latency.dump();
  EXPECT_GT(latency["paint"]["samples"].get<int>(), 60);
  for (const char* stage : {"paint", "transport", "total"}) {
    EXPECT_GT(latency[stage]["p50"].get<double>(), 0.0) << stage << ": " << latency.dump();
    EXPECT_LT(latency[stage]["p50"].get<double>(), 200.0) << stage << ": " << latency.dump();
  }
}

TEST_F(WindowsStreamTest, TextAndAGridHaveALumaPsnrOfAtLeast35DecibelsAtTheDefaultRate) {
  open("moving_picture.exe", {"still"}, "painted");
  serve();
  stream(4);
  const double psnr = luma_psnr(last_frame(), screen(0, 0, 1280, 720));
  std::printf("luma PSNR %.1f dB\n", psnr);
  EXPECT_GE(psnr, 35.0);
}

TEST_F(WindowsStreamTest, StoppingTheHostTellsTheClient) {
  serve_a_moving_picture();
  ChildProcess& receiver = start_receiver();
  EXPECT_EQ(stop_host(), 0);
  EXPECT_EQ(receiver.wait(seconds(3)), 3) << receiver.output();
  EXPECT_NE(receiver.output().find("the host ended the stream"), std::string::npos);
  EXPECT_NE(host_log().find("host shutting down"), std::string::npos);
}

// The suite's last: Wine may keep the port of a host that was killed.
TEST_F(WindowsStreamTest, AHostThatIsKilledEndsTheClientWithWords) {
  serve_a_moving_picture();
  ChildProcess& receiver = start_receiver();
  host_->signal(SIGKILL);
  EXPECT_EQ(receiver.wait(seconds(15)), 2) << receiver.output();
  host_.reset();
  EXPECT_NE(receiver.output().find("the host has fallen silent"), std::string::npos);
}

// With a Windows that no client is paired with yet.
class WindowsStreamOverABadNetworkTest : public WindowsStreamTest {
 protected:
  std::string host_address() const override { return network_->host_address(); }

  std::unique_ptr<LossyPath> network_;
};

TEST_F(WindowsStreamOverABadNetworkTest, PairsAndArrivesDecodable) {
  network_ = std::make_unique<LossyPath>(port_);
  serve_a_moving_picture();
  network_->stream(start_receiver({"--out", out().string()}), *screen_, *painter_);
  network_->expect_a_sound_stream(report(), recording(), last_frame());
}

}  // namespace
}  // namespace system_test
