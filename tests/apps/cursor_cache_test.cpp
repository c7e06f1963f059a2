#include "apps/client/cursor_cache.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr std::uint64_t MS = 1'000;
constexpr std::uint64_t NOW = 1'000'000;
using Bytes = std::vector<std::uint8_t>;

PointerImage image_of(int side, std::uint8_t shade) {
  PointerImage image;
  image.bitmap = {side, side, side / 2, 0, {}};
  image.bitmap.pixels.assign(static_cast<std::size_t>(side) * static_cast<std::size_t>(side) * 4,
                             shade);
  image.id = cursor_hash(image.bitmap);
  return image;
}

// The packets of an image, as the host cuts them.
std::vector<Bytes> packets_of(const PointerImage& image, std::size_t chunk = 1'000) {
  const CursorBitmap& bitmap = image.bitmap;
  lund_cursor_shape shape;
  shape.shape_id = image.id;
  shape.width = static_cast<std::uint16_t>(bitmap.width);
  shape.height = static_cast<std::uint16_t>(bitmap.height);
  shape.hot_x = static_cast<std::uint16_t>(bitmap.hot_x);
  shape.hot_y = static_cast<std::uint16_t>(bitmap.hot_y);
  shape.total_size = static_cast<std::uint32_t>(bitmap.pixels.size());
  std::vector<Bytes> packets;
  const lund_packet_header header;
  for (std::size_t offset = 0; offset < bitmap.pixels.size(); offset += chunk) {
    const std::size_t size = std::min(chunk, bitmap.pixels.size() - offset);
    shape.offset = static_cast<std::uint32_t>(offset);
    Bytes packet(28 + size);
    lund_encode_cursor_shape(packet.data(), packet.size(), &header, &shape,
                             bitmap.pixels.data() + offset, size);
    packets.push_back(packet);
  }
  return packets;
}

Bytes position_packet(std::uint16_t x, std::uint32_t shape_id, bool visible = true) {
  const lund_packet_header header{0, static_cast<std::uint8_t>(visible), 0};
  const lund_cursor_pos pos{x, x, shape_id};
  Bytes packet(16);
  lund_encode_cursor_pos(packet.data(), packet.size(), &header, &pos);
  return packet;
}

class CursorCacheTest : public testing::Test {
 protected:
  bool position(std::uint16_t x, std::uint64_t number, std::uint32_t keys = 7,
                std::uint32_t shape_id = 0) {
    const Bytes packet = position_packet(x, shape_id);
    return cache_.take_position(packet.data(), packet.size(), {keys, number}, NOW);
  }
  // The position that names an image, after all others so far.
  void name(std::uint32_t shape_id, std::uint64_t now = NOW) {
    const Bytes packet = position_packet(1, shape_id);
    cache_.take_position(packet.data(), packet.size(), {7, ++number_}, now);
  }
  const PointerImage* shape(const Bytes& packet, std::uint64_t now = NOW) {
    return cache_.take_shape(packet.data(), packet.size(), now);
  }
  const PointerImage* whole(const PointerImage& image) {
    const PointerImage* done = nullptr;
    for (const Bytes& packet : packets_of(image)) done = shape(packet);
    return done;
  }
  CursorCache cache_;
  std::uint64_t number_ = 1'000;
};

}  // namespace

// ---- Position

TEST_F(CursorCacheTest, APositionThatWasOvertakenSaysNothing) {
  EXPECT_TRUE(position(10, 5));
  EXPECT_TRUE(position(30, 7));
  EXPECT_FALSE(position(20, 6));
  EXPECT_FALSE(position(30, 7));
  EXPECT_EQ(cache_.position().x, 30);
  EXPECT_EQ(cache_.counts().overtaken, 2u);
}

TEST_F(CursorCacheTest, TheHostsRepeatIsNoNews) {
  EXPECT_TRUE(position(10, 5));
  EXPECT_FALSE(position(10, 6));
  EXPECT_EQ(cache_.counts().positions, 2u);
}

TEST_F(CursorCacheTest, UnderNewKeysCountingBeginsAnewAndTheOldOnesAreOver) {
  EXPECT_TRUE(position(10, 500, 7));
  EXPECT_TRUE(position(20, 0, 8));
  EXPECT_FALSE(position(11, 501, 7));
  EXPECT_TRUE(position(30, 1, 8));
}

TEST_F(CursorCacheTest, AHiddenPointerKeepsItsPlace) {
  const Bytes packet = position_packet(9, 0, false);
  EXPECT_TRUE(cache_.take_position(packet.data(), packet.size(), {7, 1}, NOW));
  EXPECT_FALSE(cache_.position().visible);
  EXPECT_EQ(cache_.position().x, 9);
}

// ---- Images

TEST_F(CursorCacheTest, ChunksInAnyOrderAndTwiceMakeTheImage) {
  const PointerImage image = image_of(48, 3);
  auto packets = packets_of(image);
  ASSERT_GT(packets.size(), 3u);
  std::reverse(packets.begin(), packets.end());
  for (std::size_t i = 0; i + 1 < packets.size(); ++i) {
    EXPECT_EQ(shape(packets[i]), nullptr);
    EXPECT_EQ(shape(packets[i]), nullptr);
  }
  const PointerImage* done = shape(packets.back());
  ASSERT_NE(done, nullptr);
  EXPECT_EQ(done->id, image.id);
  EXPECT_EQ(done->bitmap.pixels, image.bitmap.pixels);
  EXPECT_EQ(done->bitmap.hot_x, 24);
  EXPECT_EQ(shape(packets[0]), nullptr);  // once is enough
  EXPECT_EQ(cache_.counts().images, 1u);
}

TEST_F(CursorCacheTest, ChunksOfTwoSizesMakeTheImage) {
  const PointerImage image = image_of(32, 3);
  shape(packets_of(image, 1'000)[0]);
  const PointerImage* done = nullptr;
  for (const Bytes& packet : packets_of(image, 300))
    if (const PointerImage* now = shape(packet)) done = now;
  ASSERT_NE(done, nullptr);
  EXPECT_EQ(done->bitmap.pixels, image.bitmap.pixels);
}

TEST_F(CursorCacheTest, AnUnknownImageIsAskedForAfterAMomentAndThenLessAndLess) {
  const PointerImage image = image_of(32, 3);
  name(image.id);
  EXPECT_EQ(cache_.request_due(NOW, 0), 0u);
  EXPECT_EQ(cache_.request_due(NOW + 20 * MS, 0), image.id);
  EXPECT_EQ(cache_.request_due(NOW + 20 * MS, 0), 0u);
  EXPECT_EQ(cache_.request_due(NOW + 119 * MS, 0), 0u);
  EXPECT_EQ(cache_.request_due(NOW + 120 * MS, 0), image.id);
  EXPECT_EQ(cache_.request_due(NOW + 319 * MS, 0), 0u);
  EXPECT_EQ(cache_.request_due(NOW + 320 * MS, 0), image.id);
  std::uint64_t now = NOW + 320 * MS;
  for (int i = 0; i < 10; ++i) cache_.request_due(now += 2'000 * MS, 0);
  EXPECT_EQ(cache_.counts().requests, 13u);  // every 2 s at the least, for the host may come by it
  whole(image);
  EXPECT_EQ(cache_.request_due(now + 10'000 * MS, 0), 0u);
}

TEST_F(CursorCacheTest, OverALongWayItIsNotAskedForTwiceWithinTwoRoundTrips) {
  name(image_of(32, 3).id);
  EXPECT_NE(cache_.request_due(NOW + 20 * MS, 300 * MS), 0u);
  EXPECT_EQ(cache_.request_due(NOW + 619 * MS, 300 * MS), 0u);
  EXPECT_NE(cache_.request_due(NOW + 620 * MS, 300 * MS), 0u);
}

TEST_F(CursorCacheTest, WhileItsChunksComeItIsNotAskedFor) {
  const PointerImage image = image_of(48, 3);
  const auto packets = packets_of(image);
  name(image.id);
  shape(packets[0], NOW + 15 * MS);
  EXPECT_EQ(cache_.request_due(NOW + 30 * MS, 0), 0u);
  EXPECT_EQ(cache_.request_due(NOW + 35 * MS, 0), image.id);
}

TEST_F(CursorCacheTest, AKnownImageIsNotAskedFor) {
  const PointerImage image = image_of(32, 3);
  whole(image);
  name(image.id);
  EXPECT_EQ(cache_.request_due(NOW + 1'000 * MS, 0), 0u);
  ASSERT_NE(cache_.current(), nullptr);
  EXPECT_EQ(cache_.current()->id, image.id);
}

TEST_F(CursorCacheTest, ANewSessionKeepsTheImages) {
  const PointerImage image = image_of(32, 3);
  whole(image);
  name(image.id);
  cache_.forget_position();
  EXPECT_EQ(cache_.current(), nullptr);
  EXPECT_TRUE(position(1, 1, 9, image.id));
  ASSERT_NE(cache_.current(), nullptr);
}

// ---- What a host should not send

TEST_F(CursorCacheTest, AnImageThatIsNotItsIdsIsNone) {
  PointerImage image = image_of(32, 3);
  image.id ^= 1;
  EXPECT_EQ(whole(image), nullptr);
  EXPECT_EQ(cache_.find(image.id), nullptr);
  EXPECT_EQ(cache_.counts().refused, 1u);
  EXPECT_EQ(cache_.bytes(), 0u);
}

TEST_F(CursorCacheTest, SizesAreBounded) {
  PointerImage wide = image_of(1, 3);
  wide.bitmap = {CursorCache::SIDE_MAX + 1, 1, 0, 0, Bytes((CursorCache::SIDE_MAX + 1) * 4)};
  wide.id = cursor_hash(wide.bitmap);
  EXPECT_EQ(whole(wide), nullptr);
  EXPECT_EQ(cache_.bytes(), 0u);
  wide.bitmap = {CursorCache::SIDE_MAX, 1, 0, 0, Bytes(CursorCache::SIDE_MAX * 4)};
  wide.id = cursor_hash(wide.bitmap);
  EXPECT_NE(whole(wide), nullptr);
}

TEST_F(CursorCacheTest, AHotSpotOutsideTheImageIsRefused) {
  PointerImage image = image_of(32, 3);
  image.bitmap.hot_x = 32;
  image.id = cursor_hash(image.bitmap);
  EXPECT_EQ(whole(image), nullptr);
}

TEST_F(CursorCacheTest, CutAndEmptyPacketsAreRefused) {
  const Bytes packet = packets_of(image_of(32, 3))[0];
  for (std::size_t size = 0; size < 28; ++size)
    EXPECT_EQ(cache_.take_shape(packet.data(), size, NOW), nullptr);
  lund_cursor_shape nothing;
  nothing.shape_id = 1;
  const lund_packet_header header;
  Bytes empty(28);
  lund_encode_cursor_shape(empty.data(), empty.size(), &header, &nothing, nullptr, 0);
  EXPECT_EQ(shape(empty), nullptr);
  EXPECT_EQ(cache_.bytes(), 0u);
}

TEST_F(CursorCacheTest, OfTwoImagesUnderOneIdTheLaterStands) {
  PointerImage false_one = image_of(48, 9);
  const PointerImage image = image_of(32, 3);
  false_one.id = image.id;
  shape(packets_of(false_one)[0]);
  EXPECT_NE(whole(image), nullptr);
}

TEST_F(CursorCacheTest, TheImageInUseOutlives64Others) {
  const PointerImage used = image_of(8, 200);
  whole(used);
  name(used.id);
  for (int i = 0; i < 100; ++i) whole(image_of(9, static_cast<std::uint8_t>(i)));
  EXPECT_NE(cache_.current(), nullptr);
  EXPECT_EQ(cache_.find(image_of(9, 0).id), nullptr);
  EXPECT_NE(cache_.find(image_of(9, 99).id), nullptr);
  EXPECT_EQ(cache_.bytes(), 8u * 8 * 4 + (CursorCache::IMAGES_MAX - 1) * 9 * 9 * 4);
}

TEST_F(CursorCacheTest, MemoryIsBoundedWhateverComes) {
  constexpr std::size_t LARGEST = std::size_t{CursorCache::SIDE_MAX} * CursorCache::SIDE_MAX * 4;
  for (std::uint8_t i = 0; i < 12; ++i) {
    const auto packets = packets_of(image_of(CursorCache::SIDE_MAX, i), 60'000);
    for (std::size_t k = 0; k + (i % 2) < packets.size(); ++k) shape(packets[k]);  // or all but one
    EXPECT_LE(cache_.bytes(), CursorCache::BYTES_MAX + LARGEST);
  }
}
