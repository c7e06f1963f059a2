// A computer's DXGI and Direct3D 11 as far as capturing uses them: two adapters with outputs, a
// device with a video processor, and a duplication that gives the frames that a test lays down.
// Arguments that matter are kept; failures are injected and calls counted through `stage`.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "capture/display.h"
#include "capture/windows/direct3d.h"
#include "tests/support/windows/fake_com.h"

class FakeDirect3d {
 public:
  struct Frame {
    HRESULT result = S_OK;
    LONGLONG present_ticks = 1;  // 0: the desktop's image hasn't changed
    UINT accumulated = 1;
    LONGLONG mouse_ticks = 0;  // 0: the pointer hasn't moved
    bool visible = false;
    POINT position{};
    std::vector<std::uint8_t> shape;  // empty: its image hasn't changed
    DXGI_OUTDUPL_POINTER_SHAPE_INFO shape_info{};
    UINT width = 1280;
    UINT height = 720;
    DXGI_FORMAT format = DXGI_FORMAT_B8G8R8A8_UNORM;
  };
  struct DeviceRequest {
    std::string adapter;
    D3D_DRIVER_TYPE driver = D3D_DRIVER_TYPE_NULL;
    UINT flags = 0;
    std::vector<D3D_FEATURE_LEVEL> levels;
    UINT sdk_version = 0;
  };
  struct ColourSpaces {
    std::vector<DXGI_COLOR_SPACE_TYPE> stream, output;                      // the newer way
    std::vector<D3D11_VIDEO_PROCESSOR_COLOR_SPACE> old_stream, old_output;  // the older
  };
  struct Blt {
    std::string view;
    UINT streams = 0;
    bool enabled = false;
    std::string input;
  };

  FakeDirect3d();

  const Direct3d& api() const { return api_; }
  DisplayInfo display() const;  // the one that the second adapter's second output shows
  Frame& next_frame() { return frames.emplace_back(); }

  fake_com::Stage stage;

  // What there is, and how it behaves.
  std::deque<Frame> frames;
  std::function<void(UINT wait_ms)> on_wait;  // no frame within it
  HRESULT removed_reason = S_OK;
  RECT coordinates{1920, -40, 3200, 680};  // of the output, on the desktop
  DXGI_OUTDUPL_DESC duplication{};
  UINT nv12_support = D3D11_VIDEO_PROCESSOR_FORMAT_SUPPORT_OUTPUT;
  std::vector<std::uint8_t> mapped_pixels;
  UINT mapped_pitch = 0;

  // What was asked of it.
  std::vector<DeviceRequest> device_requests;
  BOOL multithread_protected = FALSE;
  INT gpu_priority = 0;
  std::vector<DXGI_FORMAT> duplication_formats;
  std::vector<UINT> waits_ms;
  std::vector<D3D11_TEXTURE2D_DESC> textures;
  std::vector<std::pair<std::string, std::string>> copies;  // to, from
  D3D11_VIDEO_PROCESSOR_CONTENT_DESC content{};
  DXGI_FORMAT checked_format = DXGI_FORMAT_UNKNOWN;
  UINT rate_conversion = ~0u;
  D3D11_VIDEO_PROCESSOR_INPUT_VIEW_DESC input_view{};
  std::string input_texture;
  ColourSpaces colours;
  D3D11_VIDEO_FRAME_FORMAT stream_format = D3D11_VIDEO_FRAME_FORMAT_INTERLACED_TOP_FIELD_FIRST;
  RECT source_rect{}, dest_rect{}, target_rect{};
  BOOL auto_processing = TRUE;
  std::vector<std::pair<std::string, D3D11_VIDEO_PROCESSOR_OUTPUT_VIEW_DESC>> output_views;
  std::vector<Blt> blts;

  // The objects that tests deny interfaces to, or hand out themselves.
  fake_com::Object& factory;
  fake_com::Object& first_adapter;
  fake_com::Object& adapter;
  fake_com::Object& foreign_output;
  fake_com::Object& output;
  fake_com::Object& device;
  fake_com::Object& context;
  fake_com::Object& video_context;
  fake_com::Object& duplicate;
  fake_com::Object& make_texture(const std::string& name, const D3D11_TEXTURE2D_DESC& description);

 private:
  void make_factory();
  void make_outputs();
  void make_device();
  void make_context();
  void make_video_device();
  void make_video_context();
  void make_duplication();
  HRESULT acquire(UINT wait_ms, DXGI_OUTDUPL_FRAME_INFO* info, IDXGIResource** out);

  Direct3d api_;
  fake_com::Object* held_texture_ = nullptr;  // of the frame that isn't released yet
  fake_com::Object* held_resource_ = nullptr;
  Frame held_;
};
