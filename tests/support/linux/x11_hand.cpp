#include "tests/support/linux/x11_hand.h"

#include <gtest/gtest.h>
#include <xcb/render.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <cstdlib>
#include <memory>

#include "connection/byte_order.h"

namespace {

struct Free {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
std::unique_ptr<T, Free> own(T* reply) {
  return std::unique_ptr<T, Free>(reply);
}

// A glyph's place around its origin, which is the cursor's hot spot.
struct Extents {
  int left = 0;
  int right = 0;
  int ascent = 0;
  int descent = 0;
};

std::uint16_t channel(std::uint32_t colour, unsigned shift) {
  return static_cast<std::uint16_t>((colour >> shift & 0xFF) * 0x101);
}

}  // namespace

struct X11Hand::Impl {
  xcb_connection_t* c = nullptr;
  xcb_screen_t* screen = nullptr;
  xcb_font_t font = XCB_NONE;

  void done() const {
    EXPECT_TRUE(own(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr)));
  }
  void use(xcb_cursor_t cursor) const {
    xcb_change_window_attributes(c, screen->root, XCB_CW_CURSOR, &cursor);
    xcb_free_cursor(c, cursor);
    done();
  }
  Extents extents(std::uint16_t glyph) const;
  std::vector<bool> bits(std::uint16_t glyph, const Extents& box) const;
  xcb_render_pictformat_t argb_format() const;
};

X11Hand::X11Hand(const std::string& display) : impl_(std::make_unique<Impl>()) {
  impl_->c = xcb_connect(display.c_str(), nullptr);
  impl_->screen = xcb_setup_roots_iterator(xcb_get_setup(impl_->c)).data;
  impl_->font = xcb_generate_id(impl_->c);
  xcb_open_font(impl_->c, impl_->font, 6, "cursor");
  impl_->done();
}

X11Hand::~X11Hand() {
  xcb_disconnect(impl_->c);
}

void X11Hand::move(int x, int y) {
  xcb_test_fake_input(impl_->c, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, impl_->screen->root,
                      static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), 0);
  impl_->done();
}

void X11Hand::warp(int x, int y) {
  xcb_warp_pointer(impl_->c, XCB_NONE, impl_->screen->root, 0, 0, 0, 0,
                   static_cast<std::int16_t>(x), static_cast<std::int16_t>(y));
  impl_->done();
}

void X11Hand::use_glyph(std::uint16_t glyph, std::uint32_t colour, std::uint32_t background) {
  const xcb_cursor_t cursor = xcb_generate_id(impl_->c);
  xcb_create_glyph_cursor(impl_->c, cursor, impl_->font, impl_->font, glyph,
                          static_cast<std::uint16_t>(glyph + 1), channel(colour, 16),
                          channel(colour, 8), channel(colour, 0), channel(background, 16),
                          channel(background, 8), channel(background, 0));
  impl_->use(cursor);
}

xcb_render_pictformat_t X11Hand::Impl::argb_format() const {
  const auto formats =
      own(xcb_render_query_pict_formats_reply(c, xcb_render_query_pict_formats(c), nullptr));
  if (!formats) return XCB_NONE;
  for (auto it = xcb_render_query_pict_formats_formats_iterator(formats.get()); it.rem > 0;
       xcb_render_pictforminfo_next(&it)) {
    const xcb_render_directformat_t& direct = it.data->direct;
    if (it.data->depth == 32 && direct.alpha_mask == 0xFF && direct.alpha_shift == 24 &&
        direct.red_shift == 16 && direct.blue_shift == 0)
      return it.data->id;
  }
  return XCB_NONE;
}

void X11Hand::use_image(int width, int height, const std::vector<std::uint32_t>& argb, int hot_x,
                        int hot_y) {
  xcb_connection_t* c = impl_->c;
  const auto w = static_cast<std::uint16_t>(width);
  const auto h = static_cast<std::uint16_t>(height);
  std::vector<std::uint8_t> bytes(argb.size() * 4);
  for (std::size_t i = 0; i < argb.size(); ++i) store_le(&bytes[4 * i], argb[i]);

  const xcb_pixmap_t pixmap = xcb_generate_id(c);
  xcb_create_pixmap(c, 32, pixmap, impl_->screen->root, w, h);
  const xcb_gcontext_t gc = xcb_generate_id(c);
  xcb_create_gc(c, gc, pixmap, 0, nullptr);
  // By rows: a request is of limited length.
  for (int y = 0; y < height; ++y) {
    xcb_put_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc, w, 1, 0, static_cast<std::int16_t>(y),
                  0, 32, static_cast<std::uint32_t>(width * 4),
                  &bytes[std::size_t{w} * 4 * static_cast<std::size_t>(y)]);
  }
  const xcb_render_picture_t picture = xcb_generate_id(c);
  xcb_render_create_picture(c, picture, pixmap, impl_->argb_format(), 0, nullptr);
  const xcb_cursor_t cursor = xcb_generate_id(c);
  xcb_render_create_cursor(c, cursor, picture, static_cast<std::uint16_t>(hot_x),
                           static_cast<std::uint16_t>(hot_y));
  xcb_render_free_picture(c, picture);
  xcb_free_gc(c, gc);
  xcb_free_pixmap(c, pixmap);
  impl_->use(cursor);
}

Extents X11Hand::Impl::extents(std::uint16_t glyph) const {
  const auto font_info = own(xcb_query_font_reply(c, xcb_query_font(c, font), nullptr));
  EXPECT_TRUE(font_info);
  if (!font_info) return {};
  EXPECT_LT(glyph, xcb_query_font_char_infos_length(font_info.get()));
  const xcb_charinfo_t& info =
      xcb_query_font_char_infos(font_info.get())[glyph - font_info->min_char_or_byte2];
  return {info.left_side_bearing, info.right_side_bearing, info.ascent, info.descent};
}

// The glyph as it lies in the box.
std::vector<bool> X11Hand::Impl::bits(std::uint16_t glyph, const Extents& box) const {
  const int width = box.right - box.left;
  const int height = box.ascent + box.descent;
  const auto w = static_cast<std::uint16_t>(width);
  const auto h = static_cast<std::uint16_t>(height);
  const xcb_pixmap_t pixmap = xcb_generate_id(c);
  xcb_create_pixmap(c, screen->root_depth, pixmap, screen->root, w, h);
  const xcb_gcontext_t gc = xcb_generate_id(c);
  const std::uint32_t values[] = {0, 0, font};
  xcb_create_gc(c, gc, pixmap, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND | XCB_GC_FONT, values);
  const xcb_rectangle_t all{0, 0, w, h};
  xcb_poly_fill_rectangle(c, pixmap, gc, 1, &all);
  const std::uint32_t lit = 0xFFFFFF;
  xcb_change_gc(c, gc, XCB_GC_FOREGROUND, &lit);
  const xcb_char2b_t text{static_cast<std::uint8_t>(glyph >> 8), static_cast<std::uint8_t>(glyph)};
  xcb_image_text_16(c, 1, pixmap, gc, static_cast<std::int16_t>(-box.left),
                    static_cast<std::int16_t>(box.ascent), &text);
  const auto image = own(xcb_get_image_reply(
      c, xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, 0, 0, w, h, ~0U), nullptr));
  xcb_free_gc(c, gc);
  xcb_free_pixmap(c, pixmap);
  std::vector<bool> result;
  EXPECT_TRUE(image);
  if (!image) return result;
  const std::uint8_t* pixels = xcb_get_image_data(image.get());
  for (int i = 0; i < width * height; ++i) result.push_back(pixels[4 * i] != 0);
  return result;
}

CursorBitmap X11Hand::glyph_image(std::uint16_t glyph, std::uint32_t colour,
                                  std::uint32_t background) {
  const auto mask = static_cast<std::uint16_t>(glyph + 1);
  const Extents box = impl_->extents(mask);
  const std::vector<bool> drawn = impl_->bits(glyph, box);
  const std::vector<bool> opaque = impl_->bits(mask, box);
  CursorBitmap image{box.right - box.left, box.ascent + box.descent, -box.left, box.ascent, {}};
  image.pixels.resize(drawn.size() * 4);
  for (std::size_t i = 0; i < drawn.size(); ++i) {
    const std::uint32_t opaque_pixel = 0xFF000000 | (drawn[i] ? colour : background);
    store_le(&image.pixels[4 * i], opaque[i] ? opaque_pixel : 0);
  }
  return image;
}
