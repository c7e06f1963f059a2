// Bitmaps as programs put them onto the clipboard, field by field.
#pragma once

#include <cstdint>
#include <vector>

#include "connection/byte_order.h"
#include "streams/bitmap.h"

struct DibBuilder {
  std::uint32_t header_bytes = 40;
  std::int32_t width = 1;
  std::int32_t height = 1;
  std::uint16_t bits = 32;
  std::uint32_t compression = DIB_RGB;
  std::uint32_t colours_used = 0;
  std::vector<std::uint32_t> masks{};    // red, green, blue, alpha; in the header or behind it
  std::vector<std::uint32_t> palette{};  // 0x00RRGGBB
  std::vector<std::uint8_t> rows{};

  std::vector<std::uint8_t> build() const {
    std::vector<std::uint8_t> block(header_bytes);
    const auto put = [&block](std::size_t at, auto value) {
      if (block.size() < at + sizeof(value)) block.resize(at + sizeof(value));
      store_le(block.data() + at, value);
    };
    put(0, header_bytes);
    put(4, static_cast<std::uint32_t>(width));
    put(8, static_cast<std::uint32_t>(height));
    put(12, std::uint16_t{1});
    put(14, bits);
    put(16, compression);
    put(32, colours_used);
    for (std::size_t i = 0; i < masks.size(); ++i) put(40 + 4 * i, masks[i]);
    for (const std::uint32_t colour : palette) put(block.size(), colour);
    block.insert(block.end(), rows.begin(), rows.end());
    return block;
  }
};
