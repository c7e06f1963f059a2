#include "capture/windows/gdi_source.h"

#include <optional>

#include "capture/windows/dib.h"
#include "capture/windows/gdi_pointer.h"
#include "control/log.h"
#include "media/cpu_frame.h"

namespace {

constexpr std::int32_t BYTES_PER_PIXEL = 4;
constexpr std::uint64_t PICTURE_BYTES_MAX = 128ull << 20;
// Layered windows too, which the desktop's own bits don't hold.
constexpr DWORD WHOLE_SCREEN_COPY = SRCCOPY | CAPTUREBLT;

// A bitmap in memory that a context draws into and a program reads.
class DrawnPicture {
 public:
  bool create(HDC like, std::int32_t width, std::int32_t height) {
    selected_.reset();
    context_.reset(CreateCompatibleDC(like));
    if (!context_) return false;
    const BITMAPINFO form = {top_down_rows(width, height, BYTES_PER_PIXEL * 8), {}};
    bitmap_.reset(CreateDIBSection(like, &form, DIB_RGB_COLORS, &bits_, nullptr, 0));
    if (!bitmap_) return false;
    selected_.emplace(context_.get(), bitmap_.get());
    return static_cast<bool>(*selected_);
  }
  HDC context() const { return context_.get(); }
  const std::uint8_t* pixels() const { return static_cast<const std::uint8_t*>(bits_); }

 private:
  MemoryContext context_;
  BitmapHandle bitmap_;
  std::optional<Selected> selected_;
  void* bits_ = nullptr;
};

class GdiSource final : public CaptureSource {
 public:
  const SourceTraits& traits() const override {
    static constexpr SourceTraits TRAITS{"GDI CPU", false, false};
    return TRAITS;
  }

  bool open(const CaptureTarget& target) override {
    follow(target.display);
    width_ = target.display.width;
    height_ = target.display.height;
    if (!lund_cpu::make_layout(width_, height_, width_ * BYTES_PER_PIXEL, PICTURE_BYTES_MAX,
                               target.width, target.height, corner_.x, corner_.y, &layout_))
      return false;
    screen_.reset(GetDC(nullptr));
    if (!screen_ || !picture_.create(screen_.get(), width_, height_)) return false;
    hlog("video: GDI CPU capture %dx%d at (%d,%d)", width_, height_, corner_.x, corner_.y);
    return true;
  }

  void follow(const DisplayInfo& display) override { corner_ = {display.left, display.top}; }

  AcquireResult acquire(std::uint32_t, WakeEvent&, AcquiredPicture* out) override {
    *out = {0, width_, height_};
    has_picture_ = BitBlt(picture_.context(), 0, 0, width_, height_, screen_.get(), corner_.x,
                          corner_.y, WHOLE_SCREEN_COPY) &&
                   GdiFlush();  // what it has not drawn yet is not in memory
    return has_picture_ ? AcquireResult::Picture : AcquireResult::Lost;
  }
  bool has_picture() const override { return has_picture_; }
  bool picture(MemoryPicture* out) override {
    if (!has_picture_) return false;
    *out = {picture_.pixels(), layout_.src_bytes, width_, height_, layout_.src_stride};
    return true;
  }
  PointerSource* pointer() override { return &pointer_; }

 private:
  DesktopPoint corner_;  // of the display, on the virtual desktop
  std::int32_t width_ = 0;
  std::int32_t height_ = 0;
  lund_cpu::FrameLayout layout_;
  ScreenContext screen_;
  DrawnPicture picture_;
  bool has_picture_ = false;
  GdiPointer pointer_;
};

}  // namespace

std::unique_ptr<CaptureSource> make_gdi_source() {
  return std::make_unique<GdiSource>();
}
