#include "apps/client/view/screen_window.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "apps/client/view/processor_drawing.h"

namespace {

constexpr Uint8 DIMMED = 110;  // of 255, of an old picture's light
constexpr ViewSize SMALLEST{160, 120};
constexpr std::size_t IMAGES = 32;  // of the pointer; a desktop uses a dozen

// SDL wants straight alpha, and its X11 driver hands it to the server, which wants it multiplied.
void multiply_for_x11(std::vector<std::uint8_t>& pixels) {
  const char* driver = SDL_GetCurrentVideoDriver();
  if (!driver || std::strcmp(driver, "x11") != 0) return;
  for (std::size_t i = 0; i + 3 < pixels.size(); i += 4)
    for (std::size_t c = 0; c < 3; ++c)
      pixels[i + c] = static_cast<std::uint8_t>((pixels[i + c] * pixels[i + 3] + 127) / 255);
}

}  // namespace

std::unique_ptr<ScreenWindow> ScreenWindow::open(const WindowRequest& request, TTF_Font* font,
                                                 std::string* error) {
  std::unique_ptr<ScreenWindow> made(new ScreenWindow);
  Uint32 flags = SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI;
  if (request.full_screen) flags |= SDL_WINDOW_FULLSCREEN_DESKTOP;
  made->window_.reset(SDL_CreateWindow(request.title.c_str(), request.x, request.y,
                                       request.size.width, request.size.height, flags));
  if (!made->window_) {
    *error = SDL_GetError();
    return nullptr;
  }
  made->id_ = SDL_GetWindowID(made->window_.get());
  SDL_SetWindowMinimumSize(made->window_.get(), SMALLEST.width, SMALLEST.height);
  if (!made->make_renderer(error)) return nullptr;
  made->text_ = std::make_unique<TextPainter>(made->renderer_.get(), font);
  return made;
}

bool ScreenWindow::make_renderer(std::string* error) {
  renderer_.reset(SDL_CreateRenderer(window_.get(), -1, 0));
  // Whoever names a driver in SDL_RENDER_DRIVER gets it.
  const bool chosen = std::getenv("SDL_RENDER_DRIVER") != nullptr;
  if (!renderer_ || (!chosen && draws_by_processor(renderer_.get()))) {
    renderer_.reset();
    // Else SDL would show what it has drawn by that same OpenGL: 6 ms a picture instead of 0.02.
    SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
    renderer_.reset(SDL_CreateRenderer(window_.get(), -1, SDL_RENDERER_SOFTWARE));
  }
  SDL_RendererInfo info;
  if (!renderer_ || SDL_GetRendererInfo(renderer_.get(), &info) != 0) {
    *error = SDL_GetError();
    return false;
  }
  picture_format_ = SDL_PIXELFORMAT_ARGB8888;
  for (Uint32 i = 0; i < info.num_texture_formats; ++i)
    if (info.texture_formats[i] == SDL_PIXELFORMAT_RGB888) picture_format_ = SDL_PIXELFORMAT_RGB888;
  return true;
}

ViewSize ScreenWindow::size() const {
  ViewSize size;
  SDL_GetRendererOutputSize(renderer_.get(), &size.width, &size.height);
  return size;
}

double ScreenWindow::pixels_per_unit() const {
  int width = 0;
  int height = 0;
  SDL_GetWindowSize(window_.get(), &width, &height);
  return width > 0 ? static_cast<double>(size().width) / width : 1.0;
}

ViewPoint ScreenWindow::pixel_of(int x, int y) const {
  const double scale = pixels_per_unit();
  return {static_cast<int>(std::floor(x * scale)), static_cast<int>(std::floor(y * scale))};
}

void ScreenWindow::set_picture(const ShownPicture& picture) {
  const ViewSize size{picture.width, picture.height};
  if (!picture_ || !(picture_size_ == size)) {
    picture_.reset(SDL_CreateTexture(renderer_.get(), picture_format_, SDL_TEXTUREACCESS_STREAMING,
                                     size.width, size.height));
    picture_size_ = size;
    if (picture_) SDL_SetTextureBlendMode(picture_.get(), SDL_BLENDMODE_NONE);
  }
  if (picture_)
    SDL_UpdateTexture(picture_.get(), nullptr, picture.pixels.data(), picture.width * 4);
}

void ScreenWindow::keep_pointer_image(const PointerImage& image) {
  std::erase_if(images_, [&](const PointerImage& kept) { return kept.id == image.id; });
  if (images_.size() == IMAGES) images_.erase(images_.begin());
  images_.push_back(image);
  if (image_.id == image.id) image_ = {};
}

bool ScreenWindow::use_pointer_image(std::uint32_t id) {
  if (id == 0) return false;
  if (id == image_.id) return true;
  const auto kept = std::find_if(images_.begin(), images_.end(),
                                 [id](const PointerImage& image) { return image.id == id; });
  if (kept == images_.end()) return false;
  image_ = *kept;
  cursor_scale_ = 0;
  pointer_.reset();
  const CursorBitmap& bitmap = image_.bitmap;
  if (bitmap.pixels.empty()) return true;
  pointer_.reset(SDL_CreateTexture(renderer_.get(), SDL_PIXELFORMAT_ARGB8888,
                                   SDL_TEXTUREACCESS_STATIC, bitmap.width, bitmap.height));
  if (!pointer_) return true;
  SDL_SetTextureBlendMode(pointer_.get(), SDL_BLENDMODE_BLEND);
  SDL_UpdateTexture(pointer_.get(), nullptr, bitmap.pixels.data(), bitmap.width * 4);
  return true;
}

SDL_Cursor* ScreenWindow::cursor(double scale) {
  if (image_.bitmap.pixels.empty()) return nullptr;
  if (cursor_scale_ == scale) return cursor_.get();
  CursorBitmap scaled = cursor_scale(image_.bitmap, scale);
  multiply_for_x11(scaled.pixels);
  const SdlPtr<SDL_Surface> surface(
      SDL_CreateRGBSurfaceWithFormatFrom(scaled.pixels.data(), scaled.width, scaled.height, 32,
                                         scaled.width * 4, SDL_PIXELFORMAT_ARGB8888));
  cursor_.reset(surface ? SDL_CreateColorCursor(surface.get(), scaled.hot_x, scaled.hot_y)
                        : nullptr);
  cursor_scale_ = scale;
  return cursor_.get();
}

void ScreenWindow::paint_pointer(const Scene& scene) {
  const double scale = view_scale(scene.shown, picture_size_);
  const CursorBitmap& bitmap = image_.bitmap;
  auto scaled = [scale](int pixels) { return static_cast<int>(std::lround(pixels * scale)); };
  const SDL_Rect at{scene.pointer.x - scaled(bitmap.hot_x), scene.pointer.y - scaled(bitmap.hot_y),
                    std::max(1, scaled(bitmap.width)), std::max(1, scaled(bitmap.height))};
  SDL_SetTextureScaleMode(pointer_.get(),
                          scale == 1.0 ? SDL_ScaleModeNearest : SDL_ScaleModeLinear);
  const SDL_Rect inside{scene.shown.x, scene.shown.y, scene.shown.width, scene.shown.height};
  SDL_RenderSetClipRect(renderer_.get(), &inside);
  SDL_RenderCopy(renderer_.get(), pointer_.get(), nullptr, &at);
  SDL_RenderSetClipRect(renderer_.get(), nullptr);
}

void ScreenWindow::paint(const Scene& scene) {
  SDL_SetRenderDrawBlendMode(renderer_.get(), SDL_BLENDMODE_NONE);
  SDL_SetRenderDrawColor(renderer_.get(), 0, 0, 0, 255);
  SDL_RenderClear(renderer_.get());
  if (picture_ && scene.shown.width > 0) {
    // Whole multiples stay crisp; anything else is interpolated.
    const bool whole = scene.shown.width % picture_size_.width == 0 &&
                       scene.shown.height % picture_size_.height == 0;
    SDL_SetTextureScaleMode(picture_.get(), whole ? SDL_ScaleModeNearest : SDL_ScaleModeLinear);
    const Uint8 light = scene.dimmed ? DIMMED : 255;
    SDL_SetTextureColorMod(picture_.get(), light, light, light);
    const SDL_Rect at{scene.shown.x, scene.shown.y, scene.shown.width, scene.shown.height};
    SDL_RenderCopy(renderer_.get(), picture_.get(), nullptr, &at);
    if (scene.pointer_painted && pointer_) paint_pointer(scene);
  }
  text_->paint(scene.statistics, TextPlace::TopLeft, scene.window);
  text_->paint(scene.banner, TextPlace::Middle, scene.window);
  text_->paint(scene.footer, TextPlace::Bottom, scene.window);
}

bool ScreenWindow::draw(const Scene& scene, bool again) {
  if (drawn_any_ && !again && scene == drawn_) return false;
  paint(scene);
  SDL_RenderPresent(renderer_.get());
  drawn_ = scene;
  drawn_any_ = true;
  return true;
}

RgbPicture ScreenWindow::read_back() {
  if (drawn_any_) paint(drawn_);  // what was presented can't be read any more
  RgbPicture picture;
  const ViewSize pixels = size();
  picture.width = pixels.width;
  picture.height = pixels.height;
  picture.pixels.resize(static_cast<std::size_t>(pixels.width) *
                        static_cast<std::size_t>(pixels.height) * 3);
  SDL_RenderReadPixels(renderer_.get(), nullptr, SDL_PIXELFORMAT_RGB24, picture.pixels.data(),
                       pixels.width * 3);
  return picture;
}

void ScreenWindow::toggle_full_screen() {
  const bool full = (SDL_GetWindowFlags(window_.get()) & SDL_WINDOW_FULLSCREEN_DESKTOP) != 0;
  SDL_SetWindowFullscreen(window_.get(), full ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP);
}

void ScreenWindow::fit(ViewSize picture) {
  const Uint32 flags = SDL_GetWindowFlags(window_.get());
  if ((flags & (SDL_WINDOW_FULLSCREEN_DESKTOP | SDL_WINDOW_MAXIMIZED)) != 0) return;
  SDL_Rect desktop{};
  const int display = std::max(0, SDL_GetWindowDisplayIndex(window_.get()));
  if (SDL_GetDisplayUsableBounds(display, &desktop) != 0 || desktop.w <= 0 || desktop.h <= 0)
    return;
  const double unit = pixels_per_unit();
  ViewSize wanted{static_cast<int>(picture.width / unit), static_cast<int>(picture.height / unit)};
  if (wanted.width > desktop.w || wanted.height > desktop.h) {
    const ViewRect room = letterbox({desktop.w * 9 / 10, desktop.h * 9 / 10}, wanted);
    wanted = {room.width, room.height};
  }
  SDL_SetWindowSize(window_.get(), wanted.width, wanted.height);
}
