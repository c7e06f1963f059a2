#include "capture/windows/duplication_source.h"

#include <cstdio>
#include <string>

#include "capture/windows/d3d11_encoder_device.h"
#include "capture/windows/gdi_pointer.h"
#include "capture/windows/nv12_converter.h"
#include "connection/windows/performance_counter.h"
#include "control/log.h"

namespace {

constexpr SourceTraits TRAITS{"DDA GPU", true, true};
constexpr std::uint64_t US_PER_SECOND = 1'000'000;

const char* explanation(HRESULT result) {
  switch (result) {
    case E_ACCESSDENIED:
      return " (secure desktop: UAC prompt / lock screen; needs SYSTEM)";
    case DXGI_ERROR_UNSUPPORTED:
      return " (unsupported: hybrid GPU or HDR?)";
    case DXGI_ERROR_NOT_CURRENTLY_AVAILABLE:
      return " (too many duplications)";
    default:
      return "";
  }
}

class DuplicationSource final : public CaptureSource, private PointerSource {
 public:
  explicit DuplicationSource(const Direct3d& api) : api_(api) {}
  ~DuplicationSource() override { unsubscribe(); }

  const SourceTraits& traits() const override { return TRAITS; }
  bool open(const CaptureTarget& target) override;
  bool subscribe(DisplayInfo* display, SubscribeFailure* failure) override;
  bool subscribed() const override { return duplication_ != nullptr; }
  void unsubscribe() override;
  AcquireResult acquire(std::uint32_t wait_ms, WakeEvent& wake, AcquiredPicture* out) override;
  bool hold() override;
  void release() override;
  bool has_picture() const override { return capture_texture_ != nullptr; }
  PointerSource* pointer() override { return this; }
  bool converter_ready() const override { return converter_.ready(); }
  bool alive() override;
  EncoderDevice* device() override { return encoder_device_.get(); }
  bool draw(const EncoderSurface& surface) override { return converter_.draw(surface); }
  void forget_surfaces() override { converter_.forget_surfaces(); }

 private:
  PointerUpdate pointer_update() override;
  bool read_pointer_shape(std::uint8_t* buffer, PointerShape* out) override;
  bool system_pointer(DesktopPoint* out) override { return GdiPointer().system_pointer(out); }

  HRESULT duplicate();
  AcquireResult failed_acquire(HRESULT result);
  bool renew_capture_texture(const D3D11_TEXTURE2D_DESC& desktop);

  const Direct3d& api_;
  CaptureTarget target_;
  DisplayDevice gpu_;
  std::unique_ptr<D3d11EncoderDevice> encoder_device_;
  ComPtr<ID3D11Texture2D> capture_texture_;  // the newest picture
  Nv12Converter converter_;                  // of it
  ComPtr<IDXGIOutputDuplication> duplication_;
  bool delivered_ = false;  // a picture, since the source was opened

  // Of the acquired frame.
  bool acquired_ = false;
  DXGI_OUTDUPL_FRAME_INFO frame_{};
  ComPtr<ID3D11Texture2D> desktop_texture_;  // null if it brought the pointer alone
};

bool DuplicationSource::open(const CaptureTarget& target) {
  target_ = target;
  if (!open_display_device(api_, target.display, &gpu_)) return false;
  encoder_device_ = std::make_unique<D3d11EncoderDevice>(gpu_.device);
  return true;
}

// The newer call names the format, so that an HDR desktop comes as the encoder needs it.
HRESULT DuplicationSource::duplicate() {
  constexpr DXGI_FORMAT FORMAT = DXGI_FORMAT_B8G8R8A8_UNORM;
  constexpr UINT NO_FLAGS = 0;
  ComPtr<IDXGIOutput5> newer;
  if (SUCCEEDED(gpu_.output.As(&newer)) &&
      SUCCEEDED(newer->DuplicateOutput1(gpu_.device.Get(), NO_FLAGS, 1, &FORMAT, &duplication_))) {
    return S_OK;
  }
  return gpu_.output->DuplicateOutput(gpu_.device.Get(), duplication_.ReleaseAndGetAddressOf());
}

bool DuplicationSource::subscribe(DisplayInfo* display, SubscribeFailure* failure) {
  unsubscribe();
  if (const HRESULT result = duplicate(); FAILED(result)) {
    char text[128];
    std::snprintf(text, sizeof text, "DuplicateOutput failed (0x%08lx)%s",
                  static_cast<unsigned long>(result), explanation(result));
    *failure = {static_cast<std::uint32_t>(result), text, result == E_ACCESSDENIED};
    return false;
  }
  DXGI_OUTDUPL_DESC description{};
  duplication_->GetDesc(&description);
  hlog("video: desktop duplication on %s: %ux%u, rotation %d%s", display->device.c_str(),
       description.ModeDesc.Width, description.ModeDesc.Height,
       static_cast<int>(description.Rotation),
       description.DesktopImageInSystemMemory ? ", image in system memory" : "");
  if (description.Rotation != DXGI_MODE_ROTATION_IDENTITY)
    hlog("video: WARNING rotated displays are not supported; the picture will be sideways");
  DXGI_OUTPUT_DESC output;
  if (SUCCEEDED(gpu_.output->GetDesc(&output))) {
    const RECT& now = output.DesktopCoordinates;
    display->left = now.left;
    display->top = now.top;
    display->right = now.right;
    display->bottom = now.bottom;
  }
  return true;
}

void DuplicationSource::unsubscribe() {
  release();
  duplication_.Reset();
}

// AcquireNextFrame can't be cut short, which is why nobody asks for a long wait.
AcquireResult DuplicationSource::acquire(std::uint32_t wait_ms, WakeEvent&, AcquiredPicture* out) {
  ComPtr<IDXGIResource> resource;
  const HRESULT result = duplication_->AcquireNextFrame(wait_ms, &frame_, &resource);
  if (result == DXGI_ERROR_WAIT_TIMEOUT) return AcquireResult::TimeOut;
  if (FAILED(result)) return failed_acquire(result);
  acquired_ = true;
  const bool picture =
      !delivered_ || (frame_.LastPresentTime.QuadPart != 0 && frame_.AccumulatedFrames != 0);
  if (!picture || !resource || FAILED(resource.As(&desktop_texture_)))
    return AcquireResult::PointerOnly;
  delivered_ = true;
  D3D11_TEXTURE2D_DESC desktop{};
  desktop_texture_->GetDesc(&desktop);
  *out = {performance_counter_time(static_cast<std::uint64_t>(frame_.LastPresentTime.QuadPart),
                                   US_PER_SECOND),
          static_cast<std::int32_t>(desktop.Width), static_cast<std::int32_t>(desktop.Height)};
  return AcquireResult::Picture;
}

AcquireResult DuplicationSource::failed_acquire(HRESULT result) {
  if (result == DXGI_ERROR_ACCESS_LOST || result == DXGI_ERROR_INVALID_CALL) {
    hlog(
        "video: duplication lost (0x%08lx: mode change, secure desktop or fullscreen switch); "
        "recreating",
        static_cast<unsigned long>(result));
    return AcquireResult::Lost;
  }
  const HRESULT removed = gpu_.device->GetDeviceRemovedReason();
  hlog("video: AcquireNextFrame failed (0x%08lx, device 0x%08lx)",
       static_cast<unsigned long>(result), static_cast<unsigned long>(removed));
  return FAILED(removed) ? AcquireResult::Gone : AcquireResult::Busy;
}

bool DuplicationSource::hold() {
  if (!desktop_texture_) return false;
  D3D11_TEXTURE2D_DESC desktop{};
  desktop_texture_->GetDesc(&desktop);
  if (!renew_capture_texture(desktop)) return false;
  gpu_.context->CopyResource(capture_texture_.Get(), desktop_texture_.Get());
  return true;
}

// A converter that fails leaves a capture that goes on, of which nothing is encoded.
bool DuplicationSource::renew_capture_texture(const D3D11_TEXTURE2D_DESC& desktop) {
  if (capture_texture_) {
    D3D11_TEXTURE2D_DESC held{};
    capture_texture_->GetDesc(&held);
    if (held.Width == desktop.Width && held.Height == desktop.Height &&
        held.Format == desktop.Format) {
      return true;
    }
  }
  converter_.close();
  D3D11_TEXTURE2D_DESC wanted{};
  wanted.Width = desktop.Width;
  wanted.Height = desktop.Height;
  wanted.MipLevels = 1;
  wanted.ArraySize = 1;
  wanted.Format = desktop.Format;
  wanted.SampleDesc.Count = 1;
  wanted.Usage = D3D11_USAGE_DEFAULT;
  wanted.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
  const HRESULT result =
      gpu_.device->CreateTexture2D(&wanted, nullptr, capture_texture_.ReleaseAndGetAddressOf());
  if (FAILED(result)) {
    log_video_failure("capture texture", result);
    return false;
  }
  converter_.open(gpu_, capture_texture_.Get(),
                  {static_cast<UINT>(target_.width), static_cast<UINT>(target_.height)},
                  static_cast<UINT>(target_.fps));
  return true;
}

void DuplicationSource::release() {
  if (!acquired_) return;
  acquired_ = false;
  desktop_texture_.Reset();
  duplication_->ReleaseFrame();
}

bool DuplicationSource::alive() {
  const HRESULT removed = gpu_.device->GetDeviceRemovedReason();
  if (SUCCEEDED(removed)) return true;
  hlog("video: GPU device removed (0x%08lx); rebuilding", static_cast<unsigned long>(removed));
  return false;
}

PointerUpdate DuplicationSource::pointer_update() {
  PointerUpdate update;
  update.moved = frame_.LastMouseUpdateTime.QuadPart != 0;
  update.visible = frame_.PointerPosition.Visible != FALSE;
  update.position = {frame_.PointerPosition.Position.x, frame_.PointerPosition.Position.y};
  update.anchor = PointerAnchor::ImageCorner;
  update.shape_bytes = frame_.PointerShapeBufferSize;
  return update;
}

bool DuplicationSource::read_pointer_shape(std::uint8_t* buffer, PointerShape* out) {
  UINT size = 0;
  DXGI_OUTDUPL_POINTER_SHAPE_INFO shape{};
  if (FAILED(duplication_->GetFramePointerShape(frame_.PointerShapeBufferSize, buffer, &size,
                                                &shape))) {
    return false;
  }
  *out = {static_cast<std::int32_t>(shape.Type),
          size,
          static_cast<std::int32_t>(shape.Width),
          static_cast<std::int32_t>(shape.Height),
          static_cast<std::int32_t>(shape.Pitch),
          shape.HotSpot.x,
          shape.HotSpot.y};
  return true;
}

}  // namespace

std::unique_ptr<CaptureSource> make_duplication_source(const Direct3d& api) {
  return std::make_unique<DuplicationSource>(api);
}

std::unique_ptr<CaptureSource> make_duplication_source() {
  return make_duplication_source(system_direct3d());
}
