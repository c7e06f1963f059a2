// A pointer that is where a test puts it, with the image that the test draws, and a cursor made of
// bitmaps.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "capture/pointer_source.h"
#include "connection/byte_order.h"

namespace fake_capture {

// `colour` empty: no such bitmap; the same of `mask`, whose rows are padded to 32 bits.
struct Icon {
  std::int32_t width = 0;
  std::int32_t height = 0;  // of the mask alone: of both that it holds
  std::vector<std::uint32_t> colour;
  std::vector<std::uint8_t> mask;
  std::int32_t hot_x = 0;
  std::int32_t hot_y = 0;
  bool sized = true;
  bool colour_reads = true;
  bool mask_reads = true;
};

class FakeIcon final : public CursorIcon {
 public:
  FakeIcon(const Icon& icon, int& open) : icon_(icon), open_(open) { ++open_; }
  ~FakeIcon() override { --open_; }
  bool has_colour() const override { return !icon_.colour.empty(); }
  bool has_mask() const override { return !icon_.mask.empty(); }
  std::int32_t hot_x() const override { return icon_.hot_x; }
  std::int32_t hot_y() const override { return icon_.hot_y; }
  bool size(std::int32_t* width, std::int32_t* height) override {
    *width = icon_.width;
    *height = icon_.height;
    return icon_.sized;
  }
  bool read_colour(std::int32_t width, std::int32_t rows, std::uint8_t* out) override {
    if (!icon_.colour_reads) return false;
    const auto count = static_cast<std::size_t>(width) * static_cast<std::size_t>(rows);
    for (std::size_t i = 0; i < count; ++i) store_le(out + 4 * i, icon_.colour.at(i));
    return true;
  }
  bool read_mask(std::int32_t width, std::int32_t rows, std::uint8_t* out) override {
    if (!icon_.mask_reads) return false;
    const auto size = static_cast<std::size_t>((width + 31) / 32 * 4 * rows);
    if (size > icon_.mask.size()) return false;
    std::copy_n(icon_.mask.begin(), size, out);
    return true;
  }

 private:
  const Icon& icon_;
  int& open_;
};

struct FakePointer final : PointerSource {
  // What the next acquired result tells, once.
  PointerUpdate update;
  PointerShape shape;
  std::vector<std::uint8_t> shape_data;
  bool shape_reads = true;

  std::optional<CursorState> cursor = CursorState{};
  std::map<std::uintptr_t, Icon> icons;
  std::optional<DesktopPoint> system = DesktopPoint{};

  // Seen.
  int cursors_opened = 0;
  int cursors_open = 0;
  int system_looks = 0;

  void move(std::int32_t x, std::int32_t y) {
    update.moved = update.visible = true;
    update.position = {x, y};
  }
  void hide() {
    update.moved = true;
    update.visible = false;
  }
  // A colour image of `width` pixels a row.
  void draw(std::int32_t width, const std::vector<std::uint32_t>& pixels, std::int32_t hot_x = 0,
            std::int32_t hot_y = 0) {
    shape_data.resize(pixels.size() * 4);
    for (std::size_t i = 0; i < pixels.size(); ++i) store_le(&shape_data[4 * i], pixels[i]);
    shape = {CURSOR_COLOUR, shape_data.size(),
             width,         static_cast<std::int32_t>(pixels.size()) / width,
             width * 4,     hot_x,
             hot_y};
    update.shape_bytes = shape_data.size();
  }

  PointerUpdate pointer_update() override {
    const PointerUpdate told = update;
    update = {};
    update.anchor = told.anchor;
    return told;
  }
  bool read_pointer_shape(std::uint8_t* buffer, PointerShape* out) override {
    if (!shape_reads) return false;
    std::copy(shape_data.begin(), shape_data.end(), buffer);
    *out = shape;
    return true;
  }
  bool cursor_state(CursorState* out) override {
    if (cursor) *out = *cursor;
    return cursor.has_value();
  }
  std::unique_ptr<CursorIcon> open_cursor(std::uintptr_t handle) override {
    ++cursors_opened;
    const auto icon = icons.find(handle);
    if (icon == icons.end()) return nullptr;
    return std::make_unique<FakeIcon>(icon->second, cursors_open);
  }
  bool system_pointer(DesktopPoint* out) override {
    ++system_looks;
    if (system) *out = *system;
    return system.has_value();
  }
};

}  // namespace fake_capture
