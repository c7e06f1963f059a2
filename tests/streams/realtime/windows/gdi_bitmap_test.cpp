// Bitmaps that GDI converts, and what it must not be led to do by those that lie.
#include <gtest/gtest.h>

#include <cstring>

#include "control/windows/handles.h"
#include "tests/streams/dib_builder.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t RLE8 = 1;
constexpr std::uint32_t RLE4 = 2;
const std::vector<std::uint32_t> PALETTE{0x030201, 0x060504};
constexpr std::size_t SIZE_IMAGE_AT = 20;

// A block whose end is the end of what may be read, so that one byte beyond it ends the program.
class GuardedBlock {
 public:
  explicit GuardedBlock(const Bytes& block) {
    SYSTEM_INFO system{};
    GetSystemInfo(&system);
    const std::size_t page = system.dwPageSize;
    const std::size_t readable = (block.size() + page - 1) / page * page;
    memory_ = VirtualAlloc(nullptr, readable + page, MEM_RESERVE, PAGE_NOACCESS);
    auto* start =
        static_cast<std::uint8_t*>(VirtualAlloc(memory_, readable, MEM_COMMIT, PAGE_READWRITE));
    bytes_ = {start + readable - block.size(), block.size()};
    std::memcpy(start + readable - block.size(), block.data(), block.size());
  }
  ~GuardedBlock() { VirtualFree(memory_, 0, MEM_RELEASE); }
  GuardedBlock(const GuardedBlock&) = delete;
  GuardedBlock& operator=(const GuardedBlock&) = delete;
  std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
  void* memory_;
  std::span<const std::uint8_t> bytes_;
};

DibBuilder run_lengths(std::uint32_t compression, std::uint16_t bits, Bytes rows) {
  return {.width = 2,
          .height = 2,
          .bits = bits,
          .compression = compression,
          .colours_used = 2,
          .palette = PALETTE,
          .rows = std::move(rows)};
}

Bytes pixels_of(const DibBuilder& dib) {
  Image image;
  EXPECT_TRUE(image_from_dib(GuardedBlock(dib.build()).bytes(), &image));
  return image.pixels;
}

TEST(GdiBitmap, RunLengthsAreConverted) {
  const Bytes expected{1, 2, 3, 255, 4, 5, 6, 255, 4, 5, 6, 255, 4, 5, 6, 255};
  // A run of two and the row's end; two as they are and the bitmap's end.
  EXPECT_EQ(pixels_of(run_lengths(RLE8, 8, {2, 1, 0, 0, 1, 0, 1, 1, 0, 1})), expected);
  EXPECT_EQ(pixels_of(run_lengths(RLE4, 4, {2, 0x11, 0, 0, 2, 0x01, 0, 1})), expected);
}

TEST(GdiBitmap, RunLengthsThatPromiseMoreThanTheBlockHasAreReadToItsEnd) {
  for (const Bytes& rows : {Bytes{2, 1}, Bytes{2}, Bytes{0, 200, 1, 1}, Bytes{0, 2}, Bytes{0, 2, 9},
                            Bytes{255, 1, 255, 1, 255, 1}, Bytes{0, 2, 255, 255, 9, 1}}) {
    Bytes block = run_lengths(RLE8, 8, rows).build();
    store_le(&block[SIZE_IMAGE_AT], std::uint32_t{0x7FFF'FFFF});
    const GuardedBlock guarded(block);
    Image image;
    if (image_from_dib(guarded.bytes(), &image)) {
      EXPECT_EQ(image.pixels.size(), 16u);
    }
  }
}

TEST(GdiBitmap, RowsAreReadToTheBlocksEndAndNotBeyondIt) {
  EXPECT_EQ(pixels_of({.bits = 16, .rows = {0xFF, 0x7F, 0, 0}}), (Bytes{255, 255, 255, 255}));
  EXPECT_EQ(pixels_of({.bits = 1, .palette = PALETTE, .rows = {0x80, 0, 0, 0}}),
            (Bytes{4, 5, 6, 255}));
}

TEST(GdiBitmap, APaletteOfMoreThanItsBitsCanTellStandsBeforeThePixelsAllTheSame) {
  const DibBuilder dib{.bits = 8,
                       .colours_used = 300,
                       .palette = std::vector<std::uint32_t>(300, 0x332211),
                       .rows = {7, 0, 0, 0}};
  EXPECT_EQ(pixels_of(dib), (Bytes{0x11, 0x22, 0x33, 255}));
}

}  // namespace
