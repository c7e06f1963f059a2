#include "streams/windows/wic.h"

Wic::Wic() {
  CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&factory_));
}

bool copy_source(IWICBitmapSource* source, Image* out) {
  ComPtr<IWICBitmapSource> converted;
  UINT width = 0;
  UINT height = 0;
  if (FAILED(WICConvertBitmapSource(GUID_WICPixelFormat32bppBGRA, source, &converted)) ||
      FAILED(converted->GetSize(&width, &height)) || width == 0 || height == 0 ||
      std::uint64_t{width} * height > IMAGE_PIXELS_MAX)
    return false;
  out->width = width;
  out->height = height;
  out->pixels.resize(std::size_t{width} * height * IMAGE_PIXEL_BYTES);
  return SUCCEEDED(converted->CopyPixels(nullptr, width * IMAGE_PIXEL_BYTES,
                                         static_cast<UINT>(out->pixels.size()),
                                         out->pixels.data()));
}
