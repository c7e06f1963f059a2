#include "media/cpu_frame.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/allocation_counter.h"

namespace {

using lund_cpu::FrameBuffer;
using lund_cpu::FrameLayout;
using lund_cpu::make_layout;

constexpr std::uint64_t PLENTY = UINT64_MAX;

bool fits(int src_width, int src_height, int src_stride, std::uint64_t buffer_size, int dst_width,
          int dst_height) {
  FrameLayout layout;
  return make_layout(src_width, src_height, src_stride, buffer_size, dst_width, dst_height, 0, 0,
                     &layout);
}

TEST(MakeLayout, FillsEverySizeAndPlace) {
  FrameLayout layout;
  ASSERT_TRUE(make_layout(1921, 1080, 7'700, PLENTY, 1280, 720, -1920, 40, &layout));
  EXPECT_EQ(layout.src_width, 1921);
  EXPECT_EQ(layout.src_height, 1080);
  EXPECT_EQ(layout.src_stride, 7'700);
  EXPECT_EQ(layout.dst_width, 1280);
  EXPECT_EQ(layout.dst_height, 720);
  EXPECT_EQ(layout.left, -1920);
  EXPECT_EQ(layout.top, 40);
  EXPECT_EQ(layout.src_bytes, 1079u * 7'700 + 1921 * 4);
  EXPECT_EQ(layout.y_bytes, 1280u * 720);
  EXPECT_EQ(layout.chroma_bytes, 640u * 360);
  EXPECT_EQ(layout.i420_bytes, 1280u * 720 * 3 / 2);
}

TEST(MakeLayout, TheDestinationMustBeEvenAndTheSourceNeedNot) {
  EXPECT_FALSE(fits(1920, 1080, 7680, PLENTY, 1921, 1080));
  EXPECT_FALSE(fits(1920, 1080, 7680, PLENTY, 1920, 1079));
  EXPECT_TRUE(fits(1921, 1081, 7684, PLENTY, 1920, 1080));
}

TEST(MakeLayout, SidesAreLimited) {
  EXPECT_TRUE(fits(1, 1, 4, PLENTY, 2, 2));
  EXPECT_TRUE(fits(8192, 4096, 32'768, PLENTY, 8192, 8192));
  for (const int bad : {0, -2, 8194}) {
    EXPECT_FALSE(fits(bad, 100, 100'000, PLENTY, 100, 100));
    EXPECT_FALSE(fits(100, bad, 400, PLENTY, 100, 100));
    EXPECT_FALSE(fits(100, 100, 400, PLENTY, bad, 100));
    EXPECT_FALSE(fits(100, 100, 400, PLENTY, 100, bad));
  }
}

TEST(MakeLayout, AStrideBelowARowIsRejected) {
  EXPECT_TRUE(fits(100, 2, 400, PLENTY, 2, 2));
  EXPECT_FALSE(fits(100, 2, 399, PLENTY, 2, 2));
  EXPECT_FALSE(fits(100, 2, -400, PLENTY, 2, 2));
}

TEST(MakeLayout, TheSourceIsLimitedTo128MiB) {
  EXPECT_FALSE(fits(8192, 8192, 32'768, PLENTY, 1920, 1080)) << "256 MiB";
  EXPECT_TRUE(fits(8192, 4096, 32'768, PLENTY, 1920, 1080)) << "128 MiB exactly";
  EXPECT_FALSE(fits(8192, 4097, 32'768, PLENTY, 1920, 1080));
  EXPECT_FALSE(fits(100, 8192, INT32_MAX, PLENTY, 1920, 1080));
}

TEST(MakeLayout, TheBufferMustHoldTheSourceToItsLastPixel) {
  EXPECT_TRUE(fits(10, 3, 64, 2 * 64 + 40, 2, 2));
  EXPECT_FALSE(fits(10, 3, 64, 2 * 64 + 39, 2, 2));
}

TEST(MakeLayout, AFailureLeavesTheResultAsItWas) {
  FrameLayout layout;
  layout.src_width = 77;
  EXPECT_FALSE(make_layout(0, 1, 4, PLENTY, 2, 2, 0, 0, &layout));
  EXPECT_EQ(layout.src_width, 77);
  EXPECT_FALSE(make_layout(1, 1, 4, PLENTY, 2, 2, 0, 0, nullptr));
}

TEST(FrameBuffer, ResetGivesZeroedBytesAndANewGeneration) {
  FrameBuffer buffer;
  ASSERT_TRUE(buffer.reset(3, 2, 0, 0));
  EXPECT_EQ(buffer.bytes, std::vector<std::uint8_t>(24, 0));
  EXPECT_EQ(buffer.generation, 1u);
  std::fill(buffer.bytes.begin(), buffer.bytes.end(), std::uint8_t{9});
  ASSERT_TRUE(buffer.reset(2, 2, -5, 7));
  EXPECT_EQ(buffer.bytes, std::vector<std::uint8_t>(16, 0));
  EXPECT_EQ(buffer.generation, 2u);
}

TEST(FrameBuffer, ARejectedSizeEmptiesItAndCountsToo) {
  FrameBuffer buffer;
  ASSERT_TRUE(buffer.reset(3, 2, 0, 0));
  for (const auto& [width, height] : {std::pair{0, 2}, {2, 8193}, {-1, 2}, {8192, 8192}})
    EXPECT_FALSE(buffer.reset(width, height, 0, 0));
  EXPECT_TRUE(buffer.bytes.empty());
  EXPECT_EQ(buffer.generation, 5u);
}

TEST(FrameBuffer, ShortMemoryIsAFailureNotAnException) {
  FrameBuffer buffer;
  const AllocationLimit short_memory(1'000'000);
  EXPECT_FALSE(buffer.reset(1920, 1080, 0, 0));
  EXPECT_TRUE(buffer.bytes.empty());
}

}  // namespace
