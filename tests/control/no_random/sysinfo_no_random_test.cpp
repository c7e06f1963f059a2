#include "control/sysinfo.h"

#include <gtest/gtest.h>

#include "connection/clock.h"
#include "control/sysinfo_platform.h"

namespace {

TEST(NoRandomNumber, IsTheProcessAndTheTime) {
  const std::uint64_t before_us = lund_wall_us();
  const std::uint32_t drawn = random_u32();
  const std::uint64_t after_us = lund_wall_us();
  const std::uint32_t time = drawn ^ sysinfo_platform::process_id();
  EXPECT_LE(time - static_cast<std::uint32_t>(before_us),
            static_cast<std::uint32_t>(after_us - before_us));
}

}  // namespace
