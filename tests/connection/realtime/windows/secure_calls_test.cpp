// The system's generator as keys are drawn from it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "connection/secure.h"
#include "tests/support/windows/recorded_calls.h"

namespace {

constexpr ULONG LARGEST_REAL_PIECE = 1 << 20;  // of more the size alone is of interest

}  // namespace

// advapi32's name for RtlGenRandom.
extern "C" BOOLEAN WINAPI SystemFunction036(void* bytes, ULONG size) {
  static auto* const pass =
      system_function(L"advapi32.dll", "SystemFunction036", &SystemFunction036);
  if (RecordedCalls::refuse("RtlGenRandom " + std::to_string(size))) return FALSE;
  return size > LARGEST_REAL_PIECE ? TRUE : pass(bytes, size);
}

namespace {

using testing::ElementsAre;

TEST(RandomCalls, BytesComeFromTheSystemsGenerator) {
  RecordedCalls calls;
  std::uint8_t first[32] = {}, second[32] = {};
  EXPECT_EQ(lund_random_bytes(first, sizeof first), LUND_OK);
  EXPECT_EQ(lund_random_bytes(second, sizeof second), LUND_OK);
  EXPECT_NE(std::string(first, first + sizeof first), std::string(second, second + sizeof second));
  EXPECT_THAT(calls.take(), ElementsAre("RtlGenRandom 32", "RtlGenRandom 32"));
}

TEST(RandomCalls, ManyComeInPiecesOfAQuarterOfAGibibyte) {
  constexpr std::size_t PIECE = 0x10000000;
  // Room of which nothing but the last bytes is ever written.
  auto* const room =
      static_cast<std::uint8_t*>(VirtualAlloc(nullptr, 2 * PIECE + 5, MEM_RESERVE, PAGE_NOACCESS));
  ASSERT_NE(room, nullptr);
  ASSERT_NE(VirtualAlloc(room + 2 * PIECE, 5, MEM_COMMIT, PAGE_READWRITE), nullptr);
  RecordedCalls calls;
  EXPECT_EQ(lund_random_bytes(room, 0), LUND_OK);
  EXPECT_EQ(lund_random_bytes(room, 2 * PIECE + 5), LUND_OK);
  EXPECT_THAT(calls.take(),
              ElementsAre("RtlGenRandom 268435456", "RtlGenRandom 268435456", "RtlGenRandom 5"));
  VirtualFree(room, 0, MEM_RELEASE);
}

TEST(RandomCalls, AFailureOfAnyPieceIsOneOfTheWhole) {
  RecordedCalls calls;
  calls.fail("RtlGenRandom 5", ERROR_GEN_FAILURE);
  std::uint8_t bytes[5];
  EXPECT_EQ(lund_random_bytes(bytes, sizeof bytes), LUND_ERR_RANDOM);
  lund_keypair pair;
  calls.fail("RtlGenRandom 32", ERROR_GEN_FAILURE);
  EXPECT_EQ(lund_keypair_generate(&pair), LUND_ERR_RANDOM);
}

}  // namespace
