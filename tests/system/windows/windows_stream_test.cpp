// The Windows host's stream: a moving screen by GDI and libopenh264, its picture, a bad network,
// its end.
#include <signal.h>

#include <set>

#include "apps/client/paint_marker.h"
#include "tests/system/loss_support.h"
#include "tests/system/windows/windows_host_support.h"

namespace system_test {
namespace {

// What a computer with nothing else to do shows in 6 s; one that is loaded has a minute for it.
constexpr int FRAMES = 300;
constexpr seconds FRAMES_BY{60};
// One in so many shows another picture than all others, at the least: the loaded computer paints,
// too.
constexpr int FRAMES_A_PICTURE = 3;

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
  // For as long as that, and until as many frames have come; a line of the client's is a second.
  void receive(int length_s, int frames) {
    ChildProcess& receiver = start_receiver({"--out", out().string()});
    const auto until = std::chrono::steady_clock::now() + FRAMES_BY + seconds(length_s);
    double come = 0;
    std::size_t said = 0;
    for (int second = 0; second < length_s || come < frames; ++second) {
      ASSERT_LT(std::chrono::steady_clock::now(), until) << receiver.output();
      ASSERT_TRUE(receiver.wait_for_output(" fps", seconds(30), said)) << receiver.output();
      const std::string& output = receiver.output();
      const std::size_t at = output.find(" fps", said);
      come += std::stod(output.substr(output.rfind('\n', at) + 1));
      said = at + 1;
    }
    receiver.signal(SIGINT);
    EXPECT_EQ(receiver.wait(seconds(20)), 0) << receiver.output();
  }
  // How many of the recording's pictures differ in the time that is painted in them.
  std::size_t distinct_pictures() const {
    const std::string side = std::to_string(MARKER_PIXELS);
    const std::string squares = std::to_string(MARKER_SQUARES);
    const std::string levels =
        run_program({"ffmpeg", "-v", "error", "-i", recording().string(), "-vf",
                     "crop=" + side + ":" + side + ":0:0,scale=" + squares + ":" + squares +
                         ":flags=area,format=gray",
                     "-f", "rawvideo", "-"})
            .output;
    constexpr std::size_t PICTURE = MARKER_SQUARES * MARKER_SQUARES;
    EXPECT_EQ(levels.size() % PICTURE, 0u) << levels;
    std::set<std::string> seen;
    for (std::size_t at = 0; at + PICTURE <= levels.size(); at += PICTURE) {
      std::string bits;
      for (const char level : levels.substr(at, PICTURE))
        bits += static_cast<unsigned char>(level) < 128 ? '0' : '1';
      seen.insert(bits);
    }
    return seen.size();
  }
  void stream_a_moving_picture(int length_s) {
    serve_a_moving_picture();
    receive(length_s, FRAMES);
    if (HasFatalFailure()) return;
    const auto json = report();
    const std::size_t pictures = distinct_pictures();
    std::printf("%d s, %zu distinct pictures: %s\n", length_s, pictures, json.dump().c_str());
    EXPECT_GE(json["seconds"].get<double>(), length_s);
    EXPECT_GE(pictures, std::size_t{FRAMES / FRAMES_A_PICTURE});
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
  constexpr double LONGEST_MS = 10'000;  // of a computer under whatever load
  constexpr int SOME_FRAMES = 60;
  serve_a_moving_picture();
  receive(1, SOME_FRAMES);
  if (HasFatalFailure()) return;
  const auto latency = report()["latency_ms"];
  ASSERT_TRUE(latency.contains("paint")) << latency.dump();
  EXPECT_GE(latency["paint"]["samples"].get<int>(), SOME_FRAMES / FRAMES_A_PICTURE);
  for (const char* stage : {"paint", "transport", "total"}) {
    EXPECT_GT(latency[stage]["p50"].get<double>(), 0.0) << stage << ": " << latency.dump();
    EXPECT_LT(latency[stage]["p50"].get<double>(), LONGEST_MS) << stage << ": " << latency.dump();
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
