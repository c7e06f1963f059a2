// The right picture: what stands on the X screen is what the client has decoded.
#include <atomic>
#include <cmath>
#include <sstream>
#include <thread>

#include "tests/system/system_support.h"

namespace system_test {
namespace {

struct Patch {
  std::uint32_t rgb;
  int x, y;
};

constexpr int PATCH_PIXELS = 64;
constexpr std::uint32_t COLOURS[] = {0x000000, 0xFFFFFF, 0xFF0000, 0x00FF00, 0x0000FF, 0xFFFF00,
                                     0x00FFFF, 0xFF00FF, 0x808080, 0x123456, 0xC08040, 0x202020};

// Patches in a grid that has no symmetry, so that a picture turned or mirrored doesn't match.
std::vector<Patch> paint_patches(RootPainter& painter) {
  painter.fill(0x406080, 0, 0, painter.width(), painter.height());
  std::vector<Patch> patches;
  int x = 40;
  int y = 30;
  for (const std::uint32_t colour : COLOURS) {
    patches.push_back({colour, x, y});
    painter.fill(colour, x, y, PATCH_PIXELS, PATCH_PIXELS);
    x += PATCH_PIXELS + 24;
    if (x + PATCH_PIXELS > painter.width() * 3 / 4) {
      x = 40;
      y += PATCH_PIXELS + 24;
    }
  }
  return patches;
}

// The mean of the middle of a patch, where no neighbour's chroma reaches.
std::array<double, 3> middle_of(const RgbPicture& picture, const Patch& patch, double scale) {
  std::array<double, 3> sum{};
  int count = 0;
  const int inset = PATCH_PIXELS / 4;
  for (int y = patch.y + inset; y < patch.y + PATCH_PIXELS - inset; ++y) {
    for (int x = patch.x + inset; x < patch.x + PATCH_PIXELS - inset; ++x) {
      const int column = static_cast<int>(x * scale);
      const int row = static_cast<int>(y * scale);
      const auto* rgb =
          &picture.pixels[static_cast<std::size_t>((row * picture.width + column) * 3)];
      for (std::size_t c = 0; c < 3; ++c) sum[c] += rgb[c];
      ++count;
    }
  }
  for (double& value : sum) value /= count;
  return sum;
}

void expect_patches(const RgbPicture& picture, const std::vector<Patch>& patches, double scale) {
  for (const Patch& patch : patches) {
    const auto seen = middle_of(picture, patch, scale);
    for (int c = 0; c < 3; ++c) {
      const int painted = patch.rgb >> (16 - 8 * c) & 0xFF;
      EXPECT_NEAR(seen[static_cast<std::size_t>(c)], painted, 4)
          << "channel " << c << " of " << std::hex << patch.rgb;
    }
  }
}

// Repaints a spot now and then, so that frames keep coming while the picture stays what it is.
class Blinker {
 public:
  Blinker(const std::string& display, int x, int y) : painter_(display) {
    thread_ = std::thread([this, x, y] {
      for (bool on = false; !stop_; on = !on) {
        painter_.fill(on ? 0x405060 : 0x405061, x, y, 8, 8);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    });
  }
  ~Blinker() {
    stop_ = true;
    thread_.join();
  }

 private:
  RootPainter painter_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class PictureTest : public SystemTest {
 protected:
  void prepare(int width, int height) {
    start_desktop(width, height);
    patches_ = paint_patches(*painter_);
    start_host();
    pair();
  }
  std::vector<Patch> patches_;
};

TEST_F(PictureTest, EachColourPatchIsWithinFourLevels) {
  prepare(1280, 720);
  Blinker blinker(desktop_->display(), 1200, 680);
  stream(2);
  const RgbPicture picture = last_frame();
  ASSERT_EQ(picture.width, 1280);
  ASSERT_EQ(picture.height, 720);
  expect_patches(picture, patches_, 1.0);
}

TEST_F(PictureTest, ADesktopWithTextAndAGridHasALumaPsnrOfAtLeast35DecibelsAtTheDefaultRate) {
  prepare(1280, 720);
  painter_->fill(0xFFFFFF, 40, 320, 700, 360);
  for (int line = 0; line < 21; ++line)
    painter_->text(
        0x101010, 50, 340 + 16 * line,
        "The quick brown fox jumps over the lazy dog; 0123456789, line " + std::to_string(line));
  for (int line = 0; line < 200; line += 2) painter_->fill(0x000000, 900, 320 + line, 200, 1);
  for (int column = 0; column < 200; column += 2)
    painter_->fill(0x000000, 900 + column, 320, 1, 200);
  Blinker blinker(desktop_->display(), 1200, 680);
  stream(4);
  const double psnr = luma_psnr(last_frame(), screen(0, 0, 1280, 720));
  RecordProperty("luma_psnr_db", std::to_string(psnr));
  std::printf("luma PSNR %.1f dB\n", psnr);
  EXPECT_GE(psnr, 35.0);
}

TEST_F(PictureTest, AClientsLimitBelowTheDisplayScalesThePicture) {
  prepare(1280, 720);
  Blinker blinker(desktop_->display(), 1200, 680);
  stream(2, {"--width", "640", "--height", "640"});
  const RgbPicture picture = last_frame();
  ASSERT_EQ(picture.width, 640);
  ASSERT_EQ(picture.height, 360);
  expect_patches(picture, patches_, 0.5);
}

TEST_F(PictureTest, AnOddDisplaySizeIsStreamedAtTheEvenSizeBelow) {
  prepare(1367, 769);
  Blinker blinker(desktop_->display(), 1200, 700);
  stream(2);
  const RgbPicture picture = last_frame();
  ASSERT_EQ(picture.width, 1366);
  ASSERT_EQ(picture.height, 768);
  expect_patches(picture, patches_, 1.0);
}

TEST_F(PictureTest, TheSelectedOfTwoMonitorsIsWhatIsSeen) {
  start_desktop(1600, 600);
  painter_->fill(0xA02020, 0, 0, 800, 600);
  painter_->fill(0x20A020, 800, 0, 800, 600);
  for (const char* monitor : {"LEFT 800/200x600/150+0+0", "RIGHT 800/200x600/150+800+0"}) {
    std::istringstream words(monitor);
    std::string name;
    std::string geometry;
    words >> name >> geometry;
    const RunResult result =
        run_program({"xrandr", "--setmonitor", name, geometry, name == "LEFT" ? "screen" : "none"},
                    environment_);
    ASSERT_EQ(result.status, 0) << result.output;
  }
  start_host({"--codec", "h264", "--display", "RIGHT"});
  pair();
  Blinker blinker(desktop_->display(), 1500, 550);
  stream(1.5);
  const RgbPicture right = last_frame();
  ASSERT_EQ(right.width, 800);
  expect_patches(right, {{0x20A020, 40, 30}, {0x20A020, 600, 400}}, 1.0);
}

TEST_F(PictureTest, ARunningScreenShowsTheMarkerThatItWasPaintedWith) {
  start_desktop(1280, 720);
  ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  start_host();
  pair();
  stream(2);
  const auto latency = report()["latency_ms"];
  ASSERT_TRUE(latency.contains("paint")) << latency.dump();
  EXPECT_GT(latency["paint"]["samples"].get<int>(), 60);
  EXPECT_GT(latency["total"]["p50"].get<double>(), 0.5);
  EXPECT_LT(latency["total"]["p50"].get<double>(), 1000.0);
}

}  // namespace
}  // namespace system_test
