// PNG files of kinds that the encoder under test never makes (ISO/IEC 15948), chunk by chunk.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <vector>

enum class PngColours : std::uint8_t { Grey = 0, Rgb = 2, Palette = 3, GreyAlpha = 4, Rgba = 6 };

struct PngBuilder {
  using Bytes = std::vector<std::uint8_t>;

  PngColours colours = PngColours::Rgb;
  std::uint8_t depth = 8;
  bool interlaced = false;  // of whole bytes a pixel
  Bytes palette{};          // red, green, blue
  Bytes palette_alpha{};
  std::vector<std::uint16_t> transparent{};  // grey, or red, green, blue

  // Of these rows one after another; of the header alone without any.
  Bytes build(std::uint32_t width, std::uint32_t height, const Bytes& rows) const {
    Bytes png{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    Bytes header;
    put_u32(width, &header);
    put_u32(height, &header);
    header.insert(header.end(), {depth, static_cast<std::uint8_t>(colours), 0, 0,
                                 static_cast<std::uint8_t>(interlaced ? 1 : 0)});
    put_chunk("IHDR", header, &png);
    if (!palette.empty()) put_chunk("PLTE", palette, &png);
    if (!palette_alpha.empty()) put_chunk("tRNS", palette_alpha, &png);
    if (!transparent.empty()) {
      Bytes samples;
      for (const std::uint16_t sample : transparent) {
        samples.push_back(static_cast<std::uint8_t>(sample >> 8));
        samples.push_back(static_cast<std::uint8_t>(sample));
      }
      put_chunk("tRNS", samples, &png);
    }
    if (rows.empty()) return png;
    put_chunk("IDAT", deflated(interlaced ? passes(width, height, rows) : filtered(rows, height)),
              &png);
    put_chunk("IEND", {}, &png);
    return png;
  }

 private:
  static void put_u32(std::uint32_t value, Bytes* out) {
    for (int shift = 24; shift >= 0; shift -= 8)
      out->push_back(static_cast<std::uint8_t>(value >> shift));
  }
  static void put_chunk(const char* name, const Bytes& content, Bytes* out) {
    put_u32(static_cast<std::uint32_t>(content.size()), out);
    const std::size_t named_at = out->size();
    out->insert(out->end(), name, name + 4);
    out->insert(out->end(), content.begin(), content.end());
    const auto size = static_cast<uInt>(out->size() - named_at);
    put_u32(static_cast<std::uint32_t>(crc32(0, out->data() + named_at, size)), out);
  }
  static Bytes deflated(const Bytes& bytes) {
    uLongf size = compressBound(static_cast<uLong>(bytes.size()));
    Bytes out(size);
    compress(out.data(), &size, bytes.data(), static_cast<uLong>(bytes.size()));
    out.resize(size);
    return out;
  }
  // Each row begins with its filter: none.
  static Bytes filtered(const Bytes& rows, std::uint32_t height) {
    const std::size_t row_bytes = rows.size() / height;
    Bytes out;
    for (std::size_t y = 0; y < height; ++y) {
      out.push_back(0);
      out.insert(out.end(), &rows[y * row_bytes], &rows[y * row_bytes] + row_bytes);
    }
    return out;
  }
  // Adam7: seven pictures of every so many pixels.
  static Bytes passes(std::uint32_t width, std::uint32_t height, const Bytes& rows) {
    struct Pass {
      std::uint32_t x, y, every_x, every_y;
    };
    constexpr Pass PASSES[] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                               {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
    const std::size_t pixel_bytes = rows.size() / height / width;
    Bytes out;
    for (const Pass& pass : PASSES) {
      for (std::uint32_t y = pass.y; y < height && pass.x < width; y += pass.every_y) {
        out.push_back(0);
        for (std::uint32_t x = pass.x; x < width; x += pass.every_x) {
          const std::uint8_t* pixel = &rows[(std::size_t{y} * width + x) * pixel_bytes];
          out.insert(out.end(), pixel, pixel + pixel_bytes);
        }
      }
    }
    return out;
  }
};
