#include "streams/png_codec.h"

#include <new>

#include "streams/png_claim.h"
#include "streams/windows/wic.h"

namespace {

// Its end, not that of the memory, which grows in larger steps.
bool take_stream(IStream* stream, std::vector<std::uint8_t>* out) {
  ULARGE_INTEGER size{};
  HGLOBAL memory = nullptr;
  if (FAILED(stream->Seek({}, STREAM_SEEK_END, &size)) ||
      FAILED(GetHGlobalFromStream(stream, &memory)))
    return false;
  const auto* bytes = static_cast<const std::uint8_t*>(GlobalLock(memory));
  if (bytes == nullptr) return false;
  out->assign(bytes, bytes + size.QuadPart);
  GlobalUnlock(memory);
  return true;
}

bool write_picture(IWICBitmapFrameEncode* frame, const Image& image) {
  WICPixelFormatGUID format = GUID_WICPixelFormat32bppBGRA;
  return SUCCEEDED(frame->Initialize(nullptr)) &&
         SUCCEEDED(frame->SetSize(image.width, image.height)) &&
         SUCCEEDED(frame->SetPixelFormat(&format)) &&
         IsEqualGUID(format, GUID_WICPixelFormat32bppBGRA) &&
         SUCCEEDED(frame->WritePixels(image.height, image.width * IMAGE_PIXEL_BYTES,
                                      static_cast<UINT>(image.pixels.size()),
                                      const_cast<BYTE*>(image.pixels.data()))) &&
         SUCCEEDED(frame->Commit());
}

}  // namespace

bool encode_png(const Image& image, std::vector<std::uint8_t>* png) try {
  const Wic wic;
  ComPtr<IStream> stream;
  ComPtr<IWICBitmapEncoder> encoder;
  ComPtr<IWICBitmapFrameEncode> frame;
  return wic && SUCCEEDED(CreateStreamOnHGlobal(nullptr, TRUE, &stream)) &&
         SUCCEEDED(wic->CreateEncoder(GUID_ContainerFormatPng, nullptr, &encoder)) &&
         SUCCEEDED(encoder->Initialize(stream.Get(), WICBitmapEncoderNoCache)) &&
         SUCCEEDED(encoder->CreateNewFrame(&frame, nullptr)) && write_picture(frame.Get(), image) &&
         SUCCEEDED(encoder->Commit()) && take_stream(stream.Get(), png);
} catch (const std::bad_alloc&) {
  return false;
}

// The component picks a decoder by the file's beginning; only PNG's gets to see any.
bool decode_png(std::span<const std::uint8_t> png, Image* out) try {
  if (!png_claim_is_possible(png)) return false;
  const Wic wic;
  ComPtr<IWICStream> stream;
  ComPtr<IWICBitmapDecoder> decoder;
  ComPtr<IWICBitmapFrameDecode> frame;
  return wic && SUCCEEDED(wic->CreateStream(&stream)) &&
         SUCCEEDED(stream->InitializeFromMemory(const_cast<BYTE*>(png.data()),
                                                static_cast<DWORD>(png.size()))) &&
         SUCCEEDED(wic->CreateDecoderFromStream(stream.Get(), nullptr,
                                                WICDecodeMetadataCacheOnDemand, &decoder)) &&
         SUCCEEDED(decoder->GetFrame(0, &frame)) && copy_source(frame.Get(), out);
} catch (const std::bad_alloc&) {
  return false;
}
