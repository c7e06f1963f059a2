#include <gtest/gtest.h>

#include "capture/encoder.h"
#include "tests/capture/realtime/untouched_device.h"
#include "tests/support/captured_log.h"

namespace {

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
