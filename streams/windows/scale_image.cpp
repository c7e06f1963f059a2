// By the component's Fant scaler, on colours multiplied by their alpha: an average of straight ones
// would let the colour of what is transparent bleed into edges.
#include <new>

#include "streams/png_codec.h"
#include "streams/windows/wic.h"

bool scale_image(const Image& source, std::uint32_t width, std::uint32_t height, Image* out) try {
  const Wic wic;
  ComPtr<IWICBitmap> bitmap;
  ComPtr<IWICBitmapSource> multiplied;
  ComPtr<IWICBitmapScaler> scaler;
  return wic &&
         SUCCEEDED(wic->CreateBitmapFromMemory(
             source.width, source.height, GUID_WICPixelFormat32bppBGRA,
             source.width * IMAGE_PIXEL_BYTES, static_cast<UINT>(source.pixels.size()),
             const_cast<BYTE*>(source.pixels.data()), &bitmap)) &&
         SUCCEEDED(
             WICConvertBitmapSource(GUID_WICPixelFormat32bppPBGRA, bitmap.Get(), &multiplied)) &&
         SUCCEEDED(wic->CreateBitmapScaler(&scaler)) &&
         SUCCEEDED(
             scaler->Initialize(multiplied.Get(), width, height, WICBitmapInterpolationModeFant)) &&
         copy_source(scaler.Get(), out);
} catch (const std::bad_alloc&) {
  return false;
}
