#include <gtest/gtest.h>

#include "capture/encoder.h"
#include "tests/support/captured_log.h"

namespace {

class UntouchedDevice final : public EncoderDevice {
 public:
  void fill(AVHWDeviceContext*) override { ADD_FAILURE(); }
  void fill(AVHWFramesContext*) override { ADD_FAILURE(); }
  std::unique_ptr<SurfaceReadBack> make_read_back(int, int, std::uint32_t*) override {
    ADD_FAILURE();
    return nullptr;
  }
};

TEST(HardwareEncoders, OfThisBuildAreNoneSoAllSixAreTriedAndNoSoftware) {
  const CapturedLog log;
  UntouchedDevice device;
  EncoderSettings settings;
  settings.width = 640;
  settings.height = 360;
  VideoEncoder encoder;
  EXPECT_FALSE(encoder.open(&device, settings));
  EXPECT_EQ(log.count("not in this FFmpeg build"), 6);
  EXPECT_EQ(log.count("libopenh264"), 0);
}

}  // namespace
