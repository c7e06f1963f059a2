// A hand at an X server: it moves the pointer and gives it images. Each call returns once the
// server has done it. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media/cursor_convert.h"

class X11Hand {
 public:
  // Glyphs of the font "cursor"; each is followed by its mask.
  static constexpr std::uint16_t ARROW = 68;
  static constexpr std::uint16_t I_BEAM = 152;

  explicit X11Hand(const std::string& display);
  ~X11Hand();
  X11Hand(const X11Hand&) = delete;
  X11Hand& operator=(const X11Hand&) = delete;

  void move(int x, int y);  // as a device does
  void warp(int x, int y);  // as a program does

  // The pointer's image over the root window. Colours are 0xRRGGBB.
  void use_glyph(std::uint16_t glyph, std::uint32_t colour, std::uint32_t background);
  // `argb`: premultiplied, rows top-down.
  void use_image(int width, int height, const std::vector<std::uint32_t>& argb, int hot_x,
                 int hot_y);

  // What the font's glyphs look like, drawn as text: where the mask is set, the glyph's pixels have
  // the one colour and the others the background.
  CursorBitmap glyph_image(std::uint16_t glyph, std::uint32_t colour, std::uint32_t background);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
