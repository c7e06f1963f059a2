#include "tests/support/windows/fake_direct3d.h"

#include <d3d10.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

using fake_com::Object;

namespace {

constexpr LUID FIRST_LUID{7, 0};
constexpr LUID LUID_OF_DISPLAY{7, 1};
constexpr const wchar_t* FOREIGN_DEVICE = L"\\\\.\\DISPLAY1";
constexpr const wchar_t* DEVICE = L"\\\\.\\DISPLAY2";

void describe_adapter(Object& adapter, LUID luid) {
  adapter.on<&IDXGIAdapter::GetDesc>([luid](DXGI_ADAPTER_DESC* out) {
    *out = {};
    out->AdapterLuid = luid;
    return S_OK;
  });
}

void describe_output(Object& output, const wchar_t* device, const RECT& coordinates) {
  output.on<&IDXGIOutput::GetDesc>([device, &coordinates](DXGI_OUTPUT_DESC* out) {
    *out = {};
    std::wcscpy(out->DeviceName, device);
    out->DesktopCoordinates = coordinates;
    return S_OK;
  });
}

// As EnumAdapters1 and EnumOutputs walk a list.
template <class Interface>
auto lister(std::vector<Object*> objects) {
  return [objects](UINT index, Interface** out) -> HRESULT {
    if (index >= objects.size()) return DXGI_ERROR_NOT_FOUND;
    return objects[index]->give(out);
  };
}

std::string name_of(const void* object) {
  return object ? Object::of(object).name() : "nothing";
}

}  // namespace

FakeDirect3d::FakeDirect3d()
    : factory(stage.make<IDXGIFactory1, IDXGIFactory>("factory")),
      first_adapter(stage.make<IDXGIAdapter1, IDXGIAdapter>("first adapter")),
      adapter(stage.make<IDXGIAdapter1, IDXGIAdapter>("adapter")),
      foreign_output(stage.make<IDXGIOutput5, IDXGIOutput1, IDXGIOutput>("foreign output")),
      output(stage.make<IDXGIOutput5, IDXGIOutput1, IDXGIOutput>("output")),
      device(stage.make<ID3D11Device>("device")),
      context(stage.make<ID3D11DeviceContext>("context")),
      video_context(stage.make<ID3D11VideoContext1, ID3D11VideoContext>("video context")),
      duplicate(stage.make<IDXGIOutputDuplication>("duplication")) {
  duplication.ModeDesc.Width = 1280;
  duplication.ModeDesc.Height = 720;
  duplication.Rotation = DXGI_MODE_ROTATION_IDENTITY;
  make_factory();
  make_outputs();
  make_device();
  make_context();
  make_video_device();
  make_video_context();
  make_duplication();
}

DisplayInfo FakeDirect3d::display() const {
  DisplayInfo info;
  info.device = "\\\\.\\DISPLAY2";
  info.has_adapter = true;
  info.adapter_luid_low = LUID_OF_DISPLAY.LowPart;
  info.adapter_luid_high = LUID_OF_DISPLAY.HighPart;
  info.right = info.width = 1280;
  info.bottom = info.height = 720;
  return info;
}

void FakeDirect3d::make_factory() {
  factory.on<&IDXGIFactory1::EnumAdapters1>(lister<IDXGIAdapter1>({&first_adapter, &adapter}));
  describe_adapter(first_adapter, FIRST_LUID);
  describe_adapter(adapter, LUID_OF_DISPLAY);
  adapter.on<&IDXGIAdapter::EnumOutputs>(lister<IDXGIOutput>({&foreign_output, &output}));
  api_.create_factory = [this](REFIID wanted, void** out) -> HRESULT {
    stage.call("CreateDXGIFactory1");
    if (const auto failure = stage.injected("CreateDXGIFactory1")) return *failure;
    if (wanted != __uuidof(IDXGIFactory1)) return E_NOINTERFACE;
    return factory.give(reinterpret_cast<IDXGIFactory1**>(out));
  };
  api_.create_device = [this](IDXGIAdapter* on, D3D_DRIVER_TYPE driver, HMODULE, UINT flags,
                              const D3D_FEATURE_LEVEL* levels, UINT count, UINT sdk_version,
                              ID3D11Device** made, D3D_FEATURE_LEVEL*,
                              ID3D11DeviceContext** immediate) -> HRESULT {
    stage.call("D3D11CreateDevice");
    if (const auto failure = stage.injected("D3D11CreateDevice")) return *failure;
    device_requests.push_back({name_of(on), driver, flags, {levels, levels + count}, sdk_version});
    device.give(made);
    return context.give(immediate);
  };
}

void FakeDirect3d::make_outputs() {
  describe_output(foreign_output, FOREIGN_DEVICE, coordinates);
  describe_output(output, DEVICE, coordinates);
  output.on<&IDXGIOutput5::DuplicateOutput1>([this](IUnknown* of, UINT flags, UINT count,
                                                    const DXGI_FORMAT* formats,
                                                    IDXGIOutputDuplication** out) {
    if (of != device.as<IUnknown>() || flags != 0) stage.violation("DuplicateOutput1's arguments");
    duplication_formats.assign(formats, formats + count);
    return duplicate.give(out);
  });
  output.on<&IDXGIOutput1::DuplicateOutput>([this](IUnknown* of, IDXGIOutputDuplication** out) {
    if (of != device.as<IUnknown>()) stage.violation("DuplicateOutput's arguments");
    return duplicate.give(out);
  });
}

Object& FakeDirect3d::make_texture(const std::string& name,
                                   const D3D11_TEXTURE2D_DESC& description) {
  Object& texture = stage.make<ID3D11Texture2D, ID3D11Resource>(name);
  texture.on<&ID3D11Texture2D::GetDesc>(
      [description](D3D11_TEXTURE2D_DESC* out) { *out = description; });
  return texture;
}

void FakeDirect3d::make_device() {
  Object& multithread = stage.make<ID3D10Multithread>("multithread");
  multithread.on<&ID3D10Multithread::SetMultithreadProtected>(
      [this](WINBOOL on) { return std::exchange(multithread_protected, on); });
  context.answer<ID3D10Multithread>(multithread);
  Object& dxgi = stage.make<IDXGIDevice>("DXGI device");
  dxgi.on<&IDXGIDevice::SetGPUThreadPriority>([this](INT priority) {
    gpu_priority = priority;
    return S_OK;
  });
  device.answer<IDXGIDevice>(dxgi);
  device.on<&ID3D11Device::GetDeviceRemovedReason>([this] { return removed_reason; });
  device.on<&ID3D11Device::GetImmediateContext>(
      [this](ID3D11DeviceContext** out) { context.give(out); });
  device.on<&ID3D11Device::CreateTexture2D>([this](const D3D11_TEXTURE2D_DESC* description,
                                                   const D3D11_SUBRESOURCE_DATA* initial,
                                                   ID3D11Texture2D** out) {
    if (initial) stage.violation("a texture with initial data");
    textures.push_back(*description);
    return make_texture("texture " + std::to_string(textures.size()), *description).give(out);
  });
}

void FakeDirect3d::make_context() {
  context.on<&ID3D11DeviceContext::CopyResource>([this](ID3D11Resource* to, ID3D11Resource* from) {
    copies.emplace_back(name_of(to), name_of(from));
  });
  context.on<&ID3D11DeviceContext::Map>([this](ID3D11Resource* of, UINT subresource, D3D11_MAP how,
                                               UINT flags, D3D11_MAPPED_SUBRESOURCE* out) {
    if (name_of(of) != copies.back().first || subresource != 0 || how != D3D11_MAP_READ ||
        flags != 0)
      stage.violation("Map's arguments");
    *out = {mapped_pixels.data(), mapped_pitch, 0};
    return S_OK;
  });
  context.on<&ID3D11DeviceContext::Unmap>([this](ID3D11Resource* of, UINT subresource) {
    if (name_of(of) != copies.back().first || subresource != 0)
      stage.violation("Unmap's arguments");
  });
}

void FakeDirect3d::make_video_device() {
  Object& enumerator = stage.make<ID3D11VideoProcessorEnumerator>("enumerator");
  enumerator.on<&ID3D11VideoProcessorEnumerator::CheckVideoProcessorFormat>(
      [this](DXGI_FORMAT format, UINT* support) {
        checked_format = format;
        *support = nv12_support;
        return S_OK;
      });
  Object& processor = stage.make<ID3D11VideoProcessor>("processor");
  Object& video = stage.make<ID3D11VideoDevice>("video device");
  device.answer<ID3D11VideoDevice>(video);
  video.on<&ID3D11VideoDevice::CreateVideoProcessorEnumerator>(
      [this, &enumerator](const D3D11_VIDEO_PROCESSOR_CONTENT_DESC* description,
                          ID3D11VideoProcessorEnumerator** out) {
        content = *description;
        return enumerator.give(out);
      });
  video.on<&ID3D11VideoDevice::CreateVideoProcessor>(
      [this, &processor](ID3D11VideoProcessorEnumerator* of, UINT rate,
                         ID3D11VideoProcessor** out) {
        if (name_of(of) != "enumerator") stage.violation("CreateVideoProcessor's enumerator");
        rate_conversion = rate;
        return processor.give(out);
      });
  video.on<&ID3D11VideoDevice::CreateVideoProcessorInputView>(
      [this](ID3D11Resource* of, ID3D11VideoProcessorEnumerator*,
             const D3D11_VIDEO_PROCESSOR_INPUT_VIEW_DESC* description,
             ID3D11VideoProcessorInputView** out) {
        input_texture = name_of(of);
        input_view = *description;
        return stage.make<ID3D11VideoProcessorInputView>("view of " + input_texture).give(out);
      });
  video.on<&ID3D11VideoDevice::CreateVideoProcessorOutputView>(
      [this](ID3D11Resource* of, ID3D11VideoProcessorEnumerator*,
             const D3D11_VIDEO_PROCESSOR_OUTPUT_VIEW_DESC* description,
             ID3D11VideoProcessorOutputView** out) {
        output_views.emplace_back(name_of(of), *description);
        return stage
            .make<ID3D11VideoProcessorOutputView>("view " + std::to_string(output_views.size()) +
                                                  " of " + name_of(of))
            .give(out);
      });
}

void FakeDirect3d::make_video_context() {
  using Context = ID3D11VideoContext1;
  context.answer<ID3D11VideoContext>(video_context);
  const auto check_stream = [this](UINT stream) {
    if (stream != 0) stage.violation("another stream than the first");
  };
  video_context.on<&Context::VideoProcessorSetStreamColorSpace1>(
      [=, this](ID3D11VideoProcessor*, UINT stream, DXGI_COLOR_SPACE_TYPE space) {
        check_stream(stream);
        colours.stream.push_back(space);
      });
  video_context.on<&Context::VideoProcessorSetOutputColorSpace1>(
      [this](ID3D11VideoProcessor*, DXGI_COLOR_SPACE_TYPE space) {
        colours.output.push_back(space);
      });
  video_context.on<&Context::VideoProcessorSetStreamColorSpace>(
      [=, this](ID3D11VideoProcessor*, UINT stream,
                const D3D11_VIDEO_PROCESSOR_COLOR_SPACE* space) {
        check_stream(stream);
        colours.old_stream.push_back(*space);
      });
  video_context.on<&Context::VideoProcessorSetOutputColorSpace>(
      [this](ID3D11VideoProcessor*, const D3D11_VIDEO_PROCESSOR_COLOR_SPACE* space) {
        colours.old_output.push_back(*space);
      });
  video_context.on<&Context::VideoProcessorSetStreamFrameFormat>(
      [=, this](ID3D11VideoProcessor*, UINT stream, D3D11_VIDEO_FRAME_FORMAT format) {
        check_stream(stream);
        stream_format = format;
      });
  video_context.on<&Context::VideoProcessorSetStreamSourceRect>(
      [=, this](ID3D11VideoProcessor*, UINT stream, WINBOOL enable, const RECT* rect) {
        check_stream(stream);
        if (enable) source_rect = *rect;
      });
  video_context.on<&Context::VideoProcessorSetStreamDestRect>(
      [=, this](ID3D11VideoProcessor*, UINT stream, WINBOOL enable, const RECT* rect) {
        check_stream(stream);
        if (enable) dest_rect = *rect;
      });
  video_context.on<&Context::VideoProcessorSetOutputTargetRect>(
      [this](ID3D11VideoProcessor*, WINBOOL enable, const RECT* rect) {
        if (enable) target_rect = *rect;
      });
  video_context.on<&Context::VideoProcessorSetStreamAutoProcessingMode>(
      [=, this](ID3D11VideoProcessor*, UINT stream, WINBOOL enable) {
        check_stream(stream);
        auto_processing = enable;
      });
  video_context.on<&Context::VideoProcessorBlt>([this](ID3D11VideoProcessor*,
                                                       ID3D11VideoProcessorOutputView* view,
                                                       UINT output_frame, UINT count,
                                                       const D3D11_VIDEO_PROCESSOR_STREAM* stream) {
    if (output_frame != 0) stage.violation("VideoProcessorBlt's output frame");
    blts.push_back({name_of(view), count, stream->Enable != FALSE, name_of(stream->pInputSurface)});
    return S_OK;
  });
}

void FakeDirect3d::make_duplication() {
  duplicate.on<&IDXGIOutputDuplication::GetDesc>(
      [this](DXGI_OUTDUPL_DESC* out) { *out = duplication; });
  duplicate.on<&IDXGIOutputDuplication::AcquireNextFrame>(
      [this](UINT wait_ms, DXGI_OUTDUPL_FRAME_INFO* info, IDXGIResource** out) {
        return acquire(wait_ms, info, out);
      });
  duplicate.on<&IDXGIOutputDuplication::GetFramePointerShape>(
      [this](UINT size, void* buffer, UINT* required, DXGI_OUTDUPL_POINTER_SHAPE_INFO* info) {
        if (!held_texture_) stage.violation("GetFramePointerShape without a frame");
        *required = static_cast<UINT>(held_.shape.size());
        if (size < *required) return DXGI_ERROR_MORE_DATA;
        std::memcpy(buffer, held_.shape.data(), held_.shape.size());
        *info = held_.shape_info;
        return S_OK;
      });
  duplicate.on<&IDXGIOutputDuplication::ReleaseFrame>([this]() -> HRESULT {
    if (!held_texture_) {
      stage.violation("ReleaseFrame without a frame");
      return DXGI_ERROR_INVALID_CALL;
    }
    if (held_texture_->references() != 0 || held_resource_->references() != 0)
      stage.violation("ReleaseFrame while its texture is in use");
    held_texture_ = held_resource_ = nullptr;
    return S_OK;
  });
}

HRESULT FakeDirect3d::acquire(UINT wait_ms, DXGI_OUTDUPL_FRAME_INFO* info, IDXGIResource** out) {
  waits_ms.push_back(wait_ms);
  *out = nullptr;
  if (held_texture_) {
    stage.violation("AcquireNextFrame while a frame is held");
    return DXGI_ERROR_INVALID_CALL;
  }
  if (frames.empty()) {
    if (on_wait) on_wait(wait_ms);
    return DXGI_ERROR_WAIT_TIMEOUT;
  }
  held_ = frames.front();
  frames.pop_front();
  if (FAILED(held_.result)) return held_.result;
  *info = {};
  info->LastPresentTime.QuadPart = held_.present_ticks;
  info->AccumulatedFrames = held_.accumulated;
  info->LastMouseUpdateTime.QuadPart = held_.mouse_ticks;
  info->PointerPosition.Visible = held_.visible;
  info->PointerPosition.Position = held_.position;
  info->PointerShapeBufferSize = static_cast<UINT>(held_.shape.size());
  D3D11_TEXTURE2D_DESC description{};
  description.Width = held_.width;
  description.Height = held_.height;
  description.ArraySize = 1;
  description.Format = held_.format;
  held_texture_ = &make_texture("desktop", description);
  held_resource_ = &stage.make<IDXGIResource>("frame");
  held_resource_->answer<ID3D11Texture2D>(*held_texture_);
  return held_resource_->give(out);
}
