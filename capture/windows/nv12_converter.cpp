#include "capture/windows/nv12_converter.h"

#include "control/log.h"

namespace {

constexpr UINT ONLY_STREAM = 0;
constexpr UINT FIRST_RATE_CONVERSION = 0;  // there is one at least; rates are the same here

D3D11_TEXTURE2D_DESC description_of(ID3D11Texture2D* texture) {
  D3D11_TEXTURE2D_DESC description{};
  texture->GetDesc(&description);
  return description;
}

RECT whole(Nv12Converter::Size size) {
  return {0, 0, static_cast<LONG>(size.width), static_cast<LONG>(size.height)};
}

}  // namespace

void Nv12Converter::close() {
  ready_ = false;
  output_views_.clear();
  input_view_.Reset();
  processor_.Reset();
  enumerator_.Reset();
  video_context_.Reset();
  video_device_.Reset();
}

bool Nv12Converter::open(const DisplayDevice& device, ID3D11Texture2D* source, Size encoded,
                         UINT fps) {
  close();
  const D3D11_TEXTURE2D_DESC captured = description_of(source);
  const Size from{captured.Width, captured.Height};
  const char* operation = nullptr;
  const HRESULT result = create(device, source, from, encoded, fps, &operation);
  ready_ = SUCCEEDED(result);
  if (ready_) {
    configure(from, encoded);
  } else {
    log_video_failure(operation, result);
  }
  hlog("video: converter %ux%u (format %d) -> NV12 %dx%d BT.709 full range: %s", from.width,
       from.height, static_cast<int>(captured.Format), static_cast<int>(encoded.width),
       static_cast<int>(encoded.height), ready_ ? "ok" : "FAILED");
  return ready_;
}

// Says in *operation what it was doing when it failed.
HRESULT Nv12Converter::create(const DisplayDevice& device, ID3D11Texture2D* source, Size from,
                              Size to, UINT fps, const char** operation) {
  *operation = "video device/context";
  HRESULT result = device.device.As(&video_device_);
  if (SUCCEEDED(result)) result = device.context.As(&video_context_);
  if (FAILED(result)) return result;

  *operation = "CreateVideoProcessorEnumerator";
  const D3D11_VIDEO_PROCESSOR_CONTENT_DESC content{D3D11_VIDEO_FRAME_FORMAT_PROGRESSIVE,
                                                   {fps, 1},
                                                   from.width,
                                                   from.height,
                                                   {fps, 1},
                                                   to.width,
                                                   to.height,
                                                   D3D11_VIDEO_USAGE_OPTIMAL_SPEED};
  result = video_device_->CreateVideoProcessorEnumerator(&content, &enumerator_);
  if (FAILED(result)) return result;

  *operation = "NV12 output support";
  UINT support = 0;
  if (FAILED(enumerator_->CheckVideoProcessorFormat(DXGI_FORMAT_NV12, &support)) ||
      !(support & D3D11_VIDEO_PROCESSOR_FORMAT_SUPPORT_OUTPUT)) {
    return E_FAIL;
  }

  *operation = "CreateVideoProcessor";
  result =
      video_device_->CreateVideoProcessor(enumerator_.Get(), FIRST_RATE_CONVERSION, &processor_);
  if (FAILED(result)) return result;

  *operation = "CreateVideoProcessorInputView";
  D3D11_VIDEO_PROCESSOR_INPUT_VIEW_DESC view{};  // mip 0, slice 0
  view.ViewDimension = D3D11_VPIV_DIMENSION_TEXTURE2D;
  return video_device_->CreateVideoProcessorInputView(source, enumerator_.Get(), &view,
                                                      &input_view_);
}

void Nv12Converter::configure(Size from, Size to) {
  set_colours();
  ID3D11VideoProcessor* processor = processor_.Get();
  const RECT source = whole(from);
  const RECT target = whole(to);
  video_context_->VideoProcessorSetStreamFrameFormat(processor, ONLY_STREAM,
                                                     D3D11_VIDEO_FRAME_FORMAT_PROGRESSIVE);
  video_context_->VideoProcessorSetStreamSourceRect(processor, ONLY_STREAM, TRUE, &source);
  video_context_->VideoProcessorSetStreamDestRect(processor, ONLY_STREAM, TRUE, &target);
  video_context_->VideoProcessorSetOutputTargetRect(processor, TRUE, &target);
  // Drivers would otherwise sharpen and remove noise as they see fit.
  video_context_->VideoProcessorSetStreamAutoProcessingMode(processor, ONLY_STREAM, FALSE);
}

void Nv12Converter::set_colours() {
  ComPtr<ID3D11VideoContext1> newer;
  if (SUCCEEDED(video_context_.As(&newer))) {
    newer->VideoProcessorSetStreamColorSpace1(processor_.Get(), ONLY_STREAM,
                                              DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709);
    newer->VideoProcessorSetOutputColorSpace1(processor_.Get(),
                                              DXGI_COLOR_SPACE_YCBCR_FULL_G22_LEFT_P709);
    return;
  }
  constexpr UINT BT709 = 1;     // of YCbCr_Matrix
  constexpr UINT FULL_RGB = 0;  // of RGB_Range: 0 to 255
  D3D11_VIDEO_PROCESSOR_COLOR_SPACE stream{};
  stream.RGB_Range = FULL_RGB;
  stream.YCbCr_Matrix = BT709;
  video_context_->VideoProcessorSetStreamColorSpace(processor_.Get(), ONLY_STREAM, &stream);
  D3D11_VIDEO_PROCESSOR_COLOR_SPACE output{};
  output.YCbCr_Matrix = BT709;
  output.Nominal_Range = D3D11_VIDEO_PROCESSOR_NOMINAL_RANGE_0_255;
  video_context_->VideoProcessorSetOutputColorSpace(processor_.Get(), &output);
}

ID3D11VideoProcessorOutputView* Nv12Converter::view_of(const EncoderSurface& surface) {
  const std::pair key{surface.texture, surface.subresource};
  if (const auto found = output_views_.find(key); found != output_views_.end())
    return found->second.Get();
  auto* texture = static_cast<ID3D11Texture2D*>(surface.texture);
  D3D11_VIDEO_PROCESSOR_OUTPUT_VIEW_DESC view{};  // mip 0
  if (description_of(texture).ArraySize == 1) {
    view.ViewDimension = D3D11_VPOV_DIMENSION_TEXTURE2D;
  } else {
    view.ViewDimension = D3D11_VPOV_DIMENSION_TEXTURE2DARRAY;
    view.Texture2DArray.FirstArraySlice = surface.subresource;
    view.Texture2DArray.ArraySize = 1;
  }
  ComPtr<ID3D11VideoProcessorOutputView> made;
  const HRESULT result =
      video_device_->CreateVideoProcessorOutputView(texture, enumerator_.Get(), &view, &made);
  if (FAILED(result)) {
    log_video_failure("CreateVideoProcessorOutputView", result);
    return nullptr;
  }
  return output_views_.emplace(key, std::move(made)).first->second.Get();
}

bool Nv12Converter::draw(const EncoderSurface& surface) {
  if (!ready_) return false;
  ID3D11VideoProcessorOutputView* view = view_of(surface);
  if (!view) return false;
  D3D11_VIDEO_PROCESSOR_STREAM stream{};
  stream.Enable = TRUE;
  stream.pInputSurface = input_view_.Get();
  const HRESULT result = video_context_->VideoProcessorBlt(processor_.Get(), view, 0, 1, &stream);
  if (FAILED(result)) log_video_failure("VideoProcessorBlt", result);
  return SUCCEEDED(result);
}
