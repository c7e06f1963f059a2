#include "apps/client/cursor_cache.h"

#include <algorithm>
#include <cstring>

namespace {

// The host sends an image just before the position that names it: unless the two have changed
// places, it was lost.
constexpr std::uint64_t ASK_AFTER_US = 20'000;
constexpr std::uint64_t ASK_AGAIN_MIN_US = 100'000;
constexpr std::uint64_t ASK_AGAIN_MAX_US = 2'000'000;  // the host may have forgotten it

bool acceptable(const lund_cursor_shape& shape) {
  return shape.shape_id != 0 && shape.width >= 1 && shape.width <= CursorCache::SIDE_MAX &&
         shape.height >= 1 && shape.height <= CursorCache::SIDE_MAX && shape.hot_x < shape.width &&
         shape.hot_y < shape.height;
}

bool same_image(const CursorBitmap& bitmap, const lund_cursor_shape& shape) {
  return bitmap.width == shape.width && bitmap.height == shape.height &&
         bitmap.hot_x == shape.hot_x && bitmap.hot_y == shape.hot_y;
}

}  // namespace

// ---- Position

bool CursorCache::overtaken(const PacketOrder& order) {
  if (order.keys == newest_.keys && newest_.keys != 0) {
    if (order.number <= newest_.number) return true;
  } else if (order.keys == former_keys_ && former_keys_ != 0) {
    return true;  // sealed before the keys changed
  } else {
    former_keys_ = newest_.keys;
  }
  newest_ = order;
  return false;
}

bool CursorCache::take_position(const std::uint8_t* packet, std::size_t size,
                                const PacketOrder& order, std::uint64_t now_us) {
  lund_cursor_pos pos;
  if (lund_decode_cursor_pos(packet, size, &pos) != 0) return false;
  if (overtaken(order)) {
    ++counts_.overtaken;
    return false;
  }
  ++counts_.positions;
  const PointerPosition next{pos.x, pos.y, (packet[3] & 1) != 0, pos.shape_id};
  const bool news = !position_valid_ || !(next == position_);
  position_ = next;
  position_valid_ = true;
  const auto used = std::find_if(images_.begin(), images_.end(), [&](const PointerImage& image) {
    return image.id == pos.shape_id;
  });
  if (used != images_.end()) {
    std::rotate(used, used + 1, images_.end());
    missing_id_ = 0;
  } else if (pos.shape_id != missing_id_) {
    missing_id_ = pos.shape_id;
    asked_ = 0;
    ask_at_us_ = now_us + ASK_AFTER_US;
  }
  return news;
}

std::uint32_t CursorCache::request_due(std::uint64_t now_us, std::uint64_t rtt_us) {
  if (missing_id_ == 0 || now_us < ask_at_us_) return 0;
  const std::uint64_t doubled_us = ASK_AGAIN_MIN_US << std::min<std::uint64_t>(asked_, 5);
  ask_at_us_ = now_us + std::min(std::max(doubled_us, 2 * rtt_us), ASK_AGAIN_MAX_US);
  ++asked_;
  ++counts_.requests;
  return missing_id_;
}

void CursorCache::forget_position() {
  position_ = {};
  position_valid_ = false;
  newest_ = {};
  former_keys_ = 0;
  missing_id_ = 0;
  partials_.clear();
}

// ---- Images

const PointerImage* CursorCache::find(std::uint32_t id) const {
  const auto found = std::find_if(images_.begin(), images_.end(),
                                  [&](const PointerImage& image) { return image.id == id; });
  return found == images_.end() ? nullptr : &*found;
}

std::size_t CursorCache::bytes() const {
  std::size_t sum = 0;
  for (const PointerImage& image : images_) sum += image.bitmap.pixels.size();
  for (const Partial& partial : partials_) sum += partial.image.bitmap.pixels.size();
  return sum;
}

CursorCache::Partial& CursorCache::partial_of(const lund_cursor_shape& shape) {
  const auto found = std::find_if(partials_.begin(), partials_.end(), [&](const Partial& partial) {
    return partial.image.id == shape.shape_id;
  });
  if (found != partials_.end()) {
    if (same_image(found->image.bitmap, shape)) return *found;
    partials_.erase(found);  // of two images under one id, the later may be right
  }
  if (partials_.size() == PARTIALS_MAX) partials_.erase(partials_.begin());
  Partial& added = partials_.emplace_back();
  added.image.id = shape.shape_id;
  added.image.bitmap = {shape.width, shape.height, shape.hot_x, shape.hot_y,
                        std::vector<std::uint8_t>(shape.total_size)};
  added.have.resize(shape.total_size);
  added.missing = shape.total_size;
  return added;
}

const PointerImage* CursorCache::take_shape(const std::uint8_t* packet, std::size_t size,
                                            std::uint64_t now_us) {
  lund_cursor_shape shape;
  const std::uint8_t* chunk = nullptr;
  std::size_t chunk_size = 0;
  if (lund_decode_cursor_shape(packet, size, &shape, &chunk, &chunk_size) != 0 ||
      !acceptable(shape)) {
    ++counts_.refused;
    return nullptr;
  }
  if (find(shape.shape_id)) return nullptr;  // sent twice
  Partial& partial = partial_of(shape);
  std::memcpy(partial.image.bitmap.pixels.data() + shape.offset, chunk, chunk_size);
  for (std::size_t i = shape.offset; i < shape.offset + chunk_size; ++i) {
    if (partial.have[i]) continue;
    partial.have[i] = true;
    --partial.missing;
  }
  if (shape.shape_id == missing_id_ && asked_ == 0) ask_at_us_ = now_us + ASK_AFTER_US;
  if (partial.missing != 0) return nullptr;

  PointerImage image = std::move(partial.image);
  partials_.erase(partials_.begin() + (&partial - partials_.data()));
  if (cursor_hash(image.bitmap) != image.id) {
    ++counts_.refused;
    return nullptr;
  }
  ++counts_.images;
  if (image.id == missing_id_) missing_id_ = 0;
  return keep(std::move(image));
}

const PointerImage* CursorCache::keep(PointerImage&& image) {
  images_.push_back(std::move(image));
  while (images_.size() > 1 && (images_.size() > IMAGES_MAX || bytes() > BYTES_MAX)) {
    // The one in use stays, however long it has been so.
    const bool in_use = images_.front().id == position_.shape_id && images_.size() > 2;
    images_.erase(images_.begin() + (in_use ? 1 : 0));
  }
  return &images_.back();
}
